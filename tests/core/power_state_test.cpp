#include "core/power_state.hpp"

#include <gtest/gtest.h>

#include <optional>

namespace quorel {
namespace {

TEST(PowerStateTest, DisplayPercentPrefersTheSystemFigureElseRoundsToNearest) {
  struct Case {
    double batteryPercentage;
    std::optional<std::int64_t> iopsPercent;
    std::int64_t expected;
  };
  const Case cases[] = {
      {71.4, std::nullopt, 71},
      {71.6, std::nullopt, 72},
      {79.5, std::nullopt, 80},
      {99.99, std::nullopt, 100},
      // The operating system's figure wins even when the capacities say otherwise, 0 included.
      {71.6, 69, 69},
      {71.6, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.batteryPercentage << " / " << c.iopsPercent.value_or(-1));
    PowerState s;
    s.batteryPercentage = c.batteryPercentage;
    s.iopsPercent = c.iopsPercent;
    EXPECT_EQ(s.displayPercent(), c.expected);
  }
}

TEST(PowerStateTest, ConsumptionNeverGoesNegativeAndIsUnknownOnAdapterWithoutInput) {
  struct Case {
    const char* name;
    bool externalConnected;
    std::optional<double> powerIn_W;
    double smoothed_W;
    std::optional<double> expected_W;
  };
  const Case cases[] = {
      {"45 W of the 60 W into the battery", true, 60, 45, 15},
      {"the battery helps the adapter", true, 60, -5, 65},
      {"charging faster than the input reading, a timing artefact", true, 60, 70, 0},
      {"on battery the drain", false, std::nullopt, -18, 18},
      {"idle on battery", false, std::nullopt, 0, 0},
      {"a positive reading on battery is noise", false, std::nullopt, 2, 0},
      {"input telemetry decides even on battery", false, 0, -18, 18},
      {"adapter without input telemetry", true, std::nullopt, -3, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PowerState s;
    s.externalConnected = c.externalConnected;
    s.systemPowerIn_W = c.powerIn_W;
    s.smoothedWattage = c.smoothed_W;
    EXPECT_EQ(s.systemConsumption_W(), c.expected_W);
  }
}

}  // namespace
}  // namespace quorel
