#include "core/power_history.hpp"

#include <gtest/gtest.h>

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

TEST(PowerHistoryTest, LastReturnsNewestOldestFirst) {
  PowerHistory h;
  EXPECT_EQ(h.capacity(), 600u);
  EXPECT_TRUE(h.last(5).empty());

  fill(h, 3);
  EXPECT_EQ(h.last(20), (std::vector<double>{0, 1, 2}));
  EXPECT_EQ(h.last(2), (std::vector<double>{1, 2}));
  EXPECT_EQ(h.last(1), (std::vector<double>{2}));
  EXPECT_TRUE(h.last(0).empty());
  EXPECT_TRUE(h.last(-3).empty());
}

TEST(PowerHistoryTest, WrappedRingKeepsCapacityAndReadsAcrossTheSeam) {
  PowerHistory h;
  fill(h, 605);
  EXPECT_EQ(h.count(), 600u);
  EXPECT_EQ(h.writeIndex(), 5u);

  // The newest ten straddle the end of the buffer: five before the seam, five after.
  std::vector<double> expected;
  for (int v = 595; v < 605; ++v) expected.push_back(v);
  EXPECT_EQ(h.last(10), expected);

  const auto all = h.last(10'000);
  ASSERT_EQ(all.size(), 600u);
  EXPECT_EQ(all.front(), 5);
  EXPECT_EQ(all.back(), 604);
  for (std::size_t i = 1; i < all.size(); ++i) ASSERT_EQ(all[i], all[i - 1] + 1) << i;
}

TEST(PowerHistoryTest, RingFilledExactlyToCapacityStartsAtSlotZero) {
  PowerHistory h(4);
  fill(h, 4);
  EXPECT_EQ(h.writeIndex(), 0u);
  EXPECT_EQ(h.last(4), (std::vector<double>{0, 1, 2, 3}));
  std::vector<double> values;
  std::vector<TimePoint> stamps;
  h.fillSamples(values, stamps);
  EXPECT_EQ(values, (std::vector<double>{0, 1, 2, 3}));
}

TEST(PowerHistoryTest, FillSamplesPairsValuesWithTheirTimesInOrder) {
  PowerHistory h(5);
  std::vector<double> values;
  std::vector<TimePoint> stamps;
  h.fillSamples(values, stamps);
  EXPECT_TRUE(values.empty());
  EXPECT_TRUE(stamps.empty());

  fill(h, 3);
  h.fillSamples(values, stamps);
  EXPECT_EQ(values, (std::vector<double>{0, 1, 2}));
  EXPECT_EQ(stamps, (std::vector<TimePoint>{at(0), at(30), at(60)}));

  for (int i = 3; i < 12; ++i) h.append(i, at(30.0 * i));  // wraps: holds 7..11
  h.fillSamples(values, stamps);
  EXPECT_EQ(values, (std::vector<double>{7, 8, 9, 10, 11}));
  ASSERT_EQ(stamps.size(), 5u);
  for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(stamps[i], at(30.0 * values[i]));
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

  // A second copy into the same lists neither grows nor moves them.
  h.append(700, at(30.0 * 700));
  h.fillSamples(values, stamps);
  EXPECT_EQ(values.size(), 600u);
  EXPECT_EQ(values.front(), 101);
  EXPECT_EQ(values.back(), 700);
  EXPECT_EQ(values.data(), valueData);
}

TEST(PowerHistoryTest, EmptySlotsLieInTheDistantPast) {
  // Unfilled slots must read as older than any real sample, and the placeholder must be a
  // point in time the clock type can hold and subtract without overflow.
  EXPECT_LT(distantPast(), fromUnixSeconds(0));
  const double span = secondsBetween(distantPast(), fromUnixSeconds(4'000'000'000.0));
  EXPECT_GT(span, 4'000'000'000.0);
  EXPECT_EQ(fromUnixSeconds(toUnixSeconds(distantPast())), distantPast());
  EXPECT_EQ(formatIso8601(distantPast()).substr(0, 5), "1900-");
}

TEST(ExponentialMovingAverageTest, FirstInputIsTakenAsIsThenBlended) {
  ExponentialMovingAverage ema(0.25);
  EXPECT_EQ(ema.value(), std::nullopt);
  EXPECT_DOUBLE_EQ(ema.update(-20, at(0), 60s), -20);
  EXPECT_DOUBLE_EQ(ema.update(-8, at(2), 60s), 0.25 * -8 + 0.75 * -20);
  EXPECT_DOUBLE_EQ(*ema.value(), -17);
  EXPECT_EQ(ema.lastUpdate(), at(2));
}

TEST(ExponentialMovingAverageTest, GapLongerThanMaxDtRestartsWithoutBlending) {
  ExponentialMovingAverage ema(0.3);
  ema.update(10, at(0), 60s);
  // Exactly maxDt apart still blends; the rule discards only a strictly longer gap.
  EXPECT_DOUBLE_EQ(ema.update(20, at(60), 60s), 0.3 * 20 + 0.7 * 10);
  const double before = *ema.value();
  EXPECT_DOUBLE_EQ(ema.update(-5, at(120.001), 60s), -5);
  EXPECT_NE(before, -5);
  EXPECT_EQ(ema.lastUpdate(), at(120.001));
  // The restart re-anchors the time, so the next close update blends again.
  EXPECT_DOUBLE_EQ(ema.update(5, at(122), 60s), 0.3 * 5 + 0.7 * -5);
}

TEST(ExponentialMovingAverageTest, ResetForgetsValueAndTimeButKeepsAlpha) {
  ExponentialMovingAverage ema(0.5);
  ema.update(10, at(0), 60s);
  ema.reset();
  EXPECT_EQ(ema.value(), std::nullopt);
  EXPECT_EQ(ema.lastUpdate(), std::nullopt);
  EXPECT_DOUBLE_EQ(ema.alpha(), 0.5);
  EXPECT_DOUBLE_EQ(ema.update(30, at(1), 60s), 30);
  EXPECT_DOUBLE_EQ(ema.update(10, at(2), 60s), 20);
}

TEST(ChargerTierTest, BandsHaveExclusiveUpperBounds) {
  struct Case {
    double watts;
    std::string label;
    ChargerTier::ColorRole color;
  };
  using C = ChargerTier::ColorRole;
  const Case cases[] = {
      {-3, "Not charging", C::muted},
      {0, "Not charging", C::muted},
      {0.49, "Not charging", C::muted},
      {0.5, "Trickle", C::muted},
      {4.99, "Trickle", C::muted},
      {5, "Weak", C::orange},
      {14.9, "Weak", C::orange},
      {15, "Slow", C::orange},
      {30, "Standard", C::blue},
      {59.9, "Standard", C::blue},
      {60, "Fast", C::blue},
      {96, "Full-rate", C::blue},
      {139.9, "Full-rate", C::blue},
      {140, "Max", C::blue},
      {240, "Max", C::blue},
  };
  for (const auto& c : cases) {
    const auto tier = ChargerTier::classify(c.watts);
    EXPECT_EQ(tier.label, c.label) << c.watts;
    EXPECT_EQ(tier.color, c.color) << c.watts;
  }
}

}  // namespace
}  // namespace quorel
