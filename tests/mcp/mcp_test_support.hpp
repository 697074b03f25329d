#pragma once
// What the MCP tests share: a raw loopback client that speaks bytes rather than HTTP, a bounded
// wait for what another thread brings about, and a scratch directory.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio/ip/tcp.hpp>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <thread>

#include "core/clock.hpp"
#include "support/log_capture.hpp"

namespace quorel::testing {

// Real time, for the safety nets of waits that another thread ends; never what a test decides on.
inline const SystemClock kRealClock;

class ScratchDirectory {
 public:
  ScratchDirectory() { std::filesystem::create_directories(path_); }
  ~ScratchDirectory() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_ =
      std::filesystem::temp_directory_path() / ("quorel-mcp-test-" + std::to_string(::getpid()) +
                                                "-" + std::to_string(std::random_device{}()));
};

struct RawAnswer {
  std::string bytes;
  bool closed = false;  // the server ended the stream (orderly or by reset)
  bool reset = false;   // ... and it was by reset

  // "HTTP/1.1 200 OK" -> "200 OK"
  std::string status() const {
    const auto end = bytes.find("\r\n");
    if (bytes.rfind("HTTP/1.1 ", 0) != 0 || end == std::string::npos) return {};
    return bytes.substr(9, end - 9);
  }
  std::optional<std::string> header(const std::string& name) const {
    const auto at = bytes.find("\r\n" + name + ": ");
    if (at == std::string::npos || at > bytes.find("\r\n\r\n")) return std::nullopt;
    const auto begin = at + name.size() + 4;
    return bytes.substr(begin, bytes.find("\r\n", begin) - begin);
  }
  std::string body() const {
    const auto headEnd = bytes.find("\r\n\r\n");
    return headEnd == std::string::npos ? std::string() : bytes.substr(headEnd + 4);
  }
  // How many responses arrived on the one connection.
  std::size_t responseCount() const {
    std::size_t n = 0;
    for (auto at = bytes.find("HTTP/1.1 "); at != std::string::npos;
         at = bytes.find("HTTP/1.1 ", at + 1)) {
      ++n;
    }
    return n;
  }
};

// A client of 127.0.0.1 that sends exactly the bytes it is given.
class RawClient {
 public:
  // `from`, when given, is the local address the connection comes from.
  explicit RawClient(std::uint16_t port, const char* from = nullptr) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    if (from != nullptr) {
      ::inet_pton(AF_INET, from, &a.sin_addr);
      ::bind(fd_, reinterpret_cast<const sockaddr*>(&a), sizeof a);
    }
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0;
  }
  ~RawClient() { ::close(fd_); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool connected() const { return connected_; }
  bool send(const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) return false;
      sent += static_cast<std::size_t>(n);
    }
    return true;
  }
  // Reads until the server ends the stream or `limit` passes (a safety net, not a timer that
  // the test depends on).
  RawAnswer readAll(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    RawAnswer answer;
    const auto until = kRealClock.monotonicNow() + limit;
    char buf[65536];
    for (;;) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(until - kRealClock.monotonicNow());
      pollfd p{fd_, POLLIN, 0};
      if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) return answer;
      const ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
      if (n <= 0) {
        answer.closed = true;
        answer.reset = n < 0 && errno == ECONNRESET;
        return answer;
      }
      answer.bytes.append(buf, static_cast<std::size_t>(n));
    }
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
};

inline RawAnswer roundTrip(std::uint16_t port, const std::string& bytes) {
  RawClient client(port);
  if (!client.connected() || !client.send(bytes)) return {};
  return client.readAll();
}

inline std::string post(const std::string& body, const std::string& extraHeaders = {},
                        const std::string& path = "/mcp") {
  return "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n" +
         extraHeaders + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// A port that was free a moment ago.
inline std::uint16_t portWithNothingOnIt() {
  asio::io_context io;
  return asio::ip::tcp::acceptor(io, {asio::ip::make_address_v4("127.0.0.1"), 0})
      .local_endpoint()
      .port();
}

// Waits, bounded, for a condition that another thread brings about.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  const auto until = kRealClock.monotonicNow() + limit;
  while (kRealClock.monotonicNow() < until) {
    if (condition()) return true;
    std::this_thread::yield();
  }
  return condition();
}

}  // namespace quorel::testing
