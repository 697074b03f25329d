#pragma once
// Which AI coding agent or local model runtime, if any, a process works for. A process counts
// for an agent when it is that agent or descends from it (a compiler a coding agent started is
// that agent's work), so the classifier walks ancestry; and since agents often run on
// interpreters, it reads argument vectors as well as names. The answer for a process is worked
// out once and then kept for its whole life, keyed by pid and start.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "energy/process_table.hpp"
#include "energy/top_processes_service.hpp"

namespace quorel {

// What it reads of a process, from the table:
//   names  the kernel's short name (`readName`, 15 bytes on Linux, which has no longer process
//          title beside it); the base of argv[0] is tried next and catches longer names;
//   parent and start  `readStat` (ppid, startTicks), already in hand for the processes a caller
//          passes in, read only for ancestors;
//   argv   `readArguments`.
//
// Cost: a process already answered costs no table call at all, however often it is asked about.
// A new one costs its own name and, unless that matches, its arguments, plus the record of each
// ancestor up to the first one already answered (whose answer is then taken as it stands).
//
// Thread-safe: the cache lock is held only to take and to replace the cache, never during table
// reads, so two concurrent calls both work from the cache as it was and the later one's
// replacement wins.
class AIAgentClassifier final : public AIAgentClassifying {
 public:
  // Deeper ancestry is not followed; a process that far below an agent is left unattributed.
  static constexpr int kMaxDepth = 15;
  // A process nobody asked about or passed through for this many calls is forgotten (it has
  // most likely ended); at the 5-second default that is ten minutes.
  static constexpr std::uint64_t kRetainedCalls = 120;

  // The table must outlive the classifier.
  explicit AIAgentClassifier(const ProcessTable& table);
  AIAgentClassifier(const AIAgentClassifier&) = delete;
  AIAgentClassifier& operator=(const AIAgentClassifier&) = delete;

  // Agent identifier by pid of the given processes; those that belong to no agent are absent.
  std::map<ProcessId, std::string> classify(const std::vector<ProcessStat>& processes) override;

  // The agent a lower-case process name names: equal to one of its process names, or starting
  // with one followed by ' ', '-', '_' or '.' (so "claude-helper" and "claude.exe" are Claude's
  // and "claudette" is not). The first agent in table order wins.
  static std::optional<std::string> matchName(std::string_view name);
  // The agent whose script an interpreter's argument vector runs: the first argument after
  // argv[0] that is no option, by its base name, matched as above against script hints.
  static std::optional<std::string> matchArgv(const std::vector<std::string>& argv);

 private:
  struct AttributionEntry {
    std::uint64_t startTicks = 0;
    std::optional<std::string> agentId;
    // The call that last asked about or walked through this process; drives forgetting.
    std::uint64_t lastUsedCall = 0;
  };
  using AttributionCache = std::unordered_map<ProcessId, AttributionEntry>;
  struct Resolution {
    std::optional<std::string> agentId;
    // The walk stopped at the depth bound, so an agent further up may have been missed; such an
    // answer is not kept for ancestors, whose depth differs from one walk to the next.
    bool cut = false;
  };
  struct Walk;

  Resolution resolve(ProcessId pid, int depth, Walk& walk) const;
  // The agent this process is by its own names and arguments, ancestors aside.
  std::optional<std::string> ownMatch(ProcessId pid) const;
  const ProcessStat* statOf(ProcessId pid, Walk& walk) const;

  const ProcessTable& table_;

  std::mutex cacheLock_;
  // Guarded by cacheLock_; never modified once published, so a copy of the pointer is a
  // consistent snapshot to read without the lock.
  std::shared_ptr<const AttributionCache> attributionCache_;
  std::uint64_t calls_ = 0;
};

}  // namespace quorel
