#include "store/quorel_migrations.hpp"

#include <sqlite3.h>

#include <iterator>
#include <span>
#include <string>

#include "core/logging.hpp"
#include "store/quorel_schema.hpp"
#include "store/sqlite_connection.hpp"

namespace quorel {

namespace {

// The three tables as they stood when CHECK constraints arrived; rows that break a constraint
// are left behind by the copy.
constexpr const char* kV2Statements[] = {
    R"(CREATE TABLE power_samples_v2 (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  timestamp REAL NOT NULL CHECK (timestamp >= 0 AND timestamp < 4102444800),
  wattage REAL,
  battery_pct REAL CHECK (battery_pct IS NULL OR (battery_pct BETWEEN 0 AND 100)),
  ecpu_w REAL,
  pcpu_w REAL,
  gpu_w REAL,
  ane_w REAL,
  dram_w REAL,
  system_load_w REAL,
  power_in_w REAL,
  wall_power_w REAL,
  thermal_state INTEGER,
  is_charging INTEGER,
  external_connected INTEGER
))",
    R"(INSERT INTO power_samples_v2 (id, timestamp, wattage, battery_pct, ecpu_w, pcpu_w, gpu_w,
  ane_w, dram_w, system_load_w, power_in_w, wall_power_w, thermal_state, is_charging,
  external_connected)
SELECT id, timestamp, wattage, battery_pct, ecpu_w, pcpu_w, gpu_w, ane_w, dram_w, system_load_w,
  power_in_w, wall_power_w, thermal_state, is_charging, external_connected
FROM power_samples
WHERE timestamp >= 0 AND timestamp < 4102444800
  AND (battery_pct IS NULL OR (battery_pct BETWEEN 0 AND 100)))",
    "DROP TABLE power_samples",
    "ALTER TABLE power_samples_v2 RENAME TO power_samples",
    "CREATE INDEX IF NOT EXISTS idx_power_samples_ts ON power_samples(timestamp)",

    R"(CREATE TABLE capacity_log_v2 (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  timestamp REAL NOT NULL CHECK (timestamp >= 0 AND timestamp < 4102444800),
  nominal_capacity_mah INTEGER CHECK (nominal_capacity_mah IS NULL OR nominal_capacity_mah >= 0),
  design_capacity_mah INTEGER CHECK (design_capacity_mah IS NULL OR design_capacity_mah > 0),
  cycle_count INTEGER CHECK (cycle_count IS NULL OR cycle_count >= 0),
  health_pct REAL,
  max_temperature_c REAL
))",
    R"(INSERT INTO capacity_log_v2 (id, timestamp, nominal_capacity_mah, design_capacity_mah,
  cycle_count, health_pct, max_temperature_c)
SELECT id, timestamp, nominal_capacity_mah, design_capacity_mah, cycle_count, health_pct,
  max_temperature_c
FROM capacity_log
WHERE timestamp >= 0 AND timestamp < 4102444800
  AND (nominal_capacity_mah IS NULL OR nominal_capacity_mah >= 0)
  AND (design_capacity_mah IS NULL OR design_capacity_mah > 0)
  AND (cycle_count IS NULL OR cycle_count >= 0))",
    "DROP TABLE capacity_log",
    "ALTER TABLE capacity_log_v2 RENAME TO capacity_log",
    "CREATE INDEX IF NOT EXISTS idx_capacity_log_ts ON capacity_log(timestamp)",

    R"(CREATE TABLE sessions_v2 (
  id TEXT PRIMARY KEY,
  start_time REAL CHECK (start_time IS NULL OR (start_time >= 0 AND start_time < 4102444800)),
  end_time REAL CHECK (end_time IS NULL OR (end_time >= 0 AND end_time < 4102444800)),
  start_pct REAL CHECK (start_pct IS NULL OR (start_pct BETWEEN 0 AND 100)),
  end_pct REAL CHECK (end_pct IS NULL OR (end_pct BETWEEN 0 AND 100)),
  is_charging INTEGER,
  avg_wattage REAL,
  total_wh REAL,
  CHECK (end_time IS NULL OR start_time IS NULL OR end_time >= start_time)
))",
    R"(INSERT INTO sessions_v2 (id, start_time, end_time, start_pct, end_pct, is_charging,
  avg_wattage, total_wh)
