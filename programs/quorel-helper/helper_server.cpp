#include "helper_server.hpp"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <asio/local/stream_protocol.hpp>
#include <asio/write.hpp>
#include <cerrno>
#include <cstring>
#include <map>

#include "core/logging.hpp"

namespace quorel {

using asio::local::stream_protocol;

CallerAuthority authorityFor(uid_t uid, const std::vector<uid_t>& allowedUids) {
  if (uid == 0) return CallerAuthority::full;
  return std::find(allowedUids.begin(), allowedUids.end(), uid) != allowedUids.end()
             ? CallerAuthority::full
             : CallerAuthority::pingOnly;
}

bool isPermitted(CallerAuthority authority, std::string_view method) {
  return authority == CallerAuthority::full || method == "ping";
}

struct HelperServer::Impl : std::enable_shared_from_this<HelperServer::Impl> {
  struct Connection {
    explicit Connection(stream_protocol::socket s) : socket(std::move(s)) {}
    stream_protocol::socket socket;
    uid_t uid = 0;
    CallerAuthority authority = CallerAuthority::pingOnly;
    std::array<char, 16'384> readBuffer{};
    std::string partial;
    // Answers waiting to go out, and the one being written.
    std::string pending;
    std::string writing;
    bool closing = false;  // no more requests are read; close once the answers are out
    bool quitAfterWrite = false;
    TimerHandle deadline;
    bool lineDeadlineArmed = false;
  };

  Impl(SerialQueue& q, HelperMethods& m, HelperServerOptions o)
      : queue(q), methods(m), options(std::move(o)), log(logging::get("HelperServer")) {}

  SerialQueue& queue;
  HelperMethods& methods;
  const HelperServerOptions options;
  std::shared_ptr<spdlog::logger> log;
  std::unique_ptr<stream_protocol::acceptor> acceptor;
  std::map<std::uint64_t, std::shared_ptr<Connection>> connections;
  std::uint64_t nextId = 1;
  std::function<void()> onQuit;

  void accept();
  void admit(stream_protocol::socket socket);
  void read(std::uint64_t id);
  void received(std::uint64_t id, std::size_t bytes);
  void ended(std::uint64_t id);
  void handleLine(Connection& conn, std::string_view line);
  void send(Connection& conn, const JSONRPCResponse& response);
  void flush(std::uint64_t id);
  void armDeadline(std::uint64_t id, Connection& conn, bool partialLine);
  void close(std::uint64_t id);
};

void HelperServer::Impl::accept() {
  if (!acceptor) return;
  std::weak_ptr<Impl> weak = weak_from_this();
  acceptor->async_accept([weak](std::error_code ec, stream_protocol::socket socket) {
    auto self = weak.lock();
    if (!self || !self->acceptor || ec == asio::error::operation_aborted) return;
    if (!ec) self->admit(std::move(socket));
    if (ec) self->log->warn("accept failed: {}", ec.message());
    // Out of descriptors: wait a moment rather than spin on an error that repeats at once.
    if (ec == asio::error::no_descriptors) {
      self->queue.asyncAfter(Seconds{0.1}, [weak] {
        if (auto again = weak.lock()) again->accept();
      });
      return;
    }
    self->accept();
  });
}

void HelperServer::Impl::admit(stream_protocol::socket socket) {
  if (connections.size() >= options.maxConnections) {
    log->warn("connection limit ({}) reached; refusing a client", options.maxConnections);
    return;
  }
  ucred cred{};
  socklen_t length = sizeof cred;
  if (::getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &cred, &length) != 0 ||
      length != sizeof cred) {
    log->warn("a client's credentials could not be read; closing it");
    return;
  }
  std::error_code ec;
  socket.non_blocking(true, ec);
  const auto id = nextId++;
  auto conn = std::make_shared<Connection>(std::move(socket));
  conn->uid = cred.uid;
  conn->authority = authorityFor(cred.uid, options.allowedUids);
  connections.emplace(id, conn);
  armDeadline(id, *conn, false);
  read(id);
}

