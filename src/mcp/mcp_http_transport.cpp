#include "mcp/mcp_http_transport.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <asio/buffer.hpp>
#include <asio/ip/address_v4.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <initializer_list>
#include <utility>
#include <vector>

#include "core/batched_poster.hpp"
#include "core/logging.hpp"
#include "mcp/mcp_http_request_parser.hpp"
#include "mcp/text_util.hpp"

namespace quorel {

namespace {

using asio::ip::tcp;

constexpr std::string_view kEncodeFailedBody =
    R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"encode failed"}})";

}  // namespace

bool MCPHTTPTransport::isLoopbackPeer(const sockaddr& peer) {
  if (peer.sa_family == AF_INET) {
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(peer);
    return (ntohl(v4.sin_addr.s_addr) >> 24) == 127;
  }
  if (peer.sa_family == AF_INET6) {
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(peer);
    return IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr) != 0;
  }
  return false;
}

// ---------------------------------------------------------------------------------------------
// The listener and its connections
//
// A client sends its request as soon as it connects, so nearly every connection is accepted,
// read, parsed and handed to the route without waiting once. Such a connection never enters the
// reactor and never touches a timer: it costs an accept, a read, a write and a close. Only a
// connection that has to wait (a request in pieces, a slow reader of the answer) is registered
// with the reactor, and one timer sweeps the deadlines of those still waiting for their request.

struct MCPHTTPTransport::Impl : std::enable_shared_from_this<MCPHTTPTransport::Impl> {
  // One slot per connection the cap allows. A slot and its buffers are used again and again,
  // so a connection costs no allocation once the slots have warmed up.
  struct Connection {
    std::uint64_t id = 0;  // 0: the slot is free
    int fd = -1;           // owned by `waiter` once that exists
    // The descriptor as the reactor knows it; made the first time the connection must wait.
    std::optional<tcp::socket> waiter;
    // The limit on the whole request, from accept; it stops applying once answering begins.
    // Set the first time the connection waits, microseconds after accept: most never do.
    std::optional<MonotonicTime> deadline;
    bool awaitingRequest = true;
    std::string buffer;
    // The answer and how much of it has gone out.
    std::string outgoing;
    std::size_t sent = 0;
  };
  // Identities carry their slot in the low bits; the rest counts up, so that a late event for
  // a connection that is gone never reaches the one that took its slot.
  static constexpr unsigned kSlotBits = 6;
  static_assert(kMaxConnections <= (1u << kSlotBits));
  // Buffers that grew past this for one large request are given back rather than kept.
  static constexpr std::size_t kKeptBufferBytes = 16'384;

  struct RoutedReply {
    std::uint64_t connection = 0;
    std::optional<JSONRPCResponse> response;
  };

  // The least the sweep timer waits. The timer waits in real time for what the clock says is
  // left; a clock that does not follow real time (a test's) is read again when it fires, and
  // without a floor a deadline such a clock holds a hair away would spin the timer.
  static constexpr std::chrono::milliseconds kSweepFloor{1};

  Impl(SerialQueue& q, const Clock& c, Route r, MCPHTTPTransportOptions o)
      : queue(q), clock(c), route(std::move(r)), options(o), log(logging::get("mcp")) {
    for (std::size_t i = 0; i < kMaxConnections; ++i) freeSlots[i] = kMaxConnections - 1 - i;
  }

  SerialQueue& queue;
  const Clock& clock;
  const Route route;
  const MCPHTTPTransportOptions options;
  std::shared_ptr<spdlog::logger> log;
  // Replies come back from the route's thread; under load many share one wakeup of this queue.
  // Made once the transport is shared, since its handler holds the transport weakly.
  std::optional<BatchedPoster<RoutedReply>> replies;

