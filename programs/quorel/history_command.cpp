#include "history_command.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <system_error>

#include "core/iso8601.hpp"
#include "core/result.hpp"
#include "mcp/snapshot_history.hpp"
#include "store/quorel_database.hpp"

namespace quorel {

namespace fs = std::filesystem;

namespace {

constexpr double kHour = 3600;
constexpr double kDay = 86400;
// The MCP tools' defaults, so that the same question gets the same answer.
constexpr int kDefaultPoints = 240;
constexpr int kDefaultRankingLimit = 8;
constexpr int kDefaultSessionLimit = 20;

// A question with its arguments checked.
struct HistoryQuery {
  TimePoint now;
  TimePoint start;
  TimePoint end;
  int points = kDefaultPoints;
  int limit = kDefaultRankingLimit;
  bool json = false;
  CarbonRegionIntensity carbonRegion;
};

// What goes to standard output, or why the history could not be read.
using Answer = Result<std::string>;

std::string json(const JSONValue& value) {
  return value.write().value_or("null") + "\n";
}

std::string fixed(std::optional<double> value, int decimals) {
  if (!value || !std::isfinite(*value)) return "-";
  return fmt::format("{:.{}f}", *value, decimals);
}

std::string coverageText(const HistoricalCoverageSummary& c) {
  return fmt::format(
      "coverage {:.1f}% — collected {:.0f} s, asleep {:.0f} s, missing {:.0f} s, "
      "{} rejected and {} estimated values\n",
      c.coverageRatio() * 100, c.collectedSeconds, c.sleepingSeconds, c.missingSeconds,
      c.rejectedCount, c.estimatedCount);
}

// The assistants' object for the same question, as a line of text.
Answer json(const Result<JSONValue>& answer) {
  if (!answer) return answer.error();
  return json(*answer);
}

Answer coverage(QuorelDatabase& db, const HistoryQuery& q) {
  if (q.json) return json(snapshot_history::coverage(db, q.start, q.end));
  const auto summary = db.historicalCoverage(q.start, q.end);
  if (!summary) return summary.error();
  return coverageText(*summary);
}

Answer samples(QuorelDatabase& db, const HistoryQuery& q) {
  if (q.json) return json(snapshot_history::powerHistory(db, q.start, q.end, q.points));
  const auto summary = db.historicalCoverage(q.start, q.end);
  if (!summary) return summary.error();
  const auto samples = db.queryPowerSamples(q.start, q.end, q.points);
  if (!samples) return samples.error();
  std::string table = "time                      battery W   charge %   components W   gap\n";
  for (const auto& s : *samples) {
    std::optional<double> sum;
    for (const auto& part : {s.ecpuW, s.pcpuW, s.gpuW, s.aneW, s.dramW}) {
      if (part) sum = sum.value_or(0) + *part;
    }
    table += fmt::format("{:<25} {:>9} {:>10} {:>14}   {}\n", formatIso8601(s.timestamp),
                         fixed(s.wattage, 2), fixed(s.batteryPct, 1), fixed(sum, 2),
                         s.precededByGap ? "after a gap" : "");
  }
  return table + coverageText(*summary);
}

Answer trackedEnergy(QuorelDatabase& db, const HistoryQuery& q, EnergyHistoryKind kind) {
  if (q.json) return json(snapshot_history::energyRanking(db, kind, q.start, q.end, q.limit));
  const bool apps = kind == EnergyHistoryKind::processes;
  const auto summaries =
      apps ? db.queryTrackedEnergySummaries("process_energy", "process_name", q.start, q.end,
                                            q.limit)
           : db.queryTrackedEnergySummaries("ai_agent_energy", "agent_id", q.start, q.end, q.limit);
  if (!summaries) return summaries.error();
  const int topN = std::max(q.limit, 6);
  const auto series = apps ? db.queryProcessEnergy(q.start, q.end, 200, topN)
                           : db.queryAIAgentEnergy(q.start, q.end, 200, topN);
  if (!series) return series.error();
  std::string table = fmt::format("{:<32} {:>10} {:>8} {:>8} {:>9}  quality\n",
                                  apps ? "app" : "agent", "Wh", "avg W", "peak W", "now W");
  for (const auto& s : *summaries) {
    const double current = snapshot_history::currentWatts(*series, s.identifier, q.end);
    table += fmt::format("{:<32} {:>10} {:>8} {:>8} {:>9}  {}\n", s.identifier,
                         fixed(s.energyWh, 3), fixed(s.averageWatts, 2), fixed(s.peakWatts, 2),
                         fixed(current, 2), toString(s.quality));
  }
  return table;
}

Answer apps(QuorelDatabase& db, const HistoryQuery& q) {
  return trackedEnergy(db, q, EnergyHistoryKind::processes);
}

Answer agents(QuorelDatabase& db, const HistoryQuery& q) {
  return trackedEnergy(db, q, EnergyHistoryKind::agents);
}

Answer sessions(QuorelDatabase& db, const HistoryQuery& q) {
  if (q.json) return json(snapshot_history::recentSessions(db, q.limit));
  const auto sessions = db.queryRecentSessions(q.limit);
  if (!sessions) return sessions.error();
  std::string table;
  for (const auto& s : *sessions) {
    table += fmt::format("{:<36} {:>8} {:<15} {:>5.0f}% → {:>3.0f}%  {:>8.2f} Wh  {}\n",
                         s.timeRangeText(q.now), s.durationText(), toString(s.mode), s.startPct,
                         s.endPct, s.totalWh, toString(s.quality));
  }
  return table;
}

Answer daily(QuorelDatabase& db, const HistoryQuery& q) {
  if (q.json) return json(snapshot_history::batteryHealthTrend(db));
  const auto days = db.queryDailyBatteryMetrics();
  if (!days) return days.error();
  std::string table =
      "day start                 health %  nominal mAh  design mAh  cycles  "
      "avg °C  max °C  quality\n";
  for (const auto& d : *days) {
    table += fmt::format("{:<25} {:>8} {:>12} {:>11} {:>7} {:>7} {:>7}  {}\n",
                         formatIso8601(d.dayStart), fixed(d.healthPct, 1), d.nominalCapacity_mAh,
                         d.designCapacity_mAh, d.cycleCount, fixed(d.averageTemperature_C, 1),
                         fixed(d.maxObservedTemperature_C, 1), toString(d.quality));
  }
  return table;
}

Answer lifetime(QuorelDatabase& db, const HistoryQuery& q) {
  if (q.json) {
    CarbonFootprintService carbon(db);
    return json(snapshot_history::energyTotals(db, carbon, q.carbonRegion, q.now));
  }
  const auto total = db.totalComponentEnergy_Wh();
  if (!total) return total.error();
  const auto range = db.powerSampleDateRange();
  if (!range) return range.error();
  HistoricalCoverageSummary rangeCoverage;
  if (*range) {
    const auto summary = db.historicalCoverage((*range)->first, (*range)->last);
    if (!summary) return summary.error();
    rangeCoverage = *summary;
  }
  std::string text = fmt::format("lifetime energy {:.3f} Wh", *total);
  text += *range ? fmt::format(" from {} to {}\n", formatIso8601((*range)->first),
                               formatIso8601((*range)->last))
                 : std::string(" — no samples yet\n");
  return text + coverageText(rangeCoverage);
}

struct Question {
  std::string_view name;
  double lookBack_s;  // how far --from defaults to before --to
  int defaultLimit;
  Answer (*answer)(QuorelDatabase&, const HistoryQuery&);
};

constexpr Question kQuestions[] = {
    {"samples", kHour, kDefaultRankingLimit, samples},
    {"coverage", kHour, kDefaultRankingLimit, coverage},
    {"sessions", kHour, kDefaultSessionLimit, sessions},
    {"daily", kHour, kDefaultRankingLimit, daily},
    {"apps", kDay, kDefaultRankingLimit, apps},
    {"agents", kDay, kDefaultRankingLimit, agents},
    {"lifetime", kHour, kDefaultRankingLimit, lifetime},
};

// Absent when not given; an error sentence when given and unreadable.
Result<std::optional<TimePoint>> timeArgument(const std::optional<std::string>& text,
                                              const char* flag) {
  if (!text) return std::optional<TimePoint>();
  if (const auto t = parseIso8601(*text)) return std::optional(*t);
  return Error{
      fmt::format("{} \"{}\" is not an ISO-8601 date-time — write it like 2026-11-22T10:15:30Z or "
                  "2026-11-22T11:15:30.250+01:00.",
                  flag, *text)};
}

Result<int> countArgument(const std::optional<std::string>& text, const char* flag, int fallback) {
  if (!text) return fallback;
  int value = 0;
  const char* end = text->data() + text->size();
  const auto [ptr, ec] = std::from_chars(text->data(), end, value);
  if (ec == std::errc() && ptr == end && value >= 1) return value;
  return Error{
      fmt::format("{} \"{}\" is not a whole number of at least 1 — give a count such as {}.", flag,
                  *text, fallback)};
}

HistoryCommandResult refuse(std::string sentence) {
  return {2, "", std::move(sentence)};
}

HistoryCommandResult unreadable(const std::string& why) {
  return {1, "", "the history could not be read: " + why};
}

}  // namespace

HistoryCommandResult runHistoryCommand(const HistoryCommandArguments& a,
                                       const fs::path& databasePath, const Clock& clock) {
  const auto question = std::find_if(std::begin(kQuestions), std::end(kQuestions),
                                     [&](const Question& q) { return q.name == a.subcommand; });
  if (question == std::end(kQuestions)) {
    return refuse(fmt::format(
        "\"{}\" is not a history question — use samples, coverage, sessions, daily, apps, "
        "agents or lifetime.",
        a.subcommand));
  }

  // Arguments first, so that a typo is reported before anything is opened.
  const auto from = timeArgument(a.from, "--from");
  if (!from) return refuse(from.error().message);
  const auto to = timeArgument(a.to, "--to");
  if (!to) return refuse(to.error().message);
  const auto points = countArgument(a.points, "--points", kDefaultPoints);
  if (!points) return refuse(points.error().message);
  const auto limit = countArgument(a.limit, "--limit", question->defaultLimit);
  if (!limit) return refuse(limit.error().message);

  HistoryQuery query;
  query.now = clock.now();
  query.end = to->value_or(query.now);
  query.start = from->value_or(fromUnixSeconds(toUnixSeconds(query.end) - question->lookBack_s));
  query.points = *points;
  query.limit = snapshot_history::clampedLimit(*limit);
  query.json = a.json;
  query.carbonRegion = a.carbonRegion;

  std::error_code ec;
  if (!fs::exists(databasePath, ec)) {
    return unreadable(fmt::format(
        "there is no history database at {} — start the agent once to create it, or point "
        "--data-dir at the folder that holds quorel.db.",
        databasePath.string()));
  }
  QuorelDatabase::Options options;
  options.dataDirectory = std::nullopt;
  options.databasePathOverride = databasePath;
  options.startQueue = false;
  options.readOnly = true;
  QuorelDatabase db(std::move(options), clock);
  const Answer answer = question->answer(db, query);
  if (!answer) {
    return unreadable(fmt::format("{} ({})", answer.error().message, databasePath.string()));
  }
  return {0, *answer, ""};
}

}  // namespace quorel
