#pragma once
// A deliberately small HTTP/1.1 server for the MCP endpoint. It listens on 127.0.0.1 only, takes
// exactly one request per connection, refuses what the request parser refuses (anything a
// browser page could send, anything without the token), hands the decoded JSON-RPC request to
// the route function, writes one response and closes. It knows nothing of tools or methods.
//
// Threading: every field lives on the transport's serial queue. The public operations enter the
// queue synchronously (directly when already on it), so the queue must be running. The route
// function is called on the queue and may reply from any thread; the reply hops back to the
// queue before it touches a connection. Destroy the transport before shutting its queue down.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "core/clock.hpp"
#include "core/serial_queue.hpp"
#include "mcp/json_rpc.hpp"
#include "mcp/mcp_http_request_parser.hpp"

struct sockaddr;

namespace quorel {

struct MCPHTTPTransportOptions {
  // The limit on a whole request, from accept to the last byte; not re-armed by arriving bytes.
  // Measured on the transport's clock.
  Seconds requestDeadline{15.0};
};

class MCPHTTPTransport {
 public:
  static constexpr std::size_t kMaxConnections = 32;
  static constexpr std::size_t kMaxBufferedBytes = 1'048'576;
  static constexpr std::size_t kMaxReadBytes = 65'536;
  static constexpr const char* kBindAddress = "127.0.0.1";
  static constexpr std::uint16_t kFallbackPort = 0;

  struct Impl;

  // Where the answer to one request goes. Call it once, from any thread; an absent response (a
  // notification) is answered "202 Accepted". A call after the connection or the transport is
  // gone is dropped. Cheap to copy and to move: it is no more than a name for the connection.
  class Reply {
   public:
    Reply() = default;
    void operator()(std::optional<JSONRPCResponse> response) const;
    // False for a default-made Reply, which answers nobody.
    explicit operator bool() const { return connection_ != 0; }

   private:
    friend struct Impl;
    Reply(std::weak_ptr<Impl> impl, std::uint64_t connection)
        : impl_(std::move(impl)), connection_(connection) {}
    std::weak_ptr<Impl> impl_;
    std::uint64_t connection_ = 0;
  };
  // Answers one decoded request through its Reply; may answer later, from any thread.
  using Route = std::function<void(JSONRPCRequest, Reply)>;

  // Deadlines are decided on `clock`'s monotonic time; the clock must outlive the transport.
  MCPHTTPTransport(SerialQueue& queue, const Clock& clock, Route route,
                   MCPHTTPTransportOptions options = {});
  ~MCPHTTPTransport();
  MCPHTTPTransport(const MCPHTTPTransport&) = delete;
  MCPHTTPTransport& operator=(const MCPHTTPTransport&) = delete;

  // Binds 127.0.0.1:`port` (0: any port) unless already listening. When the port is taken it
  // falls back to a port the system gives. Bind failures are reported through lastStartError,
  // the log and onStartError; the returned error is only the failure to create a socket at all.
  std::optional<std::error_code> start(std::uint16_t port);
  // Closes the listener and every connection.
  void stop();

  bool isListening() const;
  // The port actually bound; empty unless listening.
  std::optional<std::uint16_t> boundPort() const;
  std::optional<std::error_code> lastStartError() const;
  // Connections counted against the cap right now.
  std::size_t connectionCount() const;

  // Set these before start().
  void setRequiredToken(std::optional<std::string> token);
  std::optional<std::string> requiredToken() const;
  // Called on the transport's queue.
  void setOnListening(std::function<void(std::uint16_t)> callback);
  void setOnStartError(std::function<void(std::error_code)> callback);

  // Whether an accepted peer may be served: any address of 127.0.0.0/8, or ::1. Bound to
  // 127.0.0.1 the listener should see nothing else, but a local process can connect from
  // another of the machine's addresses.
  static bool isLoopbackPeer(const sockaddr& peer);

 private:
  template <class F>
  auto onQueue(F&& work) const;

  SerialQueue& queue_;
  std::shared_ptr<Impl> impl_;
};

}  // namespace quorel
