#include "store/historical_power_downsampler.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <optional>

namespace quorel {

namespace {

using Index = std::size_t;
using Metric = std::optional<double> (*)(const PowerSample&);

std::optional<double> componentTotal(const PowerSample& s) {
  std::optional<double> total;
  for (const auto& part : {s.ecpuW, s.pcpuW, s.gpuW, s.aneW, s.dramW}) {
    if (part) total = total.value_or(0) + *part;
  }
  return total;
}

// In the order in which a small budget gives them room. The wall estimate is left out on purpose:
// it is derived from the others and would only crowd them.
constexpr std::array<Metric, 17> kMetrics{
    [](const PowerSample& s) -> std::optional<double> { return s.wattage; },
    [](const PowerSample& s) -> std::optional<double> { return s.batteryPct; },
    [](const PowerSample& s) { return s.ecpuW; },
    [](const PowerSample& s) { return s.pcpuW; },
    [](const PowerSample& s) { return s.gpuW; },
    [](const PowerSample& s) { return s.aneW; },
    [](const PowerSample& s) { return s.dramW; },
    [](const PowerSample& s) { return s.systemLoadW; },
    [](const PowerSample& s) { return s.powerInW; },
    [](const PowerSample& s) { return s.temperatureC; },
    [](const PowerSample& s) { return s.systemTotalW; },
    [](const PowerSample& s) { return s.batteryRailW; },
    [](const PowerSample& s) { return s.dcInW; },
    [](const PowerSample& s) { return s.thunderboltLeftW; },
    [](const PowerSample& s) { return s.thunderboltRightW; },
    [](const PowerSample& s) { return s.pdBrightnessW; },
    &componentTotal,
};

int wattageSign(double watts) {
  if (watts > 0.5) return 1;
  if (watts < -0.5) return -1;
  return 0;
}

// The indices chosen so far, as flags for constant-time lookup plus a count.
class KeepSet {
 public:
  explicit KeepSet(Index n) : flags_(n, false) {}
  bool contains(Index i) const { return flags_[i]; }
  void insert(Index i) {
    if (!flags_[i]) {
      flags_[i] = true;
      ++size_;
    }
  }
  long size() const { return static_cast<long>(size_); }
  const std::vector<bool>& flags() const { return flags_; }

