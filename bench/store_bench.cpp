// The history store against a year of history: one sample at the 30-second cadence with its
// daily upsert, a process flush of about 20 rows every two minutes, and a sleep gap a day. The
// file is written once per run through the store's own write path and shared by every case.
//
// Each case times our call and, in the same iteration and on the same file, a baseline that does
// only the database's part: the bare SELECT of the same rows (prepared here, every row stepped and
// every column read) or the bare INSERT of the same rows. The counters "ours_ms", "baseline_ms"
// and "ratio" show what our own logic costs on top of SQLite.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "store/quorel_database.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;

constexpr double kEnd = 1'800'000'000;  // 2027-01-15T08:00:00Z
constexpr double kDay = 86400;
constexpr double kYear = 365 * kDay;
constexpr double kStart = kEnd - kYear;
constexpr double kCadence_s = 30;
constexpr double kFlush_s = 120;
constexpr int kProcessNames = 120;

constexpr const char* kSampleColumns =
    "timestamp, wattage, battery_pct, ecpu_w, pcpu_w, gpu_w, ane_w, dram_w, system_load_w,"
    " power_in_w, wall_power_w, thermal_state, is_charging, external_connected, temperature_c,"
    " observed_duration_s, component_quality, system_power_quality, wall_estimate_quality,"
    " component_rejection_reason, system_total_w, battery_rail_w, dc_in_w, thunderbolt_left_w,"
    " thunderbolt_right_w, pd_brightness_w";

constexpr const char* kEnergyColumns =
    "timestamp, process_name, avg_cpu, avg_watts, peak_watts, sample_count, observed_duration_s,"
    " missing_duration_s, energy_wh, coverage_ratio, quality, source";

// A plain second connection, the baseline's own.
class RawConnection {
 public:
  explicit RawConnection(const fs::path& file) {
    if (sqlite3_open(file.c_str(), &db_) != SQLITE_OK) throw std::runtime_error("open");
    exec("PRAGMA busy_timeout = 3000");
    // The store's own durability setting, so that a baseline commit costs what ours does.
    exec("PRAGMA synchronous = NORMAL");
  }
  ~RawConnection() { sqlite3_close_v2(db_); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  void exec(const std::string& sql) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
      std::string text = message ? message : "unknown";
      sqlite3_free(message);
      throw std::runtime_error(text + " in: " + sql);
    }
  }
  sqlite3_stmt* prepare(const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
      throw std::runtime_error(std::string(sqlite3_errmsg(db_)) + " in: " + sql);
    }
    return statement;
  }
  // Binds the reals in order, steps every row and touches every column, as a reader that copies
  // the values out would; returns the row count.
  std::int64_t scan(const std::string& sql, const std::vector<double>& bounds) {
    sqlite3_stmt* statement = prepare(sql);
    for (std::size_t i = 0; i < bounds.size(); ++i) {
      sqlite3_bind_double(statement, static_cast<int>(i + 1), bounds[i]);
    }
    std::int64_t rows = 0;
    double sink = 0;
    const int columns = sqlite3_column_count(statement);
    while (sqlite3_step(statement) == SQLITE_ROW) {
      ++rows;
      for (int c = 0; c < columns; ++c) {
        if (sqlite3_column_type(statement, c) == SQLITE_TEXT) {
          sink += sqlite3_column_bytes(statement, c);
        } else {
          sink += sqlite3_column_double(statement, c);
        }
      }
    }
    sqlite3_finalize(statement);
    benchmark::DoNotOptimize(sink);
    return rows;
  }
  double single(const std::string& sql) {
    sqlite3_stmt* statement = prepare(sql);
    double value = 0;
    if (sqlite3_step(statement) == SQLITE_ROW) value = sqlite3_column_double(statement, 0);
    sqlite3_finalize(statement);
    return value;
  }

 private:
  sqlite3* db_ = nullptr;
};

std::string processName(int i) {
  static const char* const kKnown[] = {"Xorg",     "kworker/u16:2", "firefox",   "code",
                                       "slack",    "thunderbird",   "rhythmbox", "gnome-terminal-",
                                       "nautilus", "cc1plus"};
  if (i < 10) return kKnown[i];
  return "helper-process-" + std::to_string(i);
}

