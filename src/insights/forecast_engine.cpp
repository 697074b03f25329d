#include "insights/forecast_engine.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <utility>

#include "core/enum_text.hpp"
#include "core/local_time.hpp"
#include "store/historical_energy_math.hpp"

namespace quorel {

namespace {

constexpr EnumTextTable<ForecastResultKind, 4> kResultKindNames{{{
    {ForecastResultKind::forecast, "forecast"},
    {ForecastResultKind::readout, "readout"},
    {ForecastResultKind::insufficientData, "insufficient_data"},
    {ForecastResultKind::noTrend, "no_trend"},
}}};

constexpr std::size_t kMinimumHistoryEntries = 5;
// A slope within this of zero is no trend: rounding noise in a flat line must not become a date
// thousands of years away.
constexpr double kSlopeEpsilon = 1e-12;
constexpr int kForecastSteps = 12;  // 13 points from now to the forecast date
constexpr double kMinimumObservedHours = 0.5;
constexpr double kMinimumObservedShare = 0.020833333333333332;  // 1/48 of the period

struct Fit {
  double slope = 0;
  double intercept = 0;
  double residualStdErr = 0;

  double at(double x) const { return intercept + slope * x; }
};

std::optional<Fit> linearFit(const std::vector<std::pair<double, double>>& pairs) {
  const std::size_t n = pairs.size();
  if (n < 2) return std::nullopt;
  double meanX = 0;
  double meanY = 0;
  for (const auto& [x, y] : pairs) {
    meanX += x;
    meanY += y;
  }
  meanX /= static_cast<double>(n);
  meanY /= static_cast<double>(n);
  double sxx = 0;
  double sxy = 0;
  for (const auto& [x, y] : pairs) {
    sxx += (x - meanX) * (x - meanX);
    sxy += (x - meanX) * (y - meanY);
  }
  if (!(sxx > 0)) return std::nullopt;
  Fit fit;
  fit.slope = sxy / sxx;
  if (!std::isfinite(fit.slope)) return std::nullopt;
  fit.intercept = meanY - fit.slope * meanX;
  if (n > 2) {
    double squares = 0;
    for (const auto& [x, y] : pairs) squares += (y - fit.at(x)) * (y - fit.at(x));
    fit.residualStdErr = std::sqrt(squares / static_cast<double>(n - 2));
    if (!std::isfinite(fit.residualStdErr)) fit.residualStdErr = 0;
  }
  return fit;
}

// A replaced battery starts its fit anew: only the current epoch's entries count.
std::vector<CapacityLogEntry> epochFiltered(std::vector<CapacityLogEntry> entries,
                                            std::optional<TimePoint> epochStart) {
  const auto byTime = [](const CapacityLogEntry& a, const CapacityLogEntry& b) {
    return a.timestamp < b.timestamp;
  };
  if (!std::is_sorted(entries.begin(), entries.end(), byTime)) {
    std::stable_sort(entries.begin(), entries.end(), byTime);
  }
  if (epochStart) {
    std::erase_if(entries, [&](const CapacityLogEntry& e) { return e.timestamp < *epochStart; });
  }
  return entries;
}

// Cycles as a line in time, from the first entry on.
std::optional<Fit> cyclesOverTime(const std::vector<CapacityLogEntry>& entries) {
  std::vector<std::pair<double, double>> pairs;
  pairs.reserve(entries.size());
  for (const auto& e : entries) {
    pairs.emplace_back(secondsBetween(entries.front().timestamp, e.timestamp),
                       static_cast<double>(e.cycleCount));
  }
  auto fit = linearFit(pairs);
  if (!fit || !(fit->slope > kSlopeEpsilon)) return std::nullopt;
  return fit;
}

struct DegradationModel {
  Fit health;  // health percent over cycles
  Fit cycles;  // cycles over seconds since baseTime
  TimePoint baseTime;

