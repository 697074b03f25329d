#include "energy/top_processes_service.hpp"

#include <algorithm>
#include <string_view>
#include <utility>

#include "core/uuid.hpp"
#include "energy/process_display_name.hpp"

namespace quorel {
namespace {

// Our own privileged daemon: its work is done on the user's behalf, not a program to blame.
constexpr std::string_view kHelperName = "quorel-helper";

std::optional<double> shareOfPackage(double cpuPercent, double total,
                                     std::optional<double> packageWatts) {
  if (!packageWatts || total <= 0) return std::nullopt;
  return cpuPercent / total * *packageWatts;
}

}  // namespace

TopProcessesService::TopProcessesService(const ProcessTable& table, AIAgentClassifying& classifier,
                                         const Clock& clock)
    : table_(table), aiClassifier_(classifier), clock_(clock), cacheTimestamp_(distantPast()) {}

std::vector<TopProcess> TopProcessesService::fetch(int limit) {
  const int wanted = std::max(limit, 0);
  std::vector<TopProcess> top = snapshot(std::max(wanted, kMinimumSampled)).top;
  if (top.size() > static_cast<std::size_t>(wanted)) top.resize(static_cast<std::size_t>(wanted));
  return top;
}

TopProcessesSnapshot TopProcessesService::snapshot(int limit) {
  std::lock_guard refresh(refreshLock_);
  const TimePoint now = clock_.now();
  const bool fresh = now >= cacheTimestamp_ && secondsBetween(cacheTimestamp_, now) < kCacheTTL_s;
  if (cachedLimit_ >= limit && fresh) return cachedResult_;
  cachedResult_ = fetchFromSystem(limit);
  cacheTimestamp_ = now;
  cachedLimit_ = limit;
  return cachedResult_;
}

std::optional<double> TopProcessesService::cpuPackageWatts(
    const std::optional<ComponentPower>& reading) {
  if (!reading || !reading->cpuAndMemoryAvailable) return std::nullopt;
  return reading->ecpuWatts + reading->pcpuWatts;
}

void TopProcessesService::setCpuPackageWatts(std::optional<double> watts) {
  std::lock_guard lock(powerLock_);
  cpuPackageWatts_ = watts;
}

void TopProcessesService::setArrivalObserver(ProcessArrivalObserving* observer) {
  std::lock_guard refresh(refreshLock_);
  arrivals_ = observer;
}

std::optional<double> TopProcessesService::cpuPackageWatts() {
  std::lock_guard lock(powerLock_);
  return cpuPackageWatts_;
}

TopProcessesSnapshot TopProcessesService::fetchFromSystem(int limit) {
  const std::vector<ProcessId> pids = table_.listPids();
  if (pids.empty()) return {};

  const TimePoint now = clock_.now();
  std::unordered_map<ProcessId, ProcSample> previous;
  std::unordered_map<ProcessId, NameEntry> names;
  {
    std::lock_guard lock(cacheLock_);
    previous = prevSamples_;
    names = nameCache_;
  }

  std::unordered_map<ProcessId, ProcSample> samples;
  samples.reserve(pids.size());
  std::vector<Candidate> candidates;
  std::vector<ProcessStat> newcomers;
  for (const ProcessId pid : pids) {
    if (pid < 1) continue;
    const std::optional<ProcessStat> stat = table_.readStat(pid);
    if (!stat) continue;
    samples[pid] = ProcSample{stat->cpuTime_ns, now, stat->startTicks};
    const auto prev = previous.find(pid);
    if (arrivals_ != nullptr &&
        (prev == previous.end() || prev->second.startTicks != stat->startTicks)) {
      newcomers.push_back(*stat);
    }
    if (prev == previous.end()) continue;
    const double dt = secondsBetween(prev->second.timestamp, now);
    // A counter that went backwards belongs to a new process on a reused pid; it gets a rate
    // from its own second pass.
    if (dt <= 0 || dt >= kStaleSampleHorizon_s || stat->cpuTime_ns < prev->second.cpuTime_ns) {
      continue;
    }
    const double delta_ns = static_cast<double>(stat->cpuTime_ns - prev->second.cpuTime_ns);
    const double cpuPercent = delta_ns / (dt * 1e9) * 100.0;
    if (cpuPercent > 0) {
      candidates.push_back({*stat, cpuPercent});
    }
  }
  std::stable_sort(
      candidates.begin(), candidates.end(),
      [](const Candidate& a, const Candidate& b) { return a.cpuPercent > b.cpuPercent; });

  // Every candidate counts, listed or not, so the listed shares leave room for the rest.
  double total = 0;
  for (const Candidate& c : candidates) total += c.cpuPercent;
  std::optional<double> packageWatts;
  {
    std::lock_guard lock(powerLock_);
    packageWatts = cpuPackageWatts_;
  }

  std::vector<ProcessStat> candidateStats;
  candidateStats.reserve(candidates.size());
  for (const Candidate& c : candidates) candidateStats.push_back(c.stat);
  const std::map<ProcessId, std::string> agentByPid = aiClassifier_.classify(candidateStats);

  TopProcessesSnapshot result;
  std::map<std::string, AIAgentUsage> byAgent;
  for (const Candidate& c : candidates) {
    const auto agent = agentByPid.find(c.stat.pid);
    if (agent == agentByPid.end()) continue;
    AIAgentUsage& usage = byAgent[agent->second];
    usage.agentId = agent->second;
    usage.cpuPercent += c.cpuPercent;
    ++usage.processCount;
  }
  for (auto& [id, usage] : byAgent) {
    usage.estimatedWatts = shareOfPackage(usage.cpuPercent, total, packageWatts);
    result.ai.push_back(std::move(usage));
  }
  std::stable_sort(
      result.ai.begin(), result.ai.end(),
      [](const AIAgentUsage& a, const AIAgentUsage& b) { return a.cpuPercent > b.cpuPercent; });

  std::unordered_map<ProcessId, NameEntry> newNames;
  const auto wanted = static_cast<std::size_t>(std::max(limit, 0));
  for (const Candidate& c : candidates) {
    if (result.top.size() >= wanted) break;
    // Kernel threads belong to no program; their time stays in the total only.
    if (c.stat.isKernelThread) continue;
    std::optional<std::string> name = resolveName(c, names);
    if (!name) continue;
    newNames[c.stat.pid] = NameEntry{c.stat.startTicks, *name};
    if (*name == kHelperName) continue;
    result.top.push_back(TopProcess{makeUuid(), lastPathComponent(*name), c.cpuPercent,
                                    shareOfPackage(c.cpuPercent, total, packageWatts)});
  }

  {
    std::lock_guard lock(cacheLock_);
    prevSamples_ = std::move(samples);
    nameCache_ = std::move(newNames);
  }
  if (arrivals_ != nullptr) arrivals_->processesAppeared(newcomers);
  return result;
}

std::optional<std::string> TopProcessesService::resolveName(
    const Candidate& candidate, const std::unordered_map<ProcessId, NameEntry>& names) {
  const ProcessId pid = candidate.stat.pid;
  if (const auto cached = names.find(pid);
      cached != names.end() && cached->second.startTicks == candidate.stat.startTicks) {
    return cached->second.name;
  }
  std::optional<std::string> name = table_.readName(pid);
  if (!name || name->empty()) return std::nullopt;
  const std::optional<std::vector<std::string>> arguments = table_.readArguments(pid);
  return processName(*name, arguments.value_or(std::vector<std::string>{}));
}

}  // namespace quorel
