#pragma once
// A client of the agent's loopback endpoint: one POST of a JSON body on a connection of its own,
// as the server takes exactly one request per connection. Used by `quorel mcp status` to probe
// the server and by the stdio bridge to forward every message. Blocking; no state, so any
// thread may call it.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "core/clock.hpp"

namespace quorel {

// Where the server listens, as the endpoint file names it.
struct MCPEndpointAddress {
  // "127.0.0.1" or "::1": the server binds the loopback address only, so nothing else is taken.
  std::string host = "127.0.0.1";
  std::uint16_t port = 0;
  std::string path = "/mcp";

  // Reads "http://127.0.0.1:8473/mcp" (also "localhost" and "[::1]"); surrounding white space
  // and line ends are ignored. Absent for anything else, including a missing port.
  static std::optional<MCPEndpointAddress> fromURL(std::string_view url);
  bool operator==(const MCPEndpointAddress&) const = default;
};

struct MCPHTTPAnswer {
  int status = 0;  // 200, 202, 401, ...
  std::string body;
};

// Why no answer came.
struct MCPPostFailure {
  // False when the request never reached the server (nothing listens, the socket could not be
  // made); true when it was sent whole, so the server may have acted on it.
  bool delivered = false;
  std::string reason;
};

using MCPPostResult = std::variant<MCPHTTPAnswer, MCPPostFailure>;

// What clients read from the files the server publishes: the token trimmed of white space and
// line ends, the endpoint as an address. Absent when the file is missing, unreadable, blank, not
// UTF-8 (the token) or not a loopback URL (the endpoint).
std::optional<std::string> readMCPTokenFile(const std::filesystem::path& file);
std::optional<MCPEndpointAddress> readMCPEndpointFile(const std::filesystem::path& file);

// POSTs `body` as application/json, with "Authorization: Bearer <token>" when a token is given,
// and reads the one answer. The whole exchange ends by `timeout` on `clock`'s monotonic time.
MCPPostResult postToMCPEndpoint(const MCPEndpointAddress& endpoint, std::string_view body,
                                const std::optional<std::string>& token, const Clock& clock,
                                Seconds timeout);

}  // namespace quorel