// A laptop's day: on the adapter at night and in the evening, on battery from mid-morning to the
// afternoon, twenty minutes asleep after lunch.
PowerSample sampleAt(double t, std::mt19937& random) {
  std::uniform_real_distribution<double> jitter(-1.0, 1.0);
  const double hour = std::fmod(t - kStart, kDay) / 3600.0;
  const bool onBattery = hour >= 9 && hour < 16;
  PowerSample s;
  s.timestamp = fromUnixSeconds(t);
  s.externalConnected = !onBattery;
  s.isCharging = !onBattery && hour >= 16 && hour < 18;
  s.wattage = onBattery ? -8.0 + jitter(random) : (s.isCharging ? 25.0 + jitter(random) : 0.0);
  s.batteryPct = onBattery ? 95 - (hour - 9) * 10 : std::min(100.0, 25 + (hour - 16) * 37.5);
  s.batteryPct = std::clamp(s.batteryPct, 0.0, 100.0);
  s.ecpuW = 0.6 + 0.3 * jitter(random);
  s.pcpuW = 2.5 + 2.0 * jitter(random);
  s.gpuW = 0.8 + 0.5 * jitter(random);
  s.aneW = 0.0;
  s.dramW = 0.4 + 0.1 * jitter(random);
  s.systemLoadW = 9.0 + 2.0 * jitter(random);
  if (!onBattery) {
    s.powerInW = 12.0 + 3.0 * jitter(random) + std::max(0.0, s.wattage);
    s.wallPowerW = *s.powerInW * 1.12;
    s.wallEstimateQuality = HistoricalValueQuality::estimated;
    s.dcInW = s.powerInW;
  }
  s.thermalState = 0;
  s.temperatureC = 31.0 + 3.0 * jitter(random);
  s.observedDurationS = kCadence_s;
  s.componentQuality = HistoricalValueQuality::measured;
  s.systemPowerQuality = HistoricalValueQuality::measured;
  s.systemTotalW = s.systemLoadW;
  s.batteryRailW = s.wattage;
  s.pdBrightnessW = 1.8 + 0.4 * jitter(random);
  return s;
}

bool asleep(double t) {
  const double secondOfDay = std::fmod(t - kStart, kDay);
  return secondOfDay >= 13 * 3600 && secondOfDay < 13 * 3600 + 1200;
}

// One flush: 12 to 28 processes, the popular ones most often, each with its share of the bucket.
std::vector<TrackedEnergyRecord> flushAt(double t, std::mt19937& random) {
  static const std::vector<double> kWeights = [] {
    std::vector<double> w;
    for (int i = 0; i < kProcessNames; ++i) w.push_back(1.0 / (1.0 + i));
    return w;
  }();
  static const std::vector<std::string> kNames = [] {
    std::vector<std::string> names;
    for (int i = 0; i < kProcessNames; ++i) names.push_back(processName(i));
    return names;
  }();
  std::discrete_distribution<int> pick(kWeights.begin(), kWeights.end());
  std::uniform_int_distribution<int> count(12, 28);
  std::uniform_real_distribution<double> watts(0.01, 3.0);
  std::vector<bool> taken(kProcessNames, false);
  std::vector<TrackedEnergyRecord> batch;
  const int n = count(random);
  while (static_cast<int>(batch.size()) < n) {
    const int i = pick(random);
    if (taken[static_cast<std::size_t>(i)]) continue;
    taken[static_cast<std::size_t>(i)] = true;
    const double w = watts(random) / (1.0 + 0.2 * i);
    batch.push_back({.timestamp = fromUnixSeconds(t),
                     .identifier = kNames[static_cast<std::size_t>(i)],
                     .averageCPU = w * 8,
                     .averageWatts = w,
                     .peakWatts = w * 1.6,
                     .sampleCount = 4,
                     .observedDuration_s = kFlush_s,
                     .missingDuration_s = 0,
                     .energyWh = w * kFlush_s / 3600.0,
                     .coverageRatio = 1.0,
                     .quality = HistoricalValueQuality::measured,
                     .source = "cpu_time_share"});
  }
  return batch;
}

struct Fixture {
  SystemClock clock;
  fs::path directory;
  fs::path file;
  std::unique_ptr<QuorelDatabase> db;
  std::unique_ptr<RawConnection> raw;
  double buildSeconds = 0;
  std::int64_t samples = 0;
  std::int64_t processRows = 0;
  // Times after the year, for the rows the write cases and the lifetime cases add.
  double nextOurs = kEnd + 1000;
  double nextBaseline = kEnd + 1015;

