#pragma once
// The helper's Unix socket: JSON-RPC 2.0, one object per line, answers in the order asked.
// Anyone on the machine may connect (the socket is mode 0666); what a caller may do comes from
// its credentials, read from the kernel with SO_PEERCRED when it connects.
//
// Every byte from the socket is treated as hostile: a line is at most kMaxLineBytes, a partial
// line has lineDeadline to complete, a silent connection idleDeadline, and a client that does not
// read its answers is dropped once they pile up. Deadlines run on the queue's clock.
//
// Threading: everything runs on the queue given; construct, start and stop it there (or before
// the queue runs). Connections never wait on one another: all reads and writes are asynchronous.

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

#include "core/result.hpp"
#include "core/serial_queue.hpp"
#include "helper_methods.hpp"
#include "mcp/line_socket_server.hpp"

namespace quorel {

enum class CallerAuthority { full, pingOnly };

// Root and the configured users may call anything; everyone else may only ping.
CallerAuthority authorityFor(uid_t uid, const std::vector<uid_t>& allowedUids);
// Whether a caller of that authority may call `method` (which need not be a known method).
bool isPermitted(CallerAuthority authority, std::string_view method);

struct HelperServerOptions {
  std::vector<uid_t> allowedUids;
  Seconds lineDeadline{30};
  Seconds idleDeadline{600};
  std::size_t maxConnections = 256;
};

class HelperServer {
 public:
  static constexpr std::size_t kMaxLineBytes = 65'536;
  // Answers a client has not read yet; past this it is dropped.
  static constexpr std::size_t kMaxPendingOutput = 1'048'576;

  HelperServer(SerialQueue& queue, HelperMethods& methods, HelperServerOptions options);
  ~HelperServer();
  HelperServer(const HelperServer&) = delete;
  HelperServer& operator=(const HelperServer&) = delete;

  // Serves on an already listening socket, which the server then owns.
  void start(int listeningFd);
  // Closes the listener and every connection.
  void stop();
  std::size_t connectionCount() const;
  // Called on the queue once the answer to a `quit` has been written (or could not be).
  void setOnQuit(std::function<void()> onQuit);

 private:
  class Session;

  HelperMethods& methods_;
  const std::vector<uid_t> allowedUids_;
  // Shared with the sessions, which may outlive a change of it.
  std::shared_ptr<std::function<void()>> onQuit_ = std::make_shared<std::function<void()>>();
  LineSocketServer server_;
};

// A listening Unix socket at `path`, mode 0666, replacing a stale socket file left there (but
// nothing else). The parent directory is created if missing.
Result<int> listenOnUnixSocket(const std::filesystem::path& path);

}  // namespace quorel
