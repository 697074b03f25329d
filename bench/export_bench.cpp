// Exports against a year of power samples at the 30-second cadence (a twenty-minute sleep gap a
// day, about 1.04 million rows), written once per run with plain SQL into the store's schema.
//
// CSV: our export of the year (or a month) to a file, beside the sqlite3 command-line program
// writing the same rows and columns as CSV from the same file, run as a child process with its
// output redirected to a file. "peak_rss_growth_kB" is how far the process's peak resident set
// rose above its size before the export (the kernel's high-water mark, reset first): flat means a
// year costs what a month does.
//
// JSON: a month as one document written to a file, against the CSV export of the same rows.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>

#include "store/export_file.hpp"
#include "store/quorel_database.hpp"

extern char** environ;

namespace quorel {
namespace {

namespace fs = std::filesystem;

constexpr double kEnd = 1'800'000'000;  // 2027-01-15T08:00:00Z
constexpr double kDay = 86400;
constexpr double kStart = kEnd - 365 * kDay;
constexpr double kCadence_s = 30;

struct Fixture {
  SystemClock clock;
  fs::path directory;
  fs::path file;
  std::unique_ptr<QuorelDatabase> db;
  std::int64_t samples = 0;

  ~Fixture() {
    db.reset();
    std::error_code ec;
    fs::remove_all(directory, ec);
  }
};

void check(int rc, sqlite3* db, const char* what) {
  if (rc != SQLITE_OK && rc != SQLITE_DONE) {
    throw std::runtime_error(std::string(what) + ": " + sqlite3_errmsg(db));
  }
}

// A laptop's day: charging late afternoon, on battery from mid-morning, asleep after lunch.
void insertYear(const fs::path& file, std::int64_t& samples) {
  sqlite3* db = nullptr;
  check(sqlite3_open(file.c_str(), &db), db, "open");
  check(sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr), db, "begin");
  sqlite3_stmt* insert = nullptr;
  check(sqlite3_prepare_v2(db,
                           "INSERT INTO power_samples (timestamp, wattage, battery_pct, ecpu_w, "
                           "pcpu_w, gpu_w, ane_w, dram_w, system_load_w, power_in_w, wall_power_w, "
                           "thermal_state, is_charging, external_connected, temperature_c, "
                           "observed_duration_s, component_quality, system_power_quality, "
                           "wall_estimate_quality, system_total_w, battery_rail_w, dc_in_w, "
                           "pd_brightness_w) VALUES (?,?,?,?,?,?,0,?,?,?,?,0,?,?,?,30,'measured',"
                           "'measured',?,?,?,?,?)",
                           -1, &insert, nullptr),
        db, "prepare");
  std::mt19937 random(20270115);
  std::uniform_real_distribution<double> jitter(-1.0, 1.0);
  for (double t = kStart; t < kEnd; t += kCadence_s) {
    const double secondOfDay = std::fmod(t - kStart, kDay);
    if (secondOfDay >= 13 * 3600 && secondOfDay < 13 * 3600 + 1200) continue;
    const double hour = secondOfDay / 3600;
    const bool onBattery = hour >= 9 && hour < 16;
    const bool charging = hour >= 16 && hour < 18;
    const double watts = onBattery ? -8 + jitter(random) : (charging ? 25 + jitter(random) : 0);
    const double in = 12 + 3 * jitter(random);
    const double load = 9 + 2 * jitter(random);
    sqlite3_reset(insert);
    int i = 1;
    const auto real = [&](double v) { sqlite3_bind_double(insert, i++, v); };
    const auto maybe = [&](bool present, double v) {
      present ? real(v) : static_cast<void>(sqlite3_bind_null(insert, i++));
    };
    real(t);
    real(watts);
    real(std::clamp(onBattery ? 95 - (hour - 9) * 10 : 25 + (hour - 16) * 37.5, 0.0, 100.0));
    real(0.6 + 0.3 * jitter(random));
    real(2.5 + 2 * jitter(random));
    real(0.8 + 0.5 * jitter(random));
    real(0.4 + 0.1 * jitter(random));
    real(load);
    maybe(!onBattery, in);
    maybe(!onBattery, in * 1.12);
    sqlite3_bind_int(insert, i++, charging ? 1 : 0);
    sqlite3_bind_int(insert, i++, onBattery ? 0 : 1);
    real(31 + 3 * jitter(random));
    sqlite3_bind_text(insert, i++, onBattery ? "unavailable" : "estimated", -1, SQLITE_STATIC);
    real(load);
    real(watts);
    maybe(!onBattery, in);
    real(1.8 + 0.4 * jitter(random));
    check(sqlite3_step(insert), db, "insert");
    ++samples;
  }
  sqlite3_finalize(insert);
  check(sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr), db, "commit");
  sqlite3_close_v2(db);
}

Fixture& fixture() {
  static Fixture f;
  if (f.db) return f;
  std::string pattern = (fs::temp_directory_path() / "quorel-export-bench-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
  f.directory = pattern;
  f.file = f.directory / "quorel.db";
  QuorelDatabase::Options create;
  create.databasePathOverride = f.file;
  create.startQueue = false;
  QuorelDatabase(std::move(create), f.clock);
  insertYear(f.file, f.samples);
  // Read-only and on a queue of its own, as the command and the settings view use it.
  QuorelDatabase::Options reading;
  reading.databasePathOverride = f.file;
  reading.readOnly = true;
  f.db = std::make_unique<QuorelDatabase>(std::move(reading), f.clock);
  return f;
}

const SystemClock kTimer{};

double millisecondsSince(MonotonicTime start) {
  return std::chrono::duration<double, std::milli>(kTimer.monotonicNow() - start).count();
}

// A line of /proc/self/status in kB ("VmHWM", "VmRSS").
long statusKilobytes(const std::string& key) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(key + ":", 0) == 0) return std::stol(line.substr(key.size() + 1));
  }
  return -1;
}

