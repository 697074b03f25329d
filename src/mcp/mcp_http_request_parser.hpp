#pragma once
// The request parser of the MCP endpoint: pure functions from the bytes a connection has
// buffered so far to what should happen with them. No sockets, no state, no allocation on the
// view-based path, so that the transport parses a request where it landed and a fuzzer or a
// test exercises every rule without a network.
//
// Every check lies here, in a fixed order: the head must be UTF-8 with a request line of at
// least two words; a Content-Length out of 0...kMaxContentLength is refused at once; then any
// Origin, a Host other than loopback, a missing or wrong token, and a chunked body, in that
// order. Without a Content-Length the body is whatever has arrived after the head.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorel {

// A complete request that passed every check of the parser.
struct MCPHTTPRequest {
  std::string method;  // upper case
  std::string path;    // as sent, query included
  std::optional<std::string> contentType;
  std::string body;
  bool operator==(const MCPHTTPRequest&) const = default;
};

// What the parser makes of the bytes buffered so far.
struct MCPParseResult {
  enum class Kind { incomplete, badRequest, forbidden, unauthorized, request };
  Kind kind = Kind::incomplete;
  std::optional<MCPHTTPRequest> request;  // set for Kind::request only
  bool operator==(const MCPParseResult&) const = default;
};

namespace mcp_http {

inline constexpr std::int64_t kMaxContentLength = 1'048'576;

// A request whose parts point into the bytes parsed; valid as long as those bytes are.
struct RequestView {
  std::string_view method;  // as sent; compare without regard to case
  std::string_view path;
  std::optional<std::string_view> contentType;
  std::string_view body;
};

struct ParsedView {
  MCPParseResult::Kind kind = MCPParseResult::Kind::incomplete;
  RequestView request;  // meaningful for Kind::request only
};

// `requiredToken` absent: no token is asked for.
ParsedView parseInPlace(std::string_view data, const std::optional<std::string>& requiredToken);
// The same decision, with the request copied out and its method in upper case.
MCPParseResult parse(std::string_view data, const std::optional<std::string>& requiredToken);

// Absent or empty passes; otherwise the host part ("[::1]:8473" -> "::1") must be 127.0.0.1,
// ::1 or localhost, the last in any case. A Host is how a DNS-rebinding page reaches loopback.
bool isLoopbackHost(std::optional<std::string_view> host);
// The token of a "Bearer <token>" value (scheme in any case, blanks trimmed), else absent.
std::optional<std::string> bearerToken(std::optional<std::string_view> authorization);
// Compares without an early exit, so timing does not reveal how much of a guess was right.
bool constantTimeEquals(std::string_view a, std::string_view b);
// Absent or empty passes; otherwise the media type before any ";" must be application/json.
bool isAcceptableContentType(std::optional<std::string_view> value);

}  // namespace mcp_http
}  // namespace quorel
