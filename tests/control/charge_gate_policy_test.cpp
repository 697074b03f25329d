#include "control/charge_gate_policy.hpp"

#include <gtest/gtest.h>

namespace quorel {
namespace {

using ChargeGatePolicy::Action;

TEST(ChargeGatePolicyTest, DecidesInOrderWithHysteresis) {
  struct Case {
    std::int64_t target;
    std::optional<std::int64_t> capacity;
    std::int64_t band;
    std::optional<bool> external;
    Action expected;
  };
  const Case cases[] = {
      {80, 80, 5, true, Action::pause},
      {80, 79, 5, true, Action::hold},
      {80, 75, 5, true, Action::hold},
      {80, 74, 5, true, Action::resume},
      {80, 90, 5, false, Action::hold},
      {80, 90, 5, std::nullopt, Action::hold},
      {80, std::nullopt, 5, true, Action::hold},
      {100, std::nullopt, 5, false, Action::allowCharging},
      {3, 2, 5, true, Action::hold},
      {3, 0, 5, true, Action::hold},
      {80, 50, -1, true, Action::hold},
      {101, 50, 5, true, Action::hold},
      {-1, 50, 5, true, Action::hold},
      {80, -3, 5, true, Action::hold},
      {60, 59, 0, true, Action::resume},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ChargeGatePolicy::action(c.target, c.capacity, c.band, c.external), c.expected)
        << "target " << c.target << " capacity " << c.capacity.value_or(-99) << " band " << c.band;
  }
}

TEST(ChargeGatePolicyTest, PausesBeforeSleepOnlyUnderACeilingWithNobodyWatching) {
  EXPECT_FALSE(ChargeGatePolicy::shouldPauseBeforeSleep(80, true, false));
  EXPECT_TRUE(ChargeGatePolicy::shouldPauseBeforeSleep(80, true, true));
  EXPECT_TRUE(ChargeGatePolicy::shouldPauseBeforeSleep(80, std::nullopt, false));
  for (std::optional<bool> external :
       {std::optional<bool>(true), std::optional<bool>(false), std::optional<bool>()}) {
    EXPECT_FALSE(ChargeGatePolicy::shouldPauseBeforeSleep(100, external, true));
  }
}

}  // namespace
}  // namespace quorel
