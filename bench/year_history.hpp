#pragma once
// A year of history as a running agent would have stored it: a sample every 30 seconds, a daily
// metric a day, three sessions a day, and eight processes' energy every five minutes, ending at
// `end`. The file must already hold the schema.

#include <sqlite3.h>

#include <cmath>
#include <filesystem>
#include <string>

#include "bench/sqlite_fill.hpp"

namespace quorel::bench {

inline void generateYear(const std::filesystem::path& file, double start, double end) {
  sqlite3* db = nullptr;
  sqlite3_open(file.c_str(), &db);
  exec(db, "BEGIN");
  {
    Insert sample(db,
                  "INSERT INTO power_samples (timestamp, wattage, battery_pct, temperature_c, "
                  "observed_duration_s, power_in_w, external_connected, ecpu_w, pcpu_w, gpu_w, "
                  "ane_w, dram_w, component_quality, system_power_quality) "
                  "VALUES (?,?,?,?,?,?,?,?,?,?,?,?,'measured','measured')");
    for (double t = start; t < end; t += 30) {
      const double phase = std::fmod(t - start, 86400.0) / 86400.0;
      const bool charging = phase > 0.75;
      sample(t, charging ? 20.0 : -9.0, 20 + 70 * phase, 28 + 15 * phase, 30.0,
             charging ? 45.0 : 0.0, charging ? 1.0 : 0.0, 0.6, 2.0 + phase, 0.8, 0.0, 0.4);
    }
    bench::fillDaysAndSessions(db, start, 365);
    Insert energy(db,
                  "INSERT INTO process_energy (timestamp, process_name, avg_cpu, avg_watts, "
                  "peak_watts, observed_duration_s, energy_wh, coverage_ratio, quality, source) "
                  "VALUES (?,?,?,?,?,300,?,1,'measured','cpu_package_apportionment')");
    for (double t = start; t < end; t += 300) {
      for (int p = 0; p < 8; ++p) {
        const double watts = 0.5 + p;
        energy(t, "process-" + std::to_string(p), 10.0 * p, watts, watts * 1.5, watts * 300 / 3600);
      }
    }
    exec(db,
         "INSERT INTO battery_epoch (first_seen, serial, baseline_cycle_count, "
         "baseline_design_mah, baseline_nominal_mah, source) "
         "VALUES (1768464000, 'BENCH-1', 0, 5000, 5000, 'initial')");
  }
  exec(db, "COMMIT");
  sqlite3_close(db);
}

}  // namespace quorel::bench
