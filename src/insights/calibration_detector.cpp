#include "insights/calibration_detector.hpp"

#include <cmath>

#include "core/logging.hpp"

namespace quorel {

CalibrationDetector::CalibrationDetector(CalibrationSettingsAccess& settings, const Clock& clock,
                                         std::function<void()> onFire)
    : settings_(settings),
      clock_(clock),
      onFire_(std::move(onFire)),
      log_(logging::get("Calibration")) {}

void CalibrationDetector::limitChanged(std::optional<std::int64_t> limitPercent) {
  lastLimit_ = limitPercent;
  evaluate();
}

void CalibrationDetector::stateChanged(const PowerState& state) {
  lastState_ = state;
  evaluate();
}

void CalibrationDetector::evaluate() {
  const TimePoint now = clock_.now();
  const bool chargingPastLimit = [&] {
    if (!lastLimit_ || *lastLimit_ >= 100 || !lastState_ || !lastState_->isCharging) return false;
    const auto soc = static_cast<std::int64_t>(std::lround(lastState_->batteryPercentage));
    return *lastLimit_ <= soc;
  }();
  if (!chargingPastLimit) {
    phase_ = Phase::idle;
    maybeStartedAt_.reset();
  } else if (isInCooldown(now)) {
    phase_ = Phase::cooldown;
  } else if (phase_ == Phase::idle) {
    phase_ = Phase::maybe;
    maybeStartedAt_ = now;
  } else if (phase_ == Phase::maybe) {
    if (!maybeStartedAt_) {
      maybeStartedAt_ = now;
    } else if (secondsBetween(*maybeStartedAt_, now) >= dwellSeconds) {
      fire(now);
    }
  }
  // A cooldown phase whose day has passed waits for the battery to fall below the limit: one
  // stretch above it is one notice.
}

bool CalibrationDetector::isInCooldown(TimePoint now) const {
  const auto last = settings_.calibrationToastLastFiredAt();
  if (!last) return false;
  const double elapsed = secondsBetween(*last, now);
  return elapsed >= 0 && elapsed < cooldownSeconds;
}

void CalibrationDetector::fire(TimePoint now) {
  log_->info("calibration toast fired");
  settings_.recordCalibrationToastFired(now);
  phase_ = Phase::cooldown;
  maybeStartedAt_.reset();
  if (onFire_) onFire_();
}

}  // namespace quorel
