// quorel: the power analytics and battery-care agent. With no subcommand it runs in the
// foreground; subcommands serve people and scripts.

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "agent.hpp"
#include "battery_command_line.hpp"
#include "calendars_command_line.hpp"
#include "commands.hpp"
#include "core/logging.hpp"
#include "core/version.hpp"
#include "helper_command.hpp"
#include "mcp_cli.hpp"

static int runMain(int argc, char** argv);

namespace {

// An escaped exception, in words.
std::string describe(const std::exception_ptr& escaped) {
  if (!escaped) return "no exception in flight";
  try {
    std::rethrow_exception(escaped);
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "something that is not a std::exception";
  }
}

// For what cannot be caught: an exception leaving a noexcept function or a thread that is not
// one of our queues. Says so where the agent logs before the process aborts.
[[noreturn]] void logAndAbort() {
  const auto log = quorel::logging::get("quorel");
  log->critical("terminating: {}", describe(std::current_exception()));
  log->flush();
  std::abort();
}

}  // namespace

// The last resort: nothing that escapes the program's body ends it silently.
int main(int argc, char** argv) {
  std::set_terminate(logAndAbort);
  try {
    return runMain(argc, argv);
  } catch (...) {
    const auto log = quorel::logging::get("quorel");
    log->critical("stopped by an error nothing else handled: {}",
                  describe(std::current_exception()));
    log->flush();
  }
  return 1;
}

