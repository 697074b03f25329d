#pragma once
// The AI coding agents and local model runtimes the energy views know by name, and the rules
// that name them. The table's order is the order of matching: the first agent whose name fits
// wins, so a more specific name must come before a shorter one it starts with.

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "store/history_read_records.hpp"

namespace quorel {

struct AIAgentDescriptor {
  std::string id;
  std::string displayName;
  // Matched against a process's own names. Lower-case.
  std::vector<std::string> processNames;
  // Matched against the script an interpreter runs. Lower-case.
  std::vector<std::string> scriptHints;

  bool operator==(const AIAgentDescriptor&) const = default;
};

// Immutable tables; every function is safe from any thread.
class AIAgentRegistry {
 public:
  static const std::vector<AIAgentDescriptor>& agents();
  static const std::map<std::string, std::string>& displayNameById();
  // The agent's display name; an identifier the table does not know is shown as it is.
  static std::string displayName(std::string_view id);

  // Runtimes that other agents ship inside themselves, by the agents that do so.
  static const std::map<std::string, std::set<std::string>>& ownerIdsByEmbeddedRuntimeId();
  // Whether a runtime found below `ancestorId` is that ancestor's own copy and counts for it.
  static bool prefersOwningAncestor(const std::optional<std::string>& ancestorId,
                                    std::string_view runtimeId);

  // Whether a lower-case process name is a script interpreter whose script must be looked at
  // to know what runs.
  static bool isInterpreter(std::string_view name);

  // Summaries keyed by identifier re-keyed by display name. Where identifiers share a display
  // name, the one whose identifier sorts first stands and the others are dropped.
  static std::map<std::string, TrackedEnergySummary> displayKeyed(
      const std::map<std::string, TrackedEnergySummary>& summaries);
};

}  // namespace quorel
