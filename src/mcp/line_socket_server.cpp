#include "mcp/line_socket_server.hpp"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <asio/local/stream_protocol.hpp>
#include <asio/write.hpp>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>

#include "core/logging.hpp"

namespace quorel {

using asio::local::stream_protocol;

struct LineSocketServer::Impl : std::enable_shared_from_this<LineSocketServer::Impl> {
  // One request's place in the answer order.
  struct Slot {
    bool answered = false;
    LineAnswer answer;
  };

  struct Connection {
    explicit Connection(stream_protocol::socket s) : socket(std::move(s)) {}
    stream_protocol::socket socket;
    uid_t uid = 0;
    std::unique_ptr<LineSession> session;
    std::array<char, 16'384> readBuffer{};
    std::string partial;
    // Requests not yet answered in order; the front is number `firstSlot`.
    std::deque<Slot> slots;
    std::uint64_t firstSlot = 0;
    // Answers waiting to go out, and the one being written.
    std::string pending;
    std::string writing;
    bool closing = false;  // no more requests are read; close once the answers are out
    TimerHandle deadline;
    bool lineDeadlineArmed = false;
  };

  Impl(SerialQueue& q, LineSessionFactory f, LineSocketServerOptions o)
      : queue(q), sessions(std::move(f)), options(std::move(o)), log(logging::get(options.name)) {}

  SerialQueue& queue;
  LineSessionFactory sessions;
  const LineSocketServerOptions options;
  std::shared_ptr<spdlog::logger> log;
  std::unique_ptr<stream_protocol::acceptor> acceptor;
  std::map<std::uint64_t, std::shared_ptr<Connection>> connections;
  std::uint64_t nextId = 1;

