// The read path of the history store: thinned samples, coverage, sessions, daily metrics, energy
// rankings and series with the charts' cache, and the lifetime energy counter. Everything here
// runs on queue(); the public calls wait for it.

#include <spdlog/spdlog.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include "store/historical_power_downsampler.hpp"
#include "store/quorel_database.hpp"
#include "store/sqlite_binder.hpp"

namespace quorel {

namespace {

constexpr double kGapSeconds = 300.0;

constexpr const char* kSelectPowerSamples =
    "SELECT 0, timestamp, wattage, battery_pct, ecpu_w, pcpu_w, gpu_w, ane_w, dram_w,"
    " system_load_w, power_in_w, wall_power_w, thermal_state, is_charging, external_connected,"
    " temperature_c, observed_duration_s, component_quality, system_power_quality,"
    " wall_estimate_quality, component_rejection_reason, system_total_w, battery_rail_w,"
    " dc_in_w, thunderbolt_left_w, thunderbolt_right_w, pd_brightness_w"
    " FROM power_samples WHERE timestamp BETWEEN ? AND ? ORDER BY timestamp ASC";

constexpr const char* kSelectCollectionIntervals =
    "SELECT id,start_time,end_time,status,reason FROM collection_intervals"
    " WHERE end_time>=? AND start_time<=? ORDER BY start_time";

// The coverage walks the period's rows in time order and sums here what a LAG() window over them
// would: SQLite's window machinery costs five times the read itself, and the walk visits the
// same rows in the same order, so the sums come out the same to the last bit.
constexpr const char* kCoverageRows =
    "SELECT timestamp, observed_duration_s, component_quality, system_power_quality,"
    " wall_estimate_quality FROM power_samples WHERE timestamp BETWEEN ? AND ?"
    " ORDER BY timestamp";

constexpr const char* kSelectRecentSessions =
    "SELECT * FROM sessions ORDER BY start_time DESC LIMIT ?";

constexpr const char* kSelectDailyMetrics =
    "SELECT day_start, nominal_capacity_mah, design_capacity_mah,\n"
    "       cycle_count, health_pct, avg_temperature_c,\n"
    "       max_temperature_c, capacity_sample_count,\n"
    "       temperature_observed_s, temperature_sample_count, quality\n"
    "FROM daily_battery_metrics\n"
    "WHERE health_pct IS NOT NULL AND design_capacity_mah > 0\n"
    "ORDER BY day_start ASC";

constexpr const char* kLifetimeRows =
    "SELECT timestamp,\n"
    "       CASE\n"
    "         WHEN power_in_w IS NOT NULL\n"
    "           THEN max(0.0, power_in_w - COALESCE(wattage, 0))\n"
    "         WHEN COALESCE(external_connected, 0) = 0\n"
    "           THEN max(0.0, -COALESCE(wattage, 0))\n"
    "         ELSE -1.0\n"
    "       END AS total_w\n"
    "FROM power_samples\n"
    "WHERE timestamp > ?\n"
    "ORDER BY timestamp ASC";

struct EnergyTable {
  const char* table;
  const char* column;
  const char* name;  // the operation, for log contexts
};

EnergyTable energyTable(EnergyHistoryKind kind) {
  return kind == EnergyHistoryKind::processes
             ? EnergyTable{"process_energy", "process_name", "queryProcessEnergy"}
             : EnergyTable{"ai_agent_energy", "agent_id", "queryAIAgentEnergy"};
}

HistoricalValueQuality qualityOr(const std::optional<std::string>& text,
                                 HistoricalValueQuality fallback) {
  if (!text) return fallback;
  return historicalValueQualityFromString(*text).value_or(fallback);
}

bool isUUID(std::string_view text) {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) {
      return false;
    }
  }
  return true;
}

std::int32_t roundedInt(std::optional<double> value) {
  if (!value || !std::isfinite(*value)) return 0;
  return static_cast<std::int32_t>(std::llround(*value));
}

