#include "insights/carbon_footprint_service.hpp"

#include <algorithm>
#include <limits>

#include "insights/local_days.hpp"
#include "store/historical_energy_math.hpp"
#include "store/quorel_database.hpp"

namespace quorel {

namespace {

// Longer than this between two samples is missing time, never energy.
constexpr double kMaximumInterval_s = 300.0;
// The integration leaves out every stretch that touches a negative reading.
constexpr double kUnknownWatts = -1.0;

double drawnWatts(const PowerSample& s) {
  if (s.powerInW) return std::max(*s.powerInW - s.wattage, 0.0);
  if (s.externalConnected) return kUnknownWatts;
  return s.wattage <= 0 ? -s.wattage : 0.0;
}

}  // namespace

std::optional<CarbonRegionIntensity> carbonRegionNamed(std::string_view rawValue) {
  const auto it = std::find_if(kCarbonRegions.begin(), kCarbonRegions.end(),
                               [&](const auto& r) { return r.rawValue == rawValue; });
  if (it == kCarbonRegions.end()) return std::nullopt;
  return *it;
}

CarbonFootprintService::CarbonFootprintService(QuorelDatabase& database) : database_(database) {}

Result<double> CarbonFootprintService::todayCO2Grams(const CarbonRegionIntensity& region,
                                                     TimePoint now) {
  const TimePoint start = startOfLocalDay(now);
  auto samples = database_.queryPowerSamples(start, now, std::numeric_limits<int>::max());
  if (!samples) return samples.error();
  Signature signature{start, samples->size(), std::nullopt};
  if (!samples->empty()) signature.lastTimestamp = samples->back().timestamp;

  double kWh = 0;
  {
    std::lock_guard lock(cacheLock_);
    if (cachedSignature_ != signature) {
      cachedKWh_ = integratedKWh(*samples);
      cachedSignature_ = signature;
      ++integrations_;
    }
    kWh = cachedKWh_;
  }
  return kWh * region.gramsCO2PerKWh;
}

double CarbonFootprintService::integratedKWh(const std::vector<PowerSample>& samples) {
  std::vector<EnergyPoint> points;
  points.reserve(samples.size());
  for (const auto& s : samples) points.push_back({s.timestamp, drawnWatts(s)});
  return HistoricalEnergyMath::integrate(points, kMaximumInterval_s).wattHours / 1000.0;
}

}  // namespace quorel
