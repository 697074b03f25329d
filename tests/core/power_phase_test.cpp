#include "core/power_phase.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>

namespace quorel {
namespace {

// A machine on external power, not charging, not full: the state in which the hold rules decide.
PowerSnapshot pluggedIdle() {
  PowerSnapshot s;
  s.batteryInstalled = true;
  s.externalConnected = true;
  return s;
}

PowerPhaseDetectionContext awakeFor(double seconds, ThermalState t = ThermalState::nominal) {
  return PowerPhaseDetectionContext{t, seconds};
}

TEST(PowerPhaseTest, LabelsAndNamesFollowTheCaseOrder) {
  const char* labels[] = {"On Battery", "Charging",     "Plugged In",   "Fully Charged",
                          "On Hold",    "Charge Limit", "Thermal Hold", "Supplementing",
                          "Boot Surge", "No Battery"};
  const char* names[] = {"draining",  "charging",        "trickleCharge", "full",
                         "onHold",    "chargeLimitHold", "thermalHold",   "supplementing",
                         "bootSurge", "noBattery"};
  for (int tag = 0; tag < 10; ++tag) {
    const auto phase = static_cast<PowerPhase>(tag);
    EXPECT_EQ(label(phase), labels[tag]) << "tag " << tag;
    EXPECT_EQ(toString(phase), names[tag]) << "tag " << tag;
  }
}

TEST(PowerPhaseTest, NoBatteryAndUnpluggedDecideBeforeAnythingElse) {
  PowerSnapshot s = pluggedIdle();
  s.batteryInstalled = false;
  s.isCharging = true;
  s.fullyCharged = true;
  EXPECT_EQ(phaseFrom(s, 40, awakeFor(100)), PowerPhase::noBattery);

  s.batteryInstalled = true;
  s.externalConnected = false;
  // Flags a confused gauge might still report must not make an unplugged machine "charging".
  EXPECT_EQ(phaseFrom(s, 40, awakeFor(100)), PowerPhase::draining);
  EXPECT_EQ(phaseFrom(s, -12, awakeFor(1)), PowerPhase::draining);
}

TEST(PowerPhaseTest, FullPackDrawnOnRightAfterWakeIsABootSurge) {
  PowerSnapshot s = pluggedIdle();
  s.fullyCharged = true;
  EXPECT_EQ(phaseFrom(s, -3, awakeFor(10)), PowerPhase::bootSurge);
  EXPECT_EQ(phaseFrom(s, -3, awakeFor(20)), PowerPhase::full);
  // Both thresholds are strict.
  EXPECT_EQ(phaseFrom(s, -3, awakeFor(15)), PowerPhase::full);
  EXPECT_EQ(phaseFrom(s, -0.5, awakeFor(1)), PowerPhase::full);
  EXPECT_EQ(phaseFrom(s, -0.51, awakeFor(14.9)), PowerPhase::bootSurge);
  // The full flag outranks the charging branch: a full pack reporting "charging" is full.
  s.isCharging = true;
  EXPECT_EQ(phaseFrom(s, 20, awakeFor(100)), PowerPhase::full);
}

TEST(PowerPhaseTest, ChargingBranchSplitsByWattage) {
  PowerSnapshot s = pluggedIdle();
  s.isCharging = true;
  EXPECT_EQ(phaseFrom(s, -1, awakeFor(100)), PowerPhase::supplementing);
  EXPECT_EQ(phaseFrom(s, -0.5, awakeFor(100)), PowerPhase::trickleCharge);
  EXPECT_EQ(phaseFrom(s, 2, awakeFor(100)), PowerPhase::trickleCharge);
  EXPECT_EQ(phaseFrom(s, 4.99, awakeFor(100)), PowerPhase::trickleCharge);
  EXPECT_EQ(phaseFrom(s, 5.0, awakeFor(100)), PowerPhase::charging);
  EXPECT_EQ(phaseFrom(s, 40, awakeFor(100)), PowerPhase::charging);
}

TEST(PowerPhaseTest, EnergyFlowingInIsChargingWhateverTheFlagSays) {
  PowerSnapshot s = pluggedIdle();
  EXPECT_EQ(phaseFrom(s, 6, awakeFor(100)), PowerPhase::charging);
  EXPECT_EQ(phaseFrom(s, 5.0, awakeFor(100)), PowerPhase::charging);
  // Even with every hold signal raised: the watts say it is charging.
  s.notChargingReason = 0x2 | 0x1;
  EXPECT_EQ(phaseFrom(s, 6, awakeFor(100, ThermalState::critical)), PowerPhase::charging);
  // Just below the threshold the hold rules take over.
  EXPECT_EQ(phaseFrom(s, 4.9, awakeFor(100)), PowerPhase::thermalHold);
}

TEST(PowerPhaseTest, HoldReasonsInPrecedenceOrder) {
  PowerSnapshot s = pluggedIdle();
  const auto nominal = awakeFor(100);

  EXPECT_EQ(phaseFrom(s, 0, nominal), PowerPhase::onHold);  // no reason at all
  s.notChargingReason = 8;  // optimised charging is still a plain hold
  EXPECT_EQ(phaseFrom(s, 0, nominal), PowerPhase::onHold);

  s.notChargingReason = 0x1;
  EXPECT_EQ(phaseFrom(s, 0, nominal), PowerPhase::chargeLimitHold);
  s.notChargingReason = 0x80000000000000;  // the firmware that reports the limit on bit 55
  EXPECT_EQ(phaseFrom(s, 0, nominal), PowerPhase::chargeLimitHold);
  s.notChargingReason = 0x8 | 0x80000000000000;
  EXPECT_EQ(phaseFrom(s, 0, nominal), PowerPhase::chargeLimitHold);

  // Either thermal signal outranks the charge limit.
  s.notChargingReason = 0x1 | 0x2;
  EXPECT_EQ(phaseFrom(s, 0, nominal), PowerPhase::thermalHold);
  s.notChargingReason = 0x1;
  EXPECT_EQ(phaseFrom(s, 0, awakeFor(100, ThermalState::serious)), PowerPhase::thermalHold);
  EXPECT_EQ(phaseFrom(s, 0, awakeFor(100, ThermalState::critical)), PowerPhase::thermalHold);
  // A merely fair thermal state is not a reason to hold.
  EXPECT_EQ(phaseFrom(s, 0, awakeFor(100, ThermalState::fair)), PowerPhase::chargeLimitHold);
  s.notChargingReason.reset();
  EXPECT_EQ(phaseFrom(s, 0, awakeFor(100, ThermalState::fair)), PowerPhase::onHold);
}

TEST(PowerPhaseTest, HoldWhileTheBatteryFeedsTheSystem) {
  // Not charging, drawing from the pack on external power: the hold rules still decide, the
  // supplementing case belongs to the charging branch only.
  PowerSnapshot s = pluggedIdle();
  EXPECT_EQ(phaseFrom(s, -4, awakeFor(100)), PowerPhase::onHold);
}

TEST(PowerSessionModeTest, ClassifiesEveryPhase) {
  const PowerSessionMode expected[] = {
      PowerSessionMode::battery, PowerSessionMode::charging,      PowerSessionMode::charging,
      PowerSessionMode::holding, PowerSessionMode::holding,       PowerSessionMode::holding,
      PowerSessionMode::holding, PowerSessionMode::supplementing, PowerSessionMode::supplementing,
      PowerSessionMode::legacy,
  };
  for (int tag = 0; tag < 10; ++tag) {
    const auto phase = static_cast<PowerPhase>(tag);
    EXPECT_EQ(classifySessionMode(phase, false), expected[tag]) << toString(phase);
    EXPECT_EQ(classifySessionMode(phase, true), PowerSessionMode::forceDischarge)
        << toString(phase);
  }
}

TEST(PowerSessionModeTest, RawTextsRoundTrip) {
  const char* texts[] = {"battery",       "charging",        "holding",
                         "supplementing", "force_discharge", "legacy"};
  for (int tag = 0; tag < 6; ++tag) {
    const auto mode = static_cast<PowerSessionMode>(tag);
    EXPECT_EQ(toString(mode), texts[tag]);
    EXPECT_EQ(powerSessionModeFromString(texts[tag]), mode);
  }
  EXPECT_EQ(powerSessionModeFromString("forceDischarge"), std::nullopt);
  EXPECT_EQ(powerSessionModeFromString(""), std::nullopt);
}

}  // namespace
}  // namespace quorel