void HelperServer::Impl::read(std::uint64_t id) {
  auto it = connections.find(id);
  if (it == connections.end() || it->second->closing) return;
  auto& conn = *it->second;
  std::weak_ptr<Impl> weak = weak_from_this();
  // The connection is kept alive by the handler: its buffer must outlive a cancelled read.
  conn.socket.async_read_some(asio::buffer(conn.readBuffer),
                              [weak, id, keep = it->second](std::error_code ec, std::size_t bytes) {
                                auto self = weak.lock();
                                if (!self || ec == asio::error::operation_aborted) return;
                                if (ec == asio::error::eof) {
                                  self->ended(id);
                                } else if (ec) {
                                  self->close(id);
                                } else {
                                  self->received(id, bytes);
                                }
                              });
}

void HelperServer::Impl::received(std::uint64_t id, std::size_t bytes) {
  auto it = connections.find(id);
  if (it == connections.end()) return;
  auto conn = it->second;
  std::string_view data(conn->readBuffer.data(), bytes);
  while (!data.empty() && !conn->closing) {
    const auto newline = data.find('\n');
    const auto piece = data.substr(0, newline);
    if (conn->partial.size() + piece.size() > kMaxLineBytes) {
      log->warn("uid {} sent a line over {} bytes; closing it", conn->uid, kMaxLineBytes);
      send(*conn, JSONRPCResponse::failure(
                      std::nullopt,
                      {kHelperLineTooLong, "Request line longer than 65536 bytes", std::nullopt}));
      conn->closing = true;
      break;
    }
    if (newline == std::string_view::npos) {
      conn->partial.append(piece);
      break;
    }
    if (conn->partial.empty()) {
      handleLine(*conn, piece);
    } else {
      conn->partial.append(piece);
      const std::string line = std::move(conn->partial);
      conn->partial.clear();
      handleLine(*conn, line);
    }
    data.remove_prefix(newline + 1);
  }
  if (conn->closing) conn->deadline.cancel();
  if (!conn->closing) {
    armDeadline(id, *conn, !conn->partial.empty());
    read(id);
  }
  flush(id);
}

// A client may send its requests and shut its side at once; it still gets its answers, and a
// last line without its line end counts as a line.
void HelperServer::Impl::ended(std::uint64_t id) {
  auto it = connections.find(id);
  if (it == connections.end()) return;
  auto conn = it->second;
  if (!conn->closing && !conn->partial.empty()) {
    const std::string line = std::move(conn->partial);
    conn->partial.clear();
    handleLine(*conn, line);
  }
  conn->closing = true;
  conn->deadline.cancel();
  flush(id);
}

void HelperServer::Impl::handleLine(Connection& conn, std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  if (line.find_first_not_of(" \t") == std::string_view::npos) return;
  auto request = JSONRPCRequest::decode(line);
  if (!request) {
    const bool parses = JSONValue::parse(line).has_value();
    send(conn, JSONRPCResponse::failure(std::nullopt,
                                        parses ? JSONRPCErrorObject{kJSONRPCInvalidRequest,
                                                                    "Invalid Request", std::nullopt}
                                               : JSONRPCErrorObject::parseError));
    return;
  }
  if (request->jsonrpc != "2.0") {
    send(conn, JSONRPCResponse::failure(
                   request->id, {kJSONRPCInvalidRequest, "jsonrpc must be \"2.0\"", std::nullopt}));
    return;
  }
  if (!isPermitted(conn.authority, request->method)) {
    log->warn("uid {} is not allowed to call {}; closing it", conn.uid, request->method);
    send(conn, JSONRPCResponse::failure(
                   request->id, {kHelperNotPermitted,
                                 "uid " + std::to_string(conn.uid) +
                                     " may only ping this helper; an administrator can allow it "
                                     "with --allow-uid " +
                                     std::to_string(conn.uid) + ".",
                                 std::nullopt}));
    conn.closing = true;
    return;
  }
  auto response = methods.handle(*request);
  if (request->id) send(conn, response);
  if (request->method == "quit") {
    log->info("uid {} asked the helper to quit", conn.uid);
    conn.closing = true;
    conn.quitAfterWrite = true;
  }
}

void HelperServer::Impl::send(Connection& conn, const JSONRPCResponse& response) {
  if (!response.encodeTo(conn.pending)) {
    conn.pending.append(R"({"error":{"code":-32603,"message":"encode failed"},"jsonrpc":"2.0"})");
  }
  conn.pending.push_back('\n');
}

