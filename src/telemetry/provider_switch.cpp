#include "telemetry/provider_switch.hpp"

#include <utility>

namespace quorel {

void switchPowerSources(PowerMonitor& monitor, PowerSources sources) {
  const bool backToTheRealMachine = sources.recordHistory;
  monitor.setSources(std::move(sources));
  // Histories from one machine mean nothing on the other; the real machine's come back from
  // the store.
  monitor.clearInMemoryHistories();
  if (backToTheRealMachine) monitor.reseedHistoryFromDatabase();
  monitor.resetSmoothing();
  monitor.powerSourceChanged();
}

void simulationParametersChanged(PowerMonitor& monitor) {
  monitor.resetSmoothing();
  monitor.powerSourceChanged();
}

}  // namespace quorel
