#include "telemetry/power_state_json.hpp"

#include <gtest/gtest.h>

#include <limits>

namespace quorel {
namespace {

TEST(PowerStateJsonTest, ComputedValuesNullsAndNestedRecords) {
  PowerState s;
  s.smoothedWattage = -18.0;
  s.batteryPercentage = 71.6;
  s.batteryInstalled = true;
  s.phase = PowerPhase::draining;
  s.timestamp = fromUnixSeconds(1'800'000'000.25);
  auto j = toJson(s);

  EXPECT_EQ(j["phase"], "draining");
  EXPECT_EQ(j["phaseLabel"], "On Battery");
  EXPECT_EQ(j["timestamp"], "2027-01-15T08:00:00.250Z");
  EXPECT_EQ(j["displayPercent"], 72);
  EXPECT_DOUBLE_EQ(j["systemConsumption_W"].get<double>(), 18.0);
  EXPECT_EQ(j["thermalState"], "nominal");

  // Nested records, and a figure that is not finite.
  s.componentPower = ComponentPower{3, 4, 6, 0.5, 4.5, true};
  s.systemPowerRails = SystemPowerRails{18.0, 18.0, std::nullopt, 0.0, 0.0, 0.4};
  s.connectionType = ConnectionType::thunderbolt4;
  s.smoothedWattage = std::numeric_limits<double>::quiet_NaN();
  BatteryDiagnostics d;
  d.cellHealth = CellHealth{{4.933}, {45}, {2700}};
  s.diagnostics = d;
  j = toJson(s);
  EXPECT_DOUBLE_EQ(j["componentPower"]["gpuWatts"].get<double>(), 6.0);
  EXPECT_TRUE(j["systemPowerRails"]["dcInWatts"].is_null());
  EXPECT_EQ(j["connectionType"], "thunderbolt4");
  EXPECT_TRUE(j["smoothedWattage"].is_null()) << "JSON cannot carry NaN";
  // The line must survive a round trip through a strict parser.
  const auto reparsed = nlohmann::json::parse(j.dump());
  EXPECT_EQ(reparsed["componentPower"]["dramWatts"], 4.5);
}

}  // namespace
}  // namespace quorel
