#include "commands.hpp"

#include <unistd.h>

#include <filesystem>
#include <iostream>

#include "core/file_preference_store.hpp"
#include "core/logging.hpp"
#include "core/paths.hpp"
#include "insights_command.hpp"
#include "platform/linux/linux_power_supply_provider.hpp"
#include "platform/linux/power_supply_scan.hpp"
#include "platform/linux/sysfs_attributes.hpp"
#include "store/battery_epoch.hpp"
#include "store/corruption_report.hpp"
#include "store/quorel_database.hpp"

namespace quorel {

std::optional<QuorelPaths> resolvePaths(const CommandContext& context) {
  try {
    return QuorelPaths::resolve(ProcessEnvironment, context.dataDirectory);
  } catch (const std::exception& e) {
    std::cerr << "quorel: " << e.what() << "\n";
    return std::nullopt;
  }
}

// Keeps a command's own log lines (a corrupt preferences file, say) on standard error, without
// the agent's file.
void quietLogging() {
  logging::Options options;
  options.level = spdlog::level::warn;
  logging::configure(options);
}

int runHistory(HistoryCommandArguments arguments, const CommandContext& context) {
  quietLogging();
  const auto paths = resolvePaths(context);
  if (!paths) return 2;
  SystemClock clock;
  std::error_code ec;
  // Only read: a missing preference file means the default region, and nothing is created.
  if (std::filesystem::exists(paths->preferencesFile(), ec)) {
    FilePreferenceStore preferences(paths->preferencesFile());
    arguments.carbonRegion = carbonRegionOf(preferences, clock);
  }
  const auto result = runHistoryCommand(arguments, paths->databaseFile(), clock);
  std::cout << result.output;
  if (!result.error.empty()) std::cerr << result.error << "\n";
  return result.exitStatus;
}

int runExport(const ExportCommandArguments& arguments, const CommandContext& context) {
  quietLogging();
  const auto paths = resolvePaths(context);
  if (!paths) return 2;
  SystemClock clock;
  ExportCommandStreams streams;
  streams.output = STDOUT_FILENO;
  // A progress line only where someone watches it; a log or a pipe would keep every update.
  if (::isatty(STDERR_FILENO)) {
    streams.progress = [](std::string_view line) { std::cerr << line << std::flush; };
  }
  const auto result = runExportCommand(arguments, paths->databaseFile(), clock, streams);
  std::cerr << result.notice;
  if (!result.error.empty()) std::cerr << result.error << "\n";
  return result.exitStatus;
}

int runInsights(const InsightsCommandArguments& arguments, const CommandContext& context) {
  quietLogging();
  const auto paths = resolvePaths(context);
  if (!paths) return 2;
  SystemClock clock;
  const auto result =
      runInsightsCommand(arguments, paths->databaseFile(), paths->preferencesFile(), clock);
  std::cout << result.output;
  if (!result.error.empty()) std::cerr << result.error << "\n";
  return result.exitStatus;
}

int runSettings(const SettingsCommandArguments& arguments, const CommandContext& context) {
  quietLogging();
  const auto paths = resolvePaths(context);
  if (!paths) return 2;
  SystemClock clock;
  const auto result = runSettingsCommand(arguments, paths->preferencesFile(), clock);
  std::cout << result.output;
  if (!result.error.empty()) std::cerr << result.error << (result.error.back() == '\n' ? "" : "\n");
  return result.exitStatus;
}

int runStatus(const StatusCommandArguments& arguments, const CommandContext& context) {
  const auto paths = resolvePaths(context);
  if (!paths) return 2;
  if (arguments.bar && arguments.follow)
    return followStatusBar(arguments, instanceLockFile(*paths), stateFile(*paths), stdout);
  const auto result = runStatusCommand(arguments, instanceLockFile(*paths), stateFile(*paths));
  std::cout << result.output;
  if (!result.error.empty()) std::cerr << result.error << "\n";
  return result.exitStatus;
}

int runBatteryReplaced(bool assumeYes, const CommandContext& context) {
  quietLogging();
  const auto paths = resolvePaths(context);
  if (!paths) return 2;
  if (!assumeYes) {
    if (!::isatty(STDIN_FILENO)) {
      std::cerr << "quorel: nobody is here to confirm — pass --yes to mark a new battery from a "
                   "script.\n";
      return 2;
    }
    std::cout << kMarkNewBatteryTitle << "\n"
              << kMarkNewBatteryMessage << "\n"
              << "Type \"yes\" for " << kMarkNewBatteryConfirm << ", anything else for "
              << kMarkNewBatteryCancel << ": " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer != "yes" && answer != "y") {
      std::cout << "Cancelled — nothing changed.\n";
      return 0;
    }
  }

  // The epoch's baseline is the battery as it reads now, when this computer has one.
  std::optional<std::string> serial;
  std::optional<std::int64_t> cycles, design, nominal;
  const auto supplies = sysfs::powerSupplyClassPath(context.sysfsRoot);
  if (hasSystemBattery(supplies)) {
    SystemClock clock;
    LinuxPowerSupplyProvider provider(supplies, clock);
    if (auto snap = provider.fetchSnapshot()) {
      serial = snap->batterySerial;
      cycles = snap->cycleCount;
      design = snap->designCapacity_mAh;
      nominal = snap->nominalCapacity_mAh;
    }
  }

  SystemClock clock;
  bool corrupt = false;
  QuorelDatabase::Options options;
  options.dataDirectory = paths->dataDirectory;
  options.onCorruption = [&corrupt, dir = paths->dataDirectory] {
    corrupt = true;
    reportCorruptionHeadless(dir, std::cerr);
  };
  QuorelDatabase database(std::move(options), clock);
  if (corrupt || !database.isAvailable()) return 1;
  const auto epoch = database.forceNewBatteryEpoch(serial, cycles, design, nominal, clock.now());
  if (!epoch) {
    std::cerr << "quorel: the new battery could not be recorded — see the log above.\n";
    return 1;
  }
  std::cout << "New battery since " << formatIso8601(epoch->firstSeen).substr(0, 10)
            << " — health and cycle trends start from here.\n";
  return 0;
}

}  // namespace quorel
