#include "control/helper_client.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <asio/connect.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/read_until.hpp>
#include <asio/streambuf.hpp>
#include <asio/write.hpp>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <deque>
#include <map>

#include "control/helper_contract.hpp"
#include "core/file_descriptor.hpp"

namespace quorel {

using asio::local::stream_protocol;

namespace {

HelperCallOutcome transportFailure(std::string message, int errnoValue = 0) {
  return {std::nullopt,
          HelperCallError{HelperCallError::Kind::transport, errnoValue, std::move(message)}};
}

bool isHelperErrorCode(std::int64_t code) {
  switch (static_cast<QuorelHelperErrorCode>(code)) {
    case QuorelHelperErrorCode::codeOutOfRange:
    case QuorelHelperErrorCode::codeSMCWriteFailed:
    case QuorelHelperErrorCode::codePMAssertionFailed:
    case QuorelHelperErrorCode::codePersistenceFailed:
    case QuorelHelperErrorCode::codeUnsupportedCapability:
      return true;
  }
  return false;
}

}  // namespace

std::string helperRequestLine(std::int64_t id, std::string_view method, const JSONValue& params) {
  JSONValue::Object request{
      {"jsonrpc", JSONValue("2.0")}, {"id", JSONValue(id)}, {"method", JSONValue(method)}};
  if (!params.isNull()) request.emplace("params", params);
  return JSONValue(std::move(request)).write().value_or("");
}

std::optional<HelperAnswer> parseHelperAnswer(std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  const auto parsed = JSONValue::parse(line);
  if (!parsed || !parsed->isObject()) return std::nullopt;
  const JSONValue* id = parsed->find("id");
  const auto idNumber = id ? id->numberValue() : std::nullopt;
  if (!idNumber || std::trunc(*idNumber) != *idNumber) return std::nullopt;
  HelperAnswer answer;
  answer.id = static_cast<std::int64_t>(*idNumber);
  if (const JSONValue* result = parsed->find("result")) {
    answer.outcome.result = *result;
    return answer;
  }
  const JSONValue* error = parsed->find("error");
  if (error == nullptr || !error->isObject()) return std::nullopt;
  const auto code = error->find("code") ? error->find("code")->numberValue() : std::nullopt;
  const JSONValue* message = error->find("message");
  const JSONValue* data = error->find("data");
  const bool fromHelperDomain =
      data && data->member("domain") == JSONValue(kQuorelHelperErrorDomain);
  HelperCallError failure;
  failure.code = code ? static_cast<std::int64_t>(*code) : 0;
  failure.kind = fromHelperDomain && isHelperErrorCode(failure.code)
                     ? HelperCallError::Kind::helper
                     : HelperCallError::Kind::protocol;
  failure.message = message && message->isString() ? *message->stringValue() : std::string();
  answer.outcome.error = std::move(failure);
  return answer;
}

// Socket state lives on the I/O queue; `owner` on the main queue.
struct HelperClient::Impl : std::enable_shared_from_this<Impl> {
  // What the answers posted to the main queue need. They hold this rather than the Impl: an
  // answer still queued when the agent stops is destroyed with the main queue, and must not take
  // the socket down with it after the I/O queue's services are gone.
  struct Owner {
    bool closedByOwner = false;
    ClosedHandler onClosed;
  };
  Impl(SerialQueue& ioQueue, SerialQueue& mainQueue, std::filesystem::path socketPath)
      : io(ioQueue),
        main(mainQueue),
        path(std::move(socketPath)),
        socket(ioQueue.context()),
        input(kMaxLineBytes) {}

  SerialQueue& io;
  SerialQueue& main;
  std::filesystem::path path;
  stream_protocol::socket socket;
  asio::streambuf input;
  std::deque<std::string> outbox;
  bool writing = false;
  bool connected = false;
  bool ended = false;
  std::map<std::int64_t, HelperCallCompletion> pending;

  // Main queue only.
  std::shared_ptr<Owner> owner = std::make_shared<Owner>();
  std::int64_t nextId = 1;

  void connect() {
    socket.async_connect(stream_protocol::endpoint(path.string()),
                         [self = shared_from_this()](std::error_code ec) {
                           if (self->ended) return;
                           if (ec) {
                             self->end(ec.message(), ec.value());
                             return;
                           }
                           self->connected = true;
                           self->flush();
                           self->read();
                         });
  }

  void send(std::int64_t id, std::string line, HelperCallCompletion done) {
    if (ended) {
      deliver(std::move(done), transportFailure("the helper connection has ended"));
      return;
    }
    pending.emplace(id, std::move(done));
    outbox.push_back(std::move(line) + "\n");
    flush();
  }

  void flush() {
    if (!connected || writing || outbox.empty() || ended) return;
    writing = true;
    asio::async_write(socket, asio::buffer(outbox.front()),
                      [self = shared_from_this()](std::error_code ec, std::size_t) {
                        self->writing = false;
                        if (self->ended) return;
                        if (ec) {
                          self->end(ec.message(), ec.value());
                          return;
                        }
                        self->outbox.pop_front();
                        self->flush();
                      });
  }

  void read() {
    asio::async_read_until(
        socket, input, '\n', [self = shared_from_this()](std::error_code ec, std::size_t size) {
          if (self->ended) return;
          if (ec) {
            self->end(ec == asio::error::eof ? "the helper closed the connection" : ec.message(),
                      ec.value());
            return;
          }
          std::string line(
              asio::buffers_begin(self->input.data()),
              asio::buffers_begin(self->input.data()) + static_cast<std::ptrdiff_t>(size - 1));
          self->input.consume(size);
          self->answer(line);
          if (!self->ended) self->read();
        });
  }

