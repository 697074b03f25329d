#include "telemetry/session_energy_accumulator.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>

namespace quorel {
namespace {

using namespace std::chrono_literals;

const TimePoint kT0 = fromUnixSeconds(1'800'000'000);
constexpr Seconds kMaxInterval = 300s;

TimePoint at(double seconds) {
  return kT0 + std::chrono::duration_cast<TimePoint::duration>(Seconds{seconds});
}

TEST(SessionEnergyAccumulatorTest, FirstPointAnchorsThenTrapezoidsOfMagnitudes) {
  SessionEnergyAccumulator acc;
  acc.append(at(0), -10, kMaxInterval);
  EXPECT_EQ(acc.wattHours, 0);
  EXPECT_EQ(acc.collectedSeconds, 0);
  ASSERT_TRUE(acc.previous);
  EXPECT_EQ(acc.previous->first, at(0));
  EXPECT_EQ(acc.previous->second, 10);
  acc.append(at(30), -20, kMaxInterval);
  EXPECT_DOUBLE_EQ(acc.wattHours, 30 * 15.0 / 3600);
  EXPECT_DOUBLE_EQ(acc.collectedSeconds, 30);
  // Direction does not matter: a swing from drain to charge still counts as energy moved.
  acc.append(at(60), 20, kMaxInterval);
  EXPECT_DOUBLE_EQ(acc.wattHours, (30 * 15.0 + 30 * 20.0) / 3600);
  EXPECT_DOUBLE_EQ(acc.collectedSeconds, 60);
  EXPECT_EQ(acc.missingSeconds, 0);
}

TEST(SessionEnergyAccumulatorTest, GapBeyondTheMaximumIsMissingTimeNotEnergy) {
  SessionEnergyAccumulator acc;
  acc.append(at(0), -10, kMaxInterval);
  acc.append(at(300), -10, kMaxInterval);  // exactly the maximum still integrates
  EXPECT_DOUBLE_EQ(acc.collectedSeconds, 300);
  const double energy = acc.wattHours;
  acc.append(at(600.5), -10, kMaxInterval);  // just over: a sleep, not a reading
  EXPECT_DOUBLE_EQ(acc.wattHours, energy);
  EXPECT_DOUBLE_EQ(acc.missingSeconds, 300.5);
  EXPECT_DOUBLE_EQ(acc.collectedSeconds, 300);
  // The gap re-anchors: the next close point integrates from the far side of it.
  acc.append(at(630.5), -10, kMaxInterval);
  EXPECT_DOUBLE_EQ(acc.collectedSeconds, 330);
  EXPECT_EQ(acc.rejectedIntervals, 0);
}

TEST(SessionEnergyAccumulatorTest, NonFiniteReadingIsRejectedAndKeepsTheAnchor) {
  SessionEnergyAccumulator acc;
  acc.append(at(0), -10, kMaxInterval);
  acc.append(at(30), std::numeric_limits<double>::quiet_NaN(), kMaxInterval);
  acc.append(at(40), -std::numeric_limits<double>::infinity(), kMaxInterval);
  EXPECT_EQ(acc.rejectedIntervals, 2);
  EXPECT_EQ(acc.previous->first, at(0));
  acc.append(at(60), -10, kMaxInterval);
  EXPECT_DOUBLE_EQ(acc.collectedSeconds, 60);
  EXPECT_DOUBLE_EQ(acc.wattHours, 60 * 10.0 / 3600);
}

TEST(SessionEnergyAccumulatorTest, NonAdvancingTimeIsRejected) {
  SessionEnergyAccumulator acc;
  acc.append(at(100), -10, kMaxInterval);
  acc.append(at(100), -50, kMaxInterval);  // same instant
  acc.append(at(90), -50, kMaxInterval);   // clock stepped back
  EXPECT_EQ(acc.rejectedIntervals, 2);
  EXPECT_EQ(acc.wattHours, 0);
  EXPECT_EQ(acc.collectedSeconds, 0);
  EXPECT_EQ(acc.missingSeconds, 0);
  // The newest point becomes the anchor even when its interval was rejected.
  EXPECT_EQ(acc.previous->first, at(90));
  acc.append(at(120), -50, kMaxInterval);
  EXPECT_DOUBLE_EQ(acc.collectedSeconds, 30);
  EXPECT_DOUBLE_EQ(acc.wattHours, 30 * 50.0 / 3600);
}

}  // namespace
}  // namespace quorel
