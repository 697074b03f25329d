#pragma once
// The reading the tool benchmarks publish: a laptop charging on a 96 W adapter, with component
// power and adapter details, so that every live tool has every key to write.

#include "core/power_state.hpp"

namespace quorel::bench {

inline PowerState chargingState(TimePoint now, double watts, double percent) {
  PowerState s;
  s.phase = PowerPhase::charging;
  s.smoothedWattage = watts;
  s.batteryPercentage = percent;
  s.batteryInstalled = true;
  s.externalConnected = true;
  s.systemPowerIn_W = 41;
  s.timeRemaining_min = 48;
  s.temperature_C = 33;
  s.adapterWatts = 96;
  s.componentPower = ComponentPower{0.6, 3.1, 1.2, 0.0, 0.5, true};
  s.diagnostics = BatteryDiagnostics{};
  s.diagnostics->adapterInfo = AdapterInfo{"3.0", true, 0x05AC, 0x7109, 1, 96.0, {}, {}};
  s.timestamp = now;
  return s;
}

}  // namespace quorel::bench
