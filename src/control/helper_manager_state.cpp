// What the helper reports, and the refresh of a helper older than the version floor.

#include <spdlog/logger.h>

#include "control/helper_manager.hpp"

namespace quorel {

void HelperManager::refreshHelperStateNow() {
  mainQueue_.async([this, alive = Token(alive_)] {
    if (!alive.expired()) refreshHelperState();
  });
}

// A missing or undecodable answer leaves what was known in place.
void HelperManager::refreshHelperState() {
  if (proxy() == nullptr) return;
  timedCall("getState", {}, kReplyTimeout, [this](std::optional<HelperCallOutcome> state) {
    if (state && state->result) {
      if (auto decoded = HelperState::fromJSON(*state->result)) applyHelperState(*decoded);
    }
    if (proxy() == nullptr) return;
    timedCall("capabilities", {}, kReplyTimeout, [this](std::optional<HelperCallOutcome> caps) {
      if (!caps || !caps->result || !connection_) return;
      if (auto decoded = HelperCapabilities::fromJSON(*caps->result)) capabilities_ = *decoded;
    });
  });
}

void HelperManager::applyHelperState(const HelperState& state) {
  helperState_ = state;
  const bool outdated = !versionAtLeast(state.helperVersion, kHelperVersionFloor);
  const std::string version = state.helperVersion.value_or("(none)");
  if (outdated != helperOutdated_) {
    helperOutdated_ = outdated;
    if (outdated) {
      log_->error(
          "helper version {} is below floor {} — stale binary still running after an "
          "update",
          version, kHelperVersionFloor);
    }
  }
  if (outdated && staleRestartRequestedAt_) {
    const auto waited =
        std::chrono::duration_cast<Seconds>(clock_.monotonicNow() - *staleRestartRequestedAt_);
    if (waited < kStaleRestartTimeout) return;
    log_->warn("outdated helper still answering {:.0f} s after quit — escalating", waited.count());
    staleRestartRequestedAt_.reset();
  }
  switch (StaleHelperPolicy::next(outdated, staleRestartAttempted_, staleResetAttempted_)) {
    case StaleHelperPolicy::Action::clear:
      if (staleHelperPhase_ != StaleHelperPhase::none) {
        log_->info("helper version {} satisfies floor — stale-helper refresh complete", version);
        staleHelperPhase_ = StaleHelperPhase::none;
      }
      break;
    case StaleHelperPolicy::Action::restart:
      restartStaleHelper();
      break;
    case StaleHelperPolicy::Action::reset:
      staleResetAttempted_ = true;
      staleHelperPhase_ = StaleHelperPhase::resetting;
      log_->warn("helper still outdated after restart — reconnecting afresh");
      mainQueue_.async([this, alive = Token(alive_)] {
        if (!alive.expired()) resetStaleHelper();
      });
      break;
    case StaleHelperPolicy::Action::giveUp:
      if (staleHelperPhase_ != StaleHelperPhase::failed) {
        log_->error("helper still outdated after restart and reset — leaving warning in place");
        staleHelperPhase_ = StaleHelperPhase::failed;
      }
      break;
  }
}

// The helper exits on `quit`; socket activation starts the installed binary on the next connect.
void HelperManager::restartStaleHelper() {
  staleRestartAttempted_ = true;
  staleHelperPhase_ = StaleHelperPhase::restarting;
  staleRestartRequestedAt_ = clock_.monotonicNow();
  reconnectAttempt_ = 0;
  log_->warn("asking outdated helper to quit so socket activation starts the installed binary");
  if (hooks_.staleHelperQuitter) {
    hooks_.staleHelperQuitter();
  } else if (connection_) {
    connection_->call("quit", {}, {});
  }
}

void HelperManager::resetStaleHelper() {
  resetHelper();
  if (status_.kind == HelperStatus::Kind::requiresApproval) return;
  if (hooks_.staleHelperReconnector) {
    hooks_.staleHelperReconnector();
  } else {
    enable();
  }
}

}  // namespace quorel
