#pragma once
// What happens to the monitor when the simulated machine is entered or left, or when one of its
// parameters changes, so that the change shows at once rather than through the average.

#include <memory>

#include "telemetry/power_monitor.hpp"

namespace quorel {

// Installs `provider` and, for the simulated machine, stops all persistence: the simulation
// must leave nothing behind in the history store.
void switchPowerProvider(PowerMonitor& monitor, std::shared_ptr<PowerDataProvider> provider,
                         bool simulated);

// A scenario parameter changed while the simulated machine is active.
void simulationParametersChanged(PowerMonitor& monitor);

}  // namespace quorel