PowerSample readSample(sqlite3_stmt* statement) {
  ColumnReader c(statement, 1);  // column 0 is the literal placeholder
  PowerSample s;
  s.timestamp = c.time();
  s.wattage = c.real();
  s.batteryPct = c.real();
  s.ecpuW = c.optionalReal();
  s.pcpuW = c.optionalReal();
  s.gpuW = c.optionalReal();
  s.aneW = c.optionalReal();
  s.dramW = c.optionalReal();
  s.systemLoadW = c.optionalReal();
  s.powerInW = c.optionalReal();
  s.wallPowerW = c.optionalReal();
  s.thermalState = static_cast<std::int32_t>(c.integer());
  s.isCharging = c.integer() != 0;
  s.externalConnected = c.integer() != 0;
  s.temperatureC = c.optionalReal();
  s.observedDurationS = c.optionalReal();
  s.componentQuality = qualityOr(c.optionalText(), HistoricalValueQuality::unavailable);
  s.systemPowerQuality = qualityOr(c.optionalText(), HistoricalValueQuality::unavailable);
  s.wallEstimateQuality = qualityOr(c.optionalText(), HistoricalValueQuality::unavailable);
  s.componentRejectionReason = c.optionalText();
  s.systemTotalW = c.optionalReal();
  s.batteryRailW = c.optionalReal();
  s.dcInW = c.optionalReal();
  s.thunderboltLeftW = c.optionalReal();
  s.thunderboltRightW = c.optionalReal();
  s.pdBrightnessW = c.optionalReal();
  return s;
}

}  // namespace

std::vector<PowerSample> QuorelDatabase::queryPowerSamples(TimePoint from, TimePoint to,
                                                           int maxPoints) {
  return onQueue([&]() -> std::vector<PowerSample> {
    if (!db_) return {};
    int rc = SQLITE_OK;
    auto statement = prepareStatement(db_.get(), kSelectPowerSamples, rc);
    if (!statement) {
      logSqliteError(rc, "queryPowerSamples prepare");
      return {};
    }
    ++powerHistoryReads_;
    Binder(statement.get()).time(from).time(to);
    std::vector<PowerSample> samples;
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
      samples.push_back(readSample(statement.get()));
    }
    if (rc != SQLITE_DONE) logSqliteError(rc, "queryPowerSamples step");
    return HistoricalPowerDownsampler::downsample(std::move(samples), maxPoints);
  });
}

std::vector<CollectionIntervalRecord> QuorelDatabase::queryCollectionIntervals(TimePoint from,
                                                                               TimePoint to) {
  return onQueue(
      [&] { return collectionIntervalsOnQueue(toUnixSeconds(from), toUnixSeconds(to)); });
}

std::vector<CollectionIntervalRecord> QuorelDatabase::collectionIntervalsOnQueue(double from,
                                                                                 double to) {
  if (!db_) return {};
  int rc = SQLITE_OK;
  auto statement = prepareStatement(db_.get(), kSelectCollectionIntervals, rc);
  if (!statement) {
    logSqliteError(rc, "queryCollectionIntervals prepare");
    return {};
  }
  Binder(statement.get()).real(from).real(to);
  std::vector<CollectionIntervalRecord> intervals;
  while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
    ColumnReader c(statement.get());
    CollectionIntervalRecord record;
    record.id = c.integer();
    record.startTime = c.time();
    record.endTime = c.time();
    const auto status = collectionIntervalStatusFromString(c.text());
    if (!status) continue;
    record.status = *status;
    record.reason = c.optionalText();
    intervals.push_back(std::move(record));
  }
  if (rc != SQLITE_DONE) logSqliteError(rc, "queryCollectionIntervals step");
  return intervals;
}

