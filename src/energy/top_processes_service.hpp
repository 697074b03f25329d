#pragma once
// Which processes are burning CPU now, and how many watts of the CPU package each stands for.
// No per-process power counter exists, so the watts are an estimate: the measured package power
// shared out in proportion to each process's share of the CPU time all processes consumed.
// One pass reads the process table once and yields the busiest processes and the usage per AI
// agent; a 10-second cache lets the trackers and the user interface share that pass.

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/clock.hpp"
#include "core/component_power.hpp"
#include "energy/process_table.hpp"

namespace quorel {

struct TopProcess {
  // Fresh at every pass: two passes never share an entry.
  std::string id;
  std::string name;
  // Percent of one core; 100 is one core fully busy.
  double cpuUsage = 0;
  // Absent while the package power is unknown.
  std::optional<double> estimatedWatts;

  bool operator==(const TopProcess&) const = default;
};

struct AIAgentUsage {
  std::string agentId;
  // Sum over the agent's processes, percent of one core.
  double cpuPercent = 0;
  std::optional<double> estimatedWatts;
  int processCount = 0;

  bool operator==(const AIAgentUsage&) const = default;
};

struct TopProcessesSnapshot {
  // Busiest first.
  std::vector<TopProcess> top;
  // Busiest agent first.
  std::vector<AIAgentUsage> ai;
};

// Tells which AI agent, if any, each process works for. The service hands it the records it
// read this pass of every process that used CPU, so that a classifier need not read them again:
// the start tells a known process from a new one on a reused pid, the parent where to look next.
// Called from the sampling thread only, never under the service's locks.
class AIAgentClassifying {
 public:
  virtual ~AIAgentClassifying() = default;
  // Agent identifier by pid; pids that belong to no agent are absent.
  virtual std::map<ProcessId, std::string> classify(const std::vector<ProcessStat>& processes) = 0;
};

// Told, at the end of every pass, of the processes the previous pass had not met (a new pid, or
// a pid now held by a later process). Called on the sampling thread, inside the pass.
class ProcessArrivalObserving {
 public:
  virtual ~ProcessArrivalObserving() = default;
  virtual void processesAppeared(const std::vector<ProcessStat>& newcomers) = 0;
};

// Thread-safe: passes are exclusive, and callers on any thread may fetch while the view model
// pushes package power. Holds references to the table, classifier and clock, which must outlive it.
class TopProcessesService {
 public:
  static constexpr double kCacheTTL_s = 10.0;
  // A process unseen for this long has no meaningful rate; it waits one pass to reappear.
  static constexpr double kStaleSampleHorizon_s = 120.0;
  // Smaller requests still sample this many, so requests of different sizes share one cache.
  static constexpr int kMinimumSampled = 8;

  TopProcessesService(const ProcessTable& table, AIAgentClassifying& classifier,
                      const Clock& clock);
  TopProcessesService(const TopProcessesService&) = delete;
  TopProcessesService& operator=(const TopProcessesService&) = delete;

  // The `limit` busiest processes (a negative limit counts as 0).
  std::vector<TopProcess> fetch(int limit);

  // Both lists, from the cache when it is younger than 10 seconds and was filled for at least
  // `limit` entries, else from a new pass. A cached top list may be longer than `limit`.
  TopProcessesSnapshot snapshot(int limit);

  // Null stops the reports; the observer must outlive the service or be unset first.
  void setArrivalObserver(ProcessArrivalObserving* observer);

  // The CPU package's power (efficiency plus performance cores), absent when not measured.
  void setCpuPackageWatts(std::optional<double> watts);
  // What that is for a component reading: absent without one, and when its CPU and memory
  // counters stalled. The GPU, neural units and memory are not the package's.
  static std::optional<double> cpuPackageWatts(const std::optional<ComponentPower>& reading);
  // The value last set: what the shares of the latest passes were taken of, near enough.
  std::optional<double> cpuPackageWatts();

 private:
  struct ProcSample {
    std::uint64_t cpuTime_ns = 0;
    TimePoint timestamp;
    std::uint64_t startTicks = 0;
  };
  struct NameEntry {
    std::uint64_t startTicks = 0;
    std::string name;
  };
  struct Candidate {
    ProcessStat stat;
    double cpuPercent = 0;
  };

  TopProcessesSnapshot fetchFromSystem(int limit);
  // The name a process goes by: the one cached for this very process when there is one, else
  // read from the table. Absent when the process is gone.
  std::optional<std::string> resolveName(const Candidate& candidate,
                                         const std::unordered_map<ProcessId, NameEntry>& names);

  const ProcessTable& table_;
  AIAgentClassifying& aiClassifier_;
  const Clock& clock_;

  // Guarded by refreshLock_, held for a whole pass.
  std::mutex refreshLock_;
  TopProcessesSnapshot cachedResult_;
  ProcessArrivalObserving* arrivals_ = nullptr;
  TimePoint cacheTimestamp_;
  int cachedLimit_ = 0;

  // Guarded by cacheLock_.
  std::mutex cacheLock_;
  std::unordered_map<ProcessId, ProcSample> prevSamples_;
  std::unordered_map<ProcessId, NameEntry> nameCache_;

  // Guarded by powerLock_.
  std::mutex powerLock_;
  std::optional<double> cpuPackageWatts_;
};

}  // namespace quorel
