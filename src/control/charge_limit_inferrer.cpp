#include "control/charge_limit_inferrer.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

#include "core/enum_text.hpp"

namespace quorel {
namespace {

constexpr EnumTextTable<ChargeLimitSource, 3> kSourceWords{{{
    {ChargeLimitSource::none, "none"},
    {ChargeLimitSource::threshold, "threshold"},
    {ChargeLimitSource::plateau, "plateau"},
}}};

constexpr std::int64_t kLowestBucket = 50;
constexpr std::int64_t kHighestBucket = 95;
constexpr std::int64_t kBucketStep = 5;
constexpr double kSnapDistance = 1.0;

}  // namespace

std::string_view chargeLimitSourceText(ChargeLimitSource source) {
  return kSourceWords.text(source, "none");
}

std::optional<std::int64_t> ChargeLimitInferrer::fromThresholds(
    const BatteryChargeReading& battery) {
  const auto end = battery.endThreshold_percent;
  if (!end || *end <= 0 || *end >= 100) return std::nullopt;
  return end;
}

std::optional<std::int64_t> ChargeLimitInferrer::snapToBucket(double percent) {
  if (!std::isfinite(percent)) return std::nullopt;
  for (std::int64_t bucket = kLowestBucket; bucket <= kHighestBucket; bucket += kBucketStep) {
    if (std::fabs(percent - static_cast<double>(bucket)) <= kSnapDistance) return bucket;
  }
  return std::nullopt;
}

std::optional<double> ChargeLimitInferrer::median(const std::deque<std::int64_t>& readings) {
  if (readings.empty()) return std::nullopt;
  std::vector<std::int64_t> sorted(readings.begin(), readings.end());
  std::sort(sorted.begin(), sorted.end());
  const std::size_t mid = sorted.size() / 2;
  if (sorted.size() % 2 == 1) return static_cast<double>(sorted[mid]);
  return (static_cast<double>(sorted[mid - 1]) + static_cast<double>(sorted[mid])) / 2.0;
}

InferredLimit ChargeLimitInferrer::update(const std::optional<BatteryChargeReading>& battery,
                                          ChargeGateState gate) {
  if (gate != ChargeGateState::paused) {
    window_.clear();
  } else if (battery && battery->externalConnected == true && battery->capacity_percent &&
             battery->status != BatteryChargeStatus::charging) {
    window_.push_back(*battery->capacity_percent);
    while (window_.size() > kWindowMax) window_.pop_front();
  }

  InferredLimit next;
  if (auto threshold = battery ? fromThresholds(*battery) : std::nullopt) {
    next = {threshold, ChargeLimitSource::threshold};
  } else if (window_.size() >= kMinimumSamples) {
    if (auto bucket = snapToBucket(*median(window_))) next = {bucket, ChargeLimitSource::plateau};
  }
  limit_ = next;
  return limit_;
}

}  // namespace quorel