  void accept();
  void admit(stream_protocol::socket socket);
  void read(std::uint64_t id);
  void received(std::uint64_t id, std::size_t bytes);
  void ended(std::uint64_t id);
  void dispatch(std::uint64_t id, Connection& conn, std::string_view line);
  void answer(std::uint64_t id, std::uint64_t slot, LineAnswer answer);
  // Moves the answers ready at the front of the order into the output.
  void drain(Connection& conn);
  void flush(std::uint64_t id);
  void armDeadline(std::uint64_t id, Connection& conn, bool partialLine);
  void close(std::uint64_t id, bool tellSession = true);
};

void LineSocketServer::Impl::accept() {
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

void LineSocketServer::Impl::admit(stream_protocol::socket socket) {
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
  auto session = sessions(cred.uid);
  if (!session) {
    log->warn("uid {} may not use this socket; closing it", cred.uid);
    return;
  }
  std::error_code ec;
  socket.non_blocking(true, ec);
  const auto id = nextId++;
  auto conn = std::make_shared<Connection>(std::move(socket));
  conn->uid = cred.uid;
  conn->session = std::move(session);
  connections.emplace(id, conn);
  armDeadline(id, *conn, false);
  read(id);
}

void LineSocketServer::Impl::read(std::uint64_t id) {
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

void LineSocketServer::Impl::received(std::uint64_t id, std::size_t bytes) {
  auto it = connections.find(id);
  if (it == connections.end()) return;
  auto conn = it->second;
  std::string_view data(conn->readBuffer.data(), bytes);
  while (!data.empty() && !conn->closing) {
    const auto newline = data.find('\n');
    const auto piece = data.substr(0, newline);
    if (conn->partial.size() + piece.size() > options.maxLineBytes) {
      log->warn("uid {} sent a line over {} bytes; closing it", conn->uid, options.maxLineBytes);
      conn->slots.push_back(Slot{true, {conn->session->lineTooLongAnswer(), true}});
      drain(*conn);
      break;
    }
    if (newline == std::string_view::npos) {
      conn->partial.append(piece);
      break;
    }
    if (conn->partial.empty()) {
      dispatch(id, *conn, piece);
    } else {
      conn->partial.append(piece);
      const std::string line = std::move(conn->partial);
      conn->partial.clear();
      dispatch(id, *conn, line);
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
void LineSocketServer::Impl::ended(std::uint64_t id) {
  auto it = connections.find(id);
  if (it == connections.end()) return;
  auto conn = it->second;
  if (!conn->closing && !conn->partial.empty()) {
    const std::string line = std::move(conn->partial);
    conn->partial.clear();
    dispatch(id, *conn, line);
  }
  conn->closing = true;
  conn->deadline.cancel();
  flush(id);
}

void LineSocketServer::Impl::dispatch(std::uint64_t id, Connection& conn, std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  if (line.find_first_not_of(" \t") == std::string_view::npos) return;
  const std::uint64_t slot = conn.firstSlot + conn.slots.size();
  conn.slots.emplace_back();
  std::weak_ptr<Impl> weak = weak_from_this();
  conn.session->handleLine(line, [weak, id, slot](LineAnswer reply) {
    if (auto self = weak.lock()) self->answer(id, slot, std::move(reply));
  });
}

void LineSocketServer::Impl::answer(std::uint64_t id, std::uint64_t slot, LineAnswer reply) {
  auto it = connections.find(id);
  if (it == connections.end()) return;
  auto conn = it->second;
  // An answer to a request dropped by an earlier closing answer goes nowhere.
  if (slot < conn->firstSlot || slot - conn->firstSlot >= conn->slots.size()) return;
  auto& place = conn->slots[slot - conn->firstSlot];
  if (place.answered) return;
  place = Slot{true, std::move(reply)};
  drain(*conn);
  // An answer given while its line is being read is flushed by the reader.
  flush(id);
}

void LineSocketServer::Impl::drain(Connection& conn) {
  while (!conn.slots.empty() && conn.slots.front().answered) {
    auto& front = conn.slots.front().answer;
    if (front.text) {
      conn.pending.append(*front.text);
      conn.pending.push_back('\n');
    }
    const bool thenClose = front.thenClose;
    conn.slots.pop_front();
    ++conn.firstSlot;
    if (thenClose) {
      conn.closing = true;
      conn.firstSlot += conn.slots.size();
      conn.slots.clear();
    }
  }
}

void LineSocketServer::Impl::flush(std::uint64_t id) {
  auto it = connections.find(id);
  if (it == connections.end()) return;
  auto& conn = *it->second;
  if (!conn.writing.empty()) return;
  if (conn.pending.empty()) {
    if (conn.closing && conn.slots.empty()) close(id);
    return;
  }
  if (conn.pending.size() > options.maxPendingOutput) {
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
                      if (ec) return self->close(id);
                      self->flush(id);
                    });
}

void LineSocketServer::Impl::armDeadline(std::uint64_t id, Connection& conn, bool partialLine) {
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

void LineSocketServer::Impl::close(std::uint64_t id, bool tellSession) {
  auto it = connections.find(id);
  if (it == connections.end()) return;
  auto conn = it->second;
  connections.erase(it);
  conn->deadline.cancel();
  std::error_code ec;
  conn->socket.shutdown(stream_protocol::socket::shutdown_both, ec);
  conn->socket.close(ec);
  if (tellSession) conn->session->closed();
}

LineSocketServer::LineSocketServer(SerialQueue& queue, LineSessionFactory sessions,
                                   LineSocketServerOptions options)
    : impl_(std::make_shared<Impl>(queue, std::move(sessions), std::move(options))) {}

LineSocketServer::~LineSocketServer() {
  stop();
}

void LineSocketServer::start(int listeningFd) {
  impl_->acceptor = std::make_unique<stream_protocol::acceptor>(impl_->queue.context());
  impl_->acceptor->assign(stream_protocol(), listeningFd);
  impl_->accept();
}

void LineSocketServer::stop() {
  std::error_code ec;
  if (impl_->acceptor) impl_->acceptor->close(ec);
  impl_->acceptor.reset();
  while (!impl_->connections.empty()) impl_->close(impl_->connections.begin()->first, false);
}

std::size_t LineSocketServer::connectionCount() const {
  return impl_->connections.size();
}

Result<int> listenOnUnixSocket(const std::filesystem::path& path, mode_t mode) {
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
  // The mode is set before listen(): until then every connection is refused, whatever mode the
  // process umask gave the new file. (Changing the umask instead would touch every thread's
  // files for that moment.)
  const int bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int bindError = errno;
  if (bound != 0 || ::chmod(text.c_str(), mode) != 0 || ::listen(fd, SOMAXCONN) != 0) {
    const std::string reason = std::strerror(bound != 0 ? bindError : errno);
    ::close(fd);
    return Error{text + ": " + reason};
  }
  return fd;
}

}  // namespace quorel
