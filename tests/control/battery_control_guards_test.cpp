#include "control/battery_control_guards.hpp"

#include <gtest/gtest.h>

namespace quorel {
namespace {

using namespace BatteryControlGuards;

constexpr const char* kAttach = "Attach an external display to discharge with the lid closed.";
constexpr const char* kClamshell = "Discharge is unavailable in clamshell mode (lid closed).";
constexpr const char* kConnectAC =
    "Connect AC to discharge \u2014 the battery is already draining on battery power.";

TEST(BatteryControlGuardsTest, ChargeLimitBoundsAreInclusive) {
  const auto refusal = GuardResult::refuse("Charge limit must be between 20 and 100 percent.");
  for (const auto& [percent, allowed] :
       {std::pair{19, false}, {101, false}, {0, false}, {20, true}, {100, true}}) {
    EXPECT_EQ(canSetChargeLimit(percent), allowed ? GuardResult::allow() : refusal) << percent;
  }
}

TEST(BatteryControlGuardsTest, ForceDischargeFirstMatchDecides) {
  // On AC, lid open, 90 % over an 80 % limit: allowed. Each case changes what it names.
  const ForceDischargeInputs base{.isOnExternalPower = true, .capacity = 90, .limit = 80};
  const struct {
    const char* what;
    ForceDischargeInputs in;
    std::optional<std::string> refusal;
  } cases[] = {
      {"plain start", base, std::nullopt},
      {"one percent above the limit",
       {.isOnExternalPower = true, .capacity = 81, .limit = 80},
       std::nullopt},
      {"exactly at the limit",
       {.isOnExternalPower = true, .capacity = 80, .limit = 80},
       "Battery is already at or below the 80% limit."},
      {"active discharge passes on battery with the lid closed",
       {.isDischargeActive = true, .isLidClosed = true, .capacity = std::nullopt},
       std::nullopt},
      {"lid closed, experimental on, no display",
       {.isLidClosed = true,
        .isOnExternalPower = true,
        .capacity = 90,
        .experimentalClamshellEnabled = true},
       kAttach},
      {"lid closed, experimental off, with a display",
       {.isLidClosed = true, .isOnExternalPower = true, .capacity = 90, .hasExternalDisplay = true},
       kClamshell},
      {"lid closed, experimental on, with a display",
       {.isLidClosed = true,
        .isOnExternalPower = true,
        .capacity = 90,
        .hasExternalDisplay = true,
        .experimentalClamshellEnabled = true},
       std::nullopt},
      {"lid refusal comes before the power test",
       {.isLidClosed = true, .capacity = 90},
       kClamshell},
      {"on battery", {.capacity = 90}, kConnectAC},
      {"top-up in flight",
       {.isOnExternalPower = true, .isTopUpInFlight = true, .capacity = 90},
       "Top-up is in flight \u2014 wait for it to finish before discharging."},
      {"unknown level",
       {.isOnExternalPower = true, .capacity = std::nullopt},
       "Battery level unknown."},
  };
  for (const auto& c : cases) {
    const auto result = canForceDischarge(c.in);
    EXPECT_EQ(result.allowed, !c.refusal.has_value()) << c.what;
    EXPECT_EQ(result.reason, c.refusal) << c.what;
  }
}

TEST(BatteryControlGuardsTest, TopUpFirstMatchDecides) {
  const struct {
    const char* what;
    TopUpInputs in;
    std::optional<std::string> refusal;
  } cases[] = {
      {"on AC under an 80 % limit", {.isOnExternalPower = true, .capacity = 70}, std::nullopt},
      {"in flight beats everything",
       {.isTopUpInFlight = true, .isTopUpAlreadyFilling = true, .capacity = 100},
       "Top-up already in progress."},
      {"already filling",
       {.isTopUpAlreadyFilling = true, .isOnExternalPower = true},
       "Already charging to full."},
      {"on battery", {.capacity = 50}, "Connect AC to top up."},
      {"during a discharge the adapter reads as off and the 100 % limit is no obstacle",
       {.isDischargeActive = true, .capacity = 60, .limit = 100},
       std::nullopt},
      {"full", {.isOnExternalPower = true, .capacity = 100}, "Battery is already at 100%."},
      {"unknown level is not full",
       {.isOnExternalPower = true, .capacity = std::nullopt},
       std::nullopt},
      {"nothing to release",
       {.isOnExternalPower = true, .capacity = 99, .limit = 100},
       "Charge limit is already 100% \u2014 nothing to release."},
  };
  for (const auto& c : cases) {
    const auto result = canTopUp(c.in);
    EXPECT_EQ(result.allowed, !c.refusal.has_value()) << c.what;
    EXPECT_EQ(result.reason, c.refusal) << c.what;
  }
}

}  // namespace
}  // namespace quorel
