#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "core/component_power.hpp"
#include "core/power_phase.hpp"
#include "core/power_state.hpp"

namespace quorel {
namespace {

TEST(PowerPhaseTest, FirstRuleThatFiresDecides) {
  using P = PowerPhase;
  using T = ThermalState;
  constexpr std::int64_t kLimitBit55 = 0x80000000000000;  // firmware that reports the limit there
  enum Flags : unsigned { kCharging = 1, kFull = 2, kUnplugged = 4, kNoBattery = 8 };
  struct Case {
    const char* name;
    PowerPhase expected;
    double watts;
    unsigned flags = 0;
    double awake_s = 100;
    ThermalState thermal = T::nominal;
    std::optional<std::int64_t> reason = {};
  };
  const Case cases[] = {
      {"no battery outranks every flag", P::noBattery, 40, kCharging | kFull | kNoBattery},
      // Flags a confused gauge might still report must not make an unplugged machine charging.
      {"unplugged, flags raised", P::draining, 40, kCharging | kFull | kUnplugged},
      {"unplugged right after wake", P::draining, -12, kCharging | kFull | kUnplugged, 1},
      {"full, drawn on right after wake", P::bootSurge, -3, kFull, 10},
      {"full, drawn on later", P::full, -3, kFull, 20},
      {"full at 15 s awake: strict", P::full, -3, kFull, 15},
      {"full at -0.5 W: strict", P::full, -0.5, kFull, 1},
      {"full just inside both thresholds", P::bootSurge, -0.51, kFull, 14.9},
      {"the full flag outranks charging", P::full, 20, kCharging | kFull},
      {"charging flag, drawing", P::supplementing, -1, kCharging},
      {"charging flag at -0.5 W", P::trickleCharge, -0.5, kCharging},
      {"charging flag at 4.99 W", P::trickleCharge, 4.99, kCharging},
      {"charging flag at 5 W", P::charging, 5, kCharging},
      {"6 W in without the flag", P::charging, 6},
      {"5 W in without the flag", P::charging, 5},
      {"6 W in with every hold signal", P::charging, 6, 0, 100, T::critical, 0x3},
      {"4.9 W in: the hold rules decide", P::thermalHold, 4.9, 0, 100, T::nominal, 0x3},
      {"no reason at all", P::onHold, 0},
      {"drawing from the pack on the adapter", P::onHold, -4},
      {"optimised charging is a plain hold", P::onHold, 0, 0, 100, T::nominal, 0x8},
      {"charge limit", P::chargeLimitHold, 0, 0, 100, T::nominal, 0x1},
      {"charge limit on bit 55", P::chargeLimitHold, 0, 0, 100, T::nominal, kLimitBit55},
      {"bit 55 beside optimised charging", P::chargeLimitHold, 0, 0, 100, T::nominal,
       0x8 | kLimitBit55},
      {"the thermal bit outranks the limit", P::thermalHold, 0, 0, 100, T::nominal, 0x1 | 0x2},
      {"serious outranks the limit", P::thermalHold, 0, 0, 100, T::serious, 0x1},
      {"fair is no reason to hold", P::chargeLimitHold, 0, 0, 100, T::fair, 0x1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PowerSnapshot s;
    s.batteryInstalled = (c.flags & kNoBattery) == 0;
    s.externalConnected = (c.flags & kUnplugged) == 0;
    s.isCharging = (c.flags & kCharging) != 0;
    s.fullyCharged = (c.flags & kFull) != 0;
    s.notChargingReason = c.reason;
    EXPECT_EQ(phaseFrom(s, c.watts, PowerPhaseDetectionContext{c.thermal, c.awake_s}), c.expected);
  }
}

TEST(PowerStateTest, DisplayPercentPrefersTheSystemFigureElseRoundsToNearest) {
  struct Case {
    double batteryPercentage;
    std::optional<std::int64_t> iopsPercent;
    std::int64_t expected;
  };
  const Case cases[] = {
      // The operating system's figure wins even when the capacities say otherwise, 0 included.
      {71.4, std::nullopt, 71},   {71.6, std::nullopt, 72}, {79.5, std::nullopt, 80},
      {99.99, std::nullopt, 100}, {71.6, 69, 69},           {71.6, 0, 0}};
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

ComponentPower reading(double ecpu, double pcpu, double gpu, double ane, double dram,
                       bool cpuAndMemory = true) {
  return ComponentPower{ecpu, pcpu, gpu, ane, dram, cpuAndMemory};
}

const std::string kUnavailable = "IOReport component telemetry unavailable";
const std::string kNonFinite = "non-finite or negative component rail";
const std::string kBounds = "component aggregate exceeds physical rail bounds";
const std::string kWholeSystem = "component aggregate exceeds whole-system consumption";
const std::string kStalled = "CPU and DRAM energy counters stalled";

TEST(ComponentPowerValidatorTest, RulesApplyInOrderAndEveryBoundIsInclusive) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const auto big = reading(10, 20, 30, 5, 10);  // 75 W
  struct Case {
    const char* name;
    ComponentPower reading;
    std::optional<double> systemConsumption_W;
    std::optional<std::string> rejection;  // none: measured and kept
  };
  const Case cases[] = {
      {"idle zeros are legitimate", reading(0, 0, 0, 0, 0), std::nullopt, std::nullopt},
      {"plausible", reading(1.2, 4.0, 6.0, 0.5, 4.5), 18.0, std::nullopt},
      {"NaN rail", reading(nan, 1, 1, 1, 1), std::nullopt, kNonFinite},
      {"negative rail", reading(1, 1, 1, 1, -0.01), std::nullopt, kNonFinite},
      {"the rail rule comes before the stall", reading(0, 0, -1, 0, 0, false), 5.0, kNonFinite},
      {"E-cores at 30 W", reading(30, 0, 0, 0, 0), std::nullopt, std::nullopt},
      {"E-cores over 30 W", reading(30.1, 0, 0, 0, 0), std::nullopt, kBounds},
      {"DRAM at 35 W", reading(0, 0, 0, 0, 35), std::nullopt, std::nullopt},
      {"DRAM over 35 W", reading(0, 0, 0, 0, 35.1), std::nullopt, kBounds},
      {"150 W in all, each rail within bounds", reading(25, 40, 60, 10, 15), std::nullopt,
       std::nullopt},
      {"150.5 W in all", reading(25, 40, 60, 10, 15.5), std::nullopt, kBounds},
      {"9 W against 2 W: under the 10 W floor", reading(2, 2, 2, 1, 2), 2.0, std::nullopt},
      {"11 W against 2 W: over the floor", reading(2, 2, 3, 1, 3), 2.0, kWholeSystem},
      {"27 W against 20 W: within 1.35 times", reading(3, 10, 10, 1, 3), 20.0, std::nullopt},
      {"27.5 W against 20 W", reading(3, 10, 10, 1, 3.5), 20.0, kWholeSystem},
      {"consumption below 1 W is not believed", big, 0.5, std::nullopt},
      {"no consumption figure", big, std::nullopt, std::nullopt},
      {"NaN consumption", big, nan, std::nullopt},
      {"1 W is the first figure compared against", big, 1.0, kWholeSystem},
      {"plausibility applies to a stalled reading", reading(0, 0, 95, 0, 0, false), 18.0, kBounds},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto v = ComponentPowerValidator::validate(c.reading, c.systemConsumption_W);
    if (c.rejection) {
      EXPECT_EQ(v.value, std::nullopt);
      EXPECT_EQ(v.quality, HistoricalValueQuality::rejected);
    } else {
      EXPECT_EQ(v.value, c.reading);
      EXPECT_EQ(v.quality, HistoricalValueQuality::measured);
    }
    EXPECT_EQ(v.rejectionReason, c.rejection);
  }
}

TEST(ComponentPowerValidatorTest, NothingReadOrStalledCountersAreUnavailable) {
  auto v = ComponentPowerValidator::validate(std::nullopt, 12.0);
  EXPECT_EQ(v.value, std::nullopt);
  EXPECT_EQ(v.quality, HistoricalValueQuality::unavailable);
  EXPECT_EQ(v.rejectionReason, kUnavailable);

  // A stalled reading that passes the rules keeps its value for the rails that still count.
  const auto stalled = reading(0, 0, 6, 0.5, 0, false);
  v = ComponentPowerValidator::validate(stalled, 18.0);
  EXPECT_EQ(v.value, stalled);
  EXPECT_EQ(v.quality, HistoricalValueQuality::unavailable);
  EXPECT_EQ(v.rejectionReason, kStalled);
}

}  // namespace
}  // namespace quorel
