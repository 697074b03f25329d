#pragma once
// Tells the person, at most once a day, that the battery is charging past its limit because the
// firmware is recalibrating the gauge, which from outside looks like a limit that failed.
//
// The battery must charge at or above a known limit below 100 % for 30 s in a row; then the
// detector fires once and rests for a day from that moment. The day is counted from the stored
// last firing, so it survives restarts; a last firing in the future (the clock was set back) is
// no reason to rest.
//
// Threading: the main queue, like the settings it reads and saves.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "core/clock.hpp"
#include "core/power_state.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

// Where the detector keeps the time of its last notice across runs.
class CalibrationSettingsAccess {
 public:
  virtual ~CalibrationSettingsAccess() = default;
  virtual std::optional<TimePoint> calibrationToastLastFiredAt() const = 0;
  // Stores `at` and saves the settings at once.
  virtual void recordCalibrationToastFired(TimePoint at) = 0;
};

class CalibrationDetector {
 public:
  enum class Phase { idle, maybe, cooldown };
  static constexpr double dwellSeconds = 30.0;
  static constexpr double cooldownSeconds = 86400.0;

  // `onFire` is the consumer of the firings: it posts the notice when the person wants it.
  CalibrationDetector(CalibrationSettingsAccess& settings, const Clock& clock,
                      std::function<void()> onFire);
  CalibrationDetector(const CalibrationDetector&) = delete;
  CalibrationDetector& operator=(const CalibrationDetector&) = delete;

  // Each stores the new value, then evaluates.
  void limitChanged(std::optional<std::int64_t> limitPercent);
  void stateChanged(const PowerState& state);

  void evaluate();

  Phase phase() const { return phase_; }
  std::optional<TimePoint> maybeStartedAt() const { return maybeStartedAt_; }

 private:
  bool isInCooldown(TimePoint now) const;
  void fire(TimePoint now);

  CalibrationSettingsAccess& settings_;
  const Clock& clock_;
  std::function<void()> onFire_;
  std::shared_ptr<spdlog::logger> log_;
  Phase phase_ = Phase::idle;
  std::optional<TimePoint> maybeStartedAt_;
  std::optional<std::int64_t> lastLimit_;
  std::optional<PowerState> lastState_;
};

}  // namespace quorel
