#include "store/history_command.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ctime>
#include <system_error>

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
// A process's current power is the mean of its buckets in the last minute and a half.
constexpr double kCurrentWindow_s = 90;

JSONValue number(std::optional<double> value) {
  if (!value || !std::isfinite(*value)) return nullptr;
  return *value;
}

JSONValue text(const std::optional<std::string>& value) {
  if (!value) return nullptr;
  return *value;
}

std::optional<int> parseCount(const std::string& text) {
  int value = 0;
  const auto* end = text.data() + text.size();
  const auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end) return std::nullopt;
  return value;
}

std::optional<int> digits(std::string_view text, std::size_t at, std::size_t count) {
  if (at + count > text.size()) return std::nullopt;
  int value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return std::nullopt;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

struct Range {
  TimePoint from;
  TimePoint to;
};

}  // namespace

std::optional<TimePoint> parseIso8601(std::string_view t) {
  // YYYY-MM-DDTHH:MM:SS[.fraction](Z|+HH:MM|-HH:MM)
  const auto year = digits(t, 0, 4), month = digits(t, 5, 2), day = digits(t, 8, 2),
             hour = digits(t, 11, 2), minute = digits(t, 14, 2), second = digits(t, 17, 2);
  if (!year || !month || !day || !hour || !minute || !second || t[4] != '-' || t[7] != '-' ||
      (t[10] != 'T' && t[10] != 't') || t[13] != ':' || t[16] != ':') {
    return std::nullopt;
  }
  if (*month < 1 || *month > 12 || *day < 1 || *day > 31 || *hour > 23 || *minute > 59 ||
      *second > 60) {
    return std::nullopt;
  }
  std::size_t at = 19;
  double fraction = 0;
  if (at < t.size() && t[at] == '.') {
    double scale = 0.1;
    std::size_t start = ++at;
    while (at < t.size() && t[at] >= '0' && t[at] <= '9') {
      fraction += (t[at] - '0') * scale;
      scale /= 10;
      ++at;
    }
    if (at == start) return std::nullopt;
  }
  if (at >= t.size()) return std::nullopt;  // a time without a zone is ambiguous
  int offsetSeconds = 0;
  if (t[at] == 'Z' || t[at] == 'z') {
    ++at;
  } else if (t[at] == '+' || t[at] == '-') {
    const auto oh = digits(t, at + 1, 2), om = digits(t, at + 4, 2);
    if (!oh || !om || at + 3 >= t.size() || t[at + 3] != ':' || *oh > 23 || *om > 59) {
      return std::nullopt;
    }
    offsetSeconds = (t[at] == '-' ? -1 : 1) * (*oh * 3600 + *om * 60);
    at += 6;
  } else {
    return std::nullopt;
  }
  if (at != t.size()) return std::nullopt;
  std::tm tm{};
  tm.tm_year = *year - 1900;
  tm.tm_mon = *month - 1;
  tm.tm_mday = *day;
  tm.tm_hour = *hour;
  tm.tm_min = *minute;
  tm.tm_sec = *second;
  const std::time_t utc = ::timegm(&tm);
  if (tm.tm_mday != *day) return std::nullopt;  // 31 April and the like roll over
  return fromUnixSeconds(static_cast<double>(utc) - offsetSeconds + fraction);
}

