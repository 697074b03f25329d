#include "mcp/mcp_http_client.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>

#include "core/file_descriptor.hpp"
#include "mcp/text_util.hpp"

namespace quorel {

namespace {

std::string errnoText(int error) {
  return std::strerror(error);
}

std::optional<std::uint16_t> parsePort(std::string_view text) {
  unsigned value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value < 1 || value > 65535) {
    return std::nullopt;
  }
  return static_cast<std::uint16_t>(value);
}

// Connects without blocking past the deadline; the descriptor is left non-blocking.
std::optional<std::string> connectTo(int fd, const MCPEndpointAddress& endpoint, const Clock& clock,
                                     MonotonicTime deadline) {
  sockaddr_storage storage{};
  socklen_t length = 0;
  if (endpoint.host == "::1") {
    auto* a = reinterpret_cast<sockaddr_in6*>(&storage);
    a->sin6_family = AF_INET6;
    a->sin6_port = htons(endpoint.port);
    a->sin6_addr = in6addr_loopback;
    length = sizeof *a;
  } else {
    auto* a = reinterpret_cast<sockaddr_in*>(&storage);
    a->sin_family = AF_INET;
    a->sin_port = htons(endpoint.port);
    a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    length = sizeof *a;
  }
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&storage), length) == 0) return std::nullopt;
  if (errno != EINPROGRESS) return errnoText(errno);
  if (!waitForDescriptor(fd, POLLOUT, deadline, clock)) return std::string("timed out connecting");
  int error = 0;
  socklen_t size = sizeof error;
  if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) return errnoText(errno);
  if (error != 0) return errnoText(error);
  return std::nullopt;
}

// The declared body length of a complete head, when it has one.
std::optional<std::size_t> contentLength(std::string_view head) {
  std::size_t at = 0;
  while (at < head.size()) {
    auto end = head.find("\r\n", at);
    if (end == std::string_view::npos) end = head.size();
    const auto line = head.substr(at, end - at);
    at = end + 2;
    const auto colon = line.find(':');
    if (colon == std::string_view::npos ||
        !equalsIgnoringAsciiCase(trimBlanks(line.substr(0, colon)), "content-length")) {
      continue;
    }
    const auto value = trimBlanks(line.substr(colon + 1));
    std::size_t n = 0;
    const auto [p, ec] = std::from_chars(value.data(), value.data() + value.size(), n);
    if (ec == std::errc() && p == value.data() + value.size()) return n;
  }
  return std::nullopt;
}

}  // namespace

std::optional<MCPEndpointAddress> MCPEndpointAddress::fromURL(std::string_view url) {
  url = trimWhitespace(url);
  constexpr std::string_view scheme = "http://";
  if (url.size() <= scheme.size() || !equalsIgnoringAsciiCase(url.substr(0, 7), scheme)) {
    return std::nullopt;
  }
  url.remove_prefix(scheme.size());
  const auto slash = url.find('/');
  const std::string_view authority = url.substr(0, slash);
  MCPEndpointAddress address;
  address.path = slash == std::string_view::npos ? "/" : std::string(url.substr(slash));
  std::string_view host, port;
  if (!authority.empty() && authority.front() == '[') {
    const auto close = authority.find(']');
    if (close == std::string_view::npos || authority.substr(close + 1).rfind(':', 0) != 0) {
      return std::nullopt;
    }
    host = authority.substr(1, close - 1);
    port = authority.substr(close + 2);
  } else {
    const auto colon = authority.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    host = authority.substr(0, colon);
    port = authority.substr(colon + 1);
  }
  const std::string lowered = asciiLower(host);
  if (lowered == "::1") {
    address.host = "::1";
  } else if (lowered != "127.0.0.1" && lowered != "localhost") {
    return std::nullopt;
  }
  const auto number = parsePort(port);
  if (!number) return std::nullopt;
  address.port = *number;
  return address;
}

namespace {

std::optional<std::string> readWholeFile(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream contents;
  contents << in.rdbuf();
  if (in.bad()) return std::nullopt;
  return std::move(contents).str();
}

}  // namespace