SELECT id, start_time, end_time, start_pct, end_pct, is_charging, avg_wattage, total_wh
FROM sessions
WHERE (start_time IS NULL OR (start_time >= 0 AND start_time < 4102444800))
  AND (end_time IS NULL OR (end_time >= 0 AND end_time < 4102444800))
  AND (start_pct IS NULL OR (start_pct BETWEEN 0 AND 100))
  AND (end_pct IS NULL OR (end_pct BETWEEN 0 AND 100))
  AND (end_time IS NULL OR start_time IS NULL OR end_time >= start_time))",
    "DROP TABLE sessions",
    "ALTER TABLE sessions_v2 RENAME TO sessions",
    "CREATE INDEX IF NOT EXISTS idx_sessions_start_time ON sessions(start_time)",
};
static_assert(std::size(kV2Statements) == 15);

// A run of three or more identical component readings is a counter that had stopped: the first
// reading is believed, its repeats are not.
constexpr const char* kV6HealStaleComponents = R"(
WITH ordered AS (
  SELECT id, timestamp, ecpu_w, pcpu_w, gpu_w, ane_w, dram_w,
    LAG(id) OVER w AS prev_id,
    LAG(ecpu_w) OVER w AS prev_ecpu, LAG(pcpu_w) OVER w AS prev_pcpu,
    LAG(gpu_w) OVER w AS prev_gpu, LAG(ane_w) OVER w AS prev_ane, LAG(dram_w) OVER w AS prev_dram
  FROM power_samples
  WHERE ecpu_w IS NOT NULL OR pcpu_w IS NOT NULL OR gpu_w IS NOT NULL OR ane_w IS NOT NULL
    OR dram_w IS NOT NULL
  WINDOW w AS (ORDER BY timestamp, id)
),
grouped AS (
  SELECT id, SUM(CASE WHEN prev_id IS NULL OR ecpu_w IS NOT prev_ecpu OR pcpu_w IS NOT prev_pcpu
                        OR gpu_w IS NOT prev_gpu OR ane_w IS NOT prev_ane
                        OR dram_w IS NOT prev_dram
                      THEN 1 ELSE 0 END)
             OVER (ORDER BY timestamp, id ROWS UNBOUNDED PRECEDING) AS grp
  FROM ordered
),
groups AS (
  SELECT grp, COUNT(*) AS n, MIN(id) AS first_id FROM grouped GROUP BY grp
)
UPDATE power_samples SET ecpu_w = NULL, pcpu_w = NULL, gpu_w = NULL, ane_w = NULL, dram_w = NULL
WHERE id IN (SELECT g.id FROM grouped g JOIN groups s ON s.grp = g.grp
             WHERE s.n >= 3 AND g.id <> s.first_id))";

struct AddedColumn {
  const char* table;
  const char* column;
  const char* definition;
};

