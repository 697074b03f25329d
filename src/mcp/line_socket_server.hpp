#pragma once
// A server for one-line requests on a Unix socket: each line in is one request, each answer one
// line out, in the order the requests came, whether a request is answered at once or later. The
// peer's credentials are read from the kernel (SO_PEERCRED) when it connects, and the session
// factory decides, by uid, whether it may talk at all. The privileged helper and the agent's
// command socket both serve through it.
//
// Every byte from the socket is treated as hostile: a line is at most maxLineBytes, a partial
// line has lineDeadline to complete, a silent connection idleDeadline, and a client that does not
// read its answers is dropped once they pile up past maxPendingOutput. Deadlines run on the
// queue's clock.
//
// Threading: everything runs on the queue given; construct, start and stop it there (or before
// the queue runs). Sessions are called there, and must answer there. Connections never wait on
// one another: all reads and writes are asynchronous.

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/result.hpp"
#include "core/serial_queue.hpp"

namespace quorel {

struct LineAnswer {
  // The line to send, without its line end; absent sends nothing (a notification's answer).
  std::optional<std::string> text;
  // Close the connection once this answer, and those before it, are written; requests after
  // it go unanswered.
  bool thenClose = false;
};

// Called once per request, on the queue, now or later.
using LineReply = std::function<void(LineAnswer)>;

// One admitted client's conversation.
class LineSession {
 public:
  virtual ~LineSession() = default;
  // One request line, its line end (and a trailing carriage return) removed; never blank.
  virtual void handleLine(std::string_view line, LineReply reply) = 0;
  // The last answer to a client whose line is longer than allowed; it is then disconnected.
  virtual std::string lineTooLongAnswer() = 0;
  // The connection has closed, for any reason but the server stopping.
  virtual void closed() {}
};

// A session for a client of this uid, or null to refuse it (it is disconnected at once).
using LineSessionFactory = std::function<std::unique_ptr<LineSession>(uid_t peerUid)>;

struct LineSocketServerOptions {
  // The log category.
  std::string name = "LineSocketServer";
  std::size_t maxLineBytes = 65'536;
  // Answers a client has not read yet; past this it is dropped.
  std::size_t maxPendingOutput = 1'048'576;
  Seconds lineDeadline{30};
  Seconds idleDeadline{600};
  std::size_t maxConnections = 256;
};

class LineSocketServer {
 public:
  LineSocketServer(SerialQueue& queue, LineSessionFactory sessions,
                   LineSocketServerOptions options);
  ~LineSocketServer();
  LineSocketServer(const LineSocketServer&) = delete;
  LineSocketServer& operator=(const LineSocketServer&) = delete;

  // Serves on an already listening socket, which the server then owns.
  void start(int listeningFd);
  // Closes the listener and every connection; sessions are not told.
  void stop();
  std::size_t connectionCount() const;

  struct Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

// A listening Unix socket at `path` with permissions `mode`, replacing a stale socket file left
// there (but nothing else). The parent directory is created if missing.
Result<int> listenOnUnixSocket(const std::filesystem::path& path, mode_t mode);

}  // namespace quorel
