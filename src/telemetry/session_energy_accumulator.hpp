#pragma once
// Integrates a session's battery energy by the trapezoid rule, and accounts for the time it
// could not observe, so a session can say how much of itself it actually saw.

#include <optional>
#include <utility>

#include "core/clock.hpp"

namespace quorel {

struct SessionEnergyAccumulator {
  double wattHours = 0;
  double collectedSeconds = 0;
  double missingSeconds = 0;
  long rejectedIntervals = 0;
  std::optional<std::pair<TimePoint, double>> previous;  // time and magnitude in watts

  // Energy counts regardless of direction. An interval longer than `maximumInterval` is missing
  // time, never integrated.
  void append(TimePoint at, double batteryWatts, Seconds maximumInterval);

  bool operator==(const SessionEnergyAccumulator&) const = default;
};

}  // namespace quorel
