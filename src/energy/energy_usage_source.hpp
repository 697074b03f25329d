#pragma once
// What the energy trackers read on every tick: the busiest processes, the usage per AI agent, and
// the CPU package's power those watts are shares of. The agent serves all three from its one
// TopProcessesService; tests script them.

#include <optional>
#include <vector>

#include "energy/top_processes_service.hpp"

namespace quorel {

// Called on the trackers' queue, outside their locks.
class EnergyUsageSource {
 public:
  virtual ~EnergyUsageSource() = default;
  // The `limit` busiest processes.
  virtual std::vector<TopProcess> fetch(int limit) = 0;
  // The agent list of a pass sampled for `limit` processes.
  virtual std::vector<AIAgentUsage> agentUsage(int limit) = 0;
  // Absent while the package is not measured.
  virtual std::optional<double> cpuPackageWatts() = 0;
};

// The live source. The service must outlive it.
class TopProcessesUsageSource final : public EnergyUsageSource {
 public:
  explicit TopProcessesUsageSource(TopProcessesService& service) : service_(service) {}
  std::vector<TopProcess> fetch(int limit) override { return service_.fetch(limit); }
  std::vector<AIAgentUsage> agentUsage(int limit) override { return service_.snapshot(limit).ai; }
  std::optional<double> cpuPackageWatts() override { return service_.cpuPackageWatts(); }

 private:
  TopProcessesService& service_;
};

}  // namespace quorel