HistoricalCoverageSummary QuorelDatabase::historicalCoverage(TimePoint from, TimePoint to) {
  return onQueue([&]() -> HistoricalCoverageSummary {
    const double start = std::min(toUnixSeconds(from), toUnixSeconds(to));
    const double end = std::max(toUnixSeconds(from), toUnixSeconds(to));
    const double span = end - start;
    if (!(span > 0) || !db_) return {};
    int rc = SQLITE_OK;
    auto statement = prepareStatement(db_.get(), kCoverageRows, rc);
    if (!statement) {
      logSqliteError(rc, "historicalCoverage prepare");
      return {};
    }
    Binder(statement.get()).real(start).real(end);
    const auto textIs = [&](int column, std::initializer_list<std::string_view> labels) {
      const auto* raw = sqlite3_column_text(statement.get(), column);
      if (raw == nullptr) return false;
      const std::string_view text(
          reinterpret_cast<const char*>(raw),
          static_cast<std::size_t>(sqlite3_column_bytes(statement.get(), column)));
      return std::find(labels.begin(), labels.end(), text) != labels.end();
    };
    // A row speaks for at most 300 seconds; rows from before observed durations were stored fall
    // back on the distance to their predecessor in the period.
    double raw = 0;
    std::optional<double> previous;
    HistoricalCoverageSummary summary;
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
      const double timestamp = sqlite3_column_double(statement.get(), 0);
      const bool observed = sqlite3_column_type(statement.get(), 1) != SQLITE_NULL &&
                            sqlite3_column_double(statement.get(), 1) > 0;
      if (observed) {
        raw += std::min(sqlite3_column_double(statement.get(), 1), kGapSeconds);
      } else if (previous && timestamp - *previous >= 0 && timestamp - *previous <= kGapSeconds) {
        raw += timestamp - *previous;
      }
      previous = timestamp;
      if (textIs(2, {"rejected"}) || textIs(4, {"rejected"})) ++summary.rejectedCount;
      if (textIs(2, {"estimated", "inferred", "legacy"}) ||
          textIs(3, {"estimated", "inferred", "legacy"})) {
        ++summary.estimatedCount;
      }
    }
    if (rc != SQLITE_DONE) logSqliteError(rc, "historicalCoverage step");

    // Overlapping sleeps are not merged: the recorder never writes them, and clamping below keeps
    // the parts within the span if it ever did.
    double sleep = 0;
    for (const auto& interval : collectionIntervalsOnQueue(start, end)) {
      if (interval.status != CollectionIntervalStatus::sleep) continue;
      const double clippedStart = std::max(toUnixSeconds(interval.startTime), start);
      const double clippedEnd = std::min(toUnixSeconds(interval.endTime), end);
      sleep += std::max(0.0, clippedEnd - clippedStart);
    }
    const double awake = std::max(span - sleep, 0.0);
    summary.collectedSeconds = std::min(std::max(raw, 0.0), awake);
    summary.sleepingSeconds = std::min(sleep, span);
    summary.missingSeconds = std::max(awake - summary.collectedSeconds, 0.0);
    return summary;
  });
}

std::vector<SessionRecord> QuorelDatabase::queryRecentSessions(int limit) {
  return onQueue([&]() -> std::vector<SessionRecord> {
    if (!db_) return {};
    int rc = SQLITE_OK;
    auto statement = prepareStatement(db_.get(), kSelectRecentSessions, rc);
    if (!statement) {
      logSqliteError(rc, "queryRecentSessions prepare");
      return {};
    }
    Binder(statement.get()).integer(limit);
    std::vector<SessionRecord> sessions;
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
      ColumnReader c(statement.get());
      SessionRecord record;
      record.id = c.text();
      if (!isUUID(record.id)) continue;
      record.startTime = c.time();
      record.endTime = c.time();
      record.startPct = c.real();
      record.endPct = c.real();
      record.isCharging = c.integer() != 0;
      record.avgWattage = c.real();
      record.totalWh = c.real();
      const auto mode = c.optionalText();
      record.mode = mode ? powerSessionModeFromString(*mode).value_or(PowerSessionMode::legacy)
                         : PowerSessionMode::legacy;
      record.collectedDuration_s = c.real();
      record.missingDuration_s = c.real();
      record.quality = qualityOr(c.optionalText(), HistoricalValueQuality::unavailable);
      record.confidence = c.real();
      sessions.push_back(std::move(record));
    }
    if (rc != SQLITE_DONE) logSqliteError(rc, "queryRecentSessions step");
    return sessions;
  });
}

std::vector<DailyBatteryMetric> QuorelDatabase::queryDailyBatteryMetrics() {
  return onQueue([&]() -> std::vector<DailyBatteryMetric> {
    if (!db_) return {};
    int rc = SQLITE_OK;
    auto statement = prepareStatement(db_.get(), kSelectDailyMetrics, rc);
    if (!statement) {
      logSqliteError(rc, "queryDailyBatteryMetrics prepare");
      return {};
    }
    std::vector<DailyBatteryMetric> metrics;
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
      ColumnReader c(statement.get());
      DailyBatteryMetric m;
      m.dayStart = c.time();
      m.nominalCapacity_mAh = roundedInt(c.optionalReal());
      m.designCapacity_mAh = roundedInt(c.optionalReal());
      m.cycleCount = static_cast<std::int32_t>(c.integer());
      m.healthPct = c.real();
      m.averageTemperature_C = c.optionalReal();
      m.maxObservedTemperature_C = c.optionalReal();
      m.capacitySampleCount = static_cast<std::int32_t>(c.integer());
      m.temperatureObservedDuration_s = c.real();
      m.temperatureSampleCount = static_cast<std::int32_t>(c.integer());
      m.quality = qualityOr(c.optionalText(), HistoricalValueQuality::unavailable);
      metrics.push_back(m);
    }
    if (rc != SQLITE_DONE) logSqliteError(rc, "queryDailyBatteryMetrics step");
    return metrics;
  });
}