  ~Fixture() {
    raw.reset();
    db.reset();
    std::error_code ec;
    fs::remove_all(directory, ec);
  }
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

QuorelDatabase::Options storeOptions(const fs::path& file) {
  QuorelDatabase::Options o;
  o.dataDirectory = file.parent_path();
  o.databasePathOverride = file;
  // Driven here with runPending, so that a write's cost is what it costs on the queue.
  o.startQueue = false;
  return o;
}

void buildYear() {
  Fixture& f = fixture();
  std::string pattern = (fs::temp_directory_path() / "quorel-store-bench-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
  f.directory = pattern;
  f.file = f.directory / "quorel.db";
  f.db = std::make_unique<QuorelDatabase>(storeOptions(f.file), f.clock);
  QuorelDatabase& db = *f.db;

  std::mt19937 random(20270115);
  const auto started = f.clock.monotonicNow();
  int posted = 0;
  for (double t = kStart; t < kEnd; t += kCadence_s) {
    if (asleep(t)) {
      if (std::fmod(t - kStart, kDay) == 13 * 3600) {
        db.insertCollectionInterval(fromUnixSeconds(t), fromUnixSeconds(t + 1200),
                                    CollectionIntervalStatus::sleep, "system sleep");
      }
      continue;
    }
    db.insertPowerSample(sampleAt(t, random));
    ++f.samples;
    if (std::fmod(t - kStart, kFlush_s) == 0) {
      auto batch = flushAt(t, random);
      f.processRows += static_cast<std::int64_t>(batch.size());
      db.insertProcessEnergy(std::move(batch));
    }
    // Run what is queued now and then, so that the queue never holds a year of closures.
    if (++posted % 2000 == 0) db.queue().runPending();
  }
  db.queue().runPending();
  f.buildSeconds = std::chrono::duration<double>(f.clock.monotonicNow() - started).count();
  f.raw = std::make_unique<RawConnection>(f.file);
  // Bring the lifetime checkpoint to the end of the year, as a running agent would have.
  db.totalComponentEnergy_Wh();
}

const SystemClock kTimer{};

double millisecondsSince(MonotonicTime start) {
  return std::chrono::duration<double, std::milli>(kTimer.monotonicNow() - start).count();
}

// Runs ours and the baseline in every iteration, alternating which goes first so neither
// inherits the other's warm cache more often; `setup` runs untimed before both.
void paired(benchmark::State& state, const std::function<void()>& setup,
            const std::function<void()>& ours, const std::function<void()>& baseline) {
  double oursTotal = 0;
  double baselineTotal = 0;
  std::int64_t n = 0;
  for (auto _ : state) {
    setup();
    double oursMs = 0;
    double baselineMs = 0;
    if (n % 2 == 0) {
      auto t0 = kTimer.monotonicNow();
      ours();
      oursMs = millisecondsSince(t0);
      t0 = kTimer.monotonicNow();
      baseline();
      baselineMs = millisecondsSince(t0);
    } else {
      auto t0 = kTimer.monotonicNow();
      baseline();
      baselineMs = millisecondsSince(t0);
      t0 = kTimer.monotonicNow();
      ours();
      oursMs = millisecondsSince(t0);
    }
    state.SetIterationTime(oursMs / 1000.0);
    oursTotal += oursMs;
    baselineTotal += baselineMs;
    ++n;
  }
  if (n == 0) return;
  state.counters["ours_ms"] = oursTotal / static_cast<double>(n);
  state.counters["baseline_ms"] = baselineTotal / static_cast<double>(n);
  state.counters["ratio"] = baselineTotal > 0 ? oursTotal / baselineTotal : 0;
}

void noSetup() {}

std::string sampleSelect() {
  return std::string("SELECT 0, ") + kSampleColumns +
         " FROM power_samples WHERE timestamp BETWEEN ? AND ? ORDER BY timestamp ASC";
}

// ---------------------------------------------------------------------------------------------
// reads

void BM_ThinnedRead(benchmark::State& state) {
  Fixture& f = fixture();
  const double from = kEnd - static_cast<double>(state.range(0)) * kDay;
  std::size_t points = 0;
  std::int64_t rows = 0;
  paired(
      state, noSetup,
      [&] {
        points = f.db->queryPowerSamples(fromUnixSeconds(from), fromUnixSeconds(kEnd), 600)
                     .value()
                     .size();
      },
      [&] {
        rows = f.raw->scan(sampleSelect(), {from, kEnd});
      });
  state.counters["rows"] = static_cast<double>(rows);
  state.counters["points"] = static_cast<double>(points);
  state.SetLabel(state.range(0) == 30 ? "600 points of 30 days" : "600 points of a year");
}
BENCHMARK(BM_ThinnedRead)->Arg(30)->Iterations(6)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ThinnedRead)->Arg(365)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_Coverage30Days(benchmark::State& state) {
  Fixture& f = fixture();
  const double from = kEnd - 30 * kDay;
  paired(
      state, noSetup,
      [&] {
        benchmark::DoNotOptimize(
            f.db->historicalCoverage(fromUnixSeconds(from), fromUnixSeconds(kEnd)));
      },
      [&] {
        f.raw->scan(
            "SELECT timestamp, observed_duration_s, component_quality, system_power_quality,"
            " wall_estimate_quality FROM power_samples WHERE timestamp BETWEEN ? AND ?",
            {from, kEnd});
        f.raw->scan(
            "SELECT id,start_time,end_time,status,reason FROM collection_intervals"
            " WHERE end_time>=? AND start_time<=?",
            {from, kEnd});
      });
  state.SetLabel("coverage of 30 days");
}
BENCHMARK(BM_Coverage30Days)->MinTime(1.0)->UseManualTime()->Unit(benchmark::kMillisecond);

const std::string kProcessRowsSelect =
    "SELECT process_name, timestamp, avg_watts, peak_watts, observed_duration_s,"
    " missing_duration_s, energy_wh, coverage_ratio, quality FROM process_energy"
    " WHERE timestamp BETWEEN ? AND ?";

// What the top-apps tool asks: the ranked summaries at its limit, and the series behind
// "current_w" with at least six names.
void BM_TopApps(benchmark::State& state) {
  Fixture& f = fixture();
  const double from = kEnd - static_cast<double>(state.range(0)) * kDay;
  constexpr int kLimit = 10;
  std::int64_t rows = 0;
  paired(
      state, noSetup,
      [&] {
        benchmark::DoNotOptimize(f.db->queryTrackedEnergySummaries("process_energy", "process_name",
                                                                   fromUnixSeconds(from),
                                                                   fromUnixSeconds(kEnd), kLimit));
        benchmark::DoNotOptimize(f.db->queryProcessEnergy(
            fromUnixSeconds(from), fromUnixSeconds(kEnd), 200, std::max(kLimit, 6)));
      },
      [&] {
        rows = f.raw->scan(kProcessRowsSelect, {from, kEnd});
      });
  state.counters["rows"] = static_cast<double>(rows);
  state.SetLabel(state.range(0) == 1 ? "top apps of 24 hours" : "top apps of 30 days");
}
BENCHMARK(BM_TopApps)->Arg(1)->MinTime(1.0)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TopApps)->Arg(30)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

