#include "core/power_history.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>
#include <vector>

namespace quorel {
namespace {

using namespace std::chrono_literals;

const TimePoint kT0 = fromUnixSeconds(1'800'000'000);

TimePoint at(double seconds) {
  return kT0 + std::chrono::duration_cast<TimePoint::duration>(Seconds{seconds});
}

// Appends 0, 1, 2, ... n-1, one every 30 seconds, so a value names its own timestamp.
void fill(PowerHistory& h, int n) {
  for (int i = 0; i < n; ++i) h.append(i, at(30.0 * i));
}

// first, first + 1, ... end - 1.
std::vector<double> range(int first, int end) {
  std::vector<double> values;
  for (int v = first; v < end; ++v) values.push_back(v);
  return values;
}

TEST(PowerHistoryTest, RingReadsNewestOldestFirstAcrossTheSeam) {
  // A ring of four left empty, filled short of, exactly to, just past and far past capacity.
  for (int n : {0, 3, 4, 5, 11}) {
    SCOPED_TRACE(testing::Message() << n << " appended");
    PowerHistory h(4);
    fill(h, n);
    const int first = std::max(0, n - 4);
    EXPECT_EQ(h.count(), static_cast<std::size_t>(n - first));
    EXPECT_EQ(h.writeIndex(), static_cast<std::size_t>(n % 4));
    EXPECT_EQ(h.last(100), range(first, n));
    EXPECT_EQ(h.last(2), range(std::max(first, n - 2), n));
    EXPECT_TRUE(h.last(0).empty());
    EXPECT_TRUE(h.last(-3).empty());

    std::vector<double> values{-1};
    std::vector<TimePoint> stamps;
    h.fillSamples(values, stamps);
    EXPECT_EQ(values, range(first, n));
    ASSERT_EQ(stamps.size(), values.size());
    for (std::size_t i = 0; i < values.size(); ++i) EXPECT_EQ(stamps[i], at(30.0 * values[i]));
  }
}

TEST(PowerHistoryTest, FillSamplesReplacesOldContentAndReusesStorage) {
  PowerHistory h;
  fill(h, 700);
  std::vector<double> values(1000, -1.0);  // stale content from an earlier, larger copy
  std::vector<TimePoint> stamps(1000);
  const auto valueCapacity = values.capacity();
  const auto* valueData = values.data();
  const auto stampCapacity = stamps.capacity();

  h.fillSamples(values, stamps);
  EXPECT_EQ(values.size(), 600u);
  EXPECT_EQ(stamps.size(), 600u);
  EXPECT_EQ(values.front(), 100);
  EXPECT_EQ(values.capacity(), valueCapacity);
  EXPECT_EQ(values.data(), valueData);
  EXPECT_EQ(stamps.capacity(), stampCapacity);
}

TEST(PowerHistoryTest, EmptySlotsLieInTheDistantPast) {
  // Unfilled slots must read as older than any real sample, and the placeholder must be a
  // point in time the clock type can hold and subtract without overflow.
  EXPECT_LT(distantPast(), fromUnixSeconds(0));
  const double span = secondsBetween(distantPast(), fromUnixSeconds(4'000'000'000.0));
  EXPECT_GT(span, 4'000'000'000.0);
  EXPECT_EQ(fromUnixSeconds(toUnixSeconds(distantPast())), distantPast());
}

TEST(ExponentialMovingAverageTest, FirstInputIsTakenAsIsThenBlendedUnlessTheGapIsTooLong) {
  ExponentialMovingAverage ema(0.25);
  EXPECT_EQ(ema.value(), std::nullopt);
  EXPECT_DOUBLE_EQ(ema.update(-20, at(0), 60s), -20);
  EXPECT_DOUBLE_EQ(ema.update(-8, at(2), 60s), 0.25 * -8 + 0.75 * -20);
  EXPECT_DOUBLE_EQ(*ema.value(), -17);
  EXPECT_EQ(ema.lastUpdate(), at(2));
  // Exactly maxDt apart still blends; only a strictly longer gap restarts without blending.
  EXPECT_DOUBLE_EQ(ema.update(-1, at(62), 60s), 0.25 * -1 + 0.75 * -17);
  EXPECT_DOUBLE_EQ(ema.update(-5, at(122.001), 60s), -5);
  EXPECT_EQ(ema.lastUpdate(), at(122.001));
  // The restart re-anchors the time, so the next close update blends again.
  EXPECT_DOUBLE_EQ(ema.update(3, at(124), 60s), 0.25 * 3 + 0.75 * -5);
}

TEST(ChargerTierTest, BandsHaveExclusiveUpperBounds) {
  struct Case {
    double watts;
    std::string label;
    ChargerTier::ColorRole color;
  };
  using C = ChargerTier::ColorRole;
  const Case cases[] = {
      {-3, "Not charging", C::muted}, {0.49, "Not charging", C::muted}, {0.5, "Trickle", C::muted},
      {4.99, "Trickle", C::muted},    {5, "Weak", C::orange},           {14.9, "Weak", C::orange},
      {15, "Slow", C::orange},        {30, "Standard", C::blue},        {59.9, "Standard", C::blue},
      {60, "Fast", C::blue},          {139.9, "Full-rate", C::blue},    {140, "Max", C::blue},
  };
  for (const auto& c : cases) {
    const auto tier = ChargerTier::classify(c.watts);
    EXPECT_EQ(tier.label, c.label) << c.watts;
    EXPECT_EQ(tier.color, c.color) << c.watts;
  }
}

}  // namespace
}  // namespace quorel
