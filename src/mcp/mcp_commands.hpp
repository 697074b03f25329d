#pragma once
// The logic of `quorel mcp enable|disable|status`. Each takes the preference domain the agent
// watches and the data directory (moved by --data-dir), and returns what to print and the exit
// status; the program only prints. The token itself is never printed, only where its file is.

#include <filesystem>
#include <string>

#include "core/clock.hpp"
#include "core/preference_store.hpp"

namespace quorel {

struct MCPCommandOutcome {
  std::string text;  // ends with a line feed
  int exitStatus = 0;
  bool operator==(const MCPCommandOutcome&) const = default;
};

// Turns the server on; a running agent follows within moments, without a restart.
MCPCommandOutcome runMCPEnableCommand(PreferenceStore& preferences,
                                      const std::filesystem::path& dataDirectory);
// Turns the server off; a running agent stops it within moments.
MCPCommandOutcome runMCPDisableCommand(PreferenceStore& preferences,
                                       const std::filesystem::path& dataDirectory);
// Prints the status line, the endpoint and the token file. Whether the server runs is learnt
// by sending it a "ping" with the token from the file, waiting at most `probeTimeout` by
// `clock`'s monotonic time.
// Exit status 0 when stopped or running, 1 when enabled but not answering as it should.
MCPCommandOutcome runMCPStatusCommand(const PreferenceStore& preferences,
                                      const std::filesystem::path& dataDirectory,
                                      const Clock& clock, Seconds probeTimeout = Seconds{2.0});

}  // namespace quorel
