#pragma once
// `quorel history`: looking back through the store from a shell, on a read-only connection, so
// it works with or without a running agent. With --json it prints the objects the assistants'
// history tools give, built by the same code (mcp/snapshot_history.hpp).

#include <filesystem>
#include <optional>
#include <string>

#include "core/clock.hpp"
#include "insights/carbon_footprint_service.hpp"

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
  // Today's carbon is told for this region.
  CarbonRegionIntensity carbonRegion = kCarbonRegions.front();
};

struct HistoryCommandResult {
  // 0 done (an empty history included), 1 the history could not be read, 2 bad arguments.
  int exitStatus = 0;
  std::string output;  // for standard output
  std::string error;   // for standard error, a sentence
};

// Runs one history question against the database file at `databasePath`.
HistoryCommandResult runHistoryCommand(const HistoryCommandArguments& arguments,
                                       const std::filesystem::path& databasePath,
                                       const Clock& clock);

}  // namespace quorel