  double healthAt(TimePoint t) const { return health.at(cycles.at(secondsBetween(baseTime, t))); }
  std::optional<TimePoint> dateForHealth(double target) const {
    const double cycleCount = (target - health.intercept) / health.slope;
    if (!std::isfinite(cycleCount)) return std::nullopt;
    const double seconds = (cycleCount - cycles.intercept) / cycles.slope;
    if (!std::isfinite(seconds)) return std::nullopt;
    return baseTime + std::chrono::duration_cast<TimePoint::duration>(Seconds{seconds});
  }
};

std::optional<DegradationModel> degradationModel(const std::vector<CapacityLogEntry>& entries) {
  std::vector<std::pair<double, double>> pairs;
  pairs.reserve(entries.size());
  for (const auto& e : entries) pairs.emplace_back(static_cast<double>(e.cycleCount), e.healthPct);
  const auto health = linearFit(pairs);
  if (!health || !(health->slope < -kSlopeEpsilon)) return std::nullopt;
  const auto cycles = cyclesOverTime(entries);
  if (!cycles) return std::nullopt;
  return DegradationModel{*health, *cycles, entries.front().timestamp};
}

bool withinHorizon(TimePoint date, TimePoint now) {
  const double ahead = secondsBetween(now, date);
  return ahead > 0 && ahead <= ForecastEngine::kHorizonSeconds;
}

TimePoint offset(TimePoint t, double seconds) {
  return t + std::chrono::duration_cast<TimePoint::duration>(Seconds{seconds});
}

// The 13 points from now to `until`, with a band widening from one standard error at now to two
// at the far end.
template <class ValueAt>
ForecastSeries series(TimePoint now, TimePoint until, double residualStdErr, ValueAt valueAt,
                      std::string readout) {
  ForecastSeries out;
  out.readout = std::move(readout);
  const double span = secondsBetween(now, until);
  for (int i = 0; i <= kForecastSteps; ++i) {
    const double t = static_cast<double>(i) / kForecastSteps;
    const TimePoint date = offset(now, span * t);
    const double value = valueAt(date);
    out.points.push_back({date, value});
    if (residualStdErr > 0) {
      const double halfWidth = residualStdErr * (t + 1);
      out.bandUpper.push_back({date, value + halfWidth});
      out.bandLower.push_back({date, value - halfWidth});
    }
  }
  return out;
}

std::optional<ForecastSeries> levelSeries(const std::vector<ForecastPoint>& soc, bool isCharging,
                                          std::optional<std::int64_t> known, TimePoint now) {
  const auto estimate = ForecastEngine::depletion(soc, isCharging, known, now);
  if (!estimate) return std::nullopt;
  ForecastSeries out;
  out.points = {{now, estimate->current}, {estimate->date, estimate->target}};
  out.readout =
      isCharging ? "Full at " + ForecastEngine::clockText(estimate->date)
                 : "Empty in " + ForecastEngine::durationText(secondsBetween(now, estimate->date));
  return out;
}

}  // namespace

ForecastResultKind kindOf(const ForecastResult& result) {
  return static_cast<ForecastResultKind>(result.index());
}

std::string_view toString(ForecastResultKind kind) {
  return kResultKindNames.text(kind);
}

ForecastResult ForecastEngine::degradationFit(std::vector<CapacityLogEntry> capacity,
                                              std::optional<TimePoint> epochStart,
                                              double targetHealthPct, TimePoint now) {
  const auto filtered = epochFiltered(std::move(capacity), epochStart);
  if (filtered.size() < kMinimumHistoryEntries) return ForecastInsufficientData{};
  const auto model = degradationModel(filtered);
  if (!model) return ForecastNoTrend{};
  const auto date = model->dateForHealth(targetHealthPct);
  if (!date || !withinHorizon(*date, now)) return ForecastNoTrend{};
  return series(
      now, *date, model->health.residualStdErr, [&](TimePoint t) { return model->healthAt(t); },
      "Reaches " + std::to_string(std::llround(targetHealthPct)) + "% health around " +
          monthYearText(*date));
}

ForecastResult ForecastEngine::cycleProjection(std::vector<CapacityLogEntry> capacity,
                                               std::optional<TimePoint> epochStart,
                                               std::optional<std::int64_t> ratedLimit,
                                               TimePoint now) {
  const auto filtered = epochFiltered(std::move(capacity), epochStart);
  if (filtered.size() < kMinimumHistoryEntries) return ForecastInsufficientData{};
  const auto fit = cyclesOverTime(filtered);
  if (!fit) return ForecastNoTrend{};
  // A gauge without a rated limit gets a statement, not a number made up on its behalf.
  if (!ratedLimit || *ratedLimit <= 0) {
    return ForecastReadout{std::string(kNoRatedCycleLimitHeadline), std::nullopt, std::nullopt};
  }
  const double limit = static_cast<double>(*ratedLimit);
  if (!(filtered.back().cycleCount < *ratedLimit)) return ForecastNoTrend{};
  const double seconds = (limit - fit->intercept) / fit->slope;
  if (!std::isfinite(seconds)) return ForecastNoTrend{};
  const TimePoint t0 = filtered.front().timestamp;
  const TimePoint date = offset(t0, seconds);
  if (!withinHorizon(date, now)) return ForecastNoTrend{};
  return series(
      now, date, fit->residualStdErr, [&](TimePoint t) { return fit->at(secondsBetween(t0, t)); },
      "Reaches ~" + std::to_string(*ratedLimit) + " cycles around " + monthYearText(date));
}

std::optional<DepletionEstimate> ForecastEngine::depletion(
    const std::vector<ForecastPoint>& soc, bool isCharging,
    std::optional<std::int64_t> knownTimeRemaining_min, TimePoint now) {
  if (soc.empty()) return std::nullopt;
  DepletionEstimate out;
  out.target = isCharging ? 100.0 : 0.0;
  out.current = soc.back().value;
  if (knownTimeRemaining_min && *knownTimeRemaining_min >= 1) {
    out.date = offset(now, static_cast<double>(*knownTimeRemaining_min) * 60.0);
    return out;
  }
  const TimePoint first = soc.front().date;
  std::vector<std::pair<double, double>> pairs;
  pairs.reserve(soc.size());
  for (const auto& p : soc) pairs.emplace_back(secondsBetween(first, p.date), p.value);
  const auto fit = linearFit(pairs);
  if (!fit || !(std::abs(fit->slope) > kSlopeEpsilon)) return std::nullopt;
  if (isCharging ? !(fit->slope > 0) : !(fit->slope < 0)) return std::nullopt;
  const double x = (out.target - fit->intercept) / fit->slope;
  if (!std::isfinite(x) || !(x > secondsBetween(first, now))) return std::nullopt;
  out.date = offset(first, x);
  if (!withinHorizon(out.date, now)) return std::nullopt;
  return out;
}

BatteryLevelForecast ForecastEngine::batteryLevelDual(
    const std::vector<ForecastPoint>& soc, bool isCharging,
    std::optional<std::int64_t> quorelTimeRemaining_min,
    std::optional<std::int64_t> systemTimeRemaining_min, TimePoint now) {
  BatteryLevelForecast out;
  if (quorelTimeRemaining_min) {
    out.quorel = levelSeries(soc, isCharging, quorelTimeRemaining_min, now);
  }
  if (systemTimeRemaining_min) {
    out.system = levelSeries(soc, isCharging, systemTimeRemaining_min, now);
  }
  if (!quorelTimeRemaining_min && !systemTimeRemaining_min) {
    out.quorel = levelSeries(soc, isCharging, std::nullopt, now);
  }
  return out;
}

double ForecastEngine::energyWh(const std::vector<ForecastPoint>& points) {
  std::vector<EnergyPoint> energy;
  energy.reserve(points.size());
  for (const auto& p : points) energy.push_back({p.date, p.value});
  return HistoricalEnergyMath::integrate(energy, kEnergyMaximumInterval_s).wattHours;
}

std::optional<double> ForecastEngine::projectedPeriodTotal(
    const std::vector<ForecastPoint>& samples, TimePoint periodStart, TimePoint periodEnd,
    std::optional<double> observedEnergyWh, TimePoint now) {
  if (samples.size() < 2) return std::nullopt;
  for (const auto& s : samples) {
    if (!std::isfinite(s.value) || s.value < 0) return std::nullopt;
  }
  const TimePoint start = std::max(samples.front().date, periodStart);
  const double observedHours = secondsBetween(start, now) / 3600.0;
  const double periodHours = secondsBetween(periodStart, periodEnd) / 3600.0;
  if (!(observedHours > 0) || !(periodHours > 0)) return std::nullopt;
  const double share = periodHours * kMinimumObservedShare;
  const double minimum = share >= kMinimumObservedHours ? share : kMinimumObservedHours;
  if (observedHours < minimum) return std::nullopt;
  const double energy = observedEnergyWh ? *observedEnergyWh : energyWh(samples);
  const double total = periodHours * (energy / observedHours);
  if (!std::isfinite(total)) return std::nullopt;
  return total;
}

std::int64_t ForecastEngine::badgeDeltaPct(double value) {
  if (!std::isfinite(value)) return 0;
  constexpr double kLimit = 9.0e18;  // llround of anything beyond is undefined
  return std::llround(std::clamp(value, -kLimit, kLimit));
}

std::string ForecastEngine::formatWh(double wh) {
  if (wh >= 1000) return fmt::format("{:.2f} kWh", wh / 1000);
  return fmt::format("{:.0f} Wh", wh);
}

std::string ForecastEngine::durationText(double seconds) {
  const auto minutes = std::isfinite(seconds) && seconds > 0
                           ? static_cast<std::int64_t>(std::min(seconds, 1.0e15) / 60.0)
                           : std::int64_t{0};
  if (minutes < 60) return std::to_string(minutes) + "m";
  return std::to_string(minutes / 60) + "h " + std::to_string(minutes % 60) + "m";
}

std::string ForecastEngine::monthYearText(TimePoint t) {
  static constexpr std::array<const char*, 12> kMonths = {
      "January", "February", "March",     "April",   "May",      "June",
      "July",    "August",   "September", "October", "November", "December"};
  const auto local = localDateTime(t);
  const char* month = local.month >= 1 && local.month <= 12 ? kMonths[local.month - 1] : "?";
  return std::string(month) + " " + std::to_string(local.year);
}

std::string ForecastEngine::clockText(TimePoint t) {
  const auto local = localDateTime(t);
  return fmt::format("{:02d}:{:02d}", local.hour, local.minute);
}

}  // namespace quorel
