// Thinning of stored samples and gap-aware energy integration, on synthetic series.

#include "store/historical_power_downsampler.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "store/historical_energy_math.hpp"

namespace quorel {
namespace {

constexpr double kStart = 1'800'000'000;

// `n` samples 30 seconds apart, discharging at a gently varying rate.
std::vector<PowerSample> series(int n) {
  std::vector<PowerSample> samples;
  for (int i = 0; i < n; ++i) {
    PowerSample s;
    s.timestamp = fromUnixSeconds(kStart + 30.0 * i);
    s.wattage = -8.0 - 0.001 * (i % 7);
    s.batteryPct = 90.0 - 0.01 * i;
    samples.push_back(s);
  }
  return samples;
}

std::vector<double> times(const std::vector<PowerSample>& samples) {
  std::vector<double> result;
  for (const auto& s : samples) result.push_back(toUnixSeconds(s.timestamp));
  return result;
}

bool keeps(const std::vector<PowerSample>& out, const PowerSample& sample) {
  return std::any_of(out.begin(), out.end(),
                     [&](const PowerSample& s) { return s.timestamp == sample.timestamp; });
}

void shiftFrom(std::vector<PowerSample>& samples, std::size_t index, double seconds) {
  for (std::size_t i = index; i < samples.size(); ++i) {
    samples[i].timestamp = fromUnixSeconds(toUnixSeconds(samples[i].timestamp) + seconds);
  }
}

TEST(HistoricalPowerDownsampler, ThousandSamplesFillTheBudgetInOrderWithEndsAndEvents) {
  auto samples = series(1000);
  for (std::size_t i = 500; i < samples.size(); ++i) samples[i].isCharging = true;
  samples[777].wattage = 45.0;  // a lone spike, the highest reading of its bucket
  samples[321].componentQuality = HistoricalValueQuality::rejected;
  const auto input = samples;

  const auto out = HistoricalPowerDownsampler::downsample(samples, 300);

  ASSERT_EQ(out.size(), 300u);
  const auto t = times(out);
  EXPECT_TRUE(std::is_sorted(t.begin(), t.end()));
  EXPECT_EQ(std::adjacent_find(t.begin(), t.end()), t.end()) << "a sample kept twice";
  EXPECT_EQ(out.front().timestamp, input.front().timestamp);
  EXPECT_EQ(out.back().timestamp, input.back().timestamp);
  for (int i : {499, 500, 777, 320, 321, 322}) EXPECT_TRUE(keeps(out, input[i])) << i;
}

TEST(HistoricalPowerDownsampler, ManyGapsAllMarkedAfterThinning) {
  // Far more gaps than the gap quota: each kept sample still tells whether time went missing
  // since the previous kept one.
  auto samples = series(2000);
  for (std::size_t i = 10; i < samples.size(); i += 10) shiftFrom(samples, i, 400);
  const auto out = HistoricalPowerDownsampler::downsample(samples, 50);
  ASSERT_EQ(out.size(), 50u);
  for (std::size_t i = 1; i < out.size(); ++i) {
    const double dt = secondsBetween(out[i - 1].timestamp, out[i].timestamp);
    // Kept neighbours from different tens-blocks have a gap between them; within a block none.
    const bool crossesBlock = std::floor((toUnixSeconds(out[i - 1].timestamp) - kStart) / 700.0) !=
                              std::floor((toUnixSeconds(out[i].timestamp) - kStart) / 700.0);
    EXPECT_EQ(out[i].precededByGap, crossesBlock) << "at " << i << " dt " << dt;
  }
}

TEST(HistoricalPowerDownsampler, SmallSeriesComeBackWholeWithGapsMarked) {
  auto samples = series(5);
  shiftFrom(samples, 2, 270.001);  // 300.001 s between 1 and 2
  shiftFrom(samples, 4, 270);      // exactly 300 s between 3 and 4: not a gap
  const auto out = HistoricalPowerDownsampler::downsample(samples, 5);
  ASSERT_EQ(out.size(), 5u);
  EXPECT_FALSE(out[1].precededByGap);
  EXPECT_TRUE(out[2].precededByGap);
  EXPECT_FALSE(out[4].precededByGap);
  EXPECT_TRUE(HistoricalPowerDownsampler::downsample({}, 10).empty());
}

TEST(HistoricalPowerDownsampler, SignFlipsOfBatteryPowerSurviveButNoiseAroundZeroIsNotAFlip) {
  auto samples = series(400);
  samples[100].wattage = 0.3;  // within the dead band
  samples[250].wattage = 5.0;  // a real flip, both sides
  const auto out = HistoricalPowerDownsampler::downsample(samples, 40);
  for (int i : {249, 250, 251}) EXPECT_TRUE(keeps(out, samples[i])) << i;
}

TEST(HistoricalEnergyMath, TrapezoidOverCollectedPairsOnly) {
  const auto at = [](double s, double w) { return EnergyPoint{fromUnixSeconds(kStart + s), w}; };
  auto r = HistoricalEnergyMath::integrate({at(0, 36), at(10, 36)}, 300);
  EXPECT_NEAR(r.wattHours, 0.1, 1e-12);
  EXPECT_DOUBLE_EQ(r.collectedSeconds, 10);
  EXPECT_DOUBLE_EQ(r.missingSeconds, 0);

  // A gap is missing time; a bad reading or a repeated time counts for nothing either way.
  r = HistoricalEnergyMath::integrate(
      {at(0, 10), at(60, 20), at(60, 99), at(461, 20), at(471, -1), at(481, 20),
       at(491, std::numeric_limits<double>::infinity())},
      300);
  EXPECT_NEAR(r.wattHours, 60 * 15 / 3600.0, 1e-12);
  EXPECT_DOUBLE_EQ(r.collectedSeconds, 60);
  EXPECT_DOUBLE_EQ(r.missingSeconds, 401);

  EXPECT_EQ(HistoricalEnergyMath::integrate({at(0, 5)}, 300), HistoricalEnergyIntegration{});
  EXPECT_EQ(HistoricalEnergyMath::integrate({at(0, 5), at(10, 5)}, 0),
            HistoricalEnergyIntegration{});
}

}  // namespace
}  // namespace quorel
