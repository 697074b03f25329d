// Feeds arbitrary bytes to the HTTP request parser, with and without a required token, and
// checks what every result promises.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "mcp/mcp_http_request_parser.hpp"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace http = quorel::mcp_http;
  using Kind = quorel::MCPParseResult::Kind;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);

  for (const auto& token : {std::optional<std::string>{}, std::optional<std::string>{"tok"}}) {
    const auto result = http::parse(bytes, token);
    check(result.request.has_value() == (result.kind == Kind::request));
    if (result.request) {
      check(result.request->body.size() <= bytes.size());
      check(bytes.find("\r\n\r\n") != std::string_view::npos);
      // The method is always upper case.
      for (char c : result.request->method) check(!(c >= 'a' && c <= 'z'));
    }
    if (bytes.find("\r\n\r\n") == std::string_view::npos) check(result.kind == Kind::incomplete);
    // Parsing is pure: the same bytes give the same answer, and the view the transport acts on
    // is the same decision.
    check(http::parse(bytes, token) == result);
    const auto view = http::parseInPlace(bytes, token);
    check(view.kind == result.kind);
    if (result.request) check(view.request.body == result.request->body);
  }

  // The helpers never fail on any text.
  const auto half = bytes.substr(0, size / 2);
  (void)http::isLoopbackHost(bytes);
  (void)http::isAcceptableContentType(bytes);
  if (auto bearer = http::bearerToken(bytes)) check(bearer->size() < bytes.size());
  check(http::constantTimeEquals(bytes, bytes));
  check(http::constantTimeEquals(half, bytes) == (half == bytes));
  return 0;
}
