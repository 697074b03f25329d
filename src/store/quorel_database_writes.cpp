// The write path of the history store: cached inserts, the daily upserts, the energy batches and
// retention. Everything here runs on queue(); the public calls only post.

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

#include "core/local_time.hpp"
#include "store/quorel_database.hpp"
#include "store/sample_quality_gate.hpp"
#include "store/sqlite_binder.hpp"

namespace quorel {

namespace {

constexpr const char* kInsertPowerSample =
    "INSERT INTO power_samples (timestamp, wattage, battery_pct, ecpu_w, pcpu_w, gpu_w, ane_w,"
    " dram_w, system_load_w, power_in_w, wall_power_w, thermal_state, is_charging,"
    " external_connected, temperature_c, observed_duration_s, component_quality,"
    " system_power_quality, wall_estimate_quality, component_rejection_reason, system_total_w,"
    " battery_rail_w, dc_in_w, thunderbolt_left_w, thunderbolt_right_w, pd_brightness_w)"
    " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";

constexpr const char* kInsertCapacityLog =
    "INSERT INTO capacity_log (timestamp, nominal_capacity_mah, design_capacity_mah,"
    " cycle_count, health_pct, max_temperature_c) VALUES (?, ?, ?, ?, ?, ?)";

constexpr const char* kInsertSession =
    "INSERT INTO sessions (id, start_time, end_time, start_pct, end_pct, is_charging,"
    " avg_wattage, total_wh, mode, collected_duration_s, missing_duration_s, quality,"
    " confidence) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";

constexpr const char* kInsertProcessEnergy =
    "INSERT INTO process_energy (timestamp, process_name, avg_cpu, avg_watts, peak_watts, "
    "sample_count, observed_duration_s, missing_duration_s, energy_wh, coverage_ratio, quality, "
    "source) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";

constexpr const char* kInsertAIAgentEnergy =
    "INSERT INTO ai_agent_energy (timestamp, agent_id, avg_cpu, avg_watts, peak_watts, "
    "sample_count, observed_duration_s, missing_duration_s, energy_wh, coverage_ratio, quality, "
    "source) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";

// The means are weighted by the number of readings already folded in. A day first made by a
// temperature row has no capacities and a count of 0; COALESCE lets its first capacity reading
// become the mean instead of NULL poisoning the day for good (the multi-argument max() of SQLite
// is NULL as soon as one argument is).
constexpr const char* kUpsertDailyCapacity =
    "INSERT INTO daily_battery_metrics\n"
    "    (day_key, day_start, nominal_capacity_mah, design_capacity_mah,\n"
    "     cycle_count, health_pct, capacity_sample_count, quality)\n"
    "VALUES (?, ?, ?, ?, ?, ?, 1, 'measured')\n"
    "ON CONFLICT(day_key) DO UPDATE SET\n"
    "    day_start=min(day_start,excluded.day_start),\n"
    "    nominal_capacity_mah=(COALESCE(nominal_capacity_mah,0)*capacity_sample_count"
    "+excluded.nominal_capacity_mah)/(capacity_sample_count+1),\n"
    "    design_capacity_mah=(COALESCE(design_capacity_mah,0)*capacity_sample_count"
    "+excluded.design_capacity_mah)/(capacity_sample_count+1),\n"
    "    cycle_count=max(COALESCE(cycle_count,excluded.cycle_count),excluded.cycle_count),\n"
    "    health_pct=(COALESCE(health_pct,0)*capacity_sample_count+excluded.health_pct)"
    "/(capacity_sample_count+1),\n"
    "    capacity_sample_count=capacity_sample_count+1,\n"
    "    quality='measured'";

// The average is weighted by observed seconds; quality is left as it is, since only capacity
// readings make a day 'measured'.
constexpr const char* kUpsertDailyTemperature =
    "INSERT INTO daily_battery_metrics\n"
    "    (day_key, day_start, avg_temperature_c, max_temperature_c,\n"
    "     temperature_observed_s, temperature_sample_count, quality)\n"
    "VALUES (?, ?, ?, ?, ?, 1, 'measured')\n"
    "ON CONFLICT(day_key) DO UPDATE SET\n"
    "    day_start=min(day_start,excluded.day_start),\n"
    "    avg_temperature_c=CASE WHEN excluded.temperature_observed_s > 0\n"
    "        THEN (COALESCE(avg_temperature_c,0)*temperature_observed_s"
    "+excluded.avg_temperature_c*excluded.temperature_observed_s)"
    "/(temperature_observed_s+excluded.temperature_observed_s)\n"
    "        ELSE avg_temperature_c END,\n"
    "    max_temperature_c=max(COALESCE(max_temperature_c,excluded.max_temperature_c),"
    "excluded.max_temperature_c),\n"
    "    temperature_observed_s=temperature_observed_s+excluded.temperature_observed_s,\n"
    "    temperature_sample_count=temperature_sample_count+1";

constexpr const char* kInsertCollectionInterval =
    "INSERT INTO collection_intervals (start_time,end_time,status,reason) VALUES (?,?,?,?)";

constexpr double kSecondsPerDay = 24.0 * 3600.0;

// Also turns NaN into 0: these columns are NOT NULL, and one bad figure must not cost a batch.
double atLeastZero(double value) {
  return value > 0 ? value : 0;
}

}  // namespace

void QuorelDatabase::prepareCachedStatements() {
  const std::pair<SqliteStatement*, std::pair<const char*, const char*>> all[] = {
      {&statements_.insertPowerSample, {kInsertPowerSample, "prepare insertPowerSample"}},
      {&statements_.insertCapacityLog, {kInsertCapacityLog, "prepare insertCapacityLog"}},
      {&statements_.insertSession, {kInsertSession, "prepare insertSession"}},
      {&statements_.insertProcessEnergy, {kInsertProcessEnergy, "prepare insertProcessEnergy"}},
      {&statements_.insertAIAgentEnergy, {kInsertAIAgentEnergy, "prepare insertAIAgentEnergy"}},
      {&statements_.upsertDailyCapacity, {kUpsertDailyCapacity, "prepare upsertDailyCapacity"}},
      {&statements_.upsertDailyTemperature,
       {kUpsertDailyTemperature, "prepare upsertDailyTemperature"}},
  };
  for (const auto& [slot, sqlAndContext] : all) {
    int rc = SQLITE_OK;
    *slot = prepareStatement(db_.get(), sqlAndContext.first, rc);
    if (!*slot) db_.logError(rc, sqlAndContext.second);
  }
}

int QuorelDatabase::transaction(const char* sql) {
  return db_.exec(sql);
}

// The blocks below capture `this`: the queue belongs to the object, and the destructor closes
// the connection on the queue and then shuts it down, so no block can run after the object is
// gone; one that runs after close() finds `db_` null and does nothing.

void QuorelDatabase::insertPowerSample(const PowerSample& sample) {
  queue_.async([this, sample] {
    sqlite3_stmt* statement = statements_.insertPowerSample.get();
    if (!db_ || !statement) return;
    const PowerSample s = qualityChecked(sample);
    Binder(statement)
        .time(s.timestamp)
        .real(s.wattage)
        .real(s.batteryPct)
        .real(s.ecpuW)
        .real(s.pcpuW)
        .real(s.gpuW)
        .real(s.aneW)
        .real(s.dramW)
        .real(s.systemLoadW)
        .real(s.powerInW)
        .real(s.wallPowerW)
        .integer(s.thermalState)
        .boolean(s.isCharging)
        .boolean(s.externalConnected)
        .real(s.temperatureC)
        .real(s.observedDurationS)
        .text(toString(s.componentQuality))
        .text(toString(s.systemPowerQuality))
        .text(toString(s.wallEstimateQuality))
        .optionalText(s.componentRejectionReason)
        .real(s.systemTotalW)
        .real(s.batteryRailW)
        .real(s.dcInW)
        .real(s.thunderboltLeftW)
        .real(s.thunderboltRightW)
        .real(s.pdBrightnessW);
    if (const int rc = sqlite3_step(statement); rc != SQLITE_DONE) {
      db_.logError(rc, "insertPowerSample step");
      return;
    }
    upsertDailyTemperature(s);
  });
}

void QuorelDatabase::upsertDailyTemperature(const PowerSample& sample) {
  sqlite3_stmt* statement = statements_.upsertDailyTemperature.get();
  if (!statement) return;
  if (!sample.temperatureC || !std::isfinite(*sample.temperatureC) || *sample.temperatureC <= 0) {
    return;
  }
  const double duration = atLeastZero(sample.observedDurationS.value_or(0));
  if (duration <= 0) return;
  const DayIdentity day = dayIdentity(sample.timestamp);
  Binder(statement)
      .text(day.key)
      .real(day.start)
      .real(*sample.temperatureC)
      .real(*sample.temperatureC)
      .real(duration);
  if (const int rc = sqlite3_step(statement); rc != SQLITE_DONE) {
    db_.logError(rc, "upsertDailyTemperature step");
  }
}

void QuorelDatabase::insertCapacityLog(const CapacityLogEntry& entry) {
  queue_.async([this, entry] {
    sqlite3_stmt* statement = statements_.insertCapacityLog.get();
    if (!db_ || !statement) return;
    Binder(statement)
        .time(entry.timestamp)
        .integer(entry.nominalCapacity_mAh)
        .integer(entry.designCapacity_mAh)
        .integer(entry.cycleCount)
        .real(entry.healthPct)
        .real(entry.maxTemperature_C);
    if (const int rc = sqlite3_step(statement); rc != SQLITE_DONE) {
      db_.logError(rc, "insertCapacityLog step");
      return;
    }
    upsertDailyCapacity(entry);
  });
}

void QuorelDatabase::upsertDailyCapacity(const CapacityLogEntry& entry) {
  sqlite3_stmt* statement = statements_.upsertDailyCapacity.get();
  if (!statement) return;
  const DayIdentity day = dayIdentity(entry.timestamp);
  Binder(statement)
      .text(day.key)
      .real(day.start)
      .real(static_cast<double>(entry.nominalCapacity_mAh))
      .real(static_cast<double>(entry.designCapacity_mAh))
      .integer(entry.cycleCount)
      .real(entry.healthPct);
  if (const int rc = sqlite3_step(statement); rc != SQLITE_DONE) {
    db_.logError(rc, "upsertDailyCapacity step");
  }
}

void QuorelDatabase::insertSession(const SessionRecord& record) {
  queue_.async([this, record] {
    sqlite3_stmt* statement = statements_.insertSession.get();
    if (!db_ || !statement) return;
    Binder(statement)
        .text(record.id)
        .time(record.startTime)
        .time(record.endTime)
        .real(record.startPct)
        .real(record.endPct)
        .boolean(record.isCharging)
        .real(record.avgWattage)
        .real(record.totalWh)
        .text(toString(record.mode))
        .real(atLeastZero(record.collectedDuration_s))
        .real(atLeastZero(record.missingDuration_s))
        .text(toString(record.quality))
        .real(std::min(atLeastZero(record.confidence), 1.0));
    if (const int rc = sqlite3_step(statement); rc != SQLITE_DONE) {
      db_.logError(rc, "insertSession step");
    }
  });
}

void QuorelDatabase::insertCollectionInterval(TimePoint from, TimePoint to,
                                              CollectionIntervalStatus status,
                                              std::optional<std::string> reason) {
  queue_.async([this, from, to, status, reason = std::move(reason)] {
    if (!db_) return;
    // Such rows are rare, so the statement is not worth keeping.
    int rc = SQLITE_OK;
    auto statement = prepareStatement(db_.get(), kInsertCollectionInterval, rc);
    if (!statement) {
      db_.logError(rc, "insertCollectionInterval prepare");
      return;
    }
    Binder(statement.get()).time(from).time(to).text(toString(status)).optionalText(reason);
    if (rc = sqlite3_step(statement.get()); rc != SQLITE_DONE) {
      db_.logError(rc, "insertCollectionInterval step");
    }
  });
}

void QuorelDatabase::insertProcessEnergy(std::vector<TrackedEnergyRecord> records) {
  queue_.async([this, records = std::move(records)] {
    insertEnergyBatch(EnergyHistoryKind::processes, records);
  });
}

void QuorelDatabase::insertAIAgentEnergy(std::vector<TrackedEnergyRecord> records) {
  queue_.async([this, records = std::move(records)] {
    insertEnergyBatch(EnergyHistoryKind::agents, records);
  });
}

void QuorelDatabase::insertEnergyBatch(EnergyHistoryKind kind,
                                       const std::vector<TrackedEnergyRecord>& records) {
  const bool processes = kind == EnergyHistoryKind::processes;
  sqlite3_stmt* statement =
      processes ? statements_.insertProcessEnergy.get() : statements_.insertAIAgentEnergy.get();
  if (!db_ || !statement) return;
  const std::string name = processes ? "insertProcessEnergy" : "insertAIAgentEnergy";

  if (const int rc = transaction("BEGIN TRANSACTION"); rc != SQLITE_OK) {
    db_.logError(rc, name + " BEGIN");
    return;
  }
  // What the table will hold for each record; the rollup folds in exactly these values.
  std::vector<EnergyRollup::Row> rows;
  rows.reserve(records.size());
  for (const auto& record : records) {
    rows.push_back(
        {.timestamp = toUnixSeconds(record.timestamp),
         .identifier = record.identifier,
         .energyWh = atLeastZero(record.energyWh),
         .observed_s = atLeastZero(record.observedDuration_s),
         .missing_s = atLeastZero(record.missingDuration_s),
         // SQLite stores a NaN as NULL.
         .peakWatts = std::isnan(record.peakWatts) ? std::nullopt : std::optional(record.peakWatts),
         .coverage = record.coverageRatio > 0 ? std::optional(std::min(record.coverageRatio, 1.0))
                                              : std::nullopt,
         .quality = toString(record.quality)});
  }
  // A failure does not stop the loop: every bad record of the batch gets its own log line.
  bool failed = false;
  for (std::size_t i = 0; i < records.size(); ++i) {
    const TrackedEnergyRecord& record = records[i];
    const EnergyRollup::Row& row = rows[i];
    Binder(statement)
        .real(row.timestamp)
        .text(row.identifier)
        .real(record.averageCPU)
        .real(atLeastZero(record.averageWatts))
        .real(row.peakWatts)
        .integer(record.sampleCount)
        .real(row.observed_s)
        .real(row.missing_s)
        .real(row.energyWh)
        .real(row.coverage)
        .text(row.quality)
        .text(record.source);
    if (const int rc = sqlite3_step(statement); rc != SQLITE_DONE) {
      db_.logError(rc, name + " step");
      failed = true;
    }
  }
  sqlite3_reset(statement);

  if (failed) {
    transaction("ROLLBACK");
    return;
  }
  if (const int rc = transaction("COMMIT"); rc != SQLITE_OK) {
    db_.logError(rc, name + " COMMIT");
    transaction("ROLLBACK");
    return;
  }
  ++energyRevision_[static_cast<std::size_t>(kind)];
  EnergyRollup& rollup = energyRollups_[static_cast<std::size_t>(kind)];
  for (const auto& row : rows) rollup.add(row);
}

void QuorelDatabase::pruneOldData(int retentionDays, int capacityRetentionDays) {
  queue_.async([this, retentionDays, capacityRetentionDays] {
    energyHistoryCache_.clear();
    coverageCheckpoints_.clear();
    if (!db_) return;
    const double now = toUnixSeconds(clock_.now());
    const double retentionCutoff = now + retentionDays * -kSecondsPerDay;
    // Keeping samples forever keeps the capacity history too.
    const double capacityCutoff =
        retentionDays >= 1 ? now + capacityRetentionDays * -kSecondsPerDay : 0;

    const bool keepsResidency = createResidencyTables();
    if (const int rc = transaction("BEGIN TRANSACTION"); rc != SQLITE_OK) {
      db_.logError(rc, "pruneOldData BEGIN");
      return;
    }
    const double staleCapacityCutoff = now - 86400.0;
    std::vector<std::pair<std::string, double>> deletes;
    if (retentionDays > 0) {
      deletes = {
          {"DELETE FROM power_samples WHERE timestamp < ?", retentionCutoff},
          {"DELETE FROM sessions WHERE start_time < ?", retentionCutoff},
          {"DELETE FROM process_energy WHERE timestamp < ?", retentionCutoff},
          {"DELETE FROM ai_agent_energy WHERE timestamp < ?", retentionCutoff},
          // The daily table is the long memory behind forecasts and habits, so it follows the
          // capacity horizon, not the sample one.
          {"DELETE FROM daily_battery_metrics WHERE day_start < ?", capacityCutoff},
          {"DELETE FROM collection_intervals WHERE end_time < ?", retentionCutoff},
      };
      if (keepsResidency) {
        // A day that loses rows is kept again from what remains of it.
        deletes.emplace_back("DELETE FROM residency_days WHERE day_start < ?", retentionCutoff);
        deletes.emplace_back("DELETE FROM residency_day_totals WHERE day_start < ?",
                             retentionCutoff);
      }
    }
    // A reading without a design capacity is a misread; it goes after a day whatever the
    // settings say.
    deletes.emplace_back(fmt::format("DELETE FROM capacity_log WHERE timestamp < ? OR "
                                     "((design_capacity_mah IS NULL OR design_capacity_mah = 0) "
                                     "AND timestamp < {:.6f})",
                                     staleCapacityCutoff),
                         capacityCutoff);

    bool failed = false;
    for (const auto& [sql, cutoff] : deletes) {
      int rc = SQLITE_OK;
      auto statement = prepareStatement(db_.get(), sql.c_str(), rc);
      if (!statement) {
        db_.logError(rc, "prune prepare");
        failed = true;
        continue;
      }
      sqlite3_bind_double(statement.get(), 1, cutoff);
      if (rc = sqlite3_step(statement.get()); rc != SQLITE_DONE) {
        db_.logError(rc, "prune step");
        failed = true;
      }
    }
    if (failed) {
      transaction("ROLLBACK");
      return;
    }
    if (const int rc = transaction("COMMIT"); rc != SQLITE_OK) {
      db_.logError(rc, "pruneOldData COMMIT");
      transaction("ROLLBACK");
      return;
    }
    if (retentionDays > 0) {
      for (auto& rollup : energyRollups_) rollup.forgetBefore(retentionCutoff);
    }
    if (keepsResidency) keepResidencyDays();
    // Behind the days just queued, so that the log is emptied once they are in the file.
    queue_.async([this] { db_.execute("PRAGMA wal_checkpoint(TRUNCATE)"); });
  });
}

}  // namespace quorel
