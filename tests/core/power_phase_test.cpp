#include "core/power_phase.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>

namespace quorel {
namespace {

TEST(PowerPhaseTest, FirstRuleThatFiresDecides) {
  using P = PowerPhase;
  using T = ThermalState;
  constexpr std::int64_t kLimitBit55 = 0x80000000000000;  // firmware that reports the limit there
  struct Case {
    const char* name;
    PowerPhase expected;
    double watts;
    double awake_s = 100;
    ThermalState thermal = T::nominal;
    bool charging = false;
    bool full = false;
    std::optional<std::int64_t> notChargingReason = {};
    bool external = true;
    bool installed = true;
  };
  const Case cases[] = {
      {"no battery outranks every flag",
       P::noBattery,
       40,
       100,
       T::nominal,
       true,
       true,
       {},
       true,
       false},
      // Flags a confused gauge might still report must not make an unplugged machine charging.
      {"unplugged, flags raised", P::draining, 40, 100, T::nominal, true, true, {}, false},
      {"unplugged right after wake", P::draining, -12, 1, T::nominal, true, true, {}, false},
      {"full, drawn on right after wake", P::bootSurge, -3, 10, T::nominal, false, true},
      {"full, drawn on later", P::full, -3, 20, T::nominal, false, true},
      {"full at 15 s awake: strict", P::full, -3, 15, T::nominal, false, true},
      {"full at -0.5 W: strict", P::full, -0.5, 1, T::nominal, false, true},
      {"full just inside both thresholds", P::bootSurge, -0.51, 14.9, T::nominal, false, true},
      {"the full flag outranks charging", P::full, 20, 100, T::nominal, true, true},
      {"charging flag, drawing", P::supplementing, -1, 100, T::nominal, true},
      {"charging flag at -0.5 W", P::trickleCharge, -0.5, 100, T::nominal, true},
      {"charging flag at 2 W", P::trickleCharge, 2, 100, T::nominal, true},
      {"charging flag at 4.99 W", P::trickleCharge, 4.99, 100, T::nominal, true},
      {"charging flag at 5 W", P::charging, 5, 100, T::nominal, true},
      {"charging flag at 40 W", P::charging, 40, 100, T::nominal, true},
      {"6 W in without the flag", P::charging, 6},
      {"5 W in without the flag", P::charging, 5},
      {"6 W in with every hold signal", P::charging, 6, 100, T::critical, false, false, 0x3},
      {"4.9 W in: the hold rules decide", P::thermalHold, 4.9, 100, T::nominal, false, false, 0x3},
      {"no reason at all", P::onHold, 0},
      {"drawing from the pack on the adapter", P::onHold, -4},
      {"optimised charging is a plain hold", P::onHold, 0, 100, T::nominal, false, false, 0x8},
      {"charge limit", P::chargeLimitHold, 0, 100, T::nominal, false, false, 0x1},
      {"charge limit on bit 55", P::chargeLimitHold, 0, 100, T::nominal, false, false, kLimitBit55},
      {"bit 55 beside optimised charging", P::chargeLimitHold, 0, 100, T::nominal, false, false,
       0x8 | kLimitBit55},
      {"the thermal bit outranks the limit", P::thermalHold, 0, 100, T::nominal, false, false,
       0x1 | 0x2},
      {"serious outranks the limit", P::thermalHold, 0, 100, T::serious, false, false, 0x1},
      {"critical outranks the limit", P::thermalHold, 0, 100, T::critical, false, false, 0x1},
      {"fair is no reason to hold", P::chargeLimitHold, 0, 100, T::fair, false, false, 0x1},
      {"fair without a reason", P::onHold, 0, 100, T::fair},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PowerSnapshot s;
    s.batteryInstalled = c.installed;
    s.externalConnected = c.external;
    s.isCharging = c.charging;
    s.fullyCharged = c.full;
    s.notChargingReason = c.notChargingReason;
    EXPECT_EQ(phaseFrom(s, c.watts, PowerPhaseDetectionContext{c.thermal, c.awake_s}), c.expected);
  }
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

}  // namespace
}  // namespace quorel
