#include "core/power_state.hpp"

#include <gtest/gtest.h>

#include <optional>

namespace quorel {
namespace {

TEST(PowerStateTest, DisplayPercentPrefersTheSystemFigure) {
  PowerState s;
  s.batteryPercentage = 71.6;
  EXPECT_EQ(s.displayPercent(), 72);
  // The operating system's figure wins even when the capacities say otherwise.
  s.iopsPercent = 69;
  EXPECT_EQ(s.displayPercent(), 69);
  s.iopsPercent = 0;
  EXPECT_EQ(s.displayPercent(), 0);
}

TEST(PowerStateTest, DisplayPercentRoundsToNearest) {
  PowerState s;
  s.batteryPercentage = 71.4;
  EXPECT_EQ(s.displayPercent(), 71);
  s.batteryPercentage = 79.5;
  EXPECT_EQ(s.displayPercent(), 80);
  s.batteryPercentage = 99.99;
  EXPECT_EQ(s.displayPercent(), 100);
}

TEST(PowerStateTest, ConsumptionFromInputTelemetryNeverGoesNegative) {
  PowerState s;
  s.externalConnected = true;
  s.systemPowerIn_W = 60;
  s.smoothedWattage = 45;  // 45 W of the 60 W into the battery
  EXPECT_EQ(s.systemConsumption_W(), 15.0);
  s.smoothedWattage = -5;  // the battery helps: the machine draws more than comes in
  EXPECT_EQ(s.systemConsumption_W(), 65.0);
  s.smoothedWattage = 70;  // charging faster than the input reading, a timing artefact
  EXPECT_EQ(s.systemConsumption_W(), 0.0);
}

TEST(PowerStateTest, ConsumptionOnBatteryIsTheDrain) {
  PowerState s;
  s.externalConnected = false;
  s.smoothedWattage = -18;
  EXPECT_EQ(s.systemConsumption_W(), 18.0);
  s.smoothedWattage = 0;
  EXPECT_EQ(s.systemConsumption_W(), 0.0);
  // A positive reading on battery is noise, not negative consumption.
  s.smoothedWattage = 2;
  EXPECT_EQ(s.systemConsumption_W(), 0.0);
  // Input telemetry, when present, decides even on battery.
  s.systemPowerIn_W = 0;
  s.smoothedWattage = -18;
  EXPECT_EQ(s.systemConsumption_W(), 18.0);
}

TEST(PowerStateTest, ConsumptionUnknownOnExternalPowerWithoutInputTelemetry) {
  PowerState s;
  s.externalConnected = true;
  s.smoothedWattage = -3;
  EXPECT_EQ(s.systemConsumption_W(), std::nullopt);
}

}  // namespace
}  // namespace quorel
