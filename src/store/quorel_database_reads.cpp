// The read path of the history store, samples side: thinned samples, collection intervals,
// coverage, the lifetime energy counter and facts about the file; with the helpers every read
// shares. Everything here runs on queue(); the public calls wait for it. Sessions and daily
// metrics are in quorel_database_session_reads.cpp, tracked energy in
// quorel_database_energy_reads.cpp.

#include <fmt/format.h>

#include <algorithm>
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
// The rows after a checkpoint: the same, with the lower end open.
constexpr const char* kCoverageRowsAfter =
    "SELECT timestamp, observed_duration_s, component_quality, system_power_quality,"
    " wall_estimate_quality FROM power_samples WHERE timestamp > ? AND timestamp <= ?"
    " ORDER BY timestamp";
// Rows this far behind the newest are taken as settled: none arrive later with an earlier time.
constexpr double kCoverageSettleSeconds = 600;
constexpr std::size_t kCoverageCheckpoints = 4;

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
  s.componentQuality = c.quality();
  s.systemPowerQuality = c.quality();
  s.wallEstimateQuality = c.quality();
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

Error QuorelDatabase::unavailableError() const {
  return Error{"the database is not available: " +
               (unavailableReason_.empty() ? std::string("it is closed") : unavailableReason_)};
}

Error QuorelDatabase::readFailure(int rc, std::string_view context) {
  Error error{db_.errorMessage()};
  db_.logError(rc, context);
  return error;
}

Result<SqliteStatement> QuorelDatabase::rowOnQueue(
    const std::string& sql, std::string_view context,
    std::initializer_list<std::optional<double>> bounds) {
  if (!db_) return unavailableError();
  int rc = SQLITE_OK;
  auto statement = prepareStatement(db_.get(), sql.c_str(), rc);
  if (!statement) return readFailure(rc, fmt::format("{} prepare", context));
  Binder binder(statement.get());
  for (const auto& bound : bounds) binder.real(bound);
  if (rc = sqlite3_step(statement.get()); rc != SQLITE_ROW) {
    return readFailure(rc, fmt::format("{} step", context));
  }
  return statement;
}

Result<std::vector<PowerSample>> QuorelDatabase::queryPowerSamples(TimePoint from, TimePoint to,
                                                                   int maxPoints) {
  return onQueue([&]() -> Result<std::vector<PowerSample>> {
    if (!db_) return unavailableError();
    int rc = SQLITE_OK;
    auto statement = prepareStatement(db_.get(), kSelectPowerSamples, rc);
    if (!statement) return readFailure(rc, "queryPowerSamples prepare");
    ++powerHistoryReads_;
    Binder(statement.get()).time(from).time(to);
    std::vector<PowerSample> samples;
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
      samples.push_back(readSample(statement.get()));
    }
    if (rc != SQLITE_DONE) return readFailure(rc, "queryPowerSamples step");
    return HistoricalPowerDownsampler::downsample(std::move(samples), maxPoints);
  });
}

Result<std::vector<CollectionIntervalRecord>> QuorelDatabase::queryCollectionIntervals(
    TimePoint from, TimePoint to) {
  return onQueue(
      [&] { return collectionIntervalsOnQueue(toUnixSeconds(from), toUnixSeconds(to)); });
}

Result<std::vector<CollectionIntervalRecord>> QuorelDatabase::collectionIntervalsOnQueue(
    double from, double to) {
  if (!db_) return unavailableError();
  int rc = SQLITE_OK;
  auto statement = prepareStatement(db_.get(), kSelectCollectionIntervals, rc);
  if (!statement) return readFailure(rc, "queryCollectionIntervals prepare");
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
  if (rc != SQLITE_DONE) return readFailure(rc, "queryCollectionIntervals step");
  return intervals;
}

std::optional<std::int64_t> QuorelDatabase::dataVersion() {
  int rc = SQLITE_OK;
  auto statement = prepareStatement(db_.get(), "PRAGMA data_version", rc);
  if (!statement || sqlite3_step(statement.get()) != SQLITE_ROW) return std::nullopt;
  return sqlite3_column_int64(statement.get(), 0);
}

