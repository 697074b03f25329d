#include "telemetry/session_energy_accumulator.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <tuple>
#include <vector>

namespace quorel {
namespace {

using namespace std::chrono_literals;

TEST(SessionEnergyAccumulatorTest, IntegratesMagnitudesAndSetsAsideGapsAndBadPoints) {
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  constexpr double kInf = std::numeric_limits<double>::infinity();
  // Points are (seconds after t0, battery watts); energy is expected in watt-seconds.
  struct Expected {
    double wattSeconds, collected, missing;
    long rejected;
    double anchorSeconds, anchorWatts;
  };
  const std::tuple<const char*, std::vector<std::pair<double, double>>, Expected> cases[] = {
      {"first point only anchors", {{0, -10}}, {0, 0, 0, 0, 0, 10}},
      // Direction does not matter: a swing from drain to charge still counts as energy moved.
      {"trapezoids of magnitudes", {{0, -10}, {30, -20}, {60, 20}}, {1050, 60, 0, 0, 60, 20}},
      // Exactly the maximum still integrates; just over it is a sleep, and the point after it
      // integrates from the far side.
      {"gap", {{0, -10}, {300, -10}, {600.5, -10}, {630.5, -10}}, {3300, 330, 300.5, 0, 630.5, 10}},
      {"non-finite", {{0, -10}, {30, kNaN}, {40, -kInf}, {60, -10}}, {600, 60, 0, 2, 60, 10}},
      // The newest point anchors even when its interval was rejected.
      {"time stands or steps back",
       {{100, -10}, {100, -50}, {90, -50}, {120, -50}},
       {1500, 30, 0, 2, 120, 50}},
  };
  const TimePoint t0 = fromUnixSeconds(1'800'000'000);
  const auto at = [&](double s) {
    return t0 + std::chrono::duration_cast<TimePoint::duration>(Seconds{s});
  };
  for (const auto& [name, points, e] : cases) {
    SCOPED_TRACE(name);
    SessionEnergyAccumulator acc;
    for (const auto& [seconds, watts] : points) acc.append(at(seconds), watts, 300s);
    EXPECT_DOUBLE_EQ(acc.wattHours, e.wattSeconds / 3600);
    EXPECT_DOUBLE_EQ(acc.collectedSeconds, e.collected);
    EXPECT_DOUBLE_EQ(acc.missingSeconds, e.missing);
    EXPECT_EQ(acc.rejectedIntervals, e.rejected);
    EXPECT_EQ(acc.previous, std::pair(at(e.anchorSeconds), e.anchorWatts));
  }
}

}  // namespace
}  // namespace quorel