  std::unique_ptr<tcp::acceptor> listener;
  bool listenerIsFallback = false;
  std::uint64_t listenerGeneration = 0;
  TimerHandle acceptRetry;
  std::array<Connection, kMaxConnections> slots;
  std::array<std::size_t, kMaxConnections> freeSlots{};
  std::size_t freeCount = kMaxConnections;
  std::uint64_t nextSerial = 1;
  // One timer for every deadline; armed for the earliest among connections waiting for bytes.
  // Made with the first connection that waits, when the listener has long created the reactor.
  std::optional<asio::steady_timer> sweep;
  std::optional<MonotonicTime> sweepAt;
  std::function<void(std::error_code)> onStartError;
  std::optional<std::error_code> lastStartError;
  std::function<void(std::uint16_t)> onListening;
  std::optional<std::uint16_t> boundPort;
  std::optional<std::string> requiredToken;
  // Reads complete one at a time on the queue, so one scratch buffer serves every connection;
  // so does one for the text of answers, copied into the connection as its head is written.
  std::array<char, kMaxReadBytes> scratch{};
  std::string encoded;

  std::size_t connectionCount() const { return kMaxConnections - freeCount; }
  Connection* find(std::uint64_t id) {
    const auto slot = static_cast<std::size_t>(id & ((1u << kSlotBits) - 1));
    if (id == 0 || slot >= kMaxConnections || slots[slot].id != id) return nullptr;
    return &slots[slot];
  }

  std::optional<std::error_code> startListener(std::uint16_t port, bool isFallback);
  void listenerFailed(std::error_code ec);
  void listenerReady();
  void waitForPeers();
  void acceptPending();
  void admit(int fd, const sockaddr_storage& peer);
  bool ensureRegistered(Connection& conn);
  void waitUntil(Connection& conn, tcp::socket::wait_type what);
  void onReadable(Connection& conn);
  void dispatch(Connection& conn, const mcp_http::RequestView& request);
  void finishRoute(std::uint64_t id, const std::optional<JSONRPCResponse>& response);
  using HeaderList = std::initializer_list<std::pair<std::string_view, std::string_view>>;
  void answer(Connection& conn, std::string_view status, HeaderList headers = {},
              std::string_view body = {});
  void writeRest(Connection& conn);
  void armSweep(MonotonicTime at, MonotonicTime now);
  void sweepDeadlines();
  void cancelConnection(Connection& conn);
  void teardown();
};

void MCPHTTPTransport::Reply::operator()(std::optional<JSONRPCResponse> response) const {
  if (auto impl = impl_.lock()) impl->replies->post({connection_, std::move(response)});
}

std::optional<std::error_code> MCPHTTPTransport::Impl::startListener(std::uint16_t port,
                                                                     bool isFallback) {
  std::unique_ptr<tcp::acceptor> acceptor;
  std::error_code ec;
  try {
    // The first socket on a queue also creates its reactor, which can fail (no descriptors).
    acceptor = std::make_unique<tcp::acceptor>(queue.context());
    acceptor->open(tcp::v4(), ec);
    if (!ec) acceptor->set_option(tcp::acceptor::reuse_address(true), ec);
    // Accepting runs until the backlog is empty, so it must never block.
    if (!ec) acceptor->non_blocking(true, ec);
  } catch (const std::system_error& e) {
    ec = e.code();
  }
  if (ec) {
    lastStartError = ec;
    log->error("MCP listener could not be created: {}", ec.message());
    if (onStartError) onStartError(ec);
    return ec;
  }
  listener = std::move(acceptor);
  listenerIsFallback = isFallback;
  ++listenerGeneration;

  const tcp::endpoint local(asio::ip::make_address_v4(kBindAddress), port);
  listener->bind(local, ec);
  if (!ec) listener->listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    listenerFailed(ec);
    return std::nullopt;
  }
  listenerReady();
  return std::nullopt;
}

void MCPHTTPTransport::Impl::listenerFailed(std::error_code ec) {
  if (!listenerIsFallback && ec == asio::error::address_in_use) {
    teardown();
    if (auto fallbackError = startListener(kFallbackPort, true)) {
      lastStartError = *fallbackError;
      log->error("MCP listener fallback bind failed: {}", fallbackError->message());
      if (onStartError) onStartError(*fallbackError);
    }
    return;
  }
  lastStartError = ec;
  log->error("MCP listener failed to bind: {}", ec.message());
  if (onStartError) onStartError(ec);
  teardown();
}

