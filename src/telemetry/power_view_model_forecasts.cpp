#include "insights/local_days.hpp"
#include "telemetry/power_view_model.hpp"

namespace quorel {

namespace {

std::optional<TimePoint> firstTime(const std::vector<CapacityLogEntry>& capacity) {
  if (capacity.empty()) return std::nullopt;
  return capacity.front().timestamp;
}

std::optional<TimePoint> lastTime(const std::vector<CapacityLogEntry>& capacity) {
  if (capacity.empty()) return std::nullopt;
  return capacity.back().timestamp;
}

}  // namespace

const ForecastResult& PowerViewModel::healthForecast(
    const std::vector<CapacityLogEntry>& capacity) {
  const TimePoint now = clock_.now();
  std::optional<TimePoint> epochStart;
  if (batteryEpoch_) epochStart = batteryEpoch_->firstSeen;
  HealthToken token{capacity.size(),    firstTime(capacity),
                    lastTime(capacity), capacity.empty() ? 0 : capacity.back().healthPct,
                    epochStart,         startOfLocalDay(now)};
  if (token == healthForecastToken_) return healthForecastCache_;
  ++forecastFits_;
  healthForecastCache_ =
      ForecastEngine::degradationFit(capacity, epochStart, kHealthForecastTargetPct, now);
  healthForecastToken_ = std::move(token);
  return healthForecastCache_;
}

const ForecastResult& PowerViewModel::cycleForecast(const std::vector<CapacityLogEntry>& capacity) {
  const TimePoint now = clock_.now();
  std::optional<TimePoint> epochStart;
  if (batteryEpoch_) epochStart = batteryEpoch_->firstSeen;
  std::optional<std::int64_t> ratedLimit;
  if (currentState_ && currentState_->diagnostics) {
    ratedLimit = currentState_->diagnostics->designCycleCount;
  }
  CycleToken token{capacity.size(),     firstTime(capacity),
                   lastTime(capacity),  capacity.empty() ? 0 : capacity.back().cycleCount,
                   ratedLimit,          epochStart,
                   startOfLocalDay(now)};
  if (token == cycleForecastToken_) return cycleForecastCache_;
  ++forecastFits_;
  cycleForecastCache_ = ForecastEngine::cycleProjection(capacity, epochStart, ratedLimit, now);
  cycleForecastToken_ = std::move(token);
  return cycleForecastCache_;
}

}  // namespace quorel
