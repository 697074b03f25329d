#pragma once
// The agent's one owner of the link to the privileged helper: finds out whether the helper is
// installed for this user, connects, proves the connection with pings, publishes what the helper
// reports, and recovers from the ways the link goes wrong: a helper that is not running yet, one
// that crashed, one older than this agent still running after an update, a masked unit.
//
// Threading: made, used and destroyed on the main queue; every wait is a timer on that queue's
// clock, so tests drive it with a ManualClock and runPending().

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "control/battery_control_availability.hpp"
#include "control/helper_channel.hpp"
#include "control/helper_link.hpp"
#include "control/helper_service_controller.hpp"
#include "control/stale_helper_policy.hpp"
#include "core/serial_queue.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

// Sentences a person is shown; each says what to run.
namespace helper_texts {
inline constexpr const char* kNotInstalled =
    "Quorel's battery helper isn't installed. Run  sudo quorel helper install  to install it.";
inline constexpr const char* kNeedsRootToRemove =
    "Removing the battery helper needs root. Run  sudo quorel helper uninstall  to remove it.";
inline constexpr const char* kApprovalPending =
    "The battery helper is installed but doesn't serve this user yet. Run  sudo quorel helper "
    "install  as this user to allow it.";
inline constexpr const char* kMasked =
    "The battery helper is switched off at the system level (its socket unit is masked). Run  "
    "sudo systemctl unmask quorel-helper.socket  and then  sudo quorel helper install .";
inline constexpr const char* kNotRunning =
    "The battery helper is installed but isn't answering. Run  sudo systemctl restart "
    "quorel-helper.socket , then check it with  systemctl status quorel-helper.service .";
inline constexpr const char* kCrashedRepeatedly =
    "The battery helper stopped repeatedly. See  journalctl -u quorel-helper.service , then run  "
    "sudo systemctl restart quorel-helper.socket .";
inline constexpr const char* kConnectionLost =
    "The connection to the battery helper was lost. Run  sudo systemctl restart "
    "quorel-helper.socket  if it doesn't come back.";
inline constexpr const char* kUnsupported =
    "Battery control isn't available on this machine: its battery offers no charge control.";
inline constexpr const char* kStaleFailed =
    "The battery helper still running is older than this Quorel and didn't update when asked to. "
    "Run  sudo systemctl restart quorel-helper.socket , or reinstall it with  sudo quorel helper "
    "install .";
inline constexpr const char* kConnected = "Quorel's battery helper is connected.";
}  // namespace helper_texts

struct HelperEnableFailure {
  enum class Kind {
    conflictTool,         // another charge-limit manager is in charge: `conflictName`
    unsupportedHardware,  // no battery, or one without charge control
    notRegistered,        // the helper is not installed
    disableOverride,      // the socket unit is masked
  };
  Kind kind = Kind::notRegistered;
  std::string conflictName;

  bool operator==(const HelperEnableFailure&) const = default;
};

class HelperManager final : public HelperLink {
 public:
  struct PingBudgets {
    Seconds coldInitial{10};
    Seconds retryPause{3};
    Seconds coldRetry{5};
    Seconds warm{2};
  };
  static constexpr Seconds kPingInterval{30};
  static constexpr Seconds kReplyTimeout{5};
  static constexpr Seconds kPingRetryPause{0.4};
  static constexpr Seconds kApprovalPollInterval{5};
  static constexpr Seconds kReconnectBaseDelay{11};
  static constexpr int kMaxReconnectAttempts = 3;
  static constexpr Seconds kStaleRestartTimeout{30};

  struct Hooks {
    // The name of another charge-limit manager in charge of this battery, if any.
    std::function<std::optional<std::string>()> conflictProbe;
    // Whether this machine's battery can be controlled at all; unset counts as available.
    std::function<BatteryControlAvailability()> availability;
    // Unset: `quit` through the current connection.
    std::function<void()> staleHelperQuitter;
    // Unset: enable(), its failure dropped.
    std::function<void()> staleHelperReconnector;
  };

  // `service` outlives the manager. Reads the service status at once: a helper that waits for
  // this user's approval is polled for it from now on.
  HelperManager(SerialQueue& mainQueue, HelperServiceController& service,
                HelperChannelFactory connect, Hooks hooks = {});
  ~HelperManager() override;
  HelperManager(const HelperManager&) = delete;
  HelperManager& operator=(const HelperManager&) = delete;