Result<HistoricalCoverageSummary> QuorelDatabase::historicalCoverage(TimePoint from, TimePoint to) {
  return onQueue([&]() -> Result<HistoricalCoverageSummary> {
    if (!db_) return unavailableError();
    const double start = std::min(toUnixSeconds(from), toUnixSeconds(to));
    const double end = std::max(toUnixSeconds(from), toUnixSeconds(to));
    const double span = end - start;
    if (!(span > 0)) return HistoricalCoverageSummary{};
    // A period that starts where an earlier one did (the lifetime, today) resumes from what was
    // counted then, so that asking again reads only the rows since. This connection only adds
    // newer rows; another connection's change to the file (data_version moves) voids it all.
    if (const auto version = dataVersion(); version != coverageDataVersion_) {
      coverageCheckpoints_.clear();
      coverageDataVersion_ = version;
    }
    CoverageCheckpoint counted{start, start, 0, std::nullopt, 0, 0};
    bool resumed = false;
    if (const auto found = coverageCheckpoints_.find(start);
        found != coverageCheckpoints_.end() && found->second.through <= end) {
      counted = found->second;
      resumed = true;
    }
    int rc = SQLITE_OK;
    auto statement = prepareStatement(db_.get(), resumed ? kCoverageRowsAfter : kCoverageRows, rc);
    if (!statement) return readFailure(rc, "historicalCoverage prepare");
    Binder(statement.get()).real(counted.through).real(end);
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
    const double settled = end - kCoverageSettleSeconds;
    std::optional<CoverageCheckpoint> checkpoint;
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
      const double timestamp = sqlite3_column_double(statement.get(), 0);
      const bool observed = sqlite3_column_type(statement.get(), 1) != SQLITE_NULL &&
                            sqlite3_column_double(statement.get(), 1) > 0;
      if (observed) {
        counted.raw += std::min(sqlite3_column_double(statement.get(), 1), kGapSeconds);
      } else if (counted.previous && timestamp - *counted.previous >= 0 &&
                 timestamp - *counted.previous <= kGapSeconds) {
        counted.raw += timestamp - *counted.previous;
      }
      counted.previous = timestamp;
      if (textIs(2, {"rejected"}) || textIs(4, {"rejected"})) ++counted.rejected;
      if (textIs(2, {"estimated", "inferred", "legacy"}) ||
          textIs(3, {"estimated", "inferred", "legacy"})) {
        ++counted.estimated;
      }
      if (timestamp <= settled) {
        checkpoint = counted;
        checkpoint->through = timestamp;
      }
    }
    if (rc != SQLITE_DONE) return readFailure(rc, "historicalCoverage step");
    if (checkpoint && coverageDataVersion_) {
      if (coverageCheckpoints_.size() >= kCoverageCheckpoints &&
          !coverageCheckpoints_.contains(start)) {
        coverageCheckpoints_.erase(coverageCheckpoints_.begin());
      }
      coverageCheckpoints_[start] = *checkpoint;
    }
    HistoricalCoverageSummary summary;
    summary.rejectedCount = counted.rejected;
    summary.estimatedCount = counted.estimated;
    const double raw = counted.raw;

    const auto intervals = collectionIntervalsOnQueue(start, end);
    if (!intervals) return intervals.error();
    // Overlapping sleeps are not merged: the recorder never writes them, and clamping below keeps
    // the parts within the span if it ever did.
    double sleep = 0;
    for (const auto& interval : *intervals) {
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

Result<double> QuorelDatabase::totalComponentEnergy_Wh() {
  return onQueue([&]() -> Result<double> {
    if (!db_) return unavailableError();
    double lastTs = 0;
    double lastTotal = 0;
    double accumulated = 0;
    int rc = SQLITE_OK;
    {
      auto state = prepareStatement(
          db_.get(),
          "SELECT last_ts, last_total_w, accumulated_wh FROM lifetime_energy_state WHERE id = 1",
          rc);
      if (!state) return readFailure(rc, "totalComponentEnergy load state");
      if (rc = sqlite3_step(state.get()); rc == SQLITE_ROW) {
        ColumnReader c(state.get());
        lastTs = c.real();
        lastTotal = c.real();
        accumulated = c.real();
      } else if (rc != SQLITE_DONE) {
        return readFailure(rc, "totalComponentEnergy load state");
      }
    }

    auto rows = prepareStatement(db_.get(), kLifetimeRows, rc);
    if (!rows) return readFailure(rc, "totalComponentEnergy prepare");
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
    if (rc != SQLITE_DONE) return readFailure(rc, "totalComponentEnergy step");

    // A checkpoint that cannot be moved costs only speed: the next call reads the rows again.
    if (last && last->first > lastTs && !readOnly_) {
      auto update = prepareStatement(db_.get(),
                                     "UPDATE lifetime_energy_state SET last_ts = ?, "
                                     "last_total_w = ?, accumulated_wh = ? WHERE id = 1",
                                     rc);
      if (!update) {
        db_.logError(rc, "totalComponentEnergy update prepare");
      } else {
        Binder(update.get()).real(last->first).real(last->second).real(sum);
        if (rc = sqlite3_step(update.get()); rc != SQLITE_DONE) {
          db_.logError(rc, "totalComponentEnergy update");
        }
      }
    }
    return sum;
  });
}

Result<std::optional<PowerSampleDateRange>> QuorelDatabase::powerSampleDateRange() {
  return onQueue([&]() -> Result<std::optional<PowerSampleDateRange>> {
    // Two subqueries, since SQLite answers a lone MIN or MAX from the time index but scans every
    // row for the two together.
    auto row = rowOnQueue(
        "SELECT (SELECT MIN(timestamp) FROM power_samples), (SELECT MAX(timestamp) FROM "
        "power_samples)",
        "powerSampleDateRange");
    if (!row) return row.error();
    ColumnReader c(row->get());
    const auto first = c.optionalTime();
    const auto last = c.optionalTime();
    if (!first || !last) return std::optional<PowerSampleDateRange>();
    return std::optional(PowerSampleDateRange{*first, *last});
  });
}

Result<PowerSampleTally> QuorelDatabase::powerSampleTally(TimePoint from, TimePoint to) {
  return onQueue([&]() -> Result<PowerSampleTally> {
    if (!db_) return unavailableError();
    int rc = SQLITE_OK;
    auto statement = prepareStatement(
        db_.get(),
        "SELECT COUNT(*), MAX(timestamp) FROM power_samples WHERE timestamp BETWEEN ? AND ?", rc);
    if (!statement) return readFailure(rc, "powerSampleTally prepare");
    Binder(statement.get()).time(from).time(to);
    if (rc = sqlite3_step(statement.get()); rc != SQLITE_ROW) {
      return readFailure(rc, "powerSampleTally step");
    }
    ColumnReader c(statement.get());
    PowerSampleTally tally;
    tally.count = static_cast<std::size_t>(c.integer());
    tally.last = c.optionalTime();
    return tally;
  });
}

std::optional<TimePoint> QuorelDatabase::oldestPowerSampleDate() {
  return onQueue([&]() -> std::optional<TimePoint> {
    auto row = rowOnQueue("SELECT MIN(timestamp) FROM power_samples", "oldestPowerSampleDate");
    if (!row) return std::nullopt;
    return ColumnReader(row->get()).optionalTime();
  });
}

DatabaseInfo QuorelDatabase::databaseInfo() {
  DatabaseInfo info;
  info.sampleCount = onQueue([&]() -> std::int64_t {
    auto row = rowOnQueue("SELECT COUNT(*) FROM power_samples", "databaseInfo count");
    if (!row) return 0;
    return ColumnReader(row->get()).integer();
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
    return static_cast<int>(ColumnReader(row->get()).integer());
  });
}

}  // namespace quorel
