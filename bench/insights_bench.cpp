// `quorel insights` against a year of history: a sample every 30 seconds, a daily metric a day,
// three sessions a day. The file gets the store's schema from the store itself, then its rows in
// one transaction of plain SQL, so that building it takes seconds rather than the write path's
// minutes; then the agent's first pruning keeps the past days' residency totals. The whole command
// is timed (open, every read, every computation, the JSON), and beside it the residency read and
// the scan of every sample it no longer needs, to show where the time goes.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "bench/sqlite_fill.hpp"
#include "core/iso8601.hpp"
#include "programs/quorel/insights_command.hpp"
#include "store/quorel_database.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;

constexpr double kEnd = 1'800'000'000;  // 2027-01-15T08:00:00Z
constexpr double kDay = 86400;
constexpr double kStart = kEnd - 365 * kDay;

using bench::exec;
using bench::Insert;

struct YearOfHistory {
  YearOfHistory() {
    char pattern[] = "/tmp/quorel-insights-bench-XXXXXX";
    if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp");
    dir = pattern;
    const ManualClock clock{fromUnixSeconds(kEnd)};
    {
      QuorelDatabase made({.dataDirectory = dir,
                           .databasePathOverride = {},
                           .onCorruption = {},
                           .startQueue = false},
                          clock);
    }
    sqlite3* db = nullptr;
    sqlite3_open((dir / "quorel.db").c_str(), &db);
    exec(db, "BEGIN");
    {
      Insert sample(db,
                    "INSERT INTO power_samples (timestamp, wattage, battery_pct, temperature_c, "
                    "observed_duration_s, power_in_w, external_connected) VALUES (?,?,?,?,?,?,?)");
      for (double t = kStart; t < kEnd; t += 30) {
        // A day's rhythm: discharging by day, charging in the evening.
        const double phase = std::fmod(t - kStart, kDay) / kDay;
        const bool charging = phase > 0.75;
        sample(t, charging ? 20.0 : -9.0, 20 + 70 * phase, 28 + 15 * phase, 30.0,
               charging ? 45.0 : 0.0, charging ? 1.0 : 0.0);
      }
      bench::fillDaysAndSessions(db, kStart, 365);
    }
    exec(db, "COMMIT");
    sqlite3_close(db);
    // As the agent does at launch: its first pruning keeps the past days' residency totals.
    QuorelDatabase agent(
        {.dataDirectory = dir, .databasePathOverride = {}, .onCorruption = {}, .startQueue = false},
        clock);
    agent.pruneOldData(0, 0);
    agent.queue().runPending();
  }
  ~YearOfHistory() { fs::remove_all(dir); }

  fs::path dir;
};

YearOfHistory& history() {
  static YearOfHistory year;
  return year;
}

void BM_InsightsCommand(benchmark::State& state) {
  auto& year = history();
  const ManualClock clock{fromUnixSeconds(kEnd)};
  for (auto _ : state) {
    const auto r = runInsightsCommand({formatIso8601(clock.now()), true}, year.dir / "quorel.db",
                                      year.dir / "defaults.json", clock);
    if (r.exitStatus != 0) state.SkipWithError(r.error.c_str());
    benchmark::DoNotOptimize(r.output.data());
  }
}
BENCHMARK(BM_InsightsCommand)->Unit(benchmark::kMillisecond);

void BM_ResidencyRead(benchmark::State& state) {
  auto& year = history();
  const ManualClock clock{fromUnixSeconds(kEnd)};
  QuorelDatabase db({.dataDirectory = std::nullopt,
                     .databasePathOverride = year.dir / "quorel.db",
                     .onCorruption = {},
                     .startQueue = false,
                     .readOnly = true},
                    clock);
  for (auto _ : state) {
    auto rows = db.queryResidencyObservations(fromUnixSeconds(0), clock.now());
    benchmark::DoNotOptimize(rows);
  }
}
BENCHMARK(BM_ResidencyRead)->Unit(benchmark::kMillisecond);

// SQLite's part of that read alone: the same scan, each row's three values read and dropped.
void BM_ResidencyBareScan(benchmark::State& state) {
  auto& year = history();
  sqlite3* db = nullptr;
  sqlite3_open_v2((year.dir / "quorel.db").c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db,
                     "SELECT battery_pct, temperature_c, MIN(observed_duration_s, 300.0) FROM "
                     "power_samples WHERE +timestamp BETWEEN ? AND ? AND observed_duration_s > 0",
                     -1, &statement, nullptr);
  for (auto _ : state) {
    sqlite3_bind_double(statement, 1, 0);
    sqlite3_bind_double(statement, 2, kEnd);
    double sum = 0;
    while (sqlite3_step(statement) == SQLITE_ROW) {
      sum += sqlite3_column_double(statement, 0) + sqlite3_column_double(statement, 1) +
             sqlite3_column_double(statement, 2);
    }
    sqlite3_reset(statement);
    benchmark::DoNotOptimize(sum);
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
}
BENCHMARK(BM_ResidencyBareScan)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quorel

BENCHMARK_MAIN();