void MCPHTTPTransport::Impl::listenerReady() {
  std::error_code ec;
  const auto local = listener->local_endpoint(ec);
  if (ec) return;
  boundPort = local.port();
  log->info("MCP listener ready on 127.0.0.1:{}{}", *boundPort,
            listenerIsFallback ? " (fallback port)" : "");
  if (onListening) onListening(*boundPort);
  acceptPending();
}

void MCPHTTPTransport::Impl::waitForPeers() {
  std::weak_ptr<Impl> weak = weak_from_this();
  const auto generation = listenerGeneration;
  listener->async_wait(tcp::acceptor::wait_read, [weak, generation](std::error_code ec) {
    auto self = weak.lock();
    if (!self || !self->listener || self->listenerGeneration != generation) return;
    if (ec == asio::error::operation_aborted) return;
    self->acceptPending();
  });
}

void MCPHTTPTransport::Impl::acceptPending() {
  // The reactor reports readiness on edges only, so the backlog is emptied before waiting again.
  while (listener) {
    sockaddr_storage peer{};
    socklen_t peerLength = sizeof peer;
    const int fd = ::accept4(listener->native_handle(), reinterpret_cast<sockaddr*>(&peer),
                             &peerLength, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      admit(fd, peer);
      continue;
    }
    const int error = errno;
    if (error == EINTR || error == ECONNABORTED) continue;
    if (error == EAGAIN || error == EWOULDBLOCK) {
      waitForPeers();
      return;
    }
    // Out of descriptors or memory: the peer stays in the backlog. Try again shortly rather
    // than spin on an error that will repeat at once.
    std::weak_ptr<Impl> weak = weak_from_this();
    const auto generation = listenerGeneration;
    acceptRetry = queue.after(Seconds{0.05}, [weak, generation] {
      auto again = weak.lock();
      if (again && again->listener && again->listenerGeneration == generation) {
        again->acceptPending();
      }
    });
    return;
  }
}

void MCPHTTPTransport::Impl::admit(int fd, const sockaddr_storage& peer) {
  // Bound to 127.0.0.1, the listener should see nothing else; a local process could still
  // connect from another of the machine's addresses, and that is refused without a word.
  if (!isLoopbackPeer(reinterpret_cast<const sockaddr&>(peer))) {
    ::close(fd);
    return;
  }
  if (freeCount == 0) {
    log->error("MCP: connection cap ({}) reached — rejecting new peer", kMaxConnections);
    ::close(fd);
    return;
  }
  const std::size_t slot = freeSlots[--freeCount];
  Connection& conn = slots[slot];
  conn.id = (nextSerial++ << kSlotBits) | slot;
  conn.fd = fd;
  conn.deadline.reset();
  conn.awaitingRequest = true;
  onReadable(conn);
}

bool MCPHTTPTransport::Impl::ensureRegistered(Connection& conn) {
  if (conn.waiter) return true;
  tcp::socket socket(queue.context());
  std::error_code ec;
  socket.assign(tcp::v4(), conn.fd, ec);
  if (ec) return false;
  conn.waiter.emplace(std::move(socket));
  return true;
}

void MCPHTTPTransport::Impl::waitUntil(Connection& conn, tcp::socket::wait_type what) {
  if (!ensureRegistered(conn)) {
    cancelConnection(conn);
    return;
  }
  if (what == tcp::socket::wait_read && conn.awaitingRequest) {
    // Only a connection that waits for its request reads the clock; most never wait.
    const MonotonicTime now = clock.monotonicNow();
    if (!conn.deadline) {
      conn.deadline =
          now + std::chrono::duration_cast<MonotonicTime::duration>(options.requestDeadline);
    }
    armSweep(*conn.deadline, now);
  }
  std::weak_ptr<Impl> weak = weak_from_this();
  conn.waiter->async_wait(what, [weak, id = conn.id, what](std::error_code ec) {
    auto self = weak.lock();
    if (!self) return;
    Connection* c = self->find(id);
    if (c == nullptr) return;
    if (ec) {
      self->cancelConnection(*c);
    } else if (what == tcp::socket::wait_read) {
      self->onReadable(*c);
    } else {
      self->writeRest(*c);
    }
  });
}

