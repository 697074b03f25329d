#pragma once
// Stores the energy of each AI agent: the package shares of the processes working for it,
// integrated and written once a minute to the agent table of the history. Unlike the process
// tracker it books no rest: the package energy no agent claims is simply not an agent's. A process
// of an agent is in both tables, which are two views of one energy and must not be added up.

#include <optional>
#include <vector>

#include "energy/energy_tracker.hpp"
#include "energy/energy_usage_source.hpp"

namespace quorel {

class AIAgentEnergyTracker final : public EnergyTracker {
 public:
  static constexpr const char* kSource = "cpu_package_ai_apportionment";

  // The source, the queue and the clock must outlive the tracker.
  AIAgentEnergyTracker(EnergyUsageSource& source, SerialQueue& queue, const Clock& clock);

  // One batch keyed by agent. The coverage, what all agents together hold of the package, is the
  // same for every agent of the batch.
  static EnergyBatch makeBatch(const std::vector<AIAgentUsage>& usage,
                               std::optional<double> packageWatts);
};

}  // namespace quorel
