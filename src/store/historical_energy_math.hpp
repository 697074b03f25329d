#pragma once
// Energy from a series of power readings, honest about gaps: a stretch longer than the allowed
// interval is counted as missing time and never integrated.

#include <vector>

#include "core/clock.hpp"

namespace quorel {

// One power reading of a series, in watts.
struct EnergyPoint {
  TimePoint time;
  double watts = 0;

  bool operator==(const EnergyPoint&) const = default;
};

struct HistoricalEnergyIntegration {
  double wattHours = 0;
  double collectedSeconds = 0;
  double missingSeconds = 0;

  bool operator==(const HistoricalEnergyIntegration&) const = default;
};

struct HistoricalEnergyMath {
  // Trapezoid integration of time-sorted points. A pair with no time between them, or with a
  // negative or non-finite reading, counts for nothing at all; a pair further apart than
  // `maximumInterval_s` counts as missing time.
  static HistoricalEnergyIntegration integrate(const std::vector<EnergyPoint>& points,
                                               double maximumInterval_s);
};

}  // namespace quorel
