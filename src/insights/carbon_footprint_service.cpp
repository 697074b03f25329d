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
  const auto tally = database_.powerSampleTally(start, now);
  if (!tally) return tally.error();
  std::optional<Day> previous;
  {
    std::lock_guard lock(cacheLock_);
    previous = day_;
  }
  if (previous && previous->start == start && previous->tally == *tally) {
    return previous->wattHours / 1000.0 * region.gramsCO2PerKWh;
  }
  // The reads run without the lock: a caller on the store's queue must never wait for one
  // that holds it while waiting for that queue.
  auto day = advance(previous, start, now, *tally);
  if (!day) return day.error();
  ++integrations_;
  {
    std::lock_guard lock(cacheLock_);
    day_ = *day;
  }
  return day->wattHours / 1000.0 * region.gramsCO2PerKWh;
}

Result<CarbonFootprintService::Day> CarbonFootprintService::advance(
    const std::optional<Day>& previous, TimePoint start, TimePoint now,
    const PowerSampleTally& tally) {
  const auto points = [](const std::vector<PowerSample>& samples, std::size_t skip) {
    std::vector<EnergyPoint> out;
    out.reserve(samples.size() - std::min(skip, samples.size()));
    for (std::size_t i = skip; i < samples.size(); ++i) {
      out.push_back({samples[i].timestamp, drawnWatts(samples[i])});
    }
    return out;
  };
  const auto finish = [&](double wattHours, const std::vector<EnergyPoint>& added,
                          const std::vector<PowerSample>& read, std::optional<EnergyPoint> last) {
    Day day{start, tally, 0, std::move(last), wattHours};
    if (!added.empty()) day.lastPoint = added.back();
    for (const auto& s : read) day.countAtLast += tally.last && s.timestamp == *tally.last;
    return day;
  };
  if (previous && previous->start == start && previous->tally.last && previous->lastPoint &&
      tally.count > previous->tally.count) {
    // Only appended since: the samples from the last time on are the ones seen there again
    // and exactly the new ones, so the sum so far stands and the new pairs are added to it.
    auto since =
        database_.queryPowerSamples(*previous->tally.last, now, std::numeric_limits<int>::max());
    if (!since) return since.error();
    std::size_t seenAgain = 0;
    while (seenAgain < since->size() && (*since)[seenAgain].timestamp == *previous->tally.last) {
      ++seenAgain;
    }
    if (seenAgain == previous->countAtLast &&
        previous->tally.count + (since->size() - seenAgain) == tally.count) {
      std::vector<EnergyPoint> added = points(*since, seenAgain);
      std::vector<EnergyPoint> pairs{*previous->lastPoint};
      pairs.insert(pairs.end(), added.begin(), added.end());
      const double wattHours = previous->wattHours +
                               HistoricalEnergyMath::integrate(pairs, kMaximumInterval_s).wattHours;
      return finish(wattHours, added, *since, previous->lastPoint);
    }
  }
  auto samples = database_.queryPowerSamples(start, now, std::numeric_limits<int>::max());
  if (!samples) return samples.error();
  std::vector<EnergyPoint> all = points(*samples, 0);
  const double wattHours = HistoricalEnergyMath::integrate(all, kMaximumInterval_s).wattHours;
  return finish(wattHours, all, *samples, std::nullopt);
}

double CarbonFootprintService::integratedKWh(const std::vector<PowerSample>& samples) {
  std::vector<EnergyPoint> points;
  points.reserve(samples.size());
  for (const auto& s : samples) points.push_back({s.timestamp, drawnWatts(s)});
  return HistoricalEnergyMath::integrate(points, kMaximumInterval_s).wattHours / 1000.0;
}

}  // namespace quorel
