#pragma once
// The headless agent: wires the providers, the monitor and the output together and runs the
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
  bool verbose = false;
};

// Returns the process exit status.
int runAgent(const AgentOptions& options);

}  // namespace quorel
