#include "telemetry/provider_switch.hpp"

namespace quorel {

void switchPowerProvider(PowerMonitor& monitor, std::shared_ptr<PowerDataProvider> provider,
                         bool simulated) {
  monitor.setProvider(std::move(provider));
  monitor.setSkipDatabaseRecording(simulated);
  // Histories from one machine mean nothing on the other. Reseeding from the store on the way
  // back joins here once the recording stage has a store to read.
  monitor.clearInMemoryHistories();
  monitor.resetSmoothing();
  monitor.powerSourceChanged();
}

void simulationParametersChanged(PowerMonitor& monitor) {
  monitor.resetSmoothing();
  monitor.powerSourceChanged();
}

}  // namespace quorel
