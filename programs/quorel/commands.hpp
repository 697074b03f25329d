#pragma once
// The subcommands that serve people and scripts beside the agent.

#include <filesystem>
#include <optional>
#include <string>

#include "core/paths.hpp"
#include "export_command.hpp"
#include "history_command.hpp"
#include "insights_command.hpp"
#include "settings_command.hpp"
#include "status_command.hpp"

namespace quorel {

struct CommandContext {
  std::optional<std::filesystem::path> dataDirectory;  // --data-dir
  std::filesystem::path sysfsRoot = "/sys";            // --sysfs-root
};

// The paths the command line works with, --data-dir applied; absent, after a sentence on
// standard error, when they cannot be resolved.
std::optional<QuorelPaths> resolvePaths(const CommandContext& context);
// Keeps a command's own log lines on standard error, without the agent's file.
void quietLogging();

int runHistory(HistoryCommandArguments arguments, const CommandContext& context);
int runExport(const ExportCommandArguments& arguments, const CommandContext& context);
int runInsights(const InsightsCommandArguments& arguments, const CommandContext& context);
int runSettings(const SettingsCommandArguments& arguments, const CommandContext& context);
int runStatus(const StatusCommandArguments& arguments, const CommandContext& context);
// Declares a new battery: a manual epoch, after confirmation unless `assumeYes`.
int runBatteryReplaced(bool assumeYes, const CommandContext& context);

}  // namespace quorel