// Resets the peak resident set to the current one, so that the next peak is the export's.
void resetPeakResident() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

// sqlite3 -csv over the same rows and columns, standard output into `out`.
void sqliteCsv(const fs::path& file, const std::string& sql, const fs::path& out) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::string program = "sqlite3";
  std::string csv = "-csv";
  std::string readOnly = "-readonly";
  std::string path = file.string();
  std::string query = sql;
  char* argv[] = {program.data(), csv.data(), readOnly.data(), path.data(), query.data(), nullptr};
  pid_t pid = 0;
  const int rc = posix_spawnp(&pid, "sqlite3", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error("cannot run sqlite3; install it (scripts/install-deps.sh)");
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error("sqlite3 failed");
}

std::string baselineSelect(double from, double to) {
  const auto& q = seriesQuery(ExportSeries::power);
  std::string columns;
  for (const auto c : q.selectColumns) columns += (columns.empty() ? "" : ", ") + std::string(c);
  char bounds[96];
  std::snprintf(bounds, sizeof bounds, " >= %.3f AND timestamp <= %.3f", from, to);
  return "SELECT " + columns + " FROM power_samples WHERE timestamp" + bounds +
         " ORDER BY timestamp ASC";
}

// Ours and the baseline in every iteration, alternating which goes first.
void paired(benchmark::State& state, const std::function<void()>& ours,
            const std::function<void()>& baseline, const char* baselineName) {
  double oursTotal = 0;
  double baselineTotal = 0;
  std::int64_t n = 0;
  for (auto _ : state) {
    double oursMs = 0;
    double baselineMs = 0;
    for (int turn = 0; turn < 2; ++turn) {
      const bool oursNow = (turn == 0) == (n % 2 == 0);
      const auto t0 = kTimer.monotonicNow();
      oursNow ? ours() : baseline();
      (oursNow ? oursMs : baselineMs) = millisecondsSince(t0);
    }
    state.SetIterationTime(oursMs / 1000.0);
    oursTotal += oursMs;
    baselineTotal += baselineMs;
    ++n;
  }
  state.counters["ours_ms"] = oursTotal / static_cast<double>(n);
  state.counters[baselineName] = baselineTotal / static_cast<double>(n);
  state.counters["ratio"] = oursTotal / baselineTotal;
}

void BM_CsvBesideSqlite3(benchmark::State& state) {
  Fixture& f = fixture();
  const double from = kEnd - static_cast<double>(state.range(0)) * kDay;
  const fs::path ours = f.directory / "ours.csv";
  const fs::path theirs = f.directory / "sqlite3.csv";
  const std::string sql = baselineSelect(from, kEnd);
  ExportResult result;
  long peakGrowth = 0;
  paired(
      state,
      [&] {
        const long before = statusKilobytes("VmRSS");
        resetPeakResident();
        result = f.db->exportCSV(ExportSeries::power, fromUnixSeconds(from), fromUnixSeconds(kEnd),
                                 ours);
        peakGrowth = std::max(peakGrowth, statusKilobytes("VmHWM") - before);
        if (!result.ok()) throw std::runtime_error(result.failure->describe());
      },
      [&] { sqliteCsv(f.file, sql, theirs); }, "sqlite3_ms");
  state.counters["rows"] = static_cast<double>(result.rows);
  state.counters["peak_rss_growth_kB"] = static_cast<double>(peakGrowth);
  state.counters["ours_MB"] = static_cast<double>(fs::file_size(ours)) / 1e6;
  state.counters["sqlite3_MB"] = static_cast<double>(fs::file_size(theirs)) / 1e6;
  state.SetLabel(state.range(0) == 30 ? "a month of power samples" : "a year of power samples");
}
BENCHMARK(BM_CsvBesideSqlite3)
    ->Arg(30)
    ->Iterations(6)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CsvBesideSqlite3)
    ->Arg(365)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_JsonMonthBesideCsv(benchmark::State& state) {
  Fixture& f = fixture();
  const TimePoint from = fromUnixSeconds(kEnd - 30 * kDay);
  const TimePoint to = fromUnixSeconds(kEnd);
  const fs::path json = f.directory / "ours.json";
  const fs::path csv = f.directory / "month.csv";
  std::int64_t rows = 0;
  paired(
      state,
      [&] {
        // As the command writes it: day by day into a file that appears whole.
        ExportFile file(json, "exportJSON");
        if (file.create()) throw std::runtime_error("cannot create the JSON export");
        const JSONExport document =
            f.db->writeJSON({ExportSeries::power}, from, to, file.descriptor());
        if (document.failure || file.write("\n") || file.commit()) {
          throw std::runtime_error("cannot write the JSON export");
        }
        rows = document.rows;
      },
      [&] { f.db->exportCSV(ExportSeries::power, from, to, csv); }, "csv_ms");
  state.counters["rows"] = static_cast<double>(rows);
  state.SetLabel("a month of power samples, JSON against CSV");
}
BENCHMARK(BM_JsonMonthBesideCsv)->Iterations(6)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quorel

BENCHMARK_MAIN();
