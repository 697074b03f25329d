#include "energy/process_energy_tracker.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

#include "store/quorel_database.hpp"

namespace quorel {

ProcessEnergyTracker::ProcessEnergyTracker(EnergyUsageSource& source, SerialQueue& queue,
                                           const Clock& clock)
    : EnergyTracker(
          Kind{.name = "ProcessEnergyTracker",
               .selfCoveredName = kOtherName,
               .sample =
                   [&source] {
                     const std::vector<TopProcess> processes = source.fetch(kSampledProcesses);
                     return makeBatch(processes, source.cpuPackageWatts());
                   },
               .write =
                   [](QuorelDatabase& database, std::vector<TrackedEnergyRecord> records) {
                     database.insertProcessEnergy(std::move(records));
                   }},
          queue, clock) {}

EnergyBatch ProcessEnergyTracker::makeBatch(const std::vector<TopProcess>& processes,
                                            std::optional<double> packageWatts) {
  EnergyBatch batch;
  double attributed = 0;
  for (const TopProcess& process : processes) {
    if (!process.estimatedWatts) continue;
    EnergySampleValue& value = batch.entries[process.name];
    value.watts += *process.estimatedWatts;
    value.cpu += process.cpuUsage;
    value.source = kApportionedSource;
    attributed += *process.estimatedWatts;
  }
  if (packageWatts && *packageWatts > 0) {
    batch.coverage = std::clamp(attributed / *packageWatts, 0.0, 1.0);
  }
  if (packageWatts && std::isfinite(*packageWatts)) {
    const double rest = std::max(*packageWatts - attributed, 0.0);
    if (rest > kMinimumUnattributed_W) {
      batch.entries[kOtherName] = EnergySampleValue{rest, 0, kUnattributedSource};
    }
  }
  return batch;
}

}  // namespace quorel
