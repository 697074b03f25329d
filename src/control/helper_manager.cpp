#include "control/helper_manager.hpp"

#include <spdlog/logger.h>

#include "core/logging.hpp"

namespace quorel {

// Commands as the rest of the agent sends them; answers come back through the manager, which
// also notices a connection that died under a command.
class HelperManager::Proxy final : public HelperProxy {
 public:
  explicit Proxy(HelperManager& manager) : manager_(manager) {}

  void setChargeLimit(std::int64_t percent, HelperReply reply) override {
    send("setChargeLimit", JSONValue::object({{"percent", JSONValue(percent)}}), reply);
  }
  void clearChargeLimit(HelperReply reply) override { send("clearChargeLimit", {}, reply); }
  void setSailingBand(std::int64_t band, HelperReply reply) override {
    send("setSailingBand", JSONValue::object({{"band", JSONValue(band)}}), reply);
  }
  void forceDischarge(bool enable, HelperReply reply) override {
    send("forceDischarge", JSONValue::object({{"enable", JSONValue(enable)}}), reply);
  }
  void setClamshellKeepAwake(bool enable, HelperReply reply) override {
    send("setClamshellKeepAwake", JSONValue::object({{"enable", JSONValue(enable)}}), reply);
  }
  void releaseLimitUntilFullThenRestore(HelperReply reply) override {
    send("releaseLimitUntilFullThenRestore", {}, reply);
  }
  void cancelTopUp(HelperReply reply) override { send("cancelTopUp", {}, reply); }
  void resetAll(HelperReply reply) override { send("resetAll", {}, reply); }

