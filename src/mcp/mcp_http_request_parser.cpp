#include "mcp/mcp_http_request_parser.hpp"

#include <algorithm>
#include <charconv>
#include <system_error>

#include "mcp/text_util.hpp"

namespace quorel::mcp_http {

namespace {

// A base-ten integer as the platform reads one: an optional sign, then digits only.
std::optional<std::int64_t> parseInteger(std::string_view s) {
  if (!s.empty() && s.front() == '+') s.remove_prefix(1);
  if (s.empty() || s.front() == '+') return std::nullopt;
  std::int64_t value = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
  return value;
}

// The bearer form of an Authorization value, as a view into it.
std::optional<std::string_view> bearerTokenIn(std::optional<std::string_view> authorization) {
  if (!authorization) return std::nullopt;
  const std::string_view trimmed = trimBlanks(*authorization);
  constexpr std::string_view kPrefix = "bearer ";
  if (trimmed.size() <= kPrefix.size()) return std::nullopt;
  if (!equalsIgnoringAsciiCase(trimmed.substr(0, kPrefix.size()), kPrefix)) return std::nullopt;
  return trimBlanks(trimmed.substr(kPrefix.size()));
}

}  // namespace

ParsedView parseInPlace(std::string_view data, const std::optional<std::string>& requiredToken) {
  using Kind = MCPParseResult::Kind;
  const auto fail = [](Kind kind) { return ParsedView{kind, {}}; };
  const auto mark = data.find("\r\n\r\n");
  if (mark == std::string_view::npos) return fail(Kind::incomplete);
  const std::string_view head = data.substr(0, mark);
  if (!isValidUTF8(head)) return fail(Kind::badRequest);

  // Lines end at LF; a CR just before an LF belongs to the line end, any other CR to the text.
  std::size_t at = 0;
  const auto nextLine = [&]() -> std::optional<std::string_view> {
    if (at > head.size()) return std::nullopt;
    const auto lf = head.find('\n', at);
    std::string_view line = head.substr(at, lf == std::string_view::npos ? lf : lf - at);
    if (lf != std::string_view::npos && !line.empty() && line.back() == '\r') {
      line.remove_suffix(1);
    }
    at = lf == std::string_view::npos ? head.size() + 1 : lf + 1;
    return line;
  };

  // Method, path and a version that is ignored, split on single spaces; no space at all means
  // there is no path.
  const std::string_view requestLine = *nextLine();
  const auto firstSpace = requestLine.find(' ');
  if (firstSpace == std::string_view::npos) return fail(Kind::badRequest);
  std::string_view path = requestLine.substr(firstSpace + 1);
  RequestView request;
  request.method = requestLine.substr(0, firstSpace);
  request.path = path.substr(0, path.find(' '));

  std::optional<std::int64_t> declaredLength;
  bool chunked = false;
  std::optional<std::string_view> host, origin, authorization, headerToken;
  while (const auto line = nextLine()) {
    const auto colon = line->find(':');
    if (colon == std::string_view::npos) continue;
    const std::string_view name = trimBlanks(line->substr(0, colon));
    const std::string_view value = trimBlanks(line->substr(colon + 1));
    // The names that matter differ in length, so the length alone picks the one to compare.
    const auto is = [name](std::string_view known) { return equalsIgnoringAsciiCase(name, known); };
    switch (name.size()) {
      case 12:
        if (is("content-type")) request.contentType = value;
        break;
      case 14:
        if (is("content-length")) {
          auto n = parseInteger(value);
          if (!n || *n < 0 || *n > kMaxContentLength) {
            return fail(Kind::badRequest);
          }
          declaredLength = *n;
        }
        break;
      case 17:
        if (is("transfer-encoding") && asciiLower(value).find("chunked") != std::string::npos) {
          chunked = true;
        }
        break;
      case 4:
        if (is("host")) host = value;
        break;
      case 6:
        if (is("origin")) origin = value;
        break;
      case 13:
        if (is("authorization")) authorization = value;
        break;
      case 18:
        if (is("x-quorel-mcp-token")) headerToken = value;
        break;
      default:
        break;
    }
  }

  // No browser-origin request is ever answered, so no cross-origin headers exist either.
  if (origin) return fail(Kind::forbidden);
  // A foreign Host is how a DNS-rebinding page reaches a loopback port.
  if (!isLoopbackHost(host)) return fail(Kind::forbidden);
  if (requiredToken) {
    auto presented = bearerTokenIn(authorization);
    if (!presented) presented = headerToken;
    if (!presented || !constantTimeEquals(*presented, *requiredToken)) {
      return fail(Kind::unauthorized);
    }
  }
  if (chunked) return fail(Kind::badRequest);

  const std::string_view rest = data.substr(mark + 4);
  if (declaredLength) {
    const auto length = static_cast<std::size_t>(*declaredLength);
    if (rest.size() < length) return fail(Kind::incomplete);
    request.body = rest.substr(0, length);
  } else {
    request.body = rest;
  }
  return ParsedView{Kind::request, request};
}

MCPParseResult parse(std::string_view data, const std::optional<std::string>& requiredToken) {
  const ParsedView parsed = parseInPlace(data, requiredToken);
  if (parsed.kind != MCPParseResult::Kind::request) return {parsed.kind, std::nullopt};
  const RequestView& view = parsed.request;
  MCPHTTPRequest request;
  request.method = asciiUpper(view.method);
  request.path = std::string(view.path);
  if (view.contentType) request.contentType = std::string(*view.contentType);
  request.body = std::string(view.body);
  return MCPParseResult{parsed.kind, std::move(request)};
}

bool isLoopbackHost(std::optional<std::string_view> value) {
  if (!value || value->empty()) return true;
  std::string_view h = *value;
  std::string_view hostPart;
  if (h.front() == '[') {
    const auto close = h.find(']');
    hostPart = close == std::string_view::npos ? h.substr(1) : h.substr(1, close - 1);
  } else if (std::count(h.begin(), h.end(), ':') <= 1) {
    // The first non-empty side of the colon; a value of only a colon stays whole.
    const auto colon = h.find(':');
    const std::string_view before = h.substr(0, colon);
    const std::string_view after =
        colon == std::string_view::npos ? std::string_view() : h.substr(colon + 1);
    hostPart = !before.empty() ? before : !after.empty() ? after : h;
  } else {
    hostPart = h;  // a bare IPv6 address
  }
  return hostPart == "127.0.0.1" || hostPart == "::1" ||
         equalsIgnoringAsciiCase(hostPart, "localhost");
}

std::optional<std::string> bearerToken(std::optional<std::string_view> authorization) {
  auto token = bearerTokenIn(authorization);
  if (!token) return std::nullopt;
  return std::string(*token);
}

bool constantTimeEquals(std::string_view a, std::string_view b) {
  const std::size_t n = std::max(a.size(), b.size());
  unsigned difference = a.size() == b.size() ? 0u : 1u;
  for (std::size_t i = 0; i < n; ++i) {
    const auto x = i < a.size() ? static_cast<unsigned char>(a[i]) : 0u;
    const auto y = i < b.size() ? static_cast<unsigned char>(b[i]) : 0u;
    difference |= x ^ y;
  }
  return difference == 0;
}

bool isAcceptableContentType(std::optional<std::string_view> value) {
  if (!value || value->empty()) return true;
  const std::string_view mediaType = value->substr(0, value->find(';'));
  return equalsIgnoringAsciiCase(trimWhitespace(mediaType), "application/json");
}

}  // namespace quorel::mcp_http