// The ranking alone, as the history command and the top-apps tool ask for it, beside the
// ranking statement itself over the same rows: what the store's rollup saves.
void BM_TopAppsRanking(benchmark::State& state) {
  Fixture& f = fixture();
  const double from = kEnd - static_cast<double>(state.range(0)) * kDay;
  const std::string rankingOnRows =
      "SELECT process_name, SUM(energy_wh), SUM(observed_duration_s), SUM(missing_duration_s),"
      " CASE WHEN SUM(observed_duration_s)>0 THEN SUM(energy_wh)*3600.0/SUM(observed_duration_s)"
      " ELSE 0 END, MAX(peak_watts),"
      " CASE WHEN SUM(CASE WHEN coverage_ratio IS NOT NULL THEN observed_duration_s ELSE 0 END)>0"
      " THEN SUM(COALESCE(coverage_ratio,0)*observed_duration_s)"
      " /SUM(CASE WHEN coverage_ratio IS NOT NULL THEN observed_duration_s ELSE 0 END)"
      " ELSE NULL END,"
      " CASE WHEN SUM(quality='rejected')>0 THEN 'rejected' WHEN SUM(quality='legacy')>0 THEN"
      " 'legacy' WHEN SUM(quality='estimated')>0 THEN 'estimated' WHEN SUM(quality='inferred')>0"
      " THEN 'inferred' WHEN SUM(quality='measured')>0 THEN 'measured' ELSE 'unavailable' END"
      " FROM process_energy WHERE timestamp BETWEEN ? AND ? GROUP BY process_name"
      " ORDER BY SUM(energy_wh) DESC LIMIT 10";
  std::size_t ranked = 0;
  paired(
      state, noSetup,
      [&] {
        ranked = f.db->queryTrackedEnergySummaries("process_energy", "process_name",
                                                   fromUnixSeconds(from), fromUnixSeconds(kEnd), 10)
                     .value()
                     .size();
      },
      [&] {
        f.raw->scan(rankingOnRows, {from, kEnd});
      });
  state.counters["ranked"] = static_cast<double>(ranked);
  state.SetLabel(state.range(0) == 1 ? "ranking of 24 hours" : "ranking of 30 days");
}
BENCHMARK(BM_TopAppsRanking)->Arg(1)->MinTime(1.0)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TopAppsRanking)
    ->Arg(30)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// The 30-day ranking as it would run against a per-day rollup of the same rows (a table the