namespace history_json {

JSONValue coverage(const HistoricalCoverageSummary& s) {
  const double ratio = s.coverageRatio();
  double confidence = 0;
  if (s.collectedSeconds > 0) {
    confidence = ratio - std::min(0.5, 0.01 * static_cast<double>(s.rejectedCount)) -
                 std::min(0.25, 0.002 * static_cast<double>(s.estimatedCount));
    confidence = std::clamp(confidence, 0.0, 1.0);
  }
  return JSONValue::object({{"ratio", number(ratio)},
                            {"confidence", number(confidence)},
                            {"collected_s", number(s.collectedSeconds)},
                            {"sleep_s", number(s.sleepingSeconds)},
                            {"missing_s", number(s.missingSeconds)},
                            {"rejected_values", static_cast<double>(s.rejectedCount)},
                            {"estimated_values", static_cast<double>(s.estimatedCount)}});
}

JSONValue sample(const PowerSample& s) {
  std::optional<double> componentSum;
  for (const auto& part : {s.ecpuW, s.pcpuW, s.gpuW, s.aneW, s.dramW}) {
    if (part) componentSum = componentSum.value_or(0) + *part;
  }
  return JSONValue::object({{"t", formatIso8601(s.timestamp)},
                            {"watts", number(s.wattage)},
                            {"battery_pct", number(s.batteryPct)},
                            {"ecpu_w", number(s.ecpuW)},
                            {"pcpu_w", number(s.pcpuW)},
                            {"gpu_w", number(s.gpuW)},
                            {"ane_w", number(s.aneW)},
                            {"dram_w", number(s.dramW)},
                            {"component_sum_w", number(componentSum)},
                            {"component_quality", toString(s.componentQuality)},
                            {"component_rejection_reason", text(s.componentRejectionReason)},
                            {"power_in_w", number(s.powerInW)},
                            {"system_power_quality", toString(s.systemPowerQuality)},
                            {"apple_wall_energy_estimate_raw_w", number(s.wallPowerW)},
                            {"wall_estimate_quality", toString(s.wallEstimateQuality)},
                            {"observed_duration_s", number(s.observedDurationS)},
                            {"system_total_rail_w", number(s.systemTotalW)},
                            {"battery_rail_w", number(s.batteryRailW)},
                            {"dc_in_rail_w", number(s.dcInW)},
                            {"thunderbolt_left_rail_w", number(s.thunderboltLeftW)},
                            {"thunderbolt_right_rail_w", number(s.thunderboltRightW)},
                            {"pd_brightness_rail_w", number(s.pdBrightnessW)},
                            {"charging", s.isCharging},
                            {"external_connected", s.externalConnected},
                            {"temperature_c", number(s.temperatureC)}});
}

JSONValue session(const SessionRecord& s) {
  const double seen = s.collectedDuration_s + s.missingDuration_s;
  return JSONValue::object(
      {{"start", formatIso8601(s.startTime)},
       {"end", formatIso8601(s.endTime)},
       {"duration_min", number(std::round(secondsBetween(s.startTime, s.endTime) / 60.0))},
       {"start_pct", number(s.startPct)},
       {"end_pct", number(s.endPct)},
       {"charging", s.isCharging},
       {"mode", toString(s.mode)},
       {"avg_watts", number(s.avgWattage)},
       {"total_wh", number(s.totalWh)},
       {"battery_energy_wh", number(s.totalWh)},
       {"collected_duration_s", number(s.collectedDuration_s)},
       {"missing_duration_s", number(s.missingDuration_s)},
       {"coverage_ratio", number(seen > 0 ? s.collectedDuration_s / seen : 0)},
       {"confidence", number(s.confidence)},
       {"quality", toString(s.quality)},
       {"energy_definition", "absolute battery-side energy over collected intervals"}});
}

JSONValue dailyMetric(const DailyBatteryMetric& m) {
  return JSONValue::object({{"t", formatIso8601(m.dayStart)},
                            {"nominal_mah", m.nominalCapacity_mAh},
                            {"design_mah", m.designCapacity_mAh},
                            {"cycle_count", m.cycleCount},
                            {"health_pct", number(m.healthPct)},
                            {"average_temperature_c", number(m.averageTemperature_C)},
                            {"max_observed_temperature_c", number(m.maxObservedTemperature_C)},
                            {"capacity_sample_count", m.capacitySampleCount},
                            {"temperature_observed_s", number(m.temperatureObservedDuration_s)},
                            {"temperature_sample_count", m.temperatureSampleCount},
                            {"quality", toString(m.quality)}});
}

JSONValue trackedEnergy(const TrackedEnergySummary& s, double currentWatts,
                        const char* identifierKey) {
  return JSONValue::object({{identifierKey, s.identifier},
                            {"wh", number(s.energyWh)},
                            {"avg_w", number(s.averageWatts)},
                            {"peak_w", number(s.peakWatts)},
                            {"current_w", number(currentWatts)},
                            {"observed_duration_s", number(s.observedDuration_s)},
                            {"missing_duration_s", number(s.missingDuration_s)},
                            {"coverage_ratio", number(s.coverageRatio)},
                            {"quality", toString(s.quality)},
                            {"source", "cpu_package_apportionment"}});
}

}  // namespace history_json

namespace {

HistoryCommandResult refuse(std::string sentence) {
  return {2, "", std::move(sentence)};
}

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

}  // namespace