std::vector<CapacityLogEntry> QuorelDatabase::queryCapacityLog() {
  std::vector<CapacityLogEntry> entries;
  for (const auto& day : queryDailyBatteryMetrics()) {
    entries.push_back({.timestamp = day.dayStart,
                       .nominalCapacity_mAh = day.nominalCapacity_mAh,
                       .designCapacity_mAh = day.designCapacity_mAh,
                       .cycleCount = day.cycleCount,
                       .healthPct = day.healthPct,
                       .maxTemperature_C = day.maxObservedTemperature_C.value_or(
                           day.averageTemperature_C.value_or(0))});
  }
  return entries;
}

EnergySeries QuorelDatabase::queryProcessEnergy(TimePoint from, TimePoint to, int maxPoints,
                                                int topN) {
  return onQueue([&] {
    return energySeriesOnQueue(EnergyHistoryKind::processes, toUnixSeconds(from), toUnixSeconds(to),
                               maxPoints, topN);
  });
}

EnergySeries QuorelDatabase::queryAIAgentEnergy(TimePoint from, TimePoint to, int maxPoints,
                                                int topN) {
  return onQueue([&] {
    return energySeriesOnQueue(EnergyHistoryKind::agents, toUnixSeconds(from), toUnixSeconds(to),
                               maxPoints, topN);
  });
}

EnergySeries QuorelDatabase::energySeriesOnQueue(EnergyHistoryKind kind, double from, double to,
                                                 int maxPoints, int topN) {
  if (!db_) return {};
  const EnergyTable t = energyTable(kind);
  const std::string topSql = fmt::format(
      "SELECT {0} FROM {1}\nWHERE timestamp BETWEEN ? AND ?\nGROUP BY {0}\n"
      "ORDER BY SUM(energy_wh) DESC\nLIMIT ?",
      t.column, t.table);
  int rc = SQLITE_OK;
  auto top = prepareStatement(db_.get(), topSql.c_str(), rc);
  if (!top) {
    logSqliteError(rc, fmt::format("{} top prepare", t.name));
    return {};
  }
  Binder(top.get()).real(from).real(to).integer(topN);
  std::vector<std::string> names;
  while ((rc = sqlite3_step(top.get())) == SQLITE_ROW) {
    if (auto name = ColumnReader(top.get()).optionalText()) names.push_back(std::move(*name));
  }
  if (rc != SQLITE_DONE) logSqliteError(rc, fmt::format("{} top step", t.name));
  if (names.empty()) return {};

  std::string marks;
  for (std::size_t i = 0; i < names.size(); ++i) marks += i == 0 ? "?" : ",?";
  const std::string seriesSql = fmt::format(
      "SELECT {0},\n"
      "       CASE WHEN SUM(observed_duration_s)>0\n"
      "         THEN SUM(timestamp*observed_duration_s)/SUM(observed_duration_s)\n"
      "         ELSE AVG(timestamp) END,\n"
      "       CASE WHEN SUM(observed_duration_s)>0\n"
      "         THEN SUM(avg_watts*observed_duration_s)/SUM(observed_duration_s)\n"
      "         ELSE AVG(avg_watts) END\n"
      "FROM {1}\n"
      "WHERE {0} IN ({2})\n"
      "  AND timestamp BETWEEN ? AND ?\n"
      "GROUP BY {0}, CAST((timestamp - ?) / ? AS INTEGER)\n"
      "ORDER BY {0}, AVG(timestamp)",
      t.column, t.table, marks);
  auto series = prepareStatement(db_.get(), seriesSql.c_str(), rc);
  if (!series) {
    logSqliteError(rc, fmt::format("{} series prepare", t.name));
    return {};
  }
  Binder binder(series.get());
  for (const auto& name : names) binder.text(name);
  const double width =
      std::max(std::max(to - from, 1.0) / static_cast<double>(std::max(maxPoints, 1)), 1.0);
  binder.real(from).real(to).real(from).real(width);
  EnergySeries result;
  while ((rc = sqlite3_step(series.get())) == SQLITE_ROW) {
    ColumnReader c(series.get());
    std::string name = c.text();
    const double at = c.real();
    const double watts = c.real();
    result[std::move(name)].push_back({fromUnixSeconds(at), watts});
  }
  if (rc != SQLITE_DONE) logSqliteError(rc, fmt::format("{} series step", t.name));
  return result;
}

