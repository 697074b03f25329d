#pragma once
// The headless agent: builds every service, hands them to the application core, and runs the
// main queue until SIGINT or SIGTERM.

#include <filesystem>
#include <optional>

#include "core/clock.hpp"

namespace quorel {

struct AgentOptions {
  bool json = false;
  // Overrides the polling interval for this run.
  std::optional<Seconds> interval;
  std::optional<std::filesystem::path> sandboxConfigFile;
  // Run on the simulated machine even when a battery is readable.
  bool sandbox = false;
  // Stands in for /sys for every reader (DIR/class/power_supply, DIR/class/thermal,
  // DIR/class/powercap).
  std::filesystem::path sysfsRoot = "/sys";
  // Stands in for /proc for the process sampler.
  std::filesystem::path procRoot = "/proc";
  // Replaces $XDG_DATA_HOME/quorel: the database and the server's token and endpoint files.
  std::optional<std::filesystem::path> dataDirectory;
  // The privileged helper's socket.
  std::filesystem::path helperSocket = "/run/quorel/helper.sock";
  bool verbose = false;
};

// Returns the process exit status.
int runAgent(const AgentOptions& options);

}  // namespace quorel