// schema does not have; built here in a temporary table of the baseline connection), beside
// the ranking statement itself on the raw rows.
void BM_TopAppsDailyRollup(benchmark::State& state) {
  Fixture& f = fixture();
  static bool built = false;
  if (!built) {
    f.raw->exec(
        "CREATE TEMP TABLE process_daily AS SELECT CAST((timestamp - 0) / 86400 AS INTEGER) AS day,"
        " process_name, SUM(energy_wh) AS energy_wh, SUM(observed_duration_s) AS observed,"
        " SUM(missing_duration_s) AS missing, MAX(peak_watts) AS peak,"
        " SUM(COALESCE(coverage_ratio,0)*observed_duration_s) AS covered,"
        " SUM(CASE WHEN coverage_ratio IS NOT NULL THEN observed_duration_s ELSE 0 END) AS"
        " coverage_base, SUM(quality='rejected') AS rejected, SUM(quality='legacy') AS legacy,"
        " SUM(quality='estimated') AS estimated, SUM(quality='inferred') AS inferred,"
        " SUM(quality='measured') AS measured FROM process_energy GROUP BY 1, 2");
    f.raw->exec("CREATE INDEX temp.process_daily_day ON process_daily(day)");
    built = true;
  }
  const double from = kEnd - 30 * kDay;
  const std::string rankingOnRows =
      "SELECT process_name, SUM(energy_wh), SUM(observed_duration_s), SUM(missing_duration_s),"
      " MAX(peak_watts) FROM process_energy WHERE timestamp BETWEEN ? AND ?"
      " GROUP BY process_name ORDER BY SUM(energy_wh) DESC LIMIT 10";
  // Whole days only: the partial days at either end would come from the raw rows, which costs
  // two 24-hour scans more and is left out of this estimate.
  const std::string rankingOnRollup =
      "SELECT process_name, SUM(energy_wh), SUM(observed), SUM(missing), MAX(peak)"
      " FROM process_daily WHERE day BETWEEN ? AND ? GROUP BY process_name"
      " ORDER BY SUM(energy_wh) DESC LIMIT 10";
  paired(
      state, noSetup,
      [&] {
        f.raw->scan(rankingOnRows, {from, kEnd});
      },
      [&] {
        f.raw->scan(rankingOnRollup, {std::floor(from / kDay), std::floor(kEnd / kDay)});
      });
  state.SetLabel("ours = ranking statement on rows, baseline = same ranking on a daily rollup");
}
BENCHMARK(BM_TopAppsDailyRollup)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_CachedEnergyHistoryHit(benchmark::State& state) {
  Fixture& f = fixture();
  const auto window = EnergyHistoryWindow::rolling(Seconds{kDay});
  const double from = kEnd - kDay;
  f.db->cachedEnergyHistory(EnergyHistoryKind::processes, window, fromUnixSeconds(from),
                            fromUnixSeconds(kEnd));
  const auto builds = f.db->energyHistoryBuilds();
  paired(
      state, noSetup,
      [&] {
        benchmark::DoNotOptimize(f.db->cachedEnergyHistory(
            EnergyHistoryKind::processes, window, fromUnixSeconds(from), fromUnixSeconds(kEnd)));
      },
      [&] {
        f.raw->scan(kProcessRowsSelect, {from, kEnd});
      });
  state.counters["rebuilds"] = static_cast<double>(f.db->energyHistoryBuilds() - builds);
  state.SetLabel("24-hour chart, cache hit");
}
BENCHMARK(BM_CachedEnergyHistoryHit)
    ->Iterations(100)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

