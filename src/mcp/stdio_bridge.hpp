#pragma once
// The stdio bridge that assistants launch as `quorel-mcp`: newline-delimited JSON-RPC on its
// standard input and output on one side, the agent's loopback HTTP endpoint on the other. It
// finds the endpoint and the token through the files the agent publishes in its data directory
// and reads them again whenever a POST fails, so an agent restarted on another port or with a
// new token is found without restarting the assistant.
//
// One message at a time, in order, each forwarded as it is. Standard output carries protocol
// only; the bridge logs to the "mcp-bridge" logger. Not thread-safe: one thread drives it.

#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

#include "core/clock.hpp"
#include "mcp/mcp_http_client.hpp"

namespace quorel {

// A server error of JSON-RPC's reserved range: the bridge is up but the agent behind it is not.
inline constexpr std::int64_t kMCPBridgeAgentUnavailable = -32000;

struct MCPStdioBridgeOptions {
  // Where the agent writes mcp-endpoint and mcp-token (the agent's --data-dir).
  std::filesystem::path dataDirectory;
  // How long one message may wait for its answer. Tool calls may take long; this only keeps a
  // wedged agent from holding the assistant forever.
  Seconds answerTimeout{300.0};
};

class MCPStdioBridge {
 public:
  // `clock` times the POSTs' deadlines and must outlive the bridge.
  MCPStdioBridge(MCPStdioBridgeOptions options, const Clock& clock);

  // The line to write for one line read (without its line feed), or absent when nothing is to
  // be written: a notification, the server's 202, a blank line. A line that is not JSON gets
  // -32700 with a null id; a request the agent cannot take gets an error with the request's id.
  std::optional<std::string> handleLine(std::string_view line);

  // Handles lines until `in` ends, writing and flushing each answer as one line. Returns the
  // exit status: 0 once every line read has been answered, 1 when `out` can no longer be
  // written (the assistant has gone).
  int run(std::istream& in, std::ostream& out);

 private:
  struct Target {
    std::optional<MCPEndpointAddress> endpoint;
    std::optional<std::string> token;
    bool operator==(const Target&) const = default;
  };

  Target readTarget() const;
  // POSTs to the known target, re-reading the files and trying once more when the server was
  // not reached or refused the request before acting on it, and the files have changed since.
  MCPPostResult forward(std::string_view message);
  // The sentence a request gets when forwarding failed.
  std::string failureMessage(const MCPPostResult& result) const;

  MCPStdioBridgeOptions options_;
  const Clock& clock_;
  std::optional<Target> target_;  // absent until first needed
  bool reportedUnavailable_ = false;
};

}  // namespace quorel