constexpr AddedColumn kV7Columns[] = {
    {"process_energy", "observed_duration_s", "REAL NOT NULL DEFAULT 0"},
    {"process_energy", "missing_duration_s", "REAL NOT NULL DEFAULT 0"},
    {"process_energy", "energy_wh", "REAL NOT NULL DEFAULT 0"},
    {"process_energy", "coverage_ratio", "REAL"},
    {"process_energy", "quality", "TEXT NOT NULL DEFAULT 'legacy'"},
    {"process_energy", "source", "TEXT NOT NULL DEFAULT 'legacy_sample_average'"},
    {"ai_agent_energy", "observed_duration_s", "REAL NOT NULL DEFAULT 0"},
    {"ai_agent_energy", "missing_duration_s", "REAL NOT NULL DEFAULT 0"},
    {"ai_agent_energy", "energy_wh", "REAL NOT NULL DEFAULT 0"},
    {"ai_agent_energy", "coverage_ratio", "REAL"},
    {"ai_agent_energy", "quality", "TEXT NOT NULL DEFAULT 'legacy'"},
    {"ai_agent_energy", "source", "TEXT NOT NULL DEFAULT 'legacy_sample_average'"},
    {"power_samples", "observed_duration_s", "REAL"},
    {"power_samples", "component_quality", "TEXT NOT NULL DEFAULT 'unavailable'"},
    {"power_samples", "system_power_quality", "TEXT NOT NULL DEFAULT 'unavailable'"},
    {"power_samples", "wall_estimate_quality", "TEXT NOT NULL DEFAULT 'unavailable'"},
    {"power_samples", "component_rejection_reason", "TEXT"},
    {"power_samples", "system_total_w", "REAL"},
    {"power_samples", "battery_rail_w", "REAL"},
    {"power_samples", "dc_in_w", "REAL"},
    {"power_samples", "thunderbolt_left_w", "REAL"},
    {"power_samples", "thunderbolt_right_w", "REAL"},
    {"power_samples", "pd_brightness_w", "REAL"},
    {"sessions", "mode", "TEXT NOT NULL DEFAULT 'legacy'"},
    {"sessions", "collected_duration_s", "REAL NOT NULL DEFAULT 0"},
    {"sessions", "missing_duration_s", "REAL NOT NULL DEFAULT 0"},
    {"sessions", "quality", "TEXT NOT NULL DEFAULT 'legacy'"},
    {"sessions", "confidence", "REAL NOT NULL DEFAULT 0"},
};

// Legacy component readings beyond what any rail can carry were aggregation errors.
#define QUOREL_V7_OUT_OF_BOUNDS                                                         \
  "(COALESCE(ecpu_w,0) < 0 OR COALESCE(pcpu_w,0) < 0 OR COALESCE(gpu_w,0) < 0"          \
  " OR COALESCE(ane_w,0) < 0 OR COALESCE(dram_w,0) < 0"                                 \
  " OR COALESCE(ecpu_w,0) > 30 OR COALESCE(pcpu_w,0) > 60 OR COALESCE(gpu_w,0) > 90"    \
  " OR COALESCE(ane_w,0) > 20 OR COALESCE(dram_w,0) > 35"                               \
  " OR COALESCE(ecpu_w,0) + COALESCE(pcpu_w,0) + COALESCE(gpu_w,0) + COALESCE(ane_w,0)" \
  " + COALESCE(dram_w,0) > 150)"

#define QUOREL_V7_ENERGY_FIX(table)                                                   \
  "UPDATE " table                                                                     \
  " SET observed_duration_s = CASE WHEN sample_count > 0 THEN 60.0 ELSE 0 END,"       \
  " energy_wh = CASE WHEN sample_count > 0 THEN max(0, avg_watts) / 60.0 ELSE 0 END," \
  " missing_duration_s = 0, coverage_ratio = NULL, quality = 'legacy',"               \
  " source = 'legacy_60s_flush_estimate'"                                             \
  " WHERE observed_duration_s = 0"

#define QUOREL_V7_RECALC(column) \
  "COALESCE((SELECT r." column " FROM temp.session_v7_recalc r WHERE r.id = sessions.id), 0)"
#define QUOREL_V7_SPAN "COALESCE(end_time - start_time, 0)"

