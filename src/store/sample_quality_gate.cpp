#include "store/sample_quality_gate.hpp"

#include <algorithm>
#include <cmath>

namespace quorel {

namespace {

struct Rail {
  std::optional<double> PowerSample::*field;
  double limitW;
};

// Beyond these a single rail of the largest machine cannot go; a reading above one is a counter
// fault, not power.
constexpr Rail kRails[] = {
    {&PowerSample::ecpuW, 30}, {&PowerSample::pcpuW, 60}, {&PowerSample::gpuW, 90},
    {&PowerSample::aneW, 20},  {&PowerSample::dramW, 35},
};
constexpr double kAggregateLimitW = 150;
// Components may outrun the measured system total a little (the rails are sampled at different
// moments), but not by more than this factor, and never by more than the floor below for a
// nearly idle machine.
constexpr double kSystemTotalSlack = 1.35;
constexpr double kSmallSystemLimitW = 10;
constexpr double kSystemTotalMinimumW = 1.0;

}  // namespace

PowerSample qualityChecked(PowerSample sample) {
  double sum = 0;
  bool fails = false;
  for (const auto& rail : kRails) {
    const auto& value = sample.*rail.field;
    if (!value) continue;
    sum += *value;
    if (!std::isfinite(*value) || *value < 0 || *value > rail.limitW) fails = true;
  }
  if (sum > kAggregateLimitW) fails = true;
  if (sample.systemTotalW && *sample.systemTotalW >= kSystemTotalMinimumW) {
    const double limit = *sample.systemTotalW * kSystemTotalSlack;
    if (sum > std::max(limit, kSmallSystemLimitW)) fails = true;
  }

  if (fails) {
    for (const auto& rail : kRails) sample.*rail.field = std::nullopt;
    sample.componentQuality = HistoricalValueQuality::rejected;
    sample.componentRejectionReason = kComponentStorageRejection;
  }

  if (!sample.wallPowerW) return sample;
  // The sum from before a rejection still bounds the wall figure: the power was drawn even if
  // its split between components cannot be believed.
  const double floor = sample.powerInW ? std::max(*sample.powerInW, sum) : std::max(sum, 0.0);
  if (!std::isfinite(*sample.wallPowerW) || floor > *sample.wallPowerW) {
    sample.wallEstimateQuality = HistoricalValueQuality::rejected;
  }
  return sample;
}

}  // namespace quorel