std::vector<TrackedEnergySummary> QuorelDatabase::queryTrackedEnergySummaries(
    std::string_view table, std::string_view identifierColumn, TimePoint from, TimePoint to,
    int limit) {
  // The names are pasted into SQL, so only the two known tables are accepted.
  std::optional<EnergyHistoryKind> kind;
  for (const auto k : {EnergyHistoryKind::processes, EnergyHistoryKind::agents}) {
    if (table == energyTable(k).table && identifierColumn == energyTable(k).column) kind = k;
  }
  if (!kind) {
    log_->error("queryTrackedEnergySummaries refused table {}.{} — not an energy table", table,
                identifierColumn);
    return {};
  }
  return onQueue([&] {
    return trackedEnergySummariesOnQueue(*kind, toUnixSeconds(from), toUnixSeconds(to), limit);
  });
}

std::vector<TrackedEnergySummary> QuorelDatabase::trackedEnergySummariesOnQueue(
    EnergyHistoryKind kind, double from, double to, int limit) {
  if (!db_) return {};
  const EnergyTable t = energyTable(kind);
  const std::string sql = fmt::format(
      "SELECT {0}, SUM(energy_wh),\n"
      "       SUM(observed_duration_s), SUM(missing_duration_s),\n"
      "       CASE WHEN SUM(observed_duration_s)>0\n"
      "         THEN SUM(energy_wh)*3600.0/SUM(observed_duration_s) ELSE 0 END,\n"
      "       MAX(peak_watts),\n"
      "       CASE WHEN SUM(CASE WHEN coverage_ratio IS NOT NULL THEN observed_duration_s ELSE 0 "
      "END)>0\n"
      "         THEN SUM(COALESCE(coverage_ratio,0)*observed_duration_s)\n"
      "              /SUM(CASE WHEN coverage_ratio IS NOT NULL THEN observed_duration_s ELSE 0 "
      "END)\n"
      "         ELSE NULL END,\n"
      "       CASE WHEN SUM(quality='rejected')>0 THEN 'rejected'\n"
      "            WHEN SUM(quality='legacy')>0 THEN 'legacy'\n"
      "            WHEN SUM(quality='estimated')>0 THEN 'estimated'\n"
      "            WHEN SUM(quality='inferred')>0 THEN 'inferred'\n"
      "            WHEN SUM(quality='measured')>0 THEN 'measured'\n"
      "            ELSE 'unavailable' END\n"
      "FROM {1}\nWHERE timestamp BETWEEN ? AND ?\nGROUP BY {0}\n"
      "ORDER BY SUM(energy_wh) DESC\nLIMIT ?",
      t.column, t.table);
  int rc = SQLITE_OK;
  auto statement = prepareStatement(db_.get(), sql.c_str(), rc);
  if (!statement) {
    logSqliteError(rc, "queryTrackedEnergySummaries prepare");
    return {};
  }
  Binder(statement.get()).real(from).real(to).integer(limit);
  std::vector<TrackedEnergySummary> summaries;
  while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
    ColumnReader c(statement.get());
    auto identifier = c.optionalText();
    if (!identifier) continue;
    TrackedEnergySummary s;
    s.identifier = std::move(*identifier);
    s.energyWh = c.real();
    s.observedDuration_s = c.real();
    s.missingDuration_s = c.real();
    s.averageWatts = c.real();
    s.peakWatts = c.real();
    if (const auto coverage = c.optionalReal()) {
      s.coverageRatio = std::min(*coverage, 1.0);
    } else {
      const double seen = s.observedDuration_s + s.missingDuration_s;
      s.coverageRatio = seen > 0 ? s.observedDuration_s / seen : 0;
    }
    s.quality = qualityOr(c.optionalText(), HistoricalValueQuality::unavailable);
    summaries.push_back(std::move(s));
  }
  if (rc != SQLITE_DONE) logSqliteError(rc, "queryTrackedEnergySummaries step");
  return summaries;
}

