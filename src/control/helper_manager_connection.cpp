// The connection's life: opening it, proving it with pings, watching it, and what to do when it
// ends.

#include <spdlog/logger.h>

#include <algorithm>
#include <cmath>

#include "control/helper_manager.hpp"

namespace quorel {

void HelperManager::establishConnection(std::function<void(bool)> done) {
  if (done) connectWaiters_.push_back(std::move(done));
  if (inFlightConnect_) return;
  inFlightConnect_ = true;
  performEstablishConnection();
}

void HelperManager::openConnection() {
  connection_ = connect_();
  HelperChannel* opened = connection_.get();
  connection_->setClosedHandler([this, opened](bool connected) {
    if (connection_.get() != opened) return;
    if (connected) {
      handleInterruption();
    } else {
      handleInvalidation();
    }
  });
}

void HelperManager::performEstablishConnection() {
  isConnecting_ = true;
  interruptedDuringConnect_ = false;
  if (connection_) teardownConnection();
  openConnection();
  const Seconds budget = hasEverConnected_ ? pingBudgets_.warm : pingBudgets_.coldInitial;
  pingWithBudget(budget, [this](bool answered) {
    if (answered || hasEverConnected_ || interruptedDuringConnect_) {
      finishConnect(answered);
      return;
    }
    // A helper started by socket activation may still be loading after a cold boot.
    log_->info("cold-start ping budget exhausted — short retry before giving up");
    later(pingBudgets_.retryPause, [this] {
      pingWithBudget(pingBudgets_.coldRetry, [this](bool again) { finishConnect(again); });
    });
  });
}

void HelperManager::finishConnect(bool connected) {
  if (connected) {
    hasEverConnected_ = true;
    reconnectAttempt_ = 0;
    hasAttemptedAutoReset_ = false;
    status_ = HelperStatus::enabled();
    maskDetected_ = false;
    approvalPollTimer_.cancel();
    startPingTimer();
    refreshHelperState();
  } else if (!interruptedDuringConnect_) {
    connectFailed();
  }
  isConnecting_ = false;
  inFlightConnect_ = false;
  auto waiters = std::move(connectWaiters_);
  connectWaiters_.clear();
  for (auto& waiter : waiters) waiter(connected);
}

void HelperManager::connectFailed() {
  rawServiceStatus_ = service_.status();
  log_->error("first-ping timeout — service.status={}", helperServiceStatusText(rawServiceStatus_));
  teardownConnection();
  switch (rawServiceStatus_) {
    case HelperServiceStatus::enabled:
    case HelperServiceStatus::requiresApproval:
      if (!hasAttemptedAutoReset_) {
        hasAttemptedAutoReset_ = true;
        // After the waiters of this attempt have heard of its end.
        mainQueue_.async([this, alive = Token(alive_)] {
          if (!alive.expired()) autoReset();
        });
      } else if (rawServiceStatus_ == HelperServiceStatus::requiresApproval) {
        status_ = HelperStatus::requiresApproval();
        startApprovalPoll();
      } else {
        status_ = HelperStatus::error(helper_texts::kNotRunning);
      }
      break;
    case HelperServiceStatus::notRegistered:
    case HelperServiceStatus::notFound:
      status_ = HelperStatus::error(helper_texts::kNotInstalled);
      break;
  }
}

// The units say the helper is there but it did not answer: forget the connection and try once
// more from cold, which is as much as an unprivileged agent can do.
void HelperManager::autoReset() {
  log_->warn("first-ping timeout with the helper installed — reconnecting afresh");
  resetHelper();
  if (status_.kind == HelperStatus::Kind::requiresApproval) return;
  establishConnection();
}

void HelperManager::teardownConnection() {
  if (connection_) {
    connection_->close();
    connection_.reset();
  }
  pingTimer_.cancel();
  helperState_.reset();
  capabilities_.reset();
  helperOutdated_ = false;
  staleRestartRequestedAt_.reset();
}

void HelperManager::pingWithBudget(Seconds total, std::function<void(bool)> done) {
  pingUntil(clock_.monotonicNow() + std::chrono::duration_cast<MonotonicTime::duration>(total),
            std::move(done));
}

void HelperManager::pingUntil(MonotonicTime deadline, std::function<void(bool)> done) {
  const MonotonicTime now = clock_.monotonicNow();
  if (now >= deadline) {
    done(false);
    return;
  }
  const auto again = [this, deadline, done] {
    if (clock_.monotonicNow() >= deadline) {
      done(false);
      return;
    }
    later(kPingRetryPause, [this, deadline, done] { pingUntil(deadline, done); });
  };
  if (!connection_ || interruptedDuringConnect_) {
    if (interruptedDuringConnect_) {
      done(false);
      return;
    }
    again();
    return;
  }
  const Seconds left = std::chrono::duration_cast<Seconds>(deadline - now);
  pingWithTimeout(std::clamp(left, Seconds{0.5}, Seconds{2.0}), [done, again](bool answered) {
    if (answered) {
      done(true);
    } else {
      again();
    }
  });
}

void HelperManager::pingWithTimeout(Seconds timeout, std::function<void(bool)> done) {
  timedCall("ping", {}, timeout,
            [done](std::optional<HelperCallOutcome> out) { done(out && out->result.has_value()); });
}

void HelperManager::ping(std::function<void(bool)> done) {
  if (proxy() == nullptr) {
    done(false);
    return;
  }
  pingWithTimeout(kReplyTimeout, std::move(done));
}

void HelperManager::timedCall(const std::string& method, JSONValue params, Seconds timeout,
                              std::function<void(std::optional<HelperCallOutcome>)> done) {
  if (!connection_) {
    done(std::nullopt);
    return;
  }
  auto finished = std::make_shared<bool>(false);
  auto shared =
      std::make_shared<std::function<void(std::optional<HelperCallOutcome>)>>(std::move(done));
  later(timeout, [finished, shared] {
    if (std::exchange(*finished, true)) return;
    (*shared)(std::nullopt);
  });
  connection_->call(method, std::move(params), [finished, shared](HelperCallOutcome outcome) {
    if (std::exchange(*finished, true)) return;
    const bool transport = outcome.error && outcome.error->kind == HelperCallError::Kind::transport;
    (*shared)(transport ? std::nullopt : std::optional<HelperCallOutcome>(std::move(outcome)));
  });
}

void HelperManager::command(const std::string& method, JSONValue params, HelperReply reply) {
  if (!connection_) return;
  HelperChannel* sentOn = connection_.get();
  connection_->call(method, std::move(params),
                    [this, method, sentOn, reply](HelperCallOutcome out) {
                      if (!out.error) {
                        // Commands answer true; anything else is a refusal without a reason.
                        if (out.result == JSONValue(true)) {
                          // Whoever wrote (a person, an assistant, a rule), what is shown of the
                          // helper follows at once rather than at the next periodic read.
                          refreshHelperStateNow();
                          reply(std::nullopt);
                        } else {
                          reply(QuorelHelperError{QuorelHelperErrorCode::codeSMCWriteFailed, {}});
                        }
                        return;
                      }
                      if (out.error->kind == HelperCallError::Kind::transport) {
                        log_->error("helper proxy error: {}", out.error->message);
                        if (connection_.get() == sentOn) handleInvalidation();
                        return;
                      }
                      // A protocol refusal (a user the helper does not serve, a parameter it
                      // rejects) is shown the same way as the helper's own: its sentence stands in
                      // for the caller's.
                      const auto code = out.error->kind == HelperCallError::Kind::helper
                                            ? static_cast<QuorelHelperErrorCode>(out.error->code)
                                            : QuorelHelperErrorCode::codeSMCWriteFailed;
                      reply(QuorelHelperError{code, out.error->message});
                    });
}

void HelperManager::startPingTimer() {
  pingTimer_.cancel();
  pingMisses_ = 0;
  pingTimer_ = mainQueue_.every(kPingInterval, kPingInterval, [this] { pingTick(); });
}

void HelperManager::pingTick() {
  ping([this](bool answered) {
    if (answered) {
      pingMisses_ = 0;
      refreshHelperState();
      return;
    }
    if (++pingMisses_ >= 2) {
      log_->warn("ping missed twice — tearing down connection");
      handleInvalidation();
    }
  });
}

void HelperManager::handleInterruption() {
  log_->warn(
      "helper connection interrupted — helper went away; scheduling reconnect (attempt "
      "{}/{})",
      reconnectAttempt_ + 1, kMaxReconnectAttempts);
  if (isConnecting_) interruptedDuringConnect_ = true;
  teardownConnection();
  if (reconnectAttempt_ >= kMaxReconnectAttempts) {
    log_->error("{} reconnect attempts exhausted — surfacing error", kMaxReconnectAttempts);
    status_ = HelperStatus::error(helper_texts::kCrashedRepeatedly);
    return;
  }
  // Over ten seconds, so that systemd's start-rate limit has let go of a helper that crashed.
  const Seconds delay = kReconnectBaseDelay * std::pow(2.0, reconnectAttempt_);
  ++reconnectAttempt_;
  reconnectTimer_ = mainQueue_.after(delay, [this] {
    if (connection_ || inFlightConnect_) return;
    establishConnection([this](bool connected) {
      if (!connected) log_->error("reconnect failed: {}", statusText());
    });
  });
}

void HelperManager::handleInvalidation() {
  if (staleHelperPhase_ == StaleHelperPhase::restarting) {
    log_->info("helper connection ended during stale-helper restart — reconnecting");
    handleInterruption();
    return;
  }
  log_->warn("helper connection invalidated — channel dead; refreshing status");
  teardownConnection();
  refreshStatusFromService();
}

}  // namespace quorel