void MCPHTTPTransport::Impl::onReadable(Connection& conn) {
  // The reactor reports readiness on edges only: bytes already waiting behind a full read would
  // raise no new edge, so reading goes on until the socket says it has nothing more.
  for (;;) {
    ssize_t n;
    do {
      n = ::recv(conn.fd, scratch.data(), scratch.size(), 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      waitUntil(conn, tcp::socket::wait_read);
      return;
    }
    if (n < 0) {
      cancelConnection(conn);
      return;
    }
    const bool ended = n == 0;
    // A request that comes whole in its first read is parsed where it landed; one read alone
    // cannot pass the limit.
    static_assert(kMaxReadBytes <= kMaxBufferedBytes);
    std::string_view bytes(scratch.data(), static_cast<std::size_t>(n));
    if (!conn.buffer.empty()) {
      conn.buffer.append(bytes);
      if (conn.buffer.size() > kMaxBufferedBytes) {
        answer(conn, "413 Payload Too Large");
        return;
      }
      bytes = conn.buffer;
    }
    const mcp_http::ParsedView parsed = mcp_http::parseInPlace(bytes, requiredToken);
    switch (parsed.kind) {
      case MCPParseResult::Kind::incomplete:
        if (ended) {
          cancelConnection(conn);
          return;
        }
        if (conn.buffer.empty()) conn.buffer.assign(bytes);
        continue;
      case MCPParseResult::Kind::badRequest:
        answer(conn, "400 Bad Request");
        return;
      case MCPParseResult::Kind::forbidden:
        answer(conn, "403 Forbidden");
        return;
      case MCPParseResult::Kind::unauthorized:
        answer(conn, "401 Unauthorized", {{"WWW-Authenticate", "Bearer"}});
        return;
      case MCPParseResult::Kind::request:
        // Past this point nothing limits how long a tool may take.
        conn.awaitingRequest = false;
        dispatch(conn, parsed.request);
        return;
    }
  }
}

void MCPHTTPTransport::Impl::dispatch(Connection& conn, const mcp_http::RequestView& request) {
  std::string_view path = request.path;
  if (const auto q = path.find('?'); q != std::string_view::npos && q > 0) {
    path = path.substr(0, q);
  }
  if (equalsIgnoringAsciiCase(request.method, "OPTIONS")) {
    answer(conn, "204 No Content");
    return;
  }
  if (!equalsIgnoringAsciiCase(request.method, "POST")) {
    answer(conn, "405 Method Not Allowed", {{"Allow", "POST, OPTIONS"}});
    return;
  }
  if (path != "/mcp" && path != "/") {
    answer(conn, "404 Not Found");
    return;
  }
  if (!mcp_http::isAcceptableContentType(request.contentType)) {
    answer(conn, "415 Unsupported Media Type");
    return;
  }
  // The request views `conn.buffer` or the scratch buffer, so it is decoded before either is
  // used again.
  auto decoded = JSONRPCRequest::decode(request.body);
  if (!decoded) {
    finishRoute(conn.id, JSONRPCResponse::failure(std::nullopt, JSONRPCErrorObject::parseError));
    return;
  }
  route(std::move(*decoded), Reply(weak_from_this(), conn.id));
}

void MCPHTTPTransport::Impl::finishRoute(std::uint64_t id,
                                         const std::optional<JSONRPCResponse>& response) {
  Connection* conn = find(id);
  if (conn == nullptr) return;
  if (!response) {
    answer(*conn, "202 Accepted");
    return;
  }
  encoded.clear();
  const bool ok = response->encodeTo(encoded);
  answer(*conn, "200 OK", {{"Content-Type", "application/json"}},
         ok ? std::string_view(encoded) : kEncodeFailedBody);
}

void MCPHTTPTransport::Impl::answer(Connection& conn, std::string_view status, HeaderList headers,
                                    std::string_view body) {
  conn.awaitingRequest = false;
  std::array<char, 24> length{};
  const auto [lengthEnd, ec] =
      std::to_chars(length.data(), length.data() + length.size(), body.size());
  (void)ec;  // 24 digits hold any size
  std::string& out = conn.outgoing;
  out.clear();
  out.append("HTTP/1.1 ").append(status).append("\r\n");
  for (const auto& [name, value] : headers) {
    out.append(name).append(": ").append(value).append("\r\n");
  }
  out.append("Content-Length: ").append(length.data(), lengthEnd).append("\r\n");
  out.append("Connection: close\r\n\r\n").append(body);
  conn.sent = 0;
  writeRest(conn);
}

void MCPHTTPTransport::Impl::writeRest(Connection& conn) {
  // An answer is small next to the socket's send buffer, so it nearly always goes out in one
  // call; a slow reader gets the rest when its socket can take it.
  //
  // The answer is the last thing the connection says, so its final bytes are held back (more
  // to come) and released by the shutdown together with the end of the stream: one segment
  // carries both, and the peer is woken once instead of twice. The shutdown comes before the
  // close so that the answer has left before anything could make the close a reset.
  while (conn.sent < conn.outgoing.size()) {
    const ssize_t n = ::send(conn.fd, conn.outgoing.data() + conn.sent,
                             conn.outgoing.size() - conn.sent, MSG_NOSIGNAL | MSG_MORE);
    if (n > 0) {
      conn.sent += static_cast<std::size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      waitUntil(conn, tcp::socket::wait_write);
      return;
    } else {
      break;  // the peer is gone; nothing more to say
    }
  }
  ::shutdown(conn.fd, SHUT_WR);
  cancelConnection(conn);
}

void MCPHTTPTransport::Impl::armSweep(MonotonicTime at, MonotonicTime now) {
  if (sweepAt && *sweepAt <= at) return;
  sweepAt = at;
  if (!sweep) sweep.emplace(queue.context());
  sweep->expires_after(std::max<MonotonicTime::duration>(at - now, kSweepFloor));
  std::weak_ptr<Impl> weak = weak_from_this();
  sweep->async_wait([weak](std::error_code ec) {
    auto self = weak.lock();
    if (ec || !self) return;
    self->sweepAt.reset();
    self->sweepDeadlines();
  });
}

void MCPHTTPTransport::Impl::sweepDeadlines() {
  const MonotonicTime now = clock.monotonicNow();
  std::optional<MonotonicTime> next;
  for (Connection& conn : slots) {
    if (conn.id == 0 || !conn.awaitingRequest || !conn.deadline) continue;
    if (*conn.deadline <= now) {
      log->warn("MCP: connection idle past {}s without a complete request — cancelling",
                options.requestDeadline.count());
      cancelConnection(conn);
    } else if (!next || *conn.deadline < *next) {
      next = *conn.deadline;
    }
  }
  if (next) armSweep(*next, now);
}

void MCPHTTPTransport::Impl::cancelConnection(Connection& conn) {
  if (conn.id == 0) return;
  // Closing with unread bytes in the receive queue makes the kernel send a reset, which can
  // destroy the answer before the peer reads it, or at least turn the end of the stream into
  // an error. A pipelining client's next request can arrive at any moment while this one is
  // routed, so what has arrived is discarded first and the close is an orderly one.
  for (std::size_t drained = 0; drained <= kMaxBufferedBytes;) {
    const ssize_t n = ::recv(conn.fd, scratch.data(), scratch.size(), MSG_DONTWAIT);
    if (n <= 0) break;
    drained += static_cast<std::size_t>(n);
  }
  if (conn.waiter) {
    std::error_code ec;
    conn.waiter->close(ec);  // also cancels a wait in flight, whose handler then finds no one
    conn.waiter.reset();
  } else {
    ::close(conn.fd);
  }
  const auto slot = static_cast<std::size_t>(conn.id & ((1u << kSlotBits) - 1));
  conn.id = 0;
  conn.fd = -1;
  conn.sent = 0;
  for (std::string* text : {&conn.buffer, &conn.outgoing}) {
    if (text->capacity() > kKeptBufferBytes) {
      std::string().swap(*text);
    } else {
      text->clear();
    }
  }
  freeSlots[freeCount++] = slot;
}

void MCPHTTPTransport::Impl::teardown() {
  std::error_code ec;
  if (listener) listener->close(ec);
  listener.reset();
  ++listenerGeneration;
  acceptRetry.cancel();
  boundPort.reset();
  for (Connection& conn : slots) cancelConnection(conn);
  if (sweep) sweep->cancel();
  sweepAt.reset();
}

// ---------------------------------------------------------------------------------------------
// The public face: every call enters the queue.

template <class F>
auto MCPHTTPTransport::onQueue(F&& work) const {
  if (queue_.isCurrent()) return work();
  return queue_.sync(std::forward<F>(work));
}

MCPHTTPTransport::MCPHTTPTransport(SerialQueue& queue, const Clock& clock, Route route,
                                   MCPHTTPTransportOptions options)
    : queue_(queue), impl_(std::make_shared<Impl>(queue, clock, std::move(route), options)) {
  std::weak_ptr<Impl> weak = impl_;
  impl_->replies.emplace(queue, [weak](Impl::RoutedReply& reply) {
    if (auto impl = weak.lock()) impl->finishRoute(reply.connection, reply.response);
  });
}

MCPHTTPTransport::~MCPHTTPTransport() {
  auto impl = impl_;
  onQueue([impl] { impl->teardown(); });
}

std::optional<std::error_code> MCPHTTPTransport::start(std::uint16_t port) {
  auto impl = impl_;
  return onQueue([impl, port]() -> std::optional<std::error_code> {
    if (impl->listener) return std::nullopt;
    impl->lastStartError.reset();
    return impl->startListener(port, false);
  });
}

void MCPHTTPTransport::stop() {
  auto impl = impl_;
  onQueue([impl] { impl->teardown(); });
}

bool MCPHTTPTransport::isListening() const {
  auto impl = impl_;
  return onQueue([impl] { return impl->listener != nullptr && impl->boundPort.has_value(); });
}

std::optional<std::uint16_t> MCPHTTPTransport::boundPort() const {
  auto impl = impl_;
  return onQueue([impl] { return impl->boundPort; });
}

std::optional<std::error_code> MCPHTTPTransport::lastStartError() const {
  auto impl = impl_;
  return onQueue([impl] { return impl->lastStartError; });
}

std::size_t MCPHTTPTransport::connectionCount() const {
  auto impl = impl_;
  return onQueue([impl] { return impl->connectionCount(); });
}

void MCPHTTPTransport::setRequiredToken(std::optional<std::string> token) {
  auto impl = impl_;
  onQueue([impl, token = std::move(token)] { impl->requiredToken = token; });
}

std::optional<std::string> MCPHTTPTransport::requiredToken() const {
  auto impl = impl_;
  return onQueue([impl] { return impl->requiredToken; });
}

void MCPHTTPTransport::setOnListening(std::function<void(std::uint16_t)> callback) {
  auto impl = impl_;
  onQueue([impl, callback = std::move(callback)] { impl->onListening = callback; });
}

void MCPHTTPTransport::setOnStartError(std::function<void(std::error_code)> callback) {
  auto impl = impl_;
  onQueue([impl, callback = std::move(callback)] { impl->onStartError = callback; });
}

}  // namespace quorel
