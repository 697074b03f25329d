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
  for (const TopProcess& process : processes) {
    batch.addShare(process.name, process.estimatedWatts, process.cpuUsage, kApportionedSource);
  }
  batch.settleCoverage(packageWatts);
  if (packageWatts && std::isfinite(*packageWatts)) {
    const double rest = std::max(*packageWatts - batch.attributed_W, 0.0);
    if (rest > kMinimumUnattributed_W) {
      batch.entries[kOtherName] = EnergySampleValue{rest, 0, kUnattributedSource};
    }
  }
  return batch;
}

}  // namespace quorel
