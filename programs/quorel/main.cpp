// quorel: the power analytics and battery-care agent. With no subcommand it runs in the
// foreground; subcommands serve people and scripts.

#include <CLI/CLI.hpp>
#include <cmath>
#include <iostream>

#include "agent.hpp"

int main(int argc, char** argv) {
  CLI::App app{"Quorel: where your laptop's power goes, and what charging does to its battery."};
  app.set_version_flag("--version", "quorel 0.1.0");

  quorel::AgentOptions options;
  double intervalSeconds = 0;
  std::string sandboxConfig;
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
  std::string sysfsRoot = "/sys";
  app.add_option("--sysfs-root", sysfsRoot,
                 "Directory standing in for /sys (readers use DIR/class/power_supply and "
                 "DIR/class/thermal), e.g. a captured tree")
      ->check(CLI::ExistingDirectory);
  std::string dataDir;
  app.add_option("--data-dir", dataDir,
                 "Directory for the history database and the server's token and endpoint files "
                 "(default $XDG_DATA_HOME/quorel)");
  app.add_flag("-v,--verbose", options.verbose, "Log debug detail");

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    std::cerr << "Run 'quorel --help' for the flags it takes.\n";
    return 2;
  }
  if (interval->count() > 0) options.interval = quorel::Seconds{intervalSeconds};
  if (!sandboxConfig.empty()) options.sandboxConfigFile = sandboxConfig;
  options.sysfsRoot = sysfsRoot;
  if (!dataDir.empty()) options.dataDirectory = dataDir;
  return quorel::runAgent(options);
}
