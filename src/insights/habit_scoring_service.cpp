#include "insights/habit_scoring_service.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include "insights/local_days.hpp"
#include "store/quorel_database.hpp"

namespace quorel {

namespace {

constexpr int kTemperatureWindowDays = 30;

// A session's weight in the duration-weighted scores: its minutes, but never less than one, so
// that a blip of a second still counts as much as a minute does.
double sessionWeight(const SessionRecord& s) {
  return std::max(secondsBetween(s.startTime, s.endTime) / 60.0, 1.0);
}

template <class ScoreOf>
double weightedMean(const std::vector<SessionRecord>& sessions, ScoreOf scoreOf) {
  if (sessions.empty()) return HabitScoringService::kNeutralScore;
  double weighted = 0;
  double weights = 0;
  for (const auto& s : sessions) {
    const double w = sessionWeight(s);
    weighted += w * scoreOf(s);
    weights += w;
  }
  return weighted / weights;
}

// The days the temperature score looks at: from the start of the day 30 calendar days back,
// with an average temperature that was not rejected.
std::vector<double> recentAverageTemperatures(const std::vector<DailyBatteryMetric>& daily,
                                              TimePoint now) {
  const TimePoint windowStart = startOfLocalDayBefore(now, kTemperatureWindowDays);
  std::vector<double> temperatures;
  for (const auto& day : daily) {
    if (day.dayStart >= windowStart && day.quality != HistoricalValueQuality::rejected &&
        day.averageTemperature_C) {
      temperatures.push_back(*day.averageTemperature_C);
    }
  }
  return temperatures;
}

std::string scoreText(double score) {
  return fmt::format("{}/100", static_cast<long long>(score));
}

// Lower bounds, inclusive, from the top; anything below the last is "F".
constexpr std::array<std::pair<double, HabitGrade>, 12> kGradeBands{{
    {95, HabitGrade::aPlus},
    {90, HabitGrade::a},
    {85, HabitGrade::aMinus},
    {80, HabitGrade::bPlus},
    {75, HabitGrade::b},
    {70, HabitGrade::bMinus},
    {65, HabitGrade::cPlus},
    {60, HabitGrade::c},
    {55, HabitGrade::cMinus},
    {50, HabitGrade::dPlus},
    {45, HabitGrade::d},
    {40, HabitGrade::dMinus},
}};

}  // namespace

HabitScoringService::HabitScoringService(QuorelDatabase& database, const Clock& clock)
    : database_(database), clock_(clock) {}

Result<HabitScore> HabitScoringService::calculateScore() const {
  auto sessions = database_.queryRecentSessions(kSessionLimit);
  if (!sessions) return sessions.error();
  auto daily = database_.queryDailyBatteryMetrics();
  if (!daily) return daily.error();
  return score(*sessions, *daily, clock_.now());
}

HabitScore HabitScoringService::score(const std::vector<SessionRecord>& sessions,
                                      const std::vector<DailyBatteryMetric>& daily, TimePoint now) {
  HabitScore s;
  s.chargeDepth = chargeDepthScore(sessions);
  s.temperature = temperatureScore(daily, now);
  s.highSoc = highSocScore(sessions);
  s.cyclePattern = cycleFrequencyScore(sessions);
  s.total = s.chargeDepth * 0.3 + s.temperature * 0.25 + s.highSoc * 0.25 + s.cyclePattern * 0.2;
  s.grade = scoreToGrade(s.total);
  s.factors = {
      {std::string(kChargeDepthFactor), scoreText(s.chargeDepth)},
      {std::string(kTemperatureFactor), scoreText(s.temperature)},
      {std::string(kHighSocFactor), scoreText(s.highSoc)},
      {std::string(kCyclePatternFactor), scoreText(s.cyclePattern)},
      {std::string(kDataConfidenceFactor), confidenceText(sessions, daily, now)},
  };
  return s;
}

double HabitScoringService::chargeDepthScore(const std::vector<SessionRecord>& sessions) {
  return weightedMean(sessions, [](const SessionRecord& s) {
    const double hi = std::max(s.startPct, s.endPct);
    const double lo = std::min(s.startPct, s.endPct);
    const double penalty = std::max(hi - 85, 0.0) + std::max(20 - lo, 0.0);
    return std::max(100 - 3 * penalty, 0.0);
  });
}

double HabitScoringService::highSocScore(const std::vector<SessionRecord>& sessions) {
  return weightedMean(sessions, [](const SessionRecord& s) {
    const double pct = s.isCharging ? s.endPct : s.startPct;
    return std::max(100 - 5 * std::max(pct - 80, 0.0), 0.0);
  });
}

double HabitScoringService::temperatureScore(const std::vector<DailyBatteryMetric>& daily,
                                             TimePoint now) {
  const auto temperatures = recentAverageTemperatures(daily, now);
  if (temperatures.empty()) return kNeutralScore;
  double sum = 0;
  for (double t : temperatures) sum += t;
  const double t = sum / static_cast<double>(temperatures.size());
  if (t <= 45) return 100;
  if (t >= 65) return 0;
  if (t <= 55) return 100 - 4 * (t - 45);
  return 60 - 6 * (t - 55);
}

double HabitScoringService::cycleFrequencyScore(const std::vector<SessionRecord>& sessions) {
  if (sessions.size() < 2) return kNeutralScore;
  double depthSum = 0;
  double levelSum = 0;
  for (const auto& s : sessions) {
    depthSum += std::abs(s.startPct - s.endPct);
    levelSum += (s.startPct + s.endPct) * 0.5;
  }
  const auto n = static_cast<double>(sessions.size());
  const double depth = depthSum / n;
  const double level = levelSum / n;

  double depthScore = 0;
  if (depth <= 60) {
    depthScore = 100;
  } else if (depth <= 80) {
    depthScore = 100 - 2.5 * (depth - 60);
  } else {
    depthScore = std::max(50 - 2.5 * (depth - 80), 0.0);
  }
  double levelScore = 100;
  if (level < 20) {
    levelScore = 100 - 2 * (20 - level);
  } else if (level > 80) {
    levelScore = 100 - 4 * (level - 80);
  }
  levelScore = std::max(levelScore, 0.0);
  return std::min(depthScore, levelScore);
}

HabitGrade HabitScoringService::scoreToGrade(double total) {
  if (!(total <= 100)) return HabitGrade::F;
  for (const auto& [from, grade] : kGradeBands) {
    if (total >= from) return grade;
  }
  return HabitGrade::F;
}

std::string HabitScoringService::confidenceText(const std::vector<SessionRecord>& sessions,
                                                const std::vector<DailyBatteryMetric>& daily,
                                                TimePoint now) {
  const auto days = recentAverageTemperatures(daily, now).size();
  const double dayShare = std::min(static_cast<double>(days) / kTemperatureWindowDays, 1.0);

  double valueSum = 0;
  int counted = 0;
  for (const auto& s : sessions) {
    if (s.quality == HistoricalValueQuality::rejected) continue;
    const double observed = s.collectedDuration_s + s.missingDuration_s;
    const double coverage = observed > 0 ? s.collectedDuration_s / observed : 0;
    double value = std::min(s.confidence, coverage);
    // An old row never measured its coverage; it may vouch for a quarter of what it claims.
    if (s.quality == HistoricalValueQuality::legacy) value *= 0.25;
    valueSum += value;
    ++counted;
  }
  const double sessionShare = counted > 0 ? valueSum / counted : 0;
  const long percent = std::lround((dayShare + sessionShare) * 100 * 0.5);
  return fmt::format("{}% · {} temp days", percent, days);
}

}  // namespace quorel
