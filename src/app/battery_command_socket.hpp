#pragma once
// The agent's command socket: how `quorel battery` reaches the running agent's battery command
// service, whether or not the assistants' server is on. JSON-RPC 2.0, one object per line, on a
// Unix socket of mode 0600 in the session's runtime directory; only the agent's own user may
// connect (SO_PEERCRED), so no token is needed.
//
// Methods and params: state, automation, setChargeLimit {percent}, clearChargeLimit,
// setForceDischarge {enabled}, setTopUp {enabled}, setSmartTopOffRules {rules},
// setHeatProtection {threshold_c, hysteresis_c}. A command's refusal or failure is the JSON-RPC
// error with the service's code and sentence.
//
// Threading: the main queue, the service's.

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <optional>

#include "control/battery_control_command_service.hpp"
#include "core/paths.hpp"
#include "mcp/line_socket_server.hpp"

namespace quorel {

// $XDG_RUNTIME_DIR/quorel/control.sock, or beside the data when there is no runtime directory.
std::filesystem::path batteryCommandSocketPath(const QuorelPaths& paths);

// Only the user who runs the agent may command it.
bool mayCommandAgent(uid_t peerUid, uid_t agentUid);

class BatteryCommandSocket {
 public:
  // Limits for a socket only the user's own programs reach: short lines, short waits.
  static constexpr std::size_t kMaxLineBytes = 262'144;
  static constexpr Seconds kLineDeadline{10};
  static constexpr Seconds kIdleDeadline{60};

  BatteryCommandSocket(SerialQueue& mainQueue, BatteryControlCommandService& service,
                       uid_t agentUid);
  ~BatteryCommandSocket();
  BatteryCommandSocket(const BatteryCommandSocket&) = delete;
  BatteryCommandSocket& operator=(const BatteryCommandSocket&) = delete;

  // Listens at `path` (mode 0600). Fails with the reason; the agent goes on without it.
  Result<bool> listen(const std::filesystem::path& path);
  // Closes the socket and removes its file.
  void stop();

  // One request line's answer, given through `reply`: the dispatch, apart from the socket.
  void handleRequest(std::string_view line, LineReply reply);

 private:
  class Session;

  SerialQueue& mainQueue_;
  BatteryControlCommandService& service_;
  const uid_t agentUid_;
  std::unique_ptr<LineSocketServer> server_;
  std::optional<std::filesystem::path> path_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace quorel
