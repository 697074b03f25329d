#pragma once
// The MCP server: owns the tool registry and the HTTP transport, keeps the token and the
// endpoint file through which assistants and the stdio bridge find it, answers the protocol's
// own methods and forwards tool calls.
//
// Threading: start(), stop() and the status queries are called on the main queue (or any thread
// but the transport's); they block briefly on the transport's queue. route() and tool calls run
// on the main queue. publishLivePort() runs on the transport's queue when the listener is ready.
// Destroy the server before either queue is shut down.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/clock.hpp"
#include "core/json_value.hpp"
#include "core/preference_store.hpp"
#include "core/serial_queue.hpp"
#include "mcp/json_rpc.hpp"
#include "mcp/mcp_http_transport.hpp"
#include "mcp/mcp_tool_registry.hpp"

namespace quorel {

inline constexpr std::uint16_t kMCPDefaultPort = 8473;
inline constexpr const char* kMCPServerEnabledKey = "Quorel.mcpServerEnabled";
inline constexpr const char* kMCPServerPortKey = "Quorel.mcpServerPort";
inline constexpr const char* kMCPProtocolVersion = "2025-06-18";
inline constexpr const char* kMCPTransportQueueLabel = "com.quorel.mcp.http";

struct MCPServerOptions {
  // Reported as "serverInfo"."version" by "initialize".
  std::string version = "0";
  MCPHTTPTransportOptions transport;
};

// The two files in the data directory that clients read.
std::filesystem::path mcpTokenFile(const std::filesystem::path& dataDirectory);
std::filesystem::path mcpEndpointFile(const std::filesystem::path& dataDirectory);

// The configured port: "Quorel.mcpServerPort", or 8473 when absent or out of 1...65535.
std::uint16_t mcpConfiguredPort(const PreferenceStore& preferences);
std::string mcpEndpointURL(std::uint16_t port);

// The status line, in order of precedence: "Stopped", "Running on 127.0.0.1:<port>",
// "Failed to start: <error>", "Starting…".
std::string mcpStatusText(bool enabled, bool listening,
                          const std::optional<std::string>& startErrorDescription,
                          std::uint16_t port);

class MCPServer {
 public:
  static constexpr const char* stateChangedNotification = "Quorel.mcpServerStateChanged";

  // `registry` (not null) answers the tool calls; `clock` times the transport's deadlines and
  // must outlive the server. Does not listen yet.
  MCPServer(SerialQueue& mainQueue, SerialQueue& transportQueue, const Clock& clock,
            PreferenceStore& preferences, std::filesystem::path dataDirectory,
            std::unique_ptr<MCPToolRegistry> registry, MCPServerOptions options = {});
  ~MCPServer();
  MCPServer(const MCPServer&) = delete;
  MCPServer& operator=(const MCPServer&) = delete;

  // Listens on `port` unless already listening; reads the token file afresh first.
  void start(std::uint16_t port);
  void stop();

  std::uint16_t currentPort() const;
  std::string endpointURLString() const;
  std::string statusText() const;
  bool isListening() const;

  // The token from the file, trimmed; a fresh one written with mode 0600 when the file is
  // missing, unreadable or blank. A failed write is swallowed: the token holds for this run.
  std::string loadOrCreateToken();
  // Records the live port as the configured one and writes the endpoint file.
  void publishLivePort(std::uint16_t port);
  // 43 URL-safe characters from 32 bytes of the kernel's generator.
  static std::string randomToken();
  // Tells the state observers, on the main queue.
  void postStateChanged();

  // Answers one request on the main queue; an absent reply means a notification (202).
  void route(const JSONRPCRequest& request,
             std::function<void(std::optional<JSONRPCResponse>)> reply);
  JSONValue initializeResult() const;

  // Observers of stateChangedNotification, called on the main queue.
  std::uint64_t addStateObserver(std::function<void()> observer);
  void removeStateObserver(std::uint64_t id);

  const std::filesystem::path& dataDirectory() const;
  MCPToolRegistry& registry();
  MCPHTTPTransport& transport() { return *transport_; }

  struct Core;

 private:
  // Any callable taking an optional JSONRPCResponse; defined and used in the source file only.
  template <class Reply>
  static void routeWith(Core& core, const JSONRPCRequest& request, const Reply& reply);
  static JSONValue initializeResultFor(const MCPServerOptions& options);

  std::shared_ptr<Core> core_;
  std::unique_ptr<MCPHTTPTransport> transport_;
};

}  // namespace quorel