static int runMain(int argc, char** argv) {
  CLI::App app{"Quorel: where your laptop's power goes, and what charging does to its battery."};
  app.set_version_flag("--version", "quorel " + std::string(quorel::kQuorelVersion));
  app.require_subcommand(0, 1);
  app.fallthrough();

  quorel::AgentOptions options;
  double intervalSeconds = 0;
  std::string sandboxConfig;
  std::string sysfsRoot = "/sys";
  std::string procRoot = "/proc";
  std::string dataDir;
  app.add_flag("--json", options.json,
               "Write every published power state to standard output, one JSON object per line");
  auto* interval = app.add_option("--interval", intervalSeconds,
                                  "Polling interval in seconds for this run (0.5 to 3600; default "
                                  "2 with --json, otherwise the 30-second idle interval)");
  interval->check(CLI::Range(0.5, 3600.0));
  app.add_option(
         "--sandbox-config", sandboxConfig,
         "JSON file of simulated-machine settings, e.g. {\"powerSource\": \"AC (Charging)\"}")
      ->check(CLI::ExistingFile);
  app.add_flag("--sandbox", options.sandbox,
               "Run on the simulated machine even when this computer's battery is readable");
  app.add_option("--sysfs-root", sysfsRoot,
                 "Directory standing in for /sys (readers use DIR/class/power_supply, "
                 "DIR/class/thermal and DIR/class/powercap), e.g. a captured tree")
      ->check(CLI::ExistingDirectory);
  app.add_option("--proc-root", procRoot,
                 "Directory standing in for /proc, where the process sampler reads which "
                 "processes use the CPU, e.g. a generated tree")
      ->check(CLI::ExistingDirectory);
  app.add_option("--data-dir", dataDir,
                 "Directory for the history database and the server's token and endpoint files "
                 "(default $XDG_DATA_HOME/quorel)");
  app.add_flag("-v,--verbose", options.verbose, "Log debug detail");
  std::string helperSocket = options.helperSocket.string();
  app.add_option("--helper-socket", helperSocket,
                 "The privileged helper's socket (default /run/quorel/helper.sock)");
  quorel::HelperCommandArguments helperArgs;
  auto* helperCommand = quorel::addHelperCommand(app, helperArgs);

  const quorel::MCPCommandLine mcp(app);

  auto* history = app.add_subcommand("history", "Look back through the history store");
  quorel::HistoryCommandArguments historyArgs;
  history
      ->add_option("question", historyArgs.subcommand,
                   "samples, coverage, sessions, daily, apps, agents or lifetime")
      ->required();
  std::string from, to, points, limit;
  history->add_option("--from", from, "Start, ISO-8601 (e.g. 2026-11-21T08:00:00Z)");
  history->add_option("--to", to, "End, ISO-8601 (default now)");
  history->add_option("--points", points, "Most samples to return");
  history->add_option("--limit", limit, "Most rows to return");
  history->add_flag("--json", historyArgs.json, "Print the JSON the assistants' tools give");

  auto* exportCommand = app.add_subcommand(
      "export",
      "Take history out as CSV or JSON (e.g. export power --from 2026-11-01T00:00:00Z "
      "--to 2026-11-30T23:59:59Z --output power.csv)");
  quorel::ExportCommandArguments exportArgs;
  std::string exportOutput;
  exportCommand
      ->add_option("series", exportArgs.series,
                   "One or more of power, battery, sessions, processEnergy, aiEnergy, "
                   "dailyMetrics, collection, batteryEpochs")
      ->required();
  exportCommand
      ->add_option("--from", exportArgs.from, "Start, ISO-8601 (e.g. 2026-11-01T00:00:00Z)")
      ->required();
  exportCommand
      ->add_option("--to", exportArgs.to, "End, ISO-8601, included (e.g. 2026-11-30T23:59:59Z)")
      ->required();
  exportCommand->add_option("--format", exportArgs.format, "csv (default) or json");
  exportCommand->add_option(
      "--output", exportOutput,
      "File to write, or a folder for files named quorel-<series>-<dates>.csv (default: CSV of "
      "one series and JSON go to standard output, several CSV series to this folder)");

  auto* battery = app.add_subcommand("battery", "Battery identity and battery control");
  auto* replaced = battery->add_subcommand(
      "replaced", "Mark a new battery: health and cycle trends re-baseline from today");
  battery->require_subcommand(1);
  bool assumeYes = false;
  replaced->add_flag("--yes", assumeYes, "Do not ask for confirmation (for scripts)");
  const quorel::BatteryControlCommands batteryControl(*battery);
  const quorel::CalendarsCommandLine calendars(app);

  auto* settingsCommand = app.add_subcommand(
      "settings",
      "See or change the settings; alone, lists them all. A running agent follows a change at "
      "once (e.g. settings set temperatureUnit fahrenheit)");
  settingsCommand->require_subcommand(0, 1);
  quorel::SettingsCommandArguments settingsArgs;
  std::string settingsKey;
  std::vector<std::string> settingsValue;
  const char* listJsonHelp = "Print one JSON object of every setting (absent ones as null)";
  settingsCommand->add_flag("--json", settingsArgs.json, listJsonHelp);
  auto* settingsList = settingsCommand->add_subcommand(
      "list", "Every setting and its value, with the default where it differs");
  settingsList->add_flag("--json", settingsArgs.json, listJsonHelp);
  auto* settingsGet = settingsCommand->add_subcommand(
      "get", "One setting's value (e.g. settings get carbonRegion)");
  settingsGet->add_option("key", settingsKey, "The setting's name, e.g. dataRetentionDays")
      ->required();
  settingsGet->add_flag("--json", settingsArgs.json,
                        "Print {\"key\": ..., \"value\": ..., \"default\": ...}");
  auto* settingsSet = settingsCommand->add_subcommand(
      "set",
      "Change one setting, only to a value the agent can use (e.g. settings set carbonRegion "
      "\"EU Average\"); a refused value changes nothing");
  settingsSet->add_option("key", settingsKey, "The setting's name, e.g. carbonRegion")->required();
  settingsSet
      ->add_option("value", settingsValue,
                   "A JSON value (30, true, [\"hero\"]) or, for a setting that holds text, the "
                   "text itself (\"EU Average\", or its case name euAverage)")
      ->required()
      // A JSON list must reach the setting whole, not split at its commas.
      ->allow_extra_args(false);
  auto* settingsReset = settingsCommand->add_subcommand(
      "reset", "Put one setting back to its default (e.g. settings reset dataRetentionDays)");
  settingsReset->add_option("key", settingsKey, "The setting's name")->required();

  auto* insights = app.add_subcommand(
      "insights",
      "What the history means: habit grade, health and cycle forecasts, today's carbon, time at "
      "temperature (e.g. insights --now 2026-11-22T10:00:00Z --json)");
  quorel::InsightsCommandArguments insightsArgs;
  std::string insightsNow;
  insights->add_option("--now", insightsNow,
                       "Compute as of this moment, ISO-8601 with a zone (default now)");
  insights->add_flag("--json", insightsArgs.json, "Print one JSON object");
  auto* status = app.add_subcommand(
      "status",
      "What the running agent shows now (e.g. status --bar --mode auto --follow for a status bar)");
  quorel::StatusCommandArguments statusArgs;
  std::string statusMode;
  status->add_flag("--json", statusArgs.json,
                   "Print one JSON object of the display (snake_case keys); without an agent "
                   "{\"available\":false,\"reason\":\"agent not running\"}");
  status->add_flag("--bar", statusArgs.bar,
                   "Print one line for a status bar: {\"text\",\"tooltip\",\"class\","
                   "\"percentage\"}, or the text alone with --format plain");
  status
      ->add_option("--mode", statusMode,
                   "What --bar draws: auto, wattage, minimal or percentage (default: the "
                   "menuBarMode setting in force)")
      ->check(CLI::IsMember({"auto", "wattage", "minimal", "percentage"}));
  status->add_option("--format", statusArgs.format, "Of --bar: json (default) or plain")
      ->check(CLI::IsMember({"json", "plain"}));
  status->add_flag("--follow", statusArgs.follow,
                   "With --bar: keep running, printing a line whenever what is drawn changes");

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    std::cerr << "Run 'quorel --help' for the commands and flags it takes.\n";
    return 2;
  }

  quorel::CommandContext context;
  if (!dataDir.empty()) context.dataDirectory = dataDir;
  context.sysfsRoot = sysfsRoot;
  if (mcp.chosen()) return mcp.run(context);
  if (*history) {
    if (history->count("--from") > 0) historyArgs.from = from;
    if (history->count("--to") > 0) historyArgs.to = to;
    if (history->count("--points") > 0) historyArgs.points = points;
    if (history->count("--limit") > 0) historyArgs.limit = limit;
    return quorel::runHistory(historyArgs, context);
  }
  if (*exportCommand) {
    if (exportCommand->count("--output") > 0) exportArgs.output = exportOutput;
    return quorel::runExport(exportArgs, context);
  }
  if (*settingsCommand) {
    if (*settingsGet) settingsArgs.action = "get";
    if (*settingsSet) settingsArgs.action = "set";
    if (*settingsReset) settingsArgs.action = "reset";
    if (!settingsKey.empty()) settingsArgs.key = settingsKey;
    if (!settingsValue.empty()) {
      // Words the shell split apart ("EU Average" typed without quotes) are one value.
      std::string joined;
      for (const auto& word : settingsValue) joined += (joined.empty() ? "" : " ") + word;
      settingsArgs.value = joined;
    }
    return quorel::runSettings(settingsArgs, context);
  }
  if (*insights) {
    if (insights->count("--now") > 0) insightsArgs.now = insightsNow;
    return quorel::runInsights(insightsArgs, context);
  }
  if (*status) {
    if (!statusMode.empty()) statusArgs.mode = statusMode;
    if ((statusArgs.follow || status->count("--mode") > 0 || status->count("--format") > 0) &&
        !statusArgs.bar) {
      std::cerr << "quorel: --mode, --format and --follow go with --bar (e.g. status --bar "
                   "--follow).\n";
      return 2;
    }
    return quorel::runStatus(statusArgs, context);
  }
  if (*replaced) return quorel::runBatteryReplaced(assumeYes, context);
  options.helperSocket = helperArgs.helperSocket = helperSocket;
  if (*helperCommand) return quorel::runHelperCommand(helperArgs, *helperCommand);
  if (batteryControl.selected()) return batteryControl.run(context);
  if (calendars.selected()) return calendars.run(context);

  if (interval->count() > 0) options.interval = quorel::Seconds{intervalSeconds};
  if (!sandboxConfig.empty()) options.sandboxConfigFile = sandboxConfig;
  options.sysfsRoot = sysfsRoot;
  options.procRoot = procRoot;
  options.dataDirectory = context.dataDirectory;
  return quorel::runAgent(options);
}
