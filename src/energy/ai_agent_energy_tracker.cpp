#include "energy/ai_agent_energy_tracker.hpp"

#include <algorithm>
#include <utility>

#include "store/quorel_database.hpp"

namespace quorel {

AIAgentEnergyTracker::AIAgentEnergyTracker(EnergyUsageSource& source, SerialQueue& queue,
                                           const Clock& clock)
    : EnergyTracker(
          Kind{.name = "AIAgentEnergyTracker",
               .selfCoveredName = {},
               .sample =
                   [&source] {
                     const std::vector<AIAgentUsage> usage = source.agentUsage(kSampledProcesses);
                     return makeBatch(usage, source.cpuPackageWatts());
                   },
               .write =
                   [](QuorelDatabase& database, std::vector<TrackedEnergyRecord> records) {
                     database.insertAIAgentEnergy(std::move(records));
                   }},
          queue, clock) {}

EnergyBatch AIAgentEnergyTracker::makeBatch(const std::vector<AIAgentUsage>& usage,
                                            std::optional<double> packageWatts) {
  EnergyBatch batch;
  for (const AIAgentUsage& agent : usage) {
    batch.addShare(agent.agentId, agent.estimatedWatts, agent.cpuPercent, kSource);
  }
  batch.settleCoverage(packageWatts);
  return batch;
}

}  // namespace quorel