constexpr const char* kV7DataFixes[] = {
    "UPDATE power_samples SET"
    " component_quality = CASE WHEN " QUOREL_V7_OUT_OF_BOUNDS " THEN 'rejected'"
    " WHEN ecpu_w IS NOT NULL OR pcpu_w IS NOT NULL OR gpu_w IS NOT NULL OR ane_w IS NOT NULL"
    " OR dram_w IS NOT NULL THEN 'legacy' ELSE 'unavailable' END,"
    " component_rejection_reason = CASE WHEN " QUOREL_V7_OUT_OF_BOUNDS
    " THEN 'legacy component aggregate exceeded physical rail bounds' ELSE NULL END,"
    " system_power_quality = CASE WHEN power_in_w IS NOT NULL OR COALESCE(external_connected,0)=0"
    " THEN 'inferred' ELSE 'unavailable' END,"
    " wall_estimate_quality = CASE WHEN wall_power_w IS NULL THEN 'unavailable' ELSE 'legacy' END",

    "UPDATE power_samples SET ecpu_w = NULL, pcpu_w = NULL, gpu_w = NULL, ane_w = NULL,"
    " dram_w = NULL WHERE " QUOREL_V7_OUT_OF_BOUNDS,

    "UPDATE power_samples SET wall_estimate_quality = 'rejected'"
    " WHERE wall_power_w IS NOT NULL AND (wall_power_w < COALESCE(power_in_w,0)"
    " OR wall_power_w < COALESCE(ecpu_w,0) + COALESCE(pcpu_w,0) + COALESCE(gpu_w,0)"
    " + COALESCE(ane_w,0) + COALESCE(dram_w,0))",

    QUOREL_V7_ENERGY_FIX("process_energy"),
    QUOREL_V7_ENERGY_FIX("ai_agent_energy"),

    "INSERT OR IGNORE INTO daily_battery_metrics (day_key, day_start, nominal_capacity_mah,"
    " design_capacity_mah, cycle_count, health_pct, capacity_sample_count, quality)"
    " SELECT strftime('%Y-%m-%d', timestamp, 'unixepoch', 'localtime'), MIN(timestamp),"
    " AVG(nominal_capacity_mah), AVG(design_capacity_mah), MAX(cycle_count), AVG(health_pct),"
    " COUNT(*), 'legacy'"
    " FROM capacity_log WHERE design_capacity_mah > 0"
    " GROUP BY strftime('%Y-%m-%d', timestamp, 'unixepoch', 'localtime')",

    // 30 seconds is what one legacy sample stood for.
    "INSERT INTO daily_battery_metrics (day_key, day_start, avg_temperature_c, max_temperature_c,"
    " temperature_observed_s, temperature_sample_count, quality)"
    " SELECT strftime('%Y-%m-%d', timestamp, 'unixepoch', 'localtime'), MIN(timestamp),"
    " AVG(temperature_c), MAX(temperature_c), COUNT(*) * 30.0, COUNT(*), 'legacy'"
    " FROM power_samples WHERE temperature_c IS NOT NULL AND temperature_c > 0"
    " GROUP BY strftime('%Y-%m-%d', timestamp, 'unixepoch', 'localtime')"
    " ON CONFLICT(day_key) DO UPDATE SET avg_temperature_c = excluded.avg_temperature_c,"
    " max_temperature_c = excluded.max_temperature_c,"
    " temperature_observed_s = excluded.temperature_observed_s,"
    " temperature_sample_count = excluded.temperature_sample_count",

    "DROP TABLE IF EXISTS temp.session_v7_recalc",
    "CREATE TEMP TABLE session_v7_recalc (id TEXT PRIMARY KEY, wh REAL, collected REAL)",

    // An interval counts only when it is shorter than the gap rule allows; its part before the
    // session started is cut off.
    "WITH p AS (SELECT timestamp, wattage,"
    " LAG(timestamp) OVER (ORDER BY timestamp, id) AS previous_timestamp,"
    " LAG(wattage) OVER (ORDER BY timestamp, id) AS previous_wattage FROM power_samples)"
    " INSERT INTO temp.session_v7_recalc (id, wh, collected)"
    " SELECT s.id,"
    " COALESCE(SUM(CASE WHEN p.previous_timestamp IS NOT NULL"
    " AND p.timestamp - p.previous_timestamp > 0 AND p.timestamp - p.previous_timestamp <= 300"
    " THEN (abs(p.wattage)+abs(p.previous_wattage))*0.5"
    " * (p.timestamp-max(p.previous_timestamp,s.start_time))/3600.0 END), 0),"
    " COALESCE(SUM(CASE WHEN p.previous_timestamp IS NOT NULL"
    " AND p.timestamp - p.previous_timestamp > 0 AND p.timestamp - p.previous_timestamp <= 300"
    " THEN p.timestamp-max(p.previous_timestamp,s.start_time) END), 0)"
    " FROM sessions s LEFT JOIN p ON p.timestamp > s.start_time AND p.timestamp <= s.end_time"
    " GROUP BY s.id",

    "UPDATE sessions SET"
    " total_wh = " QUOREL_V7_RECALC("wh") ","
    " collected_duration_s = " QUOREL_V7_RECALC("collected") ","
    " missing_duration_s = max(0, " QUOREL_V7_SPAN " - " QUOREL_V7_RECALC("collected") "),"
    " avg_wattage = CASE WHEN " QUOREL_V7_RECALC("collected") " > 0"
    " THEN " QUOREL_V7_RECALC("wh") " * 3600.0 / " QUOREL_V7_RECALC("collected") " ELSE 0 END,"
    " mode = CASE WHEN is_charging = 1 THEN 'charging' ELSE 'battery' END,"
    " quality = CASE WHEN " QUOREL_V7_RECALC("collected") " > 0"
    " THEN 'inferred' ELSE 'unavailable' END,"
    " confidence = CASE WHEN " QUOREL_V7_SPAN " > 0"
    " THEN min(1.0, " QUOREL_V7_RECALC("collected") " / " QUOREL_V7_SPAN ") ELSE 0 END"
    " WHERE quality = 'legacy'",

    "DROP TABLE IF EXISTS temp.session_v7_recalc",
};
static_assert(std::size(kV7DataFixes) == 12);

