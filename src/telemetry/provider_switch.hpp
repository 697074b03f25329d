#pragma once
// What happens to the monitor when the simulated machine is entered or left, or when one of its
// parameters changes, so that the change shows at once rather than through the average.

#include "telemetry/power_monitor.hpp"

namespace quorel {

// Installs the other machine's sources as one set. The simulated machine's set says it records
// nothing, so the simulation leaves nothing behind in the history store from its first tick on.
void switchPowerSources(PowerMonitor& monitor, PowerSources sources);

// A scenario parameter changed while the simulated machine is active.
void simulationParametersChanged(PowerMonitor& monitor);

}  // namespace quorel
