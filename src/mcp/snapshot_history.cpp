#include "mcp/snapshot_history.hpp"

#include <algorithm>
#include <cmath>

#include "insights/local_days.hpp"
#include "store/history_json.hpp"
#include "store/quorel_database.hpp"

namespace quorel::snapshot_history {

namespace {

JSONValue number(double value) {
  if (!std::isfinite(value)) return nullptr;
  return value;
}

JSONValue count(std::size_t n) {
  return static_cast<double>(n);
}

}  // namespace

double currentWatts(const EnergySeries& series, const std::string& identifier, TimePoint end) {
  const auto found = series.find(identifier);
  if (found == series.end()) return 0;
  const TimePoint recent = fromUnixSeconds(toUnixSeconds(end) - kCurrentPowerWindow_s);
  double total = 0;
  int n = 0;
  for (const auto& point : found->second) {
    if (point.time >= recent) {
      total += point.watts;
      ++n;
    }
  }
  return n > 0 ? total / n : 0;
}

int clampedLimit(std::int64_t limit) {
  return static_cast<int>(std::clamp<std::int64_t>(limit, kMinimumLimit, kMaximumLimit));
}

Result<JSONValue> coverage(QuorelDatabase& db, TimePoint from, TimePoint to) {
  const auto summary = db.historicalCoverage(from, to);
  if (!summary) return summary.error();
  return history_json::coverage(*summary);
}

Result<JSONValue> powerHistory(QuorelDatabase& db, TimePoint from, TimePoint to, int maxPoints) {
  const auto samples = db.queryPowerSamples(from, to, maxPoints);
  if (!samples) return samples.error();
  auto covered = coverage(db, from, to);
  if (!covered) return covered.error();
  JSONValue::Array list;
  list.reserve(samples->size());
  for (const auto& s : *samples) list.push_back(history_json::sample(s));
  return JSONValue::object({{"available", true},
                            {"from", formatIso8601(from)},
                            {"to", formatIso8601(to)},
                            {"count", count(list.size())},
                            {"coverage", std::move(*covered)},
                            {"samples", std::move(list)}});
}

Result<RankingReads> readRanking(QuorelDatabase& db, EnergyHistoryKind kind, TimePoint from,
                                 TimePoint to, std::int64_t limit) {
  const bool apps = kind == EnergyHistoryKind::processes;
  const int clamped = clampedLimit(limit);
  auto summaries =
      apps ? db.queryTrackedEnergySummaries("process_energy", "process_name", from, to, clamped)
           : db.queryTrackedEnergySummaries("ai_agent_energy", "agent_id", from, to, clamped);
  if (!summaries) return summaries.error();
  // The series only feeds "current_w"; a small ranking still asks for a handful so that the
  // store's shared cache of the top six serves it.
  const int topN = std::max(clamped, 6);
  auto series = apps ? db.queryProcessEnergy(from, to, kCurrentPowerSeriesPoints, topN)
                     : db.queryAIAgentEnergy(from, to, kCurrentPowerSeriesPoints, topN);
  if (!series) return series.error();
  return RankingReads{std::move(*summaries), std::move(*series)};
}

Result<JSONValue> energyRanking(QuorelDatabase& db, EnergyHistoryKind kind, TimePoint from,
                                TimePoint to, std::int64_t limit) {
  const bool apps = kind == EnergyHistoryKind::processes;
  const auto reads = readRanking(db, kind, from, to, limit);
  if (!reads) return reads.error();
  const char* key = apps ? "app" : "agent";
  JSONValue::Array list;
  list.reserve(reads->summaries.size());
  for (const auto& s : reads->summaries) {
    list.push_back(
        history_json::trackedEnergy(s, currentWatts(reads->series, s.identifier, to), key));
  }
  return JSONValue::object({{"available", true},
                            {"from", formatIso8601(from)},
                            {"to", formatIso8601(to)},
                            {apps ? "apps" : "agents", std::move(list)}});
}

Result<JSONValue> recentSessions(QuorelDatabase& db, std::int64_t limit) {
  const auto sessions = db.queryRecentSessions(clampedLimit(limit));
  if (!sessions) return sessions.error();
  JSONValue::Array list;
  list.reserve(sessions->size());
  for (const auto& s : *sessions) list.push_back(history_json::session(s));
  return JSONValue::object(
      {{"available", true}, {"count", count(list.size())}, {"sessions", std::move(list)}});
}

Result<JSONValue> batteryHealthTrend(QuorelDatabase& db) {
  const auto days = db.queryDailyBatteryMetrics();
  if (!days) return days.error();
  const auto epoch = db.currentBatteryEpoch();
  JSONValue::Array trend;
  trend.reserve(days->size());
  for (const auto& d : *days) trend.push_back(history_json::dailyMetric(d));
  return JSONValue::object({{"available", true},
                            {"epoch", epoch ? history_json::epoch(*epoch) : JSONValue(nullptr)},
                            {"count", count(trend.size())},
                            {"trend", std::move(trend)}});
}

Result<JSONValue> energyTotals(QuorelDatabase& db, CarbonFootprintService& carbon,
                               const CarbonRegionIntensity& region, TimePoint now) {
  const auto total = db.totalComponentEnergy_Wh();
  if (!total) return total.error();
  const auto range = db.powerSampleDateRange();
  if (!range) return range.error();
  JSONValue lifetimeCoverage = history_json::coverage(HistoricalCoverageSummary{});
  if (*range) {
    auto covered = coverage(db, (*range)->first, (*range)->last);
    if (!covered) return covered.error();
    lifetimeCoverage = std::move(*covered);
  }
  auto today = coverage(db, startOfLocalDay(now), now);
  if (!today) return today.error();
  const auto grams = carbon.todayCO2Grams(region, now);
  if (!grams) return grams.error();
  auto time = [&](auto member) -> JSONValue {
    if (!*range) return nullptr;
    return formatIso8601((**range).*member);
  };
  // The store's lifetime counter already integrates what the whole machine drew (input power
  // beyond the battery's share, or the battery's discharge), so both totals are that one figure.
  return JSONValue::object(
      {{"available", true},
       {"lifetime_wh", number(*total)},
       {"lifetime_system_consumption_wh", number(*total)},
       {"lifetime_definition",
        "gap-aware trapezoidal integral of inferred whole-system consumption; intervals over "
        "300 seconds and unavailable AC input are excluded"},
       {"lifetime_quality", "inferred"},
       {"lifetime_from", time(&PowerSampleDateRange::first)},
       {"lifetime_to", time(&PowerSampleDateRange::last)},
       {"lifetime_collection_coverage", std::move(lifetimeCoverage)},
       {"co2_g_today", number(*grams)},
       {"co2_quality", "inferred"},
       {"co2_definition",
        "today's gap-aware whole-system energy multiplied by configured regional grid intensity"},
       {"today_collection_coverage", std::move(*today)},
       {"carbon_region", region.rawValue},
       {"carbon_intensity_g_per_kwh", number(region.gramsCO2PerKWh)}});
}

}  // namespace quorel::snapshot_history