  HelperStatus status() const override { return status_; }
  HelperProxy* proxy() override;
  bool controlAvailable() const override;
  std::optional<HelperState> helperState() const override { return helperState_; }
  std::optional<HelperCapabilities> capabilities() const override { return capabilities_; }
  void refreshHelperStateNow() override;

  using EnableCompletion = std::function<void(std::optional<HelperEnableFailure>)>;
  // Connects when the helper is installed for this user. `done` runs once the attempt has
  // settled (connected or not: the status says which).
  void enable(EnableCompletion done = {});
  // Puts the battery's attributes back, asks the helper to quit and drops the link. Removing the
  // units takes root, so the error that comes back says what to run.
  void disable(std::function<void(std::optional<Error>)> done = {});
  // Forgets the connection and its history, so that the next connect starts cold.
  void resetHelper();
  // True on any answer within kReplyTimeout; false at once without a proxy.
  void ping(std::function<void(bool)> done);
  // Single flight: callers during an attempt share its outcome.
  void establishConnection(std::function<void(bool)> done = {});
  // The one funnel for the helper's state.
  void applyHelperState(const HelperState& state);

  bool isConnecting() const { return isConnecting_; }
  bool helperOutdated() const { return helperOutdated_; }
  StaleHelperPhase staleHelperPhase() const { return staleHelperPhase_; }
  bool maskDetected() const { return maskDetected_; }
  HelperServiceStatus rawServiceStatus() const { return rawServiceStatus_; }
  int reconnectAttempt() const { return reconnectAttempt_; }
  // A sentence for the status as it stands, for a person.
  std::string statusText() const;

 private:
  class Proxy;
  using Token = std::weak_ptr<int>;

  void refreshStatusFromService();
  void startApprovalPoll();
  void performEstablishConnection();
  void finishConnect(bool connected);
  void connectFailed();
  void autoReset();
  void openConnection();
  void teardownConnection();
  void pingWithBudget(Seconds total, std::function<void(bool)> done);
  void pingUntil(MonotonicTime deadline, std::function<void(bool)> done);
  void pingWithTimeout(Seconds timeout, std::function<void(bool)> done);
  void startPingTimer();
  void pingTick();
  void handleInterruption();
  void handleInvalidation();
  // One call on the current connection that completes once: with the outcome, or with nothing
  // after `timeout` (a late answer is dropped) or when there is no connection.
  void timedCall(const std::string& method, JSONValue params, Seconds timeout,
                 std::function<void(std::optional<HelperCallOutcome>)> done);
  void command(const std::string& method, JSONValue params, HelperReply reply);
  void refreshHelperState();
  void restartStaleHelper();
  void resetStaleHelper();
  // Runs `work` after `delay` unless the manager is gone by then.
  void later(Seconds delay, std::function<void()> work);

  SerialQueue& mainQueue_;
  const Clock& clock_;
  HelperServiceController& service_;
  HelperChannelFactory connect_;
  Hooks hooks_;
  std::shared_ptr<spdlog::logger> log_;
  std::unique_ptr<Proxy> proxy_;
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);

  HelperStatus status_;
  bool isConnecting_ = false;
  std::optional<HelperState> helperState_;
  std::optional<HelperCapabilities> capabilities_;
  bool helperOutdated_ = false;
  StaleHelperPhase staleHelperPhase_ = StaleHelperPhase::none;
  bool maskDetected_ = false;
  HelperServiceStatus rawServiceStatus_ = HelperServiceStatus::notRegistered;

  bool staleRestartAttempted_ = false;
  bool staleResetAttempted_ = false;
  std::optional<MonotonicTime> staleRestartRequestedAt_;
  std::unique_ptr<HelperChannel> connection_;
  TimerHandle pingTimer_;
  TimerHandle approvalPollTimer_;
  TimerHandle reconnectTimer_;
  bool hasEverConnected_ = false;
  int reconnectAttempt_ = 0;
  bool inFlightConnect_ = false;
  std::vector<std::function<void(bool)>> connectWaiters_;
  // The connection went away while an attempt was pinging it: the reconnect already scheduled
  // decides what happens next, not the attempt's timeout.
  bool interruptedDuringConnect_ = false;
  bool hasAttemptedAutoReset_ = false;
  PingBudgets pingBudgets_;
  int pingMisses_ = 0;
};

}  // namespace quorel