void BM_CachedEnergyHistoryRebuild(benchmark::State& state) {
  Fixture& f = fixture();
  const double from = kEnd - kDay;
  const auto builds = f.db->energyHistoryBuilds();
  double key = 0;
  paired(
      state, noSetup,
      [&] {
        // A window never asked for before misses the cache.
        key += 1;
        benchmark::DoNotOptimize(f.db->cachedEnergyHistory(
            EnergyHistoryKind::processes, EnergyHistoryWindow::rolling(Seconds{kDay + key}),
            fromUnixSeconds(from), fromUnixSeconds(kEnd)));
      },
      [&] {
        f.raw->scan(kProcessRowsSelect, {from, kEnd});
      });
  state.counters["rebuilds"] = static_cast<double>(f.db->energyHistoryBuilds() - builds);
  state.SetLabel("24-hour chart, rebuilt");
}
BENCHMARK(BM_CachedEnergyHistoryRebuild)
    ->MinTime(1.0)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------------------------------------
// writes

void BM_InsertSampleWithUpsert(benchmark::State& state) {
  Fixture& f = fixture();
  std::mt19937 random(7);
  sqlite3_stmt* insert =
      f.raw->prepare(std::string("INSERT INTO power_samples (") + kSampleColumns +
                     ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
                     "?, ?, ?, ?, ?)");
  sqlite3_stmt* upsert = f.raw->prepare(
      "INSERT INTO daily_battery_metrics (day_key, day_start, avg_temperature_c,"
      " max_temperature_c, temperature_observed_s, temperature_sample_count, quality)"
      " VALUES ('2027-01-15', ?, ?, ?, 30, 1, 'measured') ON CONFLICT(day_key) DO UPDATE SET"
      " day_start=min(day_start,excluded.day_start),"
      " avg_temperature_c=(COALESCE(avg_temperature_c,0)*temperature_observed_s"
      "+excluded.avg_temperature_c*excluded.temperature_observed_s)"
      "/(temperature_observed_s+excluded.temperature_observed_s),"
      " max_temperature_c=max(COALESCE(max_temperature_c,excluded.max_temperature_c),"
      "excluded.max_temperature_c),"
      " temperature_observed_s=temperature_observed_s+excluded.temperature_observed_s,"
      " temperature_sample_count=temperature_sample_count+1");
  paired(
      state, noSetup,
      [&] {
        f.db->insertPowerSample(sampleAt(f.nextOurs, random));
        f.db->queue().runPending();
        f.nextOurs += kCadence_s;
      },
      [&] {
        const PowerSample s = sampleAt(f.nextBaseline, random);
        sqlite3_reset(insert);
        sqlite3_clear_bindings(insert);
        sqlite3_bind_double(insert, 1, f.nextBaseline);
        sqlite3_bind_double(insert, 2, s.wattage);
        sqlite3_bind_double(insert, 3, s.batteryPct);
        for (int i = 4; i <= 11; ++i) sqlite3_bind_double(insert, i, 1.0);
        sqlite3_bind_int(insert, 12, 0);
        sqlite3_bind_int(insert, 13, s.isCharging ? 1 : 0);
        sqlite3_bind_int(insert, 14, s.externalConnected ? 1 : 0);
        sqlite3_bind_double(insert, 15, *s.temperatureC);
        sqlite3_bind_double(insert, 16, kCadence_s);
        for (int i = 17; i <= 19; ++i) sqlite3_bind_text(insert, i, "measured", 8, SQLITE_STATIC);
        for (int i = 21; i <= 26; ++i) sqlite3_bind_double(insert, i, 1.0);
        sqlite3_step(insert);
        sqlite3_reset(upsert);
        sqlite3_bind_double(upsert, 1, f.nextBaseline);
        sqlite3_bind_double(upsert, 2, *s.temperatureC);
        sqlite3_bind_double(upsert, 3, *s.temperatureC);
        sqlite3_step(upsert);
        f.nextBaseline += kCadence_s;
      });
  sqlite3_finalize(insert);
  sqlite3_finalize(upsert);
  state.SetLabel("one sample with its daily upsert, on the queue");
}
BENCHMARK(BM_InsertSampleWithUpsert)->MinTime(1.0)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_InsertProcessFlush(benchmark::State& state) {
  Fixture& f = fixture();
  std::mt19937 random(11);
  sqlite3_stmt* insert =
      f.raw->prepare(std::string("INSERT INTO process_energy (") + kEnergyColumns +
                     ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  std::vector<TrackedEnergyRecord> batch;
  paired(
      state, [&] { batch = flushAt(f.nextOurs, random); },
      [&] {
        f.db->insertProcessEnergy(batch);
        f.db->queue().runPending();
      },
      [&] {
        f.raw->exec("BEGIN");
        for (const auto& r : batch) {
          sqlite3_reset(insert);
          sqlite3_bind_double(insert, 1, toUnixSeconds(r.timestamp) + 1);
          sqlite3_bind_text(insert, 2, r.identifier.c_str(), -1, SQLITE_TRANSIENT);
          sqlite3_bind_double(insert, 3, r.averageCPU);
          sqlite3_bind_double(insert, 4, r.averageWatts);
          sqlite3_bind_double(insert, 5, r.peakWatts);
          sqlite3_bind_int(insert, 6, r.sampleCount);
          sqlite3_bind_double(insert, 7, r.observedDuration_s);
          sqlite3_bind_double(insert, 8, r.missingDuration_s);
          sqlite3_bind_double(insert, 9, r.energyWh);
          sqlite3_bind_double(insert, 10, r.coverageRatio);
          sqlite3_bind_text(insert, 11, "measured", -1, SQLITE_STATIC);
          sqlite3_bind_text(insert, 12, r.source.c_str(), -1, SQLITE_TRANSIENT);
          sqlite3_step(insert);
        }
        f.raw->exec("COMMIT");
        f.nextOurs += kFlush_s;
      });
  sqlite3_finalize(insert);
  state.SetLabel("one flush of 12 to 28 process rows in one transaction");
}
BENCHMARK(BM_InsertProcessFlush)->MinTime(1.0)->UseManualTime()->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------------------------
// the lifetime total

const std::string kLifetimeRowsSelect =
    "SELECT timestamp, power_in_w, wattage, external_connected FROM power_samples"
    " WHERE timestamp > ? ORDER BY timestamp ASC";

void BM_LifetimeAfterOneRow(benchmark::State& state) {
  Fixture& f = fixture();
  std::mt19937 random(13);
  f.nextOurs = std::max(f.nextOurs, f.nextBaseline) + kCadence_s;
  f.db->totalComponentEnergy_Wh();
  double previous = f.raw->single("SELECT last_ts FROM lifetime_energy_state WHERE id = 1");
  paired(
      state,
      [&] {
        f.db->insertPowerSample(sampleAt(f.nextOurs, random));
        f.db->queue().runPending();
        f.nextOurs += kCadence_s;
      },
      [&] { benchmark::DoNotOptimize(f.db->totalComponentEnergy_Wh()); },
      [&] {
        f.raw->scan(kLifetimeRowsSelect, {previous});
        previous = f.nextOurs - kCadence_s;
      });
  state.SetLabel("lifetime total after one new row");
}
BENCHMARK(BM_LifetimeAfterOneRow)->MinTime(0.5)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_LifetimeFromScratch(benchmark::State& state) {
  Fixture& f = fixture();
  std::int64_t rows = 0;
  paired(
      state,
      [&] {
        f.raw->exec(
            "UPDATE lifetime_energy_state SET last_ts = 0, last_total_w = 0, accumulated_wh = 0"
            " WHERE id = 1");
      },
      [&] { benchmark::DoNotOptimize(f.db->totalComponentEnergy_Wh()); },
      [&] { rows = f.raw->scan(kLifetimeRowsSelect, {0.0}); });
  state.counters["rows"] = static_cast<double>(rows);
  state.SetLabel("lifetime total from scratch");
}
BENCHMARK(BM_LifetimeFromScratch)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quorel

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  quorel::buildYear();
  const auto& f = quorel::fixture();
  std::error_code ec;
  const auto bytes = std::filesystem::file_size(f.file, ec);
  std::printf(
      "store_bench: built %lld samples and %lld process rows through the write path in %.1f s"
      " (%.0f MB)\n",
      static_cast<long long>(f.samples), static_cast<long long>(f.processRows), f.buildSeconds,
      ec ? 0.0 : static_cast<double>(bytes) / 1e6);
  std::fflush(stdout);
  benchmark::AddCustomContext("build_seconds", std::to_string(f.buildSeconds));
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