void HelperServer::Impl::flush(std::uint64_t id) {
  auto it = connections.find(id);
  if (it == connections.end()) return;
  auto& conn = *it->second;
  if (!conn.writing.empty()) return;
  if (conn.pending.empty()) {
    if (conn.closing) {
      const bool quit = conn.quitAfterWrite;
      close(id);
      if (quit && onQuit) onQuit();
    }
    return;
  }
  if (conn.pending.size() > kMaxPendingOutput) {
    log->warn("uid {} does not read its answers; closing it", conn.uid);
    close(id);
    return;
  }
  conn.writing.swap(conn.pending);
  std::weak_ptr<Impl> weak = weak_from_this();
  asio::async_write(conn.socket, asio::buffer(conn.writing),
                    [weak, id, keep = it->second](std::error_code ec, std::size_t) {
                      auto self = weak.lock();
                      if (!self || ec == asio::error::operation_aborted) return;
                      auto found = self->connections.find(id);
                      if (found == self->connections.end()) return;
                      found->second->writing.clear();
                      if (ec) {
                        const bool quit = found->second->quitAfterWrite;
                        self->close(id);
                        if (quit && self->onQuit) self->onQuit();
                        return;
                      }
                      self->flush(id);
                    });
}

void HelperServer::Impl::armDeadline(std::uint64_t id, Connection& conn, bool partialLine) {
  // A partial line's deadline runs from its first byte and is not pushed back by more bytes, so
  // a client trickling one byte at a time cannot hold the connection.
  if (partialLine && conn.lineDeadlineArmed) return;
  conn.lineDeadlineArmed = partialLine;
  const Seconds delay = partialLine ? options.lineDeadline : options.idleDeadline;
  std::weak_ptr<Impl> weak = weak_from_this();
  conn.deadline = queue.after(delay, [weak, id, partialLine] {
    auto self = weak.lock();
    if (!self) return;
    auto it = self->connections.find(id);
    if (it == self->connections.end()) return;
    self->log->warn("uid {} {}; closing it", it->second->uid,
                    partialLine ? "did not finish its line in time" : "was silent too long");
    self->close(id);
  });
}

void HelperServer::Impl::close(std::uint64_t id) {
  auto it = connections.find(id);
  if (it == connections.end()) return;
  auto conn = it->second;
  connections.erase(it);
  conn->deadline.cancel();
  std::error_code ec;
  conn->socket.shutdown(stream_protocol::socket::shutdown_both, ec);
  conn->socket.close(ec);
}

HelperServer::HelperServer(SerialQueue& queue, HelperMethods& methods, HelperServerOptions options)
    : impl_(std::make_shared<Impl>(queue, methods, std::move(options))) {}

HelperServer::~HelperServer() {
  stop();
}

void HelperServer::start(int listeningFd) {
  impl_->acceptor = std::make_unique<stream_protocol::acceptor>(impl_->queue.context());
  impl_->acceptor->assign(stream_protocol(), listeningFd);
  impl_->accept();
}

void HelperServer::stop() {
  std::error_code ec;
  if (impl_->acceptor) impl_->acceptor->close(ec);
  impl_->acceptor.reset();
  while (!impl_->connections.empty()) impl_->close(impl_->connections.begin()->first);
}

std::size_t HelperServer::connectionCount() const {
  return impl_->connections.size();
}

void HelperServer::setOnQuit(std::function<void()> onQuit) {
  impl_->onQuit = std::move(onQuit);
}

Result<int> listenOnUnixSocket(const std::filesystem::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string text = path.string();
  if (text.size() >= sizeof address.sun_path) return Error{"socket path too long: " + text};
  std::memcpy(address.sun_path, text.c_str(), text.size() + 1);

  std::error_code ec;
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), ec);
  struct stat existing {};
  if (::lstat(text.c_str(), &existing) == 0) {
    if (!S_ISSOCK(existing.st_mode)) return Error{text + " exists and is not a socket"};
    ::unlink(text.c_str());
  }
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return Error{std::string("socket: ") + std::strerror(errno)};
  // Created with no permissions and opened up once bound, so that nobody connects in between
  // with a mode other than the one meant.
  const mode_t previous = ::umask(0777);
  const int bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int bindError = errno;
  ::umask(previous);
  if (bound != 0 || ::chmod(text.c_str(), 0666) != 0 || ::listen(fd, SOMAXCONN) != 0) {
    const std::string reason = std::strerror(bound != 0 ? bindError : errno);
    ::close(fd);
    return Error{text + ": " + reason};
  }
  return fd;
}

}  // namespace quorel
