#include "store/quorel_schema.hpp"

#include <iterator>

namespace quorel::schema {

namespace {

constexpr const char* kCreateStatements[] = {
    R"(CREATE TABLE IF NOT EXISTS power_samples (
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
  external_connected INTEGER,
  temperature_c REAL,
  observed_duration_s REAL,
  component_quality TEXT NOT NULL DEFAULT 'unavailable',
  system_power_quality TEXT NOT NULL DEFAULT 'unavailable',
  wall_estimate_quality TEXT NOT NULL DEFAULT 'unavailable',
  component_rejection_reason TEXT,
  system_total_w REAL,
  battery_rail_w REAL,
  dc_in_w REAL,
  thunderbolt_left_w REAL,
  thunderbolt_right_w REAL,
  pd_brightness_w REAL
))",
    "CREATE INDEX IF NOT EXISTS idx_power_samples_ts ON power_samples(timestamp)",
    R"(CREATE TABLE IF NOT EXISTS capacity_log (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  timestamp REAL NOT NULL CHECK (timestamp >= 0 AND timestamp < 4102444800),
  nominal_capacity_mah INTEGER CHECK (nominal_capacity_mah IS NULL OR nominal_capacity_mah >= 0),
  design_capacity_mah INTEGER CHECK (design_capacity_mah IS NULL OR design_capacity_mah > 0),
  cycle_count INTEGER CHECK (cycle_count IS NULL OR cycle_count >= 0),
  health_pct REAL,
  max_temperature_c REAL
))",
    "CREATE INDEX IF NOT EXISTS idx_capacity_log_ts ON capacity_log(timestamp)",
    R"(CREATE TABLE IF NOT EXISTS sessions (
  id TEXT PRIMARY KEY,
  start_time REAL CHECK (start_time IS NULL OR (start_time >= 0 AND start_time < 4102444800)),
  end_time REAL CHECK (end_time IS NULL OR (end_time >= 0 AND end_time < 4102444800)),
  start_pct REAL CHECK (start_pct IS NULL OR (start_pct BETWEEN 0 AND 100)),
  end_pct REAL CHECK (end_pct IS NULL OR (end_pct BETWEEN 0 AND 100)),
  is_charging INTEGER,
  avg_wattage REAL,
  total_wh REAL,
  mode TEXT NOT NULL DEFAULT 'legacy',
  collected_duration_s REAL NOT NULL DEFAULT 0,
  missing_duration_s REAL NOT NULL DEFAULT 0,
  quality TEXT NOT NULL DEFAULT 'legacy',
  confidence REAL NOT NULL DEFAULT 0,
  CHECK (end_time IS NULL OR start_time IS NULL OR end_time >= start_time)
))",
    "CREATE INDEX IF NOT EXISTS idx_sessions_start_time ON sessions(start_time)",
    R"(CREATE TABLE IF NOT EXISTS process_energy (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  timestamp REAL NOT NULL,
  process_name TEXT NOT NULL,
  avg_cpu REAL NOT NULL,
  avg_watts REAL NOT NULL,
  peak_watts REAL,
  sample_count INTEGER DEFAULT 1,
  observed_duration_s REAL NOT NULL DEFAULT 0,
  missing_duration_s REAL NOT NULL DEFAULT 0,
  energy_wh REAL NOT NULL DEFAULT 0,
  coverage_ratio REAL,
  quality TEXT NOT NULL DEFAULT 'legacy',
  source TEXT NOT NULL DEFAULT 'legacy_sample_average'
))",
    "CREATE INDEX IF NOT EXISTS idx_process_energy_ts ON process_energy(timestamp)",
    "CREATE INDEX IF NOT EXISTS idx_process_energy_name_ts ON process_energy(process_name, "
    "timestamp)",
    R"(CREATE TABLE IF NOT EXISTS ai_agent_energy (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  timestamp REAL NOT NULL,
  agent_id TEXT NOT NULL,
  avg_cpu REAL NOT NULL,
  avg_watts REAL NOT NULL,
  peak_watts REAL,
  sample_count INTEGER DEFAULT 1,
  observed_duration_s REAL NOT NULL DEFAULT 0,
  missing_duration_s REAL NOT NULL DEFAULT 0,
  energy_wh REAL NOT NULL DEFAULT 0,
  coverage_ratio REAL,
  quality TEXT NOT NULL DEFAULT 'legacy',
  source TEXT NOT NULL DEFAULT 'legacy_sample_average'
))",
    "CREATE INDEX IF NOT EXISTS idx_ai_agent_energy_ts ON ai_agent_energy(timestamp)",
    "CREATE INDEX IF NOT EXISTS idx_ai_agent_energy_agent_ts ON ai_agent_energy(agent_id, "
    "timestamp)",
    R"(CREATE TABLE IF NOT EXISTS lifetime_energy_state (
  id INTEGER PRIMARY KEY CHECK (id = 1),
  last_ts REAL NOT NULL DEFAULT 0,
  last_total_w REAL NOT NULL DEFAULT 0,
  accumulated_wh REAL NOT NULL DEFAULT 0
))",
    "INSERT OR IGNORE INTO lifetime_energy_state (id, last_ts, last_total_w, accumulated_wh) "
    "VALUES (1, 0, 0, 0)",
    R"(CREATE TABLE IF NOT EXISTS battery_epoch (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  first_seen REAL NOT NULL CHECK (first_seen >= 0 AND first_seen < 4102444800),
  serial TEXT,
  baseline_cycle_count INTEGER CHECK (baseline_cycle_count IS NULL OR baseline_cycle_count >= 0),
  baseline_design_mah INTEGER CHECK (baseline_design_mah IS NULL OR baseline_design_mah > 0),
  baseline_nominal_mah INTEGER CHECK (baseline_nominal_mah IS NULL OR baseline_nominal_mah >= 0),
  source TEXT NOT NULL DEFAULT 'initial'
))",
    "CREATE INDEX IF NOT EXISTS idx_battery_epoch_first_seen ON battery_epoch(first_seen)",
    R"(CREATE TABLE IF NOT EXISTS daily_battery_metrics (
  day_key TEXT PRIMARY KEY,
  day_start REAL NOT NULL,
  nominal_capacity_mah REAL,
  design_capacity_mah REAL,
  cycle_count INTEGER,
  health_pct REAL,
  capacity_sample_count INTEGER NOT NULL DEFAULT 0,
  avg_temperature_c REAL,
  max_temperature_c REAL,
  temperature_observed_s REAL NOT NULL DEFAULT 0,
  temperature_sample_count INTEGER NOT NULL DEFAULT 0,
  quality TEXT NOT NULL DEFAULT 'measured'
))",
    "CREATE INDEX IF NOT EXISTS idx_daily_battery_metrics_start ON "
    "daily_battery_metrics(day_start)",
    R"(CREATE TABLE IF NOT EXISTS collection_intervals (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  start_time REAL NOT NULL CHECK (start_time >= 0 AND start_time < 4102444800),
  end_time REAL NOT NULL CHECK (end_time >= start_time AND end_time < 4102444800),
  status TEXT NOT NULL CHECK (status IN ('collected','sleep','missing','rejected')),
  reason TEXT
))",
    "CREATE INDEX IF NOT EXISTS idx_collection_intervals_start ON "
    "collection_intervals(start_time)",
    "CREATE INDEX IF NOT EXISTS idx_collection_intervals_end ON collection_intervals(end_time)",
};
static_assert(std::size(kCreateStatements) == 21);

// Positions in kCreateStatements of what later versions introduced.
constexpr std::size_t kBatteryEpochFirst = 14;
constexpr std::size_t kHistoricalQualityFirst = 16;

}  // namespace

std::span<const char* const> createStatements() {
  return kCreateStatements;
}

std::span<const char* const> batteryEpochStatements() {
  return std::span(kCreateStatements).subspan(kBatteryEpochFirst, 2);
}

std::span<const char* const> historicalQualityStatements() {
  return std::span(kCreateStatements).subspan(kHistoricalQualityFirst);
}

}  // namespace quorel::schema