SqliteStatement QuorelDatabase::rowOnQueue(const std::string& sql, std::string_view context,
                                           std::initializer_list<std::optional<double>> bounds) {
  if (!db_) return {};
  int rc = SQLITE_OK;
  auto statement = prepareStatement(db_.get(), sql.c_str(), rc);
  if (!statement) {
    logSqliteError(rc, fmt::format("{} prepare", context));
    return {};
  }
  Binder binder(statement.get());
  for (const auto& bound : bounds) binder.real(bound);
  if (rc = sqlite3_step(statement.get()); rc != SQLITE_ROW) {
    logSqliteError(rc, fmt::format("{} step", context));
    return {};
  }
  return statement;
}

EnergyHistoryEntry QuorelDatabase::buildEnergyHistory(EnergyHistoryKind kind, TimePoint from,
                                                      TimePoint to) {
  const double f = toUnixSeconds(from);
  const double t = toUnixSeconds(to);
  const EnergyTable table = energyTable(kind);
  EnergyHistoryEntry entry;
  entry.from = from;
  entry.to = to;
  // One read transaction, so that the series, the ranking and the bounds see one state.
  const bool inTransaction = transaction("BEGIN DEFERRED TRANSACTION") == SQLITE_OK;
  entry.snapshot.series = energySeriesOnQueue(kind, f, t, 200, 6);
  for (auto& summary : trackedEnergySummariesOnQueue(kind, f, t, 500)) {
    std::string identifier = summary.identifier;
    entry.snapshot.summaries.emplace(std::move(identifier), std::move(summary));
  }
  const std::string first =
      fmt::format("SELECT MIN(timestamp) FROM {} WHERE timestamp BETWEEN ? AND ?", table.table);
  const std::string next =
      fmt::format("SELECT MIN(timestamp) FROM {} WHERE timestamp > ?", table.table);
  if (auto row = rowOnQueue(first, "cachedEnergyHistory", {f, t})) {
    entry.firstTimestamp = ColumnReader(row.get()).optionalTime();
  }
  if (auto row = rowOnQueue(next, "cachedEnergyHistory", {t})) {
    entry.nextTimestamp = ColumnReader(row.get()).optionalTime();
  }
  if (inTransaction) transaction("COMMIT");
  ++energyHistoryBuilds_;
  return entry;
}

EnergyHistorySnapshot QuorelDatabase::cachedEnergyHistory(EnergyHistoryKind kind,
                                                          EnergyHistoryWindow window,
                                                          TimePoint from, TimePoint to) {
  return onQueue([&]() -> EnergyHistorySnapshot {
    if (!db_) return {};
    const std::uint64_t revision = energyRevision_[static_cast<std::size_t>(kind)];
    std::int32_t dataVersion = -1;
    {
      int rc = SQLITE_OK;
      auto statement = prepareStatement(db_.get(), "PRAGMA data_version", rc);
      if (statement && sqlite3_step(statement.get()) == SQLITE_ROW) {
        dataVersion = static_cast<std::int32_t>(sqlite3_column_int(statement.get(), 0));
      }
    }
    const EnergyHistoryKey key{kind, window};
    if (auto found = energyHistoryCache_.find(key); found != energyHistoryCache_.end()) {
      const EnergyHistoryEntry& entry = found->second;
      if (entry.revision == revision && dataVersion >= 0 && entry.dataVersion == dataVersion &&
          entry.containsSameRecords(from, to) &&
          (!entry.nextTimestamp || to < *entry.nextTimestamp)) {
        return entry.snapshot;
      }
    }
    EnergyHistoryEntry entry = buildEnergyHistory(kind, from, to);
    entry.revision = revision;
    entry.dataVersion = dataVersion;
    if (energyHistoryCache_.size() >= 16 && !energyHistoryCache_.contains(key)) {
      const auto oldest =
          std::min_element(energyHistoryCache_.begin(), energyHistoryCache_.end(),
                           [](const auto& a, const auto& b) { return a.second.to < b.second.to; });
      energyHistoryCache_.erase(oldest);
    }
    EnergyHistorySnapshot snapshot = entry.snapshot;
    energyHistoryCache_.insert_or_assign(key, std::move(entry));
    return snapshot;
  });
}