#undef QUOREL_V7_OUT_OF_BOUNDS
#undef QUOREL_V7_ENERGY_FIX
#undef QUOREL_V7_RECALC
#undef QUOREL_V7_SPAN

// CPU and DRAM counters that read exactly zero for five minutes or more while the machine
// demonstrably drew power had stalled; the GPU and neural engine counters are separate and stay.
constexpr const char* kV8HealStalledCounters = R"(
WITH flagged AS (
  SELECT id, timestamp,
    CASE WHEN ecpu_w = 0 AND pcpu_w = 0 AND dram_w = 0
              AND component_quality IN ('measured', 'legacy')
              AND (abs(wattage)>=1 OR system_total_w>=1 OR power_in_w>=1)
         THEN 1 ELSE 0 END AS frozen
  FROM power_samples
),
linked AS (
  SELECT id, timestamp, frozen,
    CASE WHEN frozen = 1 AND LAG(frozen) OVER w = 1
              AND timestamp - LAG(timestamp) OVER w BETWEEN 0 AND 300
         THEN 0 ELSE 1 END AS starts_run
  FROM flagged
  WINDOW w AS (ORDER BY timestamp, id)
),
runs AS (
  SELECT id, timestamp, frozen,
    SUM(starts_run) OVER (ORDER BY timestamp, id ROWS UNBOUNDED PRECEDING) AS run
  FROM linked
),
stalled AS (
  SELECT run FROM runs WHERE frozen = 1 GROUP BY run
  HAVING COUNT(*) >= 10 AND MAX(timestamp) - MIN(timestamp) >= 300
)
UPDATE power_samples
SET ecpu_w = NULL, pcpu_w = NULL, dram_w = NULL, component_quality = 'unavailable',
    component_rejection_reason = 'CPU and DRAM energy counters stalled'
WHERE id IN (SELECT id FROM runs WHERE frozen = 1 AND run IN (SELECT run FROM stalled)))";

// A design capacity of 100 mAh or less in a portable machine is a misread, not a battery.
constexpr const char* kV8HealUndersizedCapacities =
    "DELETE FROM capacity_log WHERE design_capacity_mah BETWEEN 1 AND 100;"
    "UPDATE daily_battery_metrics SET nominal_capacity_mah = NULL, design_capacity_mah = NULL,"
    " health_pct = NULL, capacity_sample_count = 0, quality = 'unavailable'"
    " WHERE design_capacity_mah BETWEEN 1 AND 100;";

// Runs `statements` in order; the first failure's result code, with SQLite's words in `message`.
int execAll(SqliteConnection& db, std::span<const char* const> statements, std::string& message) {
  for (const char* sql : statements) {
    char* error = nullptr;
    const int rc = sqlite3_exec(db.get(), sql, nullptr, nullptr, &error);
    if (rc != SQLITE_OK) {
      message = error ? error : "unknown";
      sqlite3_free(error);
      return rc;
    }
  }
  return SQLITE_OK;
}

