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
  double attributed = 0;
  for (const AIAgentUsage& agent : usage) {
    if (!agent.estimatedWatts) continue;
    EnergySampleValue& value = batch.entries[agent.agentId];
    value.watts += *agent.estimatedWatts;
    value.cpu += agent.cpuPercent;
    value.source = kSource;
    attributed += *agent.estimatedWatts;
  }
  if (packageWatts && *packageWatts > 0) {
    batch.coverage = std::clamp(attributed / *packageWatts, 0.0, 1.0);
  }
  return batch;
}

}  // namespace quorel