 private:
  void send(const std::string& method, JSONValue params, HelperReply& reply) {
    manager_.command(method, std::move(params), std::move(reply));
  }
  HelperManager& manager_;
};

HelperManager::HelperManager(SerialQueue& mainQueue, HelperServiceController& service,
                             HelperChannelFactory connect, Hooks hooks)
    : mainQueue_(mainQueue),
      clock_(mainQueue.clock()),
      service_(service),
      connect_(std::move(connect)),
      hooks_(std::move(hooks)),
      log_(logging::get("HelperManager")),
      proxy_(std::make_unique<Proxy>(*this)) {
  refreshStatusFromService();
}

HelperManager::~HelperManager() {
  if (connection_) connection_->close();
}

HelperProxy* HelperManager::proxy() {
  return status_.kind == HelperStatus::Kind::enabled && connection_ ? proxy_.get() : nullptr;
}

bool HelperManager::controlAvailable() const {
  return !helperOutdated_ && helperState_.has_value() &&
         staleHelperPhase_ == StaleHelperPhase::none;
}

void HelperManager::later(Seconds delay, std::function<void()> work) {
  mainQueue_.asyncAfter(delay, [alive = Token(alive_), work = std::move(work)] {
    if (!alive.expired()) work();
  });
}

std::string HelperManager::statusText() const {
  switch (status_.kind) {
    case HelperStatus::Kind::enabled:
      return staleHelperPhase_ == StaleHelperPhase::failed ? helper_texts::kStaleFailed
                                                           : helper_texts::kConnected;
    case HelperStatus::Kind::requiresApproval:
      return helper_texts::kApprovalPending;
    case HelperStatus::Kind::error:
      return status_.message;
    case HelperStatus::Kind::disabled:
      break;
  }
  if (maskDetected_) return helper_texts::kMasked;
  if (rawServiceStatus_ == HelperServiceStatus::enabled) {
    return "The battery helper is installed; Quorel isn't connected to it.";
  }
  return helper_texts::kNotInstalled;
}

void HelperManager::refreshStatusFromService() {
  rawServiceStatus_ = service_.status();
  switch (rawServiceStatus_) {
    case HelperServiceStatus::notRegistered:
    case HelperServiceStatus::notFound:
      status_ = HelperStatus::disabled();
      break;
    case HelperServiceStatus::enabled:
      status_ = hasEverConnected_ ? HelperStatus::error(helper_texts::kConnectionLost)
                                  : HelperStatus::disabled();
      break;
    case HelperServiceStatus::requiresApproval:
      status_ = HelperStatus::requiresApproval();
      startApprovalPoll();
      break;
  }
}

// Approval on this system is root adding the user to the helper's allowed users; nothing tells
// the agent when that happens, so it looks.
void HelperManager::startApprovalPoll() {
  approvalPollTimer_ = mainQueue_.every(kApprovalPollInterval, kApprovalPollInterval, [this] {
    rawServiceStatus_ = service_.status();
    if (rawServiceStatus_ != HelperServiceStatus::enabled) return;
    log_->info("approval landed — establishing connection");
    approvalPollTimer_.cancel();
    establishConnection([this](bool connected) {
      if (!connected) log_->error("post-approval connect failed: {}", statusText());
    });
  });
}

void HelperManager::enable(EnableCompletion done) {
  const auto finish = [done](std::optional<HelperEnableFailure> failure) {
    if (done) done(std::move(failure));
  };
  if (hooks_.availability && hooks_.availability() != BatteryControlAvailability::available) {
    log_->warn("enable() refused: this machine's battery offers no charge control");
    status_ = HelperStatus::error(helper_texts::kUnsupported);
    finish(HelperEnableFailure{HelperEnableFailure::Kind::unsupportedHardware, {}});
    return;
  }
  if (hooks_.conflictProbe) {
    if (auto rival = hooks_.conflictProbe()) {
      log_->warn("preflight: {} manages the charge limit — refusing enable", *rival);
      finish(HelperEnableFailure{HelperEnableFailure::Kind::conflictTool, *rival});
      return;
    }
  }
  rawServiceStatus_ = service_.status();
  if (rawServiceStatus_ == HelperServiceStatus::enabled) {
    establishConnection([finish](bool) { finish(std::nullopt); });
    return;
  }
  if (auto failed = service_.registerHelper()) {
    log_->error("register failed: {}", failed->message);
    rawServiceStatus_ = service_.status();
    maskDetected_ = service_.masked();
    if (maskDetected_) {
      log_->error(
          "register refused and systemd holds a mask on {} — installing again cannot "
          "clear this",
          kHelperSocketUnit);
      status_ = HelperStatus::error(helper_texts::kMasked);
      finish(HelperEnableFailure{HelperEnableFailure::Kind::disableOverride, {}});
      return;
    }
    if (rawServiceStatus_ == HelperServiceStatus::requiresApproval ||
        rawServiceStatus_ == HelperServiceStatus::enabled) {
      log_->info("register() failed but service.status={} — treating as approval-pending",
                 helperServiceStatusText(rawServiceStatus_));
      status_ = HelperStatus::requiresApproval();
      startApprovalPoll();
      finish(std::nullopt);
      return;
    }
    status_ = HelperStatus::error(failed->message);
    finish(HelperEnableFailure{HelperEnableFailure::Kind::notRegistered, {}});
    return;
  }
  rawServiceStatus_ = service_.status();
  switch (rawServiceStatus_) {
    case HelperServiceStatus::enabled:
      establishConnection([finish](bool) { finish(std::nullopt); });
      return;
    case HelperServiceStatus::requiresApproval:
      status_ = HelperStatus::requiresApproval();
      startApprovalPoll();
      finish(std::nullopt);
      return;
    case HelperServiceStatus::notRegistered:
    case HelperServiceStatus::notFound:
      status_ = HelperStatus::error(helper_texts::kNotInstalled);
      finish(HelperEnableFailure{HelperEnableFailure::Kind::notRegistered, {}});
      return;
  }
}

void HelperManager::disable(std::function<void(std::optional<Error>)> done) {
  auto finish = [this, done] {
    auto failed = service_.unregisterHelper();
    if (failed) log_->error("unregister failed: {}", failed->message);
    teardownConnection();
    approvalPollTimer_.cancel();
    reconnectTimer_.cancel();
    status_ = HelperStatus::disabled();
    staleHelperPhase_ = StaleHelperPhase::none;
    staleRestartAttempted_ = staleResetAttempted_ = false;
    staleRestartRequestedAt_.reset();
    if (done) done(std::move(failed));
  };
  if (proxy() == nullptr) {
    finish();
    return;
  }
  timedCall("resetAll", {}, kReplyTimeout, [this, finish](std::optional<HelperCallOutcome> out) {
    if (!out || out->result != JSONValue(true)) {
      log_->error(
          "disable(): battery reset {} — a charge limit may stay in force; the battery could "
          "stay stuck not charging",
          out ? "reported failure" : "timed out");
    }
    if (connection_) connection_->call("quit", {}, {});
    finish();
  });
}

void HelperManager::resetHelper() {
  log_->info("resetHelper — dropping the connection to start afresh");
  teardownConnection();
  hasEverConnected_ = false;
  reconnectAttempt_ = 0;
  refreshStatusFromService();
}

}  // namespace quorel
