// The four scores at their edges, the grade bands, the confidence text, and the words a good
// and a bad history earn.

#include "insights/habit_scoring_service.hpp"

#include <gtest/gtest.h>

#include <limits>

#include "core/iso8601.hpp"
#include "insights/habit_explanation.hpp"
#include "insights/local_days.hpp"
#include "store/store_test_fixture.hpp"

namespace quorel {
namespace {

using store_test::at;
using store_test::kDay;

SessionRecord session(double startPct, double endPct, bool charging, double minutes = 60) {
  SessionRecord s;
  s.startTime = at(0);
  s.endTime = at(minutes * 60);
  s.startPct = startPct;
  s.endPct = endPct;
  s.isCharging = charging;
  return s;
}

// A day counted from the day of at(0), which is 08:00 UTC.
DailyBatteryMetric day(double offsetDays, std::optional<double> averageC,
                       HistoricalValueQuality quality = HistoricalValueQuality::measured) {
  DailyBatteryMetric d;
  d.dayStart = at(offsetDays * kDay - 8 * 3600);  // local midnight, in UTC
  d.averageTemperature_C = averageC;
  d.quality = quality;
  return d;
}

using Scorer = double (*)(const std::vector<SessionRecord>&);

TEST(HabitScoring, SessionScoresAtTheirEdges) {
  const Scorer depth = HabitScoringService::chargeDepthScore;
  const Scorer high = HabitScoringService::highSocScore;
  const Scorer cycle = HabitScoringService::cycleFrequencyScore;
  struct Case {
    Scorer scorer;
    std::vector<SessionRecord> sessions;
    double expected;
  } cases[] = {
      {depth, {session(10, 100, true)}, 25},
      {depth, {session(85, 20, false)}, 100},
      {depth, {session(0, 100, true)}, 0},
      // A one-second session weighs as much as one of a minute, a three-minute one thrice.
      {depth, {session(10, 100, true, 1.0 / 60), session(30, 80, true, 1)}, 62.5},
      {depth, {session(10, 100, true, 3), session(30, 80, true, 1)}, 43.75},
      {high, {session(30, 90, true)}, 50},
      {high, {session(10, 80, true), session(85, 30, false)}, 87.5},
      {cycle, {session(0, 100, true)}, 75},
      {cycle, {session(10, 80, true), session(80, 10, false)}, 75},
      {cycle, {session(0, 90, true), session(90, 0, false)}, 25},
      {cycle, {session(0, 100, true), session(100, 0, false)}, 0},
      {cycle, {session(5, 15, true), session(15, 5, false)}, 80},
      {cycle, {session(85, 95, true), session(95, 85, false)}, 60},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_DOUBLE_EQ(cases[i].scorer(cases[i].sessions), cases[i].expected) << "case " << i;
  }
}

TEST(HabitScoring, TemperatureTakesTheMeanOfThirtyDaysThatWereNotRejected) {
  testing::ZoneGuard zone{"UTC0"};
  const TimePoint now = at(0.5 * kDay);
  for (auto [t, expected] : std::vector<std::pair<double, double>>{
           {45, 100}, {50, 80}, {55, 60}, {60, 30}, {65, 0}, {80, 0}}) {
    EXPECT_DOUBLE_EQ(HabitScoringService::temperatureScore({day(-3, t)}, now), expected) << t;
  }
  const std::vector<DailyBatteryMetric> days = {
      day(-31, 90),  // before the window
      day(-30, 40),  // the window's first day
      day(-2, 60), day(-1, 99, HistoricalValueQuality::rejected), day(-1, std::nullopt)};
  EXPECT_DOUBLE_EQ(HabitScoringService::temperatureScore(days, now), 80);
  EXPECT_DOUBLE_EQ(HabitScoringService::temperatureScore({day(-31, 90)}, now), 75);
}

TEST(HabitScoring, GradeBandsIncludeTheirLowerBound) {
  const std::vector<std::pair<double, const char*>> cases = {
      {100, "A+"}, {95, "A+"},    {94.99, "A"},
      {90, "A"},   {85, "A-"},    {80, "B+"},
      {75, "B"},   {70, "B-"},    {65, "C+"},
      {60, "C"},   {55, "C-"},    {50, "D+"},
      {45, "D"},   {40, "D-"},    {39.99, "F"},
      {-1, "F"},   {100.01, "F"}, {std::numeric_limits<double>::quiet_NaN(), "F"}};
  for (auto [total, grade] : cases) {
    EXPECT_EQ(kHabitGradeTexts.text(HabitScoringService::scoreToGrade(total)), grade) << total;
  }
}

TEST(HabitScoring, ConfidenceWeighsDaysAndSessionCoverage) {
  testing::ZoneGuard zone{"UTC0"};
  std::vector<DailyBatteryMetric> days{day(-40, 30), day(-1, 30, HistoricalValueQuality::rejected)};
  for (int i = 0; i < 15; ++i) days.push_back(day(-i, 30));
  auto measured = session(20, 80, true);
  measured.quality = HistoricalValueQuality::measured;
  measured.confidence = 0.8;
  measured.collectedDuration_s = 1800;
  measured.missingDuration_s = 1800;
  auto legacy = session(20, 80, true);
  legacy.confidence = 1;
  legacy.collectedDuration_s = 60;
  auto rejected = measured;
  rejected.quality = HistoricalValueQuality::rejected;
  // Days 15/30, sessions (0.5 + 0.25) / 2: half of 87.5, rounded.
  EXPECT_EQ(HabitScoringService::confidenceText({measured, legacy, rejected}, days, at(0)),
            "44% · 15 temp days");
}

TEST(HabitScoring, NoDataIsNeutral) {
  const auto s = HabitScoringService::score({}, {}, at(0));
  EXPECT_EQ(s.total, 75.0);
  EXPECT_EQ(s.gradeText(), "B");
  EXPECT_EQ(s.factors, (HabitFactors{{"Charge Depth", "75/100"},
                                     {"Temperature", "75/100"},
                                     {"High SoC Exposure", "75/100"},
                                     {"Cycle Pattern", "75/100"},
                                     {"Data Confidence", "0% · 0 temp days"}}));
}

TEST(HabitScoring, GoodAndBadHistoriesAreExplained) {
  testing::ZoneGuard zone{"UTC0"};
  const auto good = HabitScoringService::score({session(30, 75, true), session(75, 35, false)},
                                               {day(-1, 35)}, at(0));
  EXPECT_EQ(good.gradeText(), "A+");
  EXPECT_EQ(habitExplanation(good.gradeText(), good.factors),
            "Textbook routine — your habits match long-life best practices.");
  for (const auto& d : habitFactorDetails(good.factors)) {
    EXPECT_EQ(d.score, 100) << d.factor;
    EXPECT_FALSE(d.advice) << d.factor;
  }

  // The weakest factor is named from 74 down; a grade off the scale reads as "F".
  HabitFactors edge = good.factors;
  edge["Temperature"] = "75/100";
  EXPECT_EQ(habitExplanation("B-", edge),
            "Decent — a habit or two is measurably shortening battery life.");
  edge["Cycle Pattern"] = "74/100";
  EXPECT_EQ(habitExplanation("?", edge),
            "Critical — this pattern will shorten battery life significantly. The Cycle Pattern "
            "sub-score (74/100) is the main drag — the per-factor breakdown below shows what "
            "moves it.");

  // Charge depth 55.25 and high SoC 25.21 show truncated; cycle pattern sits at 85 exactly.
  const auto bad = HabitScoringService::score({session(10, 100, true), session(90, 48, false, 61)},
                                              {day(-1, 58)}, at(0));
  EXPECT_EQ(bad.factors, (HabitFactors{{"Charge Depth", "55/100"},
                                       {"Temperature", "42/100"},
                                       {"High SoC Exposure", "25/100"},
                                       {"Cycle Pattern", "85/100"},
                                       {"Data Confidence", "2% · 1 temp days"}}));
  EXPECT_EQ(bad.gradeText(), "D+");
  EXPECT_EQ(habitExplanation(bad.gradeText(), bad.factors),
            "Poor — your routine is meaningfully shortening battery life. The High SoC Exposure "
            "sub-score (25/100) is the main drag — the per-factor breakdown below shows what "
            "moves it.");
  const auto details = habitFactorDetails(bad.factors);
  ASSERT_EQ(details.size(), 4u);
  EXPECT_EQ(details[0].text, "Frequent drifts — some deep discharges or full top-ups.");
  EXPECT_EQ(details[1].text, "Hot (≥57°C) — sustained heat accelerates aging.");
  EXPECT_EQ(details[2].text,
            "Often sits at 90%+. Calendar aging is accelerated at high dwell SoC.");
  EXPECT_EQ(details[3].text,
            "Mostly healthy with some borderline patterns (85–90% SoC, or deep cycles).");
  EXPECT_TRUE(details[0].advice && details[1].advice && details[2].advice);
  EXPECT_FALSE(details[3].advice) << "85 needs no advice";
}

class HabitScoringStoreTest : public store_test::StoreFileTest {};

TEST_F(HabitScoringStoreTest, ScoresWhatTheStoreHoldsAsOfTheClockAndReportsAFailedRead) {
  HabitScoringService service(*db, clock);
  auto stored = session(10, 100, true);
  stored.id = "6F9619FF-8B86-D011-B42D-00C04FC964FF";
  db->insertSession(stored);
  drain();
  sql().insert("daily_battery_metrics", {{"day_key", std::string("2027-01-14")},
                                         {"day_start", store_test::kT0 - 32 * 3600},
                                         {"design_capacity_mah", 5000.0},
                                         {"health_pct", 96.0},
                                         {"avg_temperature_c", 55.0}});
  auto score = service.calculateScore();
  ASSERT_TRUE(score);
  EXPECT_EQ(score->chargeDepth, 25);
  EXPECT_EQ(score->highSoc, 0);
  EXPECT_EQ(score->temperature, 60);

  // A month on, the day has left the temperature window.
  clock.advance(Seconds(31 * kDay));
  EXPECT_EQ(service.calculateScore()->temperature, 75);

  sql().exec("DROP TABLE daily_battery_metrics");
  EXPECT_FALSE(service.calculateScore());
}

TEST(LocalDays, CountsCalendarDaysAcrossASummerTimeChange) {
  testing::ZoneGuard zone{"CET-1CEST,M3.5.0,M10.5.0/3"};
  // 30 days before 10 April (summer time) opens at 11 March 00:00, winter time.
  EXPECT_EQ(startOfLocalDayBefore(*parseIso8601("2027-04-10T12:00:00+02:00"), 30),
            *parseIso8601("2027-03-11T00:00:00+01:00"));
}

}  // namespace
}  // namespace quorel