HistoryCommandResult runHistoryCommand(const HistoryCommandArguments& a,
                                       const fs::path& databasePath, const Clock& clock) {
  static constexpr const char* kSubcommands[] = {"samples",  "apps",  "agents",  "coverage",
                                                 "sessions", "daily", "lifetime"};
  if (std::find(std::begin(kSubcommands), std::end(kSubcommands), a.subcommand) ==
      std::end(kSubcommands)) {
    return refuse(fmt::format(
        "\"{}\" is not a history question — use samples, coverage, sessions, daily, apps, "
        "agents or lifetime.",
        a.subcommand));
  }

  // Arguments first, so that a typo is reported before anything is opened.
  const auto time = [](const std::optional<std::string>& text, const char* flag,
                       std::optional<TimePoint>& out) -> std::optional<std::string> {
    if (!text) return std::nullopt;
    out = parseIso8601(*text);
    if (out) return std::nullopt;
    return fmt::format(
        "{} \"{}\" is not an ISO-8601 date-time — write it like 2026-11-22T10:15:30Z or "
        "2026-11-22T11:15:30.250+01:00.",
        flag, *text);
  };
  std::optional<TimePoint> from;
  std::optional<TimePoint> to;
  if (auto bad = time(a.from, "--from", from)) return refuse(*bad);
  if (auto bad = time(a.to, "--to", to)) return refuse(*bad);
  const auto count = [](const std::optional<std::string>& text, const char* flag, int fallback,
                        int& out) -> std::optional<std::string> {
    out = fallback;
    if (!text) return std::nullopt;
    const auto value = parseCount(*text);
    if (value && *value >= 1) {
      out = *value;
      return std::nullopt;
    }
    return fmt::format("{} \"{}\" is not a whole number of at least 1 — give a count such as {}.",
                       flag, *text, fallback);
  };
  int points = 0;
  int limit = 0;
  if (auto bad = count(a.points, "--points", kDefaultPoints, points)) return refuse(*bad);
  const int defaultLimit = a.subcommand == "sessions" ? kDefaultSessionLimit : kDefaultRankingLimit;
  if (auto bad = count(a.limit, "--limit", defaultLimit, limit)) return refuse(*bad);
  // The MCP tools clamp their limits the same way.
  limit = std::min(limit, 500);

  std::error_code ec;
  if (!fs::exists(databasePath, ec)) {
    return {1, "",
            fmt::format("No history database at {} — start the agent once to create it, or point "
                        "--data-dir at the folder that holds quorel.db.",
                        databasePath.string())};
  }
  QuorelDatabase::Options options;
  options.dataDirectory = std::nullopt;
  options.databasePathOverride = databasePath;
  options.startQueue = false;
  options.readOnly = true;
  QuorelDatabase db(std::move(options));
  if (!db.isAvailable() || !db.schemaVersion()) {
    return {1, "",
            fmt::format("Cannot read the history database at {} — check that it is a Quorel "
                        "database and that you may read it.",
                        databasePath.string())};
  }

  const TimePoint now = clock.now();
  const TimePoint end = to.value_or(now);
  const double lookBack = a.subcommand == "apps" || a.subcommand == "agents" ? kDay : kHour;
  const TimePoint start = from.value_or(fromUnixSeconds(toUnixSeconds(end) - lookBack));
  HistoryCommandResult result;

  if (a.subcommand == "samples" || a.subcommand == "coverage") {
    const auto coverage = db.historicalCoverage(start, end);
    if (a.subcommand == "coverage") {
      result.output = a.json ? json(history_json::coverage(coverage)) : coverageText(coverage);
      return result;
    }
    const auto samples = db.queryPowerSamples(start, end, points);
    if (a.json) {
      JSONValue::Array list;
      for (const auto& s : samples) list.push_back(history_json::sample(s));
      result.output = json(JSONValue::object({{"available", true},
                                              {"from", formatIso8601(start)},
                                              {"to", formatIso8601(end)},
                                              {"count", static_cast<double>(samples.size())},
                                              {"coverage", history_json::coverage(coverage)},
                                              {"samples", std::move(list)}}));
      return result;
    }
    result.output = "time                      battery W   charge %   components W   gap\n";
    for (const auto& s : samples) {
      std::optional<double> sum;
      for (const auto& part : {s.ecpuW, s.pcpuW, s.gpuW, s.aneW, s.dramW}) {
        if (part) sum = sum.value_or(0) + *part;
      }
      result.output += fmt::format("{:<25} {:>9} {:>10} {:>14}   {}\n", formatIso8601(s.timestamp),
                                   fixed(s.wattage, 2), fixed(s.batteryPct, 1), fixed(sum, 2),
                                   s.precededByGap ? "after a gap" : "");
    }
    result.output += coverageText(coverage);
    return result;
  }

  if (a.subcommand == "apps" || a.subcommand == "agents") {
    const bool apps = a.subcommand == "apps";
    const auto summaries =
        apps ? db.queryTrackedEnergySummaries("process_energy", "process_name", start, end, limit)
             : db.queryTrackedEnergySummaries("ai_agent_energy", "agent_id", start, end, limit);
    const int topN = std::max(limit, 6);
    const auto series = apps ? db.queryProcessEnergy(start, end, 200, topN)
                             : db.queryAIAgentEnergy(start, end, 200, topN);
    const TimePoint recent = fromUnixSeconds(toUnixSeconds(end) - kCurrentWindow_s);
    JSONValue::Array list;
    std::string table = fmt::format("{:<32} {:>10} {:>8} {:>8} {:>9}  quality\n",
                                    apps ? "app" : "agent", "Wh", "avg W", "peak W", "now W");
    for (const auto& s : summaries) {
      double current = 0;
      if (auto found = series.find(s.identifier); found != series.end()) {
        double total = 0;
        int n = 0;
        for (const auto& p : found->second) {
          if (p.time >= recent) {
            total += p.watts;
            ++n;
          }
        }
        if (n > 0) current = total / n;
      }
      list.push_back(history_json::trackedEnergy(s, current, apps ? "app" : "agent"));
      table += fmt::format("{:<32} {:>10} {:>8} {:>8} {:>9}  {}\n", s.identifier,
                           fixed(s.energyWh, 3), fixed(s.averageWatts, 2), fixed(s.peakWatts, 2),
                           fixed(current, 2), toString(s.quality));
    }
    result.output = a.json ? json(JSONValue::object({{"available", true},
                                                     {"from", formatIso8601(start)},
                                                     {"to", formatIso8601(end)},
                                                     {apps ? "apps" : "agents", std::move(list)}}))
                           : table;
    return result;
  }

  if (a.subcommand == "sessions") {
    const auto sessions = db.queryRecentSessions(limit);
    JSONValue::Array list;
    std::string table;
    for (const auto& s : sessions) {
      list.push_back(history_json::session(s));
      table += fmt::format("{:<36} {:>8} {:<15} {:>5.0f}% → {:>3.0f}%  {:>8.2f} Wh  {}\n",
                           s.timeRangeText(now), s.durationText(), toString(s.mode), s.startPct,
                           s.endPct, s.totalWh, toString(s.quality));
    }
    result.output = a.json ? json(JSONValue::object({{"available", true},
                                                     {"count", static_cast<double>(list.size())},
                                                     {"sessions", std::move(list)}}))
                           : table;
    return result;
  }

  if (a.subcommand == "daily") {
    const auto days = db.queryDailyBatteryMetrics();
    JSONValue::Array list;
    std::string table =
        "day start                 health %  nominal mAh  design mAh  cycles  "
        "avg °C  max °C  quality\n";
    for (const auto& d : days) {
      list.push_back(history_json::dailyMetric(d));
      table += fmt::format("{:<25} {:>8} {:>12} {:>11} {:>7} {:>7} {:>7}  {}\n",
                           formatIso8601(d.dayStart), fixed(d.healthPct, 1), d.nominalCapacity_mAh,
                           d.designCapacity_mAh, d.cycleCount, fixed(d.averageTemperature_C, 1),
                           fixed(d.maxObservedTemperature_C, 1), toString(d.quality));
    }
    result.output = a.json ? json(JSONValue::object({{"available", true},
                                                     {"count", static_cast<double>(list.size())},
                                                     {"trend", std::move(list)}}))
                           : table;
    return result;
  }

  // lifetime
  const double total = db.totalComponentEnergy_Wh();
  const auto range = db.powerSampleDateRange();
  const auto lifetimeCoverage =
      range ? db.historicalCoverage(range->first, range->last) : HistoricalCoverageSummary{};
  if (a.json) {
    result.output = json(JSONValue::object(
        {{"available", true},
         {"lifetime_wh", number(total)},
         {"lifetime_definition",
          "gap-aware trapezoidal integral of inferred whole-system consumption; intervals over "
          "300 seconds and unavailable AC input are excluded"},
         {"lifetime_quality", "inferred"},
         {"lifetime_from", range ? JSONValue(formatIso8601(range->first)) : JSONValue(nullptr)},
         {"lifetime_to", range ? JSONValue(formatIso8601(range->last)) : JSONValue(nullptr)},
         {"lifetime_collection_coverage", history_json::coverage(lifetimeCoverage)}}));
    return result;
  }
  result.output = fmt::format("lifetime energy {:.3f} Wh", total);
  result.output += range ? fmt::format(" from {} to {}\n", formatIso8601(range->first),
                                       formatIso8601(range->last))
                         : std::string(" — no samples yet\n");
  result.output += coverageText(lifetimeCoverage);
  return result;
}

}  // namespace quorel