  void answer(std::string_view line) {
    auto parsed = parseHelperAnswer(line);
    if (!parsed) {
      end("the helper sent something that is not an answer", EPROTO);
      return;
    }
    const auto it = pending.find(parsed->id);
    if (it == pending.end()) return;
    HelperCallCompletion done = std::move(it->second);
    pending.erase(it);
    deliver(std::move(done), std::move(parsed->outcome));
  }

  void deliver(HelperCallCompletion done, HelperCallOutcome outcome) {
    main.async([owner = owner, done = std::move(done), outcome = std::move(outcome)]() mutable {
      if (!owner->closedByOwner && done) done(std::move(outcome));
    });
  }

  // The connection is over: every pending call fails, then the owner hears of it.
  void end(const std::string& why, int errnoValue) {
    if (ended) return;
    ended = true;
    const bool wasConnected = connected;
    std::error_code ignored;
    socket.close(ignored);
    for (auto& [id, done] : pending) deliver(std::move(done), transportFailure(why, errnoValue));
    pending.clear();
    outbox.clear();
    main.async([owner = owner, wasConnected] {
      if (owner->closedByOwner || !owner->onClosed) return;
      auto handler = std::move(owner->onClosed);
      handler(wasConnected);
    });
  }
};

HelperClient::HelperClient(SerialQueue& ioQueue, SerialQueue& mainQueue,
                           std::filesystem::path socketPath)
    : impl_(std::make_shared<Impl>(ioQueue, mainQueue, std::move(socketPath))) {
  ioQueue.async([impl = impl_] { impl->connect(); });
}

HelperClient::~HelperClient() {
  close();
}

void HelperClient::call(std::string method, JSONValue params, HelperCallCompletion done) {
  const std::int64_t id = impl_->nextId++;
  std::string line = helperRequestLine(id, method, params);
  impl_->io.async([impl = impl_, id, line = std::move(line), done = std::move(done)]() mutable {
    impl->send(id, std::move(line), std::move(done));
  });
}

void HelperClient::setClosedHandler(ClosedHandler handler) {
  impl_->owner->onClosed = std::move(handler);
}

void HelperClient::close() {
  if (impl_->owner->closedByOwner) return;
  impl_->owner->closedByOwner = true;
  impl_->owner->onClosed = nullptr;
  impl_->io.async([impl = impl_] {
    impl->ended = true;
    impl->pending.clear();
    std::error_code ignored;
    impl->socket.close(ignored);
  });
}

HelperChannelFactory HelperClient::factory(SerialQueue& ioQueue, SerialQueue& mainQueue,
                                           std::filesystem::path socketPath) {
  return [&ioQueue, &mainQueue, socketPath = std::move(socketPath)] {
    return std::make_unique<HelperClient>(ioQueue, mainQueue, socketPath);
  };
}

HelperCallOutcome callHelperOnce(const std::filesystem::path& socketPath, std::string_view method,
                                 const JSONValue& params, Seconds timeout, const Clock& clock) {
  const MonotonicTime deadline =
      clock.monotonicNow() + std::chrono::duration_cast<MonotonicTime::duration>(timeout);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.native().size() >= sizeof address.sun_path) {
    return transportFailure("the helper's socket path is too long", ENAMETOOLONG);
  }
  std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
  FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (fd.get() < 0) return transportFailure(std::strerror(errno), errno);
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
      errno != EINPROGRESS && errno != EAGAIN) {
    const int error = errno;
    return transportFailure(socketPath.string() + ": " + std::strerror(error), error);
  }
  const std::string line = helperRequestLine(1, method, params) + "\n";
  std::size_t sent = 0;
  while (sent < line.size()) {
    if (!waitForDescriptor(fd.get(), POLLOUT, deadline, clock)) {
      return transportFailure("the helper did not take the request in time", ETIMEDOUT);
    }
    const ssize_t n = ::send(fd.get(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno != EAGAIN && errno != EINTR) {
      const int error = errno;
      return transportFailure(std::strerror(error), error);
    }
    if (n > 0) sent += static_cast<std::size_t>(n);
  }
  std::string received;
  for (;;) {
    if (const auto newline = received.find('\n'); newline != std::string::npos) {
      auto answer = parseHelperAnswer(std::string_view(received).substr(0, newline));
      if (!answer) return transportFailure("the helper's answer could not be read", EPROTO);
      return std::move(answer->outcome);
    }
    if (received.size() > HelperClient::kMaxLineBytes) {
      return transportFailure("the helper's answer is too long", EPROTO);
    }
    if (!waitForDescriptor(fd.get(), POLLIN, deadline, clock)) {
      return transportFailure("the helper did not answer in time", ETIMEDOUT);
    }
    char buffer[4096];
    const ssize_t n = ::recv(fd.get(), buffer, sizeof buffer, 0);
    if (n == 0) return transportFailure("the helper closed the connection", ECONNRESET);
    if (n < 0 && errno != EAGAIN && errno != EINTR) {
      const int error = errno;
      return transportFailure(std::strerror(error), error);
    }
    if (n > 0) received.append(buffer, static_cast<std::size_t>(n));
  }
}

}  // namespace quorel
