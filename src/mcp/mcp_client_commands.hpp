#pragma once
// The logic of `quorel mcp configure|unconfigure|snippet`, and the line `quorel mcp enable` adds
// about the assistants. Each returns what to print and the exit status: 0 done, 1 failed (the
// sentence says why), 2 refused input (an unknown client, listed with the names it takes).

#include <optional>
#include <string>

#include "mcp/mcp_client_configurator.hpp"

namespace quorel {

struct MCPClientCommandOutcome {
  std::string text;  // for standard output; ends with a line feed when not empty
  int exitStatus = 0;
  std::string errorText;  // for standard error; ends with a line feed when not empty
  bool operator==(const MCPClientCommandOutcome&) const = default;
};

// One client by its case name, or every client with `all`; a failing client does not stop the
// others under `all`, but makes the exit status 1.
MCPClientCommandOutcome runMCPConfigureCommand(const std::optional<std::string>& client, bool all,
                                               const MCPClientConfigurator::Places& places);
// Takes the entry out of every client's file and names the clients it was taken from.
MCPClientCommandOutcome runMCPUnconfigureCommand(const MCPClientConfigurator::Places& places);
// The hand instruction and the text to copy for one client.
MCPClientCommandOutcome runMCPSnippetCommand(const std::string& client,
                                             const MCPClientConfigurator::Places& places);
// Which assistants are set up to use the bridge, as one line.
std::string configuredClientsLine(const MCPClientConfigurator::Places& places);

}  // namespace quorel
