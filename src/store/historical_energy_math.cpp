#include "store/historical_energy_math.hpp"

#include <cmath>

namespace quorel {

HistoricalEnergyIntegration HistoricalEnergyMath::integrate(const std::vector<EnergyPoint>& points,
                                                            double maximumInterval_s) {
  HistoricalEnergyIntegration result;
  if (points.size() < 2 || !(maximumInterval_s > 0)) return result;
  for (std::size_t i = 1; i < points.size(); ++i) {
    const EnergyPoint& a = points[i - 1];
    const EnergyPoint& b = points[i];
    const double dt = secondsBetween(a.time, b.time);
    if (!(dt > 0)) continue;
    if (!std::isfinite(a.watts) || !std::isfinite(b.watts) || a.watts < 0 || b.watts < 0) continue;
    if (dt > maximumInterval_s) {
      result.missingSeconds += dt;
      continue;
    }
    result.wattHours += dt * ((a.watts + b.watts) * 0.5) / 3600.0;
    result.collectedSeconds += dt;
  }
  return result;
}

}  // namespace quorel
