#pragma once
// Thins a run of stored samples to a point budget for charts and tools without losing what a
// reader came to see: gaps, changes of charge state, changes of quality, sign flips of battery
// power and the extremes of every figure survive; the rest is filled in evenly.

#include <vector>

#include "store/history_records.hpp"

namespace quorel {

struct HistoricalPowerDownsampler {
  // More than this between two samples is a gap.
  static constexpr double kGapSeconds = 300.0;

  // Sets precededByGap on every sample after the first.
  static void markGaps(std::vector<PowerSample>& samples);

  // Time-sorted samples in, at most max(maxPoints, 2) of them out, in time order. A kept sample
  // carries precededByGap when any sample since the previously kept one was preceded by a gap.
  static std::vector<PowerSample> downsample(std::vector<PowerSample> samples, int maxPoints);
};

}  // namespace quorel
