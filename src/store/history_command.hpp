#pragma once
// `quorel history`: looking back through the store from a shell, on a read-only connection, so
// it works with or without a running agent. The JSON shapes are the MCP read tools' own, built by
// the same functions, so a script sees what an assistant sees.

#include <filesystem>
#include <optional>
#include <string>

#include "core/clock.hpp"
#include "core/json_value.hpp"
#include "store/history_read_records.hpp"
#include "store/history_records.hpp"

namespace quorel {

struct HistoryCommandArguments {
  // "samples", "coverage", "sessions", "daily", "apps", "agents" or "lifetime".
  std::string subcommand;
  // As typed; parsed and checked by the command.
  std::optional<std::string> from = std::nullopt;
  std::optional<std::string> to = std::nullopt;
  std::optional<std::string> points = std::nullopt;
  std::optional<std::string> limit = std::nullopt;
  bool json = false;
};

struct HistoryCommandResult {
  int exitStatus = 0;  // 0 done, 1 the database could not be read, 2 bad arguments
  std::string output;  // for standard output
  std::string error;   // for standard error, a sentence
};

// Runs one history question against the database file at `databasePath`.
HistoryCommandResult runHistoryCommand(const HistoryCommandArguments& arguments,
                                       const std::filesystem::path& databasePath,
                                       const Clock& clock);

// ISO-8601 internet date-time with or without fractional seconds, "Z" or a numeric offset.
std::optional<TimePoint> parseIso8601(std::string_view text);

// The shapes shared with the MCP read tools. Absent or non-finite numbers are null.
namespace history_json {
JSONValue coverage(const HistoricalCoverageSummary& summary);
JSONValue sample(const PowerSample& sample);
JSONValue session(const SessionRecord& session);
JSONValue dailyMetric(const DailyBatteryMetric& metric);
// One ranked process (key "app") or agent (key "agent").
JSONValue trackedEnergy(const TrackedEnergySummary& summary, double currentWatts,
                        const char* identifierKey);
}  // namespace history_json

}  // namespace quorel