std::optional<std::string> readMCPTokenFile(const std::filesystem::path& file) {
  const auto text = readWholeFile(file);
  if (!text) return std::nullopt;
  const std::string_view token = trimWhitespace(*text);
  if (token.empty() || !isValidUTF8(token)) return std::nullopt;
  return std::string(token);
}

std::optional<MCPEndpointAddress> readMCPEndpointFile(const std::filesystem::path& file) {
  const auto text = readWholeFile(file);
  return text ? MCPEndpointAddress::fromURL(*text) : std::nullopt;
}

MCPPostResult postToMCPEndpoint(const MCPEndpointAddress& endpoint, std::string_view body,
                                const std::optional<std::string>& token, const Clock& clock,
                                Seconds timeout) {
  const MonotonicTime deadline =
      clock.monotonicNow() + std::chrono::duration_cast<MonotonicTime::duration>(timeout);
  const int family = endpoint.host == "::1" ? AF_INET6 : AF_INET;
  FileDescriptor fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (fd.get() < 0) return MCPPostFailure{false, errnoText(errno)};
  if (auto failed = connectTo(fd.get(), endpoint, clock, deadline)) {
    return MCPPostFailure{false, *failed};
  }

  const std::string hostHeader = endpoint.host == "::1" ? "[::1]" : endpoint.host;
  std::string request = "POST " + endpoint.path + " HTTP/1.1\r\nHost: " + hostHeader + ":" +
                        std::to_string(endpoint.port) +
                        "\r\nContent-Type: application/json\r\nAccept: application/json\r\n";
  if (token) request += "Authorization: Bearer " + *token + "\r\n";
  request += "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
  request += body;
  for (std::size_t sent = 0; sent < request.size();) {
    const ssize_t n = ::send(fd.get(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<std::size_t>(n);
    } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
      if (!waitForDescriptor(fd.get(), POLLOUT, deadline, clock)) {
        return MCPPostFailure{sent > 0, "timed out sending"};
      }
    } else {
      // The server answers a request it refuses (too large, say) before reading all of it.
      if (sent > 0) break;
      return MCPPostFailure{false, errnoText(errno)};
    }
  }

  std::string received;
  std::optional<std::size_t> complete;  // total size once the head tells it
  char chunk[65536];
  for (;;) {
    const ssize_t n = ::recv(fd.get(), chunk, sizeof chunk, 0);
    if (n > 0) {
      received.append(chunk, static_cast<std::size_t>(n));
      if (!complete) {
        if (const auto mark = received.find("\r\n\r\n"); mark != std::string::npos) {
          if (auto length = contentLength(std::string_view(received).substr(0, mark))) {
            complete = mark + 4 + *length;
          }
        }
      }
      if (complete && received.size() >= *complete) break;
    } else if (n == 0) {
      break;
    } else if (errno == EAGAIN || errno == EINTR) {
      if (!waitForDescriptor(fd.get(), POLLIN, deadline, clock)) {
        return MCPPostFailure{
            true,
            "no answer within " + std::to_string(static_cast<long long>(timeout.count())) + " s"};
      }
    } else {
      if (received.empty()) return MCPPostFailure{true, errnoText(errno)};
      break;
    }
  }

  // "HTTP/1.1 200 OK"
  const auto mark = received.find("\r\n\r\n");
  const auto space = received.find(' ');
  if (received.compare(0, 5, "HTTP/") != 0 || mark == std::string::npos || space > mark) {
    return MCPPostFailure{true, received.empty() ? "the connection closed without an answer"
                                                 : "an answer that is not HTTP"};
  }
  MCPHTTPAnswer answer;
  int status = 0;
  const char* digits = received.c_str() + space + 1;
  const auto [end, ec] = std::from_chars(digits, received.c_str() + mark, status);
  if (ec != std::errc() || end == digits) return MCPPostFailure{true, "an answer that is not HTTP"};
  answer.status = status;
  answer.body = received.substr(mark + 4, complete ? *complete - mark - 4 : std::string::npos);
  return answer;
}

}  // namespace quorel
