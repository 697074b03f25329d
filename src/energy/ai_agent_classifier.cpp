#include "energy/ai_agent_classifier.hpp"

#include <algorithm>
#include <utility>

#include "energy/ai_agent_registry.hpp"
#include "energy/process_text.hpp"

namespace quorel {
namespace {

// `name` is `known`, or `known` followed by a separator and more: "claude-helper", "mlx_lm.server".
bool nameFits(std::string_view name, std::string_view known) {
  if (!name.starts_with(known)) return false;
  if (name.size() == known.size()) return true;
  const char next = name[known.size()];
  return next == ' ' || next == '-' || next == '_' || next == '.';
}

std::optional<std::string> firstAgentFitting(
    std::string_view name, std::vector<std::string> AIAgentDescriptor::*namesOfAgent) {
  for (const AIAgentDescriptor& agent : AIAgentRegistry::agents()) {
    for (const std::string& known : agent.*namesOfAgent) {
      if (nameFits(name, known)) return agent.id;
    }
  }
  return std::nullopt;
}

}  // namespace

// The state of one call: what it was handed, what it has read, and the answers it has found,
// shared by every walk of the call so that siblings climb their common ancestry once.
struct AIAgentClassifier::Walk {
  const AttributionCache& previous;
  AttributionCache& next;
  std::uint64_t call = 0;
  std::unordered_map<ProcessId, const ProcessStat*> given;
  std::unordered_map<ProcessId, std::optional<ProcessStat>> read;
  std::unordered_map<ProcessId, Resolution> memo;
};

AIAgentClassifier::AIAgentClassifier(const ProcessTable& table)
    : table_(table), attributionCache_(std::make_shared<const AttributionCache>()) {}

std::map<ProcessId, std::string> AIAgentClassifier::classify(
    const std::vector<ProcessStat>& processes) {
  std::shared_ptr<const AttributionCache> previous;
  std::uint64_t call = 0;
  {
    std::lock_guard lock(cacheLock_);
    previous = attributionCache_;
    call = ++calls_;
  }
  // Processes not asked about this time are carried over for a while: one that sits idle for a
  // pass keeps its answer even if its ancestors have ended meanwhile.
  auto next = std::make_shared<AttributionCache>(*previous);
  Walk walk{*previous, *next, call, {}, {}, {}};
  walk.given.reserve(processes.size());
  for (const ProcessStat& stat : processes) walk.given.emplace(stat.pid, &stat);

  std::map<ProcessId, std::string> agentByPid;
  for (const ProcessStat& stat : processes) {
    const Resolution resolution = resolve(stat.pid, 0, walk);
    if (stat.pid >= 2) {
      next->insert_or_assign(stat.pid, AttributionEntry{stat.startTicks, resolution.agentId, call});
    }
    if (resolution.agentId) agentByPid.emplace(stat.pid, *resolution.agentId);
  }
  std::erase_if(*next, [call](const auto& entry) {
    return entry.second.lastUsedCall + kRetainedCalls < call;
  });
  {
    std::lock_guard lock(cacheLock_);
    attributionCache_ = std::move(next);
  }
  return agentByPid;
}

AIAgentClassifier::Resolution AIAgentClassifier::resolve(ProcessId pid, int depth,
                                                         Walk& walk) const {
  if (const auto memo = walk.memo.find(pid); memo != walk.memo.end()) return memo->second;
  // 0 is the kernel and 1 the init process: everything descends from them, so they say nothing.
  if (pid < 2) return {};
  if (depth > kMaxDepth) return {std::nullopt, true};
  const ProcessStat* stat = statOf(pid, walk);
  if (stat == nullptr) return {};

  if (const auto known = walk.previous.find(pid);
      known != walk.previous.end() && known->second.startTicks == stat->startTicks) {
    const Resolution resolution{known->second.agentId, false};
    walk.memo.emplace(pid, resolution);
    walk.next[pid].lastUsedCall = walk.call;
    return resolution;
  }

  walk.memo[pid] = Resolution{};  // a parent cycle meets this and ends
  Resolution resolution;
  if (std::optional<std::string> own = ownMatch(pid)) {
    resolution.agentId = own;
    // An own match outranks every ancestor, except that a runtime another agent ships inside
    // itself is that agent's work when it runs below it.
    if (AIAgentRegistry::ownerIdsByEmbeddedRuntimeId().contains(*own)) {
      const Resolution ancestor = resolve(stat->ppid, depth + 1, walk);
      if (AIAgentRegistry::prefersOwningAncestor(ancestor.agentId, *own)) {
        resolution = ancestor;
      } else {
        resolution.cut = ancestor.cut;
      }
    }
  } else {
    resolution = resolve(stat->ppid, depth + 1, walk);
  }
  walk.memo[pid] = resolution;
  if (!resolution.cut) {
    walk.next.insert_or_assign(pid,
                               AttributionEntry{stat->startTicks, resolution.agentId, walk.call});
  }
  return resolution;
}

std::optional<std::string> AIAgentClassifier::ownMatch(ProcessId pid) const {
  std::string name;
  if (const std::optional<std::string> comm = table_.readName(pid)) name = lowerASCII(*comm);
  if (std::optional<std::string> id = matchName(name)) return id;

  const std::optional<std::vector<std::string>> argv = table_.readArguments(pid);
  if (!argv || argv->empty()) return std::nullopt;
  const std::string base = lowerASCII(lastPathComponent(argv->front()));
  if (std::optional<std::string> id = matchName(base)) return id;
  if (AIAgentRegistry::isInterpreter(name) || AIAgentRegistry::isInterpreter(base)) {
    return matchArgv(*argv);
  }
  return std::nullopt;
}

const ProcessStat* AIAgentClassifier::statOf(ProcessId pid, Walk& walk) const {
  if (const auto given = walk.given.find(pid); given != walk.given.end()) return given->second;
  // Elements of an unordered map keep their address while it grows, so the pointer stays good
  // for the whole call.
  auto [read, inserted] = walk.read.try_emplace(pid);
  if (inserted) read->second = table_.readStat(pid);
  return read->second ? &*read->second : nullptr;
}

std::optional<std::string> AIAgentClassifier::matchName(std::string_view name) {
  if (name.empty()) return std::nullopt;
  return firstAgentFitting(name, &AIAgentDescriptor::processNames);
}

std::optional<std::string> AIAgentClassifier::matchArgv(const std::vector<std::string>& argv) {
  if (argv.size() < 2) return std::nullopt;
  const auto script = std::find_if(argv.begin() + 1, argv.end(),
                                   [](const std::string& arg) { return !arg.starts_with('-'); });
  if (script == argv.end()) return std::nullopt;
  const std::string base = lowerASCII(lastPathComponent(*script));
  if (base.empty()) return std::nullopt;
  return firstAgentFitting(base, &AIAgentDescriptor::scriptHints);
}

}  // namespace quorel