bool applyV7HistoricalQualitySchema(SqliteConnection& db) {
  for (const auto& added : kV7Columns) {
    if (db.columnExists(added.table, added.column)) continue;
    const std::string sql = std::string("ALTER TABLE ") + added.table + " ADD COLUMN " +
                            added.column + " " + added.definition;
    if (const int rc = db.exec(sql); rc != SQLITE_OK) {
      db.logError(rc, std::string("add column ") + added.table + "." + added.column);
      return false;
    }
  }
  for (const char* sql : schema::historicalQualityStatements()) {
    if (const int rc = db.exec(sql); rc != SQLITE_OK) {
      db.logError(rc, "v7 create quality tables");
      return false;
    }
  }
  for (const char* sql : kV7DataFixes) {
    if (const int rc = db.exec(sql); rc != SQLITE_OK) {
      db.logError(rc, "v7 historical data fix");
      return false;
    }
  }
  return true;
}

bool runMigrationStep(SqliteConnection& db, spdlog::logger& log, int version) {
  switch (version) {
    case 1:
      return true;
    case 2: {
      std::string message;
      const int rc = execAll(db, kV2Statements, message);
      if (rc != SQLITE_OK) db.logError(rc, "v2 migration step failed: " + message);
      return rc == SQLITE_OK;
    }
    case 3: {
      if (db.columnExists("power_samples", "temperature_c")) return true;
      const int rc = db.exec("ALTER TABLE power_samples ADD COLUMN temperature_c REAL");
      if (rc != SQLITE_OK) db.logError(rc, "add column power_samples.temperature_c");
      return rc == SQLITE_OK;
    }
    case 4: {
      const int rc = db.exec(
          "UPDATE lifetime_energy_state SET last_ts = 0, last_total_w = 0, accumulated_wh = 0 "
          "WHERE id = 1");
      if (rc != SQLITE_OK) db.logError(rc, "v4 migration reset lifetime_energy_state");
      return rc == SQLITE_OK;
    }
    case 5: {
      int rc = SQLITE_OK;
      for (const char* sql : schema::batteryEpochStatements()) {
        if (rc == SQLITE_OK) rc = db.exec(sql);
      }
      if (rc != SQLITE_OK) db.logError(rc, "v5 migration create battery_epoch");
      return rc == SQLITE_OK;
    }
    case 6: {
      const int rc = db.exec(kV6HealStaleComponents);
      if (rc != SQLITE_OK) db.logError(rc, "v6 migration heal stale component power");
      return rc == SQLITE_OK;
    }
    case 7:
      return applyV7HistoricalQualitySchema(db);
    case 8:
      // Nothing is logged here: a failure rolls the whole migration back for the next start.
      return db.exec(kV8HealStalledCounters) == SQLITE_OK &&
             db.exec(kV8HealUndersizedCapacities) == SQLITE_OK;
    default:
      log.error("no migration defined for v{}", version);
      return false;
  }
}

}  // namespace

void migrateSchema(SqliteConnection& db, spdlog::logger& log) {
  const int current = db.userVersion().value_or(0);
  if (current == schema::kVersion) return;
  if (current > schema::kVersion) {
    log.critical(
        "on-disk schema v{} is newer than app v{} — downgrade detected; running with potential "
        "write skew",
        current, schema::kVersion);
    return;
  }
  log.info("migrating schema from v{} to v{}", current, schema::kVersion);
  if (db.exec("BEGIN TRANSACTION") != SQLITE_OK) {
    log.error("failed to BEGIN migration transaction");
    return;
  }
  bool passed = true;
  for (int version = current + 1; version <= schema::kVersion && passed; ++version) {
    passed = runMigrationStep(db, log, version);
  }
  if (passed) {
    db.execute(("PRAGMA user_version = " + std::to_string(schema::kVersion)).c_str());
    db.execute("COMMIT");
  }
  // A COMMIT that failed leaves the transaction open; closing it here keeps later writes from
  // piling into a transaction that will never end.
  if (!passed || db.inTransaction()) db.execute("ROLLBACK");
}

}  // namespace quorel
