#include "mcp/mcp_commands.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <optional>
#include <sstream>

#include "mcp/json_rpc.hpp"
#include "mcp/mcp_server.hpp"
#include "mcp/text_util.hpp"

namespace quorel {

namespace fs = std::filesystem;

namespace {

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

struct ProbeAnswer {
  int status = 0;
  std::string body;
};

int millisecondsLeft(const Clock& clock, MonotonicTime deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock.monotonicNow());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

bool waitFor(int fd, short events, const Clock& clock, MonotonicTime deadline) {
  pollfd p{fd, events, 0};
  for (;;) {
    const int r = ::poll(&p, 1, millisecondsLeft(clock, deadline));
    if (r < 0 && errno == EINTR) continue;
    return r > 0;
  }
}

// One POST of a "ping" to the loopback endpoint; absent when nothing answers in time.
std::optional<ProbeAnswer> probe(std::uint16_t port, const std::optional<std::string>& token,
                                 const Clock& clock, Seconds timeout) {
  const MonotonicTime deadline =
      clock.monotonicNow() + std::chrono::duration_cast<MonotonicTime::duration>(timeout);
  FileDescriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (fd.get() < 0) return std::nullopt;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (errno != EINPROGRESS || !waitFor(fd.get(), POLLOUT, clock, deadline)) return std::nullopt;
    int error = 0;
    socklen_t length = sizeof error;
    if (::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
      return std::nullopt;
    }
  }
  const std::string body = R"({"jsonrpc":"2.0","id":1,"method":"ping"})";
  std::string request = "POST /mcp HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                        "\r\nContent-Type: application/json\r\n";
  if (token) request += "Authorization: Bearer " + *token + "\r\n";
  request += "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
  request += body;
  for (std::size_t sent = 0; sent < request.size();) {
    const ssize_t n = ::send(fd.get(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<std::size_t>(n);
    } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
      if (!waitFor(fd.get(), POLLOUT, clock, deadline)) return std::nullopt;
    } else {
      return std::nullopt;
    }
  }
  std::string received;
  char chunk[4096];
  for (;;) {
    const ssize_t n = ::recv(fd.get(), chunk, sizeof chunk, 0);
    if (n > 0) {
      received.append(chunk, static_cast<std::size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno == EAGAIN || errno == EINTR) {
      if (!waitFor(fd.get(), POLLIN, clock, deadline)) return std::nullopt;
    } else {
      break;
    }
  }
  // "HTTP/1.1 200 OK"
  if (received.size() < 12 || received.compare(0, 5, "HTTP/") != 0) return std::nullopt;
  const auto space = received.find(' ');
  if (space == std::string::npos) return std::nullopt;
  ProbeAnswer answer;
  answer.status = std::atoi(received.c_str() + space + 1);
  if (const auto mark = received.find("\r\n\r\n"); mark != std::string::npos) {
    answer.body = received.substr(mark + 4);
  }
  return answer;
}

std::optional<std::string> readToken(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream contents;
  contents << in.rdbuf();
  const std::string text = contents.str();
  const std::string_view token = trimWhitespace(text);
  if (token.empty() || !isValidUTF8(token)) return std::nullopt;
  return std::string(token);
}

std::string connectionLines(std::uint16_t port, const fs::path& dataDirectory) {
  const fs::path tokenFile = mcpTokenFile(dataDirectory);
  std::error_code ec;
  std::string out = "HTTP: " + mcpEndpointURL(port) + "\n";
  out += "Token file: " + tokenFile.string();
  if (!fs::exists(tokenFile, ec))
    out += " (not created yet — the agent writes it when the server starts)";
  out += "\n";
  return out;
}

}  // namespace

MCPCommandOutcome runMCPEnableCommand(PreferenceStore& preferences,
                                      const std::filesystem::path& dataDirectory) {
  preferences.setValue(kMCPServerEnabledKey, true);
  return {"MCP server enabled — a running agent starts it within moments.\n" +
              connectionLines(mcpConfiguredPort(preferences), dataDirectory),
          0};
}

MCPCommandOutcome runMCPDisableCommand(PreferenceStore& preferences,
                                       const std::filesystem::path& /*dataDirectory*/) {
  preferences.setValue(kMCPServerEnabledKey, false);
  return {"MCP server disabled — a running agent stops it within moments.\n", 0};
}

MCPCommandOutcome runMCPStatusCommand(const PreferenceStore& preferences,
                                      const std::filesystem::path& dataDirectory,
                                      const Clock& clock, Seconds probeTimeout) {
  const std::uint16_t port = mcpConfiguredPort(preferences);
  const std::string details = connectionLines(port, dataDirectory);
  const std::string where = "127.0.0.1:" + std::to_string(port);
  if (!preferences.boolValue(kMCPServerEnabledKey)) {
    return {mcpStatusText(false, false, std::nullopt, port) + "\n" + details, 0};
  }
  const auto answer = probe(port, readToken(mcpTokenFile(dataDirectory)), clock, probeTimeout);
  if (!answer) {
    return {"Not running — nothing answers on " + where +
                "; start the agent with `quorel`, which then starts the server.\n" + details,
            1};
  }
  if (answer->status == 401) {
    return {"Running on " + where + ", but it refuses the token in the token file — restart " +
                "the agent so that it reads the file again.\n" + details,
            1};
  }
  const auto response = JSONRPCResponse::decode(answer->body);
  if (answer->status != 200 || !response || !response->result) {
    return {"Something other than the agent answers on " + where + " (HTTP " +
                std::to_string(answer->status) +
                ") — stop the program that holds this port, then restart the agent.\n" + details,
            1};
  }
  return {mcpStatusText(true, true, std::nullopt, port) + "\n" + details, 0};
}

}  // namespace quorel
