#include "telemetry/session_energy_accumulator.hpp"

#include <cmath>

namespace quorel {

void SessionEnergyAccumulator::append(TimePoint at, double batteryWatts, Seconds maximumInterval) {
  if (!std::isfinite(batteryWatts)) {
    ++rejectedIntervals;
    return;
  }
  const double magnitude = std::fabs(batteryWatts);
  if (previous) {
    const double dt = secondsBetween(previous->first, at);
    if (dt <= 0) {
      ++rejectedIntervals;
    } else if (dt > maximumInterval.count()) {
      missingSeconds += dt;
    } else {
      collectedSeconds += dt;
      wattHours += dt * (previous->second + magnitude) / 2.0 / 3600.0;
    }
  }
  previous = std::make_pair(at, magnitude);
}

}  // namespace quorel