double QuorelDatabase::totalComponentEnergy_Wh() {
  return onQueue([&]() -> double {
    if (!db_) return 0;
    double lastTs = 0;
    double lastTotal = 0;
    double accumulated = 0;
    int rc = SQLITE_OK;
    {
      auto state = prepareStatement(
          db_.get(),
          "SELECT last_ts, last_total_w, accumulated_wh FROM lifetime_energy_state WHERE id = 1",
          rc);
      if (!state) {
        logSqliteError(rc, "totalComponentEnergy load state");
      } else if (rc = sqlite3_step(state.get()); rc == SQLITE_ROW) {
        ColumnReader c(state.get());
        lastTs = c.real();
        lastTotal = c.real();
        accumulated = c.real();
      } else if (rc != SQLITE_DONE) {
        logSqliteError(rc, "totalComponentEnergy load state");
      }
    }

    auto rows = prepareStatement(db_.get(), kLifetimeRows, rc);
    if (!rows) {
      logSqliteError(rc, "totalComponentEnergy prepare");
      return accumulated;
    }
    Binder(rows.get()).real(lastTs);
    // The stored checkpoint stands in for the row before the first new one; on a fresh state
    // there is none.
    std::optional<std::pair<double, double>> previous;
    if (lastTs > 0) previous = {lastTs, lastTotal};
    std::optional<std::pair<double, double>> last;
    double sum = accumulated;
    while ((rc = sqlite3_step(rows.get())) == SQLITE_ROW) {
      ColumnReader c(rows.get());
      const double ts = c.real();
      const double total = c.real();
      if (previous) {
        const double dt = ts - previous->first;
        if (dt > 0 && dt <= kGapSeconds && total >= 0 && previous->second >= 0) {
          sum += dt * ((previous->second + total) * 0.5) / 3600.0;
        }
      }
      previous = {ts, total};
      last = previous;
    }
    if (rc != SQLITE_DONE) logSqliteError(rc, "totalComponentEnergy step");

    if (last && last->first > lastTs && !readOnly_) {
      auto update = prepareStatement(db_.get(),
                                     "UPDATE lifetime_energy_state SET last_ts = ?, "
                                     "last_total_w = ?, accumulated_wh = ? WHERE id = 1",
                                     rc);
      if (!update) {
        logSqliteError(rc, "totalComponentEnergy update prepare");
      } else {
        Binder(update.get()).real(last->first).real(last->second).real(sum);
        if (rc = sqlite3_step(update.get()); rc != SQLITE_DONE) {
          logSqliteError(rc, "totalComponentEnergy update");
        }
      }
    }
    return sum;
  });
}

std::optional<PowerSampleDateRange> QuorelDatabase::powerSampleDateRange() {
  return onQueue([&]() -> std::optional<PowerSampleDateRange> {
    auto row = rowOnQueue("SELECT MIN(timestamp), MAX(timestamp) FROM power_samples",
                          "powerSampleDateRange");
    if (!row) return std::nullopt;
    ColumnReader c(row.get());
    const auto first = c.optionalTime();
    const auto last = c.optionalTime();
    if (!first || !last) return std::nullopt;
    return PowerSampleDateRange{*first, *last};
  });
}

std::optional<TimePoint> QuorelDatabase::oldestPowerSampleDate() {
  return onQueue([&]() -> std::optional<TimePoint> {
    auto row = rowOnQueue("SELECT MIN(timestamp) FROM power_samples", "oldestPowerSampleDate");
    if (!row) return std::nullopt;
    return ColumnReader(row.get()).optionalTime();
  });
}

DatabaseInfo QuorelDatabase::databaseInfo() {
  DatabaseInfo info;
  info.sampleCount = onQueue([&]() -> std::int64_t {
    auto row = rowOnQueue("SELECT COUNT(*) FROM power_samples", "databaseInfo count");
    if (!row) return 0;
    return ColumnReader(row.get()).integer();
  });
  if (databasePath_) {
    std::error_code ec;
    const auto bytes = std::filesystem::file_size(*databasePath_, ec);
    if (!ec) info.bytes = bytes;
  }
  return info;
}

std::optional<int> QuorelDatabase::schemaVersion() {
  return onQueue([&]() -> std::optional<int> {
    auto row = rowOnQueue("PRAGMA user_version", "schemaVersion");
    if (!row) return std::nullopt;
    return static_cast<int>(ColumnReader(row.get()).integer());
  });
}

}  // namespace quorel
