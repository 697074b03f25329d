#include "insights/forecast_engine.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "support/zone_guard.hpp"

namespace quorel {
namespace {

constexpr double kDay = 86400;
constexpr double kBase = 1767225600;  // 2026-01-01T00:00:00Z

TimePoint day(double d) {
  return fromUnixSeconds(kBase + d * kDay);
}

// One reading every 30 days, one cycle a day: cycles 0, 30, ..., health 100 - 0.05 per cycle,
// plus `noise` per entry.
std::vector<CapacityLogEntry> history(std::vector<double> noise = {0, 0, 0, 0, 0},
                                      double perCycle = -0.05, double startDay = 0) {
  std::vector<CapacityLogEntry> out;
  for (std::size_t i = 0; i < noise.size(); ++i) {
    const auto cycles = static_cast<std::int32_t>(30 * i);
    out.push_back({.timestamp = day(startDay + 30.0 * static_cast<double>(i)),
                   .cycleCount = cycles,
                   .healthPct = 100 + perCycle * cycles + noise[i]});
  }
  return out;
}

class ForecastTest : public ::testing::Test {
 protected:
  testing::ZoneGuard zone{"UTC0"};
};

TEST_F(ForecastTest, HealthOfAKnownLineWithItsBandAndReadout) {
  // Health 100 - 0.05 c, cycles one a day from 1 Jan 2026: 80 % at c = 400, i.e. day 400,
  // 2027-02-05. From now (day 120, health 94) the 13 points run in 280/12-day steps; the 7th sits
  // at day 260, health 87. The residuals +e -e 0 -e +e leave the line where it was (they sum to
  // 0, also weighted by x) and give s = sqrt(4e^2 / 3) = 0.3464 for e = 0.3: the band is s wide
  // at now and 2s at the end.
  const auto result =
      ForecastEngine::degradationFit(history({0.3, -0.3, 0, -0.3, 0.3}), {}, 80.0, day(120));
  ASSERT_EQ(kindOf(result), ForecastResultKind::forecast);
  const auto& s = std::get<ForecastSeries>(result);
  EXPECT_EQ(s.readout, "Reaches 80% health around February 2027");
  ASSERT_EQ(s.points.size(), 13u);
  EXPECT_NEAR(secondsBetween(day(400), s.points.back().date), 0, 1e-3);
  EXPECT_NEAR(s.points.front().value, 94, 1e-9);
  EXPECT_NEAR(s.points[6].value, 87, 1e-9);
  EXPECT_NEAR(s.points.back().value, 80, 1e-9);
  const double se = 2 * 0.3 / std::sqrt(3.0);
  ASSERT_EQ(s.bandUpper.size(), 13u);
  EXPECT_NEAR(s.bandUpper.front().value - s.points.front().value, se, 1e-9);
  EXPECT_NEAR(s.points[6].value - s.bandLower[6].value, se * 1.5, 1e-9);
  EXPECT_NEAR(s.bandUpper.back().value - s.bandLower.back().value, 4 * se, 1e-9);

  // A perfect line has no spread to draw; a target that is not whole reads rounded.
  const auto exact = ForecastEngine::degradationFit(history(), {}, 79.5, day(120));
  const auto& e = std::get<ForecastSeries>(exact);
  EXPECT_TRUE(e.bandUpper.empty() && e.bandLower.empty());
  EXPECT_EQ(e.readout, "Reaches 80% health around February 2027");
}

TEST_F(ForecastTest, HealthRefusesThinFlatRisingPastAndDistantTrends) {
  struct Case {
    const char* what;
    std::vector<CapacityLogEntry> entries;
    double target;
    ForecastResultKind expected;
  };
  auto unsorted = history();
  std::swap(unsorted[0], unsorted[3]);
  const std::vector<Case> cases = {
      {"four entries", history({0, 0, 0, 0}), 80, ForecastResultKind::insufficientData},
      {"flat health", history({0, 0, 0, 0, 0}, 0), 80, ForecastResultKind::noTrend},
      {"health rising with cycles", history({0, 0, 0, 0, 0}, 0.01), 80,
       ForecastResultKind::noTrend},
      {"target already passed (day 100)", history(), 95, ForecastResultKind::noTrend},
      // 0.002 per cycle: 80 % at day 10000, 27 years on; 0.001: day 20000, 54 years on.
      {"27 years away", history({0, 0, 0, 0, 0}, -0.002), 80, ForecastResultKind::forecast},
      {"54 years away", history({0, 0, 0, 0, 0}, -0.001), 80, ForecastResultKind::noTrend},
      {"out of order", unsorted, 80, ForecastResultKind::forecast},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(kindOf(ForecastEngine::degradationFit(c.entries, {}, c.target, day(120))), c.expected)
        << c.what;
  }
  EXPECT_EQ(ForecastEngine::degradationFit(unsorted, {}, 80, day(120)),
            ForecastEngine::degradationFit(history(), {}, 80, day(120)));
}

TEST_F(ForecastTest, AReplacedBatteryStartsItsFitAnew) {
  // An old pack fading fast, then a new one fading at the known pace from day 200.
  auto entries = history({0, 0, 0, 0, 0}, -0.2);
  const auto fresh = history({0, 0, 0, 0, 0}, -0.05, 200);
  entries.insert(entries.end(), fresh.begin(), fresh.end() - 1);
  EXPECT_EQ(kindOf(ForecastEngine::degradationFit(entries, day(200), 80, day(320))),
            ForecastResultKind::insufficientData)
      << "four readings of the new battery are too few, whatever came before";
  entries.push_back(fresh.back());
  EXPECT_EQ(ForecastEngine::degradationFit(entries, day(200), 80, day(320)),
            ForecastEngine::degradationFit(fresh, {}, 80, day(320)));
  EXPECT_EQ(ForecastEngine::cycleProjection(entries, day(200), 1000, day(320)),
            ForecastEngine::cycleProjection(fresh, {}, 1000, day(320)));
}

TEST_F(ForecastTest, CyclesReachTheRatedLimitOrSayWhyNot) {
  // One cycle a day from day 0: 1000 cycles on day 1000, 2028-09-27.
  const auto result = ForecastEngine::cycleProjection(history(), {}, 1000, day(120));
  ASSERT_EQ(kindOf(result), ForecastResultKind::forecast);
  const auto& s = std::get<ForecastSeries>(result);
  EXPECT_EQ(s.readout, "Reaches ~1000 cycles around September 2028");
  EXPECT_NEAR(s.points.back().value, 1000, 1e-6);
  EXPECT_TRUE(s.bandUpper.empty());

  for (const std::optional<std::int64_t> limit : {std::optional<std::int64_t>{}, {0}}) {
    EXPECT_EQ(ForecastEngine::cycleProjection(history(), {}, limit, day(120)),
              ForecastResult(ForecastReadout{std::string(kNoRatedCycleLimitHeadline), {}, {}}));
  }
  auto flat = history();
  for (auto& e : flat) e.cycleCount = 42;
  EXPECT_EQ(kindOf(ForecastEngine::cycleProjection(flat, {}, {}, day(120))),
            ForecastResultKind::noTrend)
      << "a count that does not move has no trend to speak of, limit or not";
  EXPECT_EQ(kindOf(ForecastEngine::cycleProjection(history({0, 0, 0, 0}), {}, {}, day(120))),
            ForecastResultKind::insufficientData);
  EXPECT_EQ(kindOf(ForecastEngine::cycleProjection(history(), {}, 120, day(120))),
            ForecastResultKind::noTrend)
      << "the latest count already stands at the limit";
}

TEST_F(ForecastTest, ChargeLevelFollowsTheKnownTimeOrTheFit) {
  const TimePoint t0 = fromUnixSeconds(kBase + 10 * 3600);  // 10:00 UTC
  const auto after = [&](double s) { return t0 + std::chrono::seconds(static_cast<int>(s)); };
  // Falling 1 % a minute from 80 %: empty 80 minutes after t0, 60 after now.
  const std::vector<ForecastPoint> falling = {{t0, 80}, {after(600), 70}, {after(1200), 60}};
  const auto fit = ForecastEngine::batteryLevelDual(falling, false, {}, {}, after(1200));
  ASSERT_TRUE(fit.quorel);
  EXPECT_FALSE(fit.system);
  EXPECT_EQ(fit.quorel->readout, "Empty in 1h 0m");
  EXPECT_EQ(fit.quorel->points, (std::vector<ForecastPoint>{{after(1200), 60}, {after(4800), 0}}));
  EXPECT_EQ(ForecastEngine::depletion(falling, false, 0, after(1200)),
            ForecastEngine::depletion(falling, false, {}, after(1200)))
      << "a known time of 0 leaves it to the fit";

  const auto both = ForecastEngine::batteryLevelDual(falling, false, 90, 45, after(1200));
  EXPECT_EQ(both.quorel->readout, "Empty in 1h 30m");
  EXPECT_EQ(both.system->readout, "Empty in 45m");

  EXPECT_FALSE(ForecastEngine::batteryLevelDual(falling, true, {}, {}, after(1200)).quorel)
      << "a level going down while charging says nothing about when it is full";
  const std::vector<ForecastPoint> rising = {{t0, 50}, {after(600), 60}};
  const auto charging = ForecastEngine::batteryLevelDual(rising, true, {}, {}, after(600));
  ASSERT_TRUE(charging.quorel);
  EXPECT_EQ(charging.quorel->readout, "Full at 10:50");
  EXPECT_FALSE(ForecastEngine::depletion({}, false, 30, t0));
}

TEST_F(ForecastTest, PeriodProjectionWaitsForEnoughOfThePeriod) {
  // 10 W from the start of a day: half an hour observed is 5 Wh, so the day comes to 240 Wh.
  const TimePoint start = day(0);
  std::vector<ForecastPoint> samples;
  for (int s = 0; s <= 1800; s += 60) samples.push_back({start + std::chrono::seconds(s), 10});
  const auto at = [&](double hours) { return start + std::chrono::seconds(int(hours * 3600)); };
  EXPECT_FALSE(ForecastEngine::projectedPeriodTotal(samples, start, day(1), {}, at(10.0 / 60)));
  const auto dayTotal = ForecastEngine::projectedPeriodTotal(samples, start, day(1), {}, at(0.5));
  ASSERT_TRUE(dayTotal);
  EXPECT_NEAR(*dayTotal, 240, 1e-9);
  // 30 days need 15 hours: 720 h * (30 Wh / 15 h).
  EXPECT_FALSE(ForecastEngine::projectedPeriodTotal(samples, start, day(30), 30, at(14.99)));
  EXPECT_NEAR(ForecastEngine::projectedPeriodTotal(samples, start, day(30), 30, at(15)).value(),
              1440, 1e-9);
  auto negative = samples;
  negative[3].value = -1;
  EXPECT_FALSE(ForecastEngine::projectedPeriodTotal(negative, start, day(1), {}, at(1)));
  EXPECT_FALSE(ForecastEngine::projectedPeriodTotal({samples[0]}, start, day(1), 5, at(1)));
}

TEST_F(ForecastTest, TextsRoundAtTheirBoundaries) {
  EXPECT_EQ(ForecastEngine::formatWh(999.6), "1000 Wh");
  EXPECT_EQ(ForecastEngine::formatWh(1000), "1.00 kWh");
  EXPECT_EQ(ForecastEngine::formatWh(1999.996), "2.00 kWh");
  EXPECT_EQ(ForecastEngine::durationText(3599), "59m");
  EXPECT_EQ(ForecastEngine::durationText(3600), "1h 0m");
  EXPECT_EQ(ForecastEngine::durationText(7319), "2h 1m");
  EXPECT_EQ(ForecastEngine::badgeDeltaPct(2.5), 3);
  EXPECT_EQ(ForecastEngine::badgeDeltaPct(-2.5), -3);
  EXPECT_EQ(ForecastEngine::badgeDeltaPct(std::nan("")), 0);
  EXPECT_EQ(ForecastEngine::badgeDeltaPct(std::numeric_limits<double>::infinity()), 0);
  EXPECT_EQ(ForecastEngine::monthYearText(fromUnixSeconds(kBase - 1)), "December 2025");
  EXPECT_EQ(ForecastEngine::energyWh({{day(0), 10}, {day(0) + std::chrono::seconds(360), 10}}), 0)
      << "six minutes between readings is a gap, not energy";
}

}  // namespace
}  // namespace quorel