 private:
  std::vector<bool> flags_;
  Index size_ = 0;
};

// Adds at most `maximumAdded` of the candidates, spread evenly over them, without letting the
// kept set grow beyond `hardLimit`.
void addEvenly(KeepSet& keep, std::vector<Index> candidates, long maximumAdded, long hardLimit) {
  std::sort(candidates.begin(), candidates.end());
  candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
  std::erase_if(candidates, [&](Index i) { return keep.contains(i); });
  const long allowed = std::min(maximumAdded, hardLimit - keep.size());
  const auto count = static_cast<long>(candidates.size());
  if (allowed < 1 || count == 0) return;
  if (allowed >= count) {
    for (Index i : candidates) keep.insert(i);
    return;
  }
  if (allowed == 1) {
    keep.insert(candidates[static_cast<Index>(count / 2)]);
    return;
  }
  for (long i = 0; i < allowed; ++i) {
    const double position = std::round(static_cast<double>(count - 1) * static_cast<double>(i) /
                                       static_cast<double>(allowed - 1));
    keep.insert(candidates[static_cast<Index>(position)]);
  }
}

long atLeastTwo(double value) {
  return std::max(static_cast<long>(value), 2L);
}

}  // namespace

void HistoricalPowerDownsampler::markGaps(std::vector<PowerSample>& samples) {
  for (Index i = 1; i < samples.size(); ++i) {
    samples[i].precededByGap =
        secondsBetween(samples[i - 1].timestamp, samples[i].timestamp) > kGapSeconds;
  }
}

std::vector<PowerSample> HistoricalPowerDownsampler::downsample(std::vector<PowerSample> samples,
                                                                int maxPoints) {
  markGaps(samples);
  const long limit = std::max(maxPoints, 2);
  const Index n = samples.size();
  if (static_cast<long>(n) <= limit) return samples;

  KeepSet keep(n);
  keep.insert(0);
  keep.insert(n - 1);

  std::vector<Index> gaps;
  std::vector<Index> states;
  std::vector<Index> qualities;
  std::vector<Index> flips;
  for (Index i = 1; i < n; ++i) {
    const PowerSample& a = samples[i - 1];
    const PowerSample& b = samples[i];
    auto both = [i](std::vector<Index>& set) {
      set.push_back(i - 1);
      set.push_back(i);
    };
    if (b.precededByGap) both(gaps);
    if (a.isCharging != b.isCharging || a.externalConnected != b.externalConnected) both(states);
    if (a.componentQuality != b.componentQuality || a.systemPowerQuality != b.systemPowerQuality ||
        a.wallEstimateQuality != b.wallEstimateQuality) {
      both(qualities);
    }
    const int signA = wattageSign(a.wattage);
    const int signB = wattageSign(b.wattage);
    if (signA != 0 && signB != 0 && signA != signB) both(flips);
  }

  const double l = static_cast<double>(limit);
  const long eventCap = atLeastTwo(l * 0.75);
  addEvenly(keep, gaps, atLeastTwo(l * 0.3), eventCap);
  addEvenly(keep, states, atLeastTwo(l * 0.15), eventCap);
  addEvenly(keep, qualities, atLeastTwo(l * 0.2), eventCap);
  addEvenly(keep, flips, atLeastTwo(l * 0.1), eventCap);

  std::vector<Index> events;
  events.reserve(gaps.size() + states.size() + qualities.size() + flips.size());
  for (const auto* set : {&gaps, &states, &qualities, &flips}) {
    events.insert(events.end(), set->begin(), set->end());
  }
  addEvenly(keep, std::move(events), eventCap - keep.size(), eventCap);

  const long remaining = limit - keep.size();
  if (remaining >= 2) {
    const long buckets = remaining < 34 ? 1 : remaining / 34;
    const long metrics = std::min(std::max(remaining / (buckets * 2), 1L), 17L);
    const double perBucket = static_cast<double>(n) / static_cast<double>(buckets);
    for (long b = 0; b < buckets; ++b) {
      const auto lo = static_cast<Index>(std::floor(perBucket * static_cast<double>(b)));
      const auto hi =
          std::min(n, static_cast<Index>(std::ceil(perBucket * static_cast<double>(b + 1))));
      if (lo >= hi) continue;
      for (long m = 0; m < metrics; ++m) {
        const Metric metric = kMetrics[static_cast<Index>(m)];
        std::optional<Index> lowest;
        std::optional<Index> highest;
        double low = 0;
        double high = 0;
        for (Index i = lo; i < hi; ++i) {
          const std::optional<double> value = metric(samples[i]);
          if (!value || !std::isfinite(*value)) continue;
          if (!lowest || *value < low) {
            lowest = i;
            low = *value;
          }
          if (!highest || *value > high) {
            highest = i;
            high = *value;
          }
        }
        if (lowest) keep.insert(*lowest);
        if (highest) keep.insert(*highest);
      }
    }
  }

  if (limit - keep.size() >= 1) {
    std::vector<Index> rest;
    rest.reserve(n - static_cast<Index>(keep.size()));
    for (Index i = 0; i < n; ++i) {
      if (!keep.contains(i)) rest.push_back(i);
    }
    addEvenly(keep, std::move(rest), limit - keep.size(), limit);
  }

  std::vector<PowerSample> result;
  result.reserve(static_cast<Index>(keep.size()));
  bool gapSinceLastKept = false;
  for (Index i = 0; i < n; ++i) {
    gapSinceLastKept = gapSinceLastKept || samples[i].precededByGap;
    if (!keep.contains(i)) continue;
    PowerSample kept = std::move(samples[i]);
    kept.precededByGap = !result.empty() && gapSinceLastKept;
    gapSinceLastKept = false;
    result.push_back(std::move(kept));
  }
  return result;
}

}  // namespace quorel
