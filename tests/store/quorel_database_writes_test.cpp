// Each write against a real file: what lands, what is refused and logged, retention, call order.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include "core/logging.hpp"
#include "store/corruption_report.hpp"
#include "store/fixtures/legacy_database.hpp"
#include "store/quorel_database.hpp"
#include "store/sqlite_connection.hpp"
#include "store/sqlite_test_support.hpp"
#include "store/store_test_fixture.hpp"
#include "support/log_capture.hpp"
#include "support/zone_guard.hpp"

namespace quorel {
namespace {

using namespace store_test;

PowerSample sampleAt(double t, std::optional<double> temperature = {},
                     std::optional<double> duration = {}) {
  PowerSample s;
  s.timestamp = at(t), s.wattage = -7.25, s.batteryPct = 64.5;
  s.temperatureC = temperature, s.observedDurationS = duration;
  return s;
}

CapacityLogEntry capacityAt(double t, int nominal, int design, int cycles, double health) {
  return {at(t), nominal, design, cycles, health, 33.5};
}

SessionRecord sessionFrom(double start, double end) {
  // 80 % to 62.5 %, -9.5 W, 4.75 Wh, 1700 s collected and 100 s missing, confidence 0.9.
  // clang-format off
  return {"0E6C1A4B-9F1D-4C53-A7D0-2B5F0C9E7A11", at(start), at(end), 80, 62.5, false, -9.5,
          4.75, PowerSessionMode::forceDischarge, 1700, 100, HistoricalValueQuality::measured, 0.9};
  // clang-format on
}

TrackedEnergyRecord energyRecord(int i) {
  // CPU 12.5 %, 1.5 W on average, peak 3 W, 6 samples, 60 s observed, none missing, 0.025 Wh.
  // clang-format off
  return {at(60 * i), "proc-" + std::to_string(i), 12.5, 1.5, 3.0, 6, 60, 0, 0.025, 1,
          HistoricalValueQuality::measured, "cpu_time_share"};
  // clang-format on
}

TEST_F(WritesTest, PowerSampleLandsColumnForColumnAndReadsBackAsWritten) {
  using Q = HistoricalValueQuality;
  // In column order; the last field is never stored.
  // clang-format off
  PowerSample s{at(0), -7.25, 64.5, 0.5, 3.25, 1.0, 0.0, 0.75, 9.5, 30, 33.5, 2,
                true, true, 31.5, 30, Q::measured, Q::inferred, Q::estimated, std::nullopt, 8.5,
                -1.5, 29.5, 0.25, 0.0, 3.0, true};
  // clang-format on
  db->insertPowerSample(s);
  // An implausible one is stored without its components.
  PowerSample implausible = sampleAt(1);
  implausible.gpuW = 91, implausible.componentQuality = Q::measured;
  db->insertPowerSample(implausible);
  drain();

  EXPECT_THAT(
      sql().rows("SELECT timestamp, wattage, battery_pct, ecpu_w, pcpu_w, gpu_w, ane_w, dram_w, "
                 "system_load_w, power_in_w, wall_power_w, thermal_state, is_charging, "
                 "external_connected, temperature_c, observed_duration_s, component_quality, "
                 "system_power_quality, wall_estimate_quality, component_rejection_reason, "
                 "system_total_w, battery_rail_w, dc_in_w, thunderbolt_left_w, "
                 "thunderbolt_right_w, pd_brightness_w FROM power_samples ORDER BY id"),
      ElementsAre(
          ElementsAre("1800000000.0", "-7.25", "64.5", "0.5", "3.25", "1.0", "0.0", "0.75", "9.5",
                      "30.0", "33.5", "2", "1", "1", "31.5", "30.0", "measured", "inferred",
                      "estimated", "NULL", "8.5", "-1.5", "29.5", "0.25", "0.0", "3.0"),
          ::testing::_));
  EXPECT_EQ(sql().rows("SELECT gpu_w, component_quality FROM power_samples WHERE id = 2"),
            (Rows{{"NULL", "rejected"}}));
  s.precededByGap = false;
  EXPECT_THAT(db->queryPowerSamples(at(0), at(0), 10).value(), ElementsAre(s));
}

TEST_F(WritesTest, DailyTemperatureIsADurationWeightedMeanAndUnusableSamplesLeaveItAlone) {
  LogCapture logs;
  PowerSample refused = sampleAt(2 * kDay, 30, 30);
  refused.batteryPct = 120;
  db->insertPowerSample(refused);
  db->insertPowerSample(sampleAt(0, 30, 60));          // 08:00Z
  db->insertPowerSample(sampleAt(-7 * 3600, 40, 20));  // 01:00Z, same day, earlier
  db->insertPowerSample(sampleAt(kDay, 25, 30));
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  const std::pair<std::optional<double>, std::optional<double>> unusable[] = {
      {45, std::nullopt}, {45, 0}, {45, -30}, {0, 30}, {-5, 30}, {kNaN, 30}, {std::nullopt, 30}};
  for (const auto& [temperature, duration] : unusable) {
    db->insertPowerSample(sampleAt(60, temperature, duration));
  }
  drain();

  EXPECT_EQ(count("power_samples"), 10);
  EXPECT_THAT(sql().rows("SELECT day_key, day_start, avg_temperature_c, max_temperature_c, "
                         "temperature_observed_s, temperature_sample_count, quality, "
                         "capacity_sample_count, health_pct FROM daily_battery_metrics "
                         "ORDER BY day_key"),
              ElementsAre(ElementsAre("2027-01-15", "1799971200.0", "32.5", "40.0", "80.0", "2",
                                      "measured", "0", "NULL"),
                          ElementsAre("2027-01-16", "1800057600.0", "25.0", "25.0", "30.0", "1",
                                      "measured", "0", "NULL")))
      << "a refused sample leaves its day alone";
  EXPECT_EQ(
      linesStartingWith(logs, "insertPowerSample step failed: rc=19 msg=CHECK constraint failed"),
      1u);
  EXPECT_EQ(corruptionSignals, 0);
}

TEST_F(WritesTest, CapacityReadingsAverageIntoTheirDayAndLiftOneMadeByTemperatureToMeasured) {
  sql().exec(
      "INSERT INTO daily_battery_metrics (day_key, day_start, avg_temperature_c, "
      "max_temperature_c, temperature_observed_s, temperature_sample_count, quality) VALUES "
      "('2027-01-16', 1800057600, 28, 31, 300, 10, 'legacy')");
  LogCapture logs;
  db->insertCapacityLog(capacityAt(0, 4000, 5000, 120, 80));
  db->insertCapacityLog(capacityAt(60, 9000, 0, 200, 10));  // design must be above 0
  db->insertCapacityLog(capacityAt(3600, 4500, 5000, 118, 90));
  db->insertCapacityLog(capacityAt(kDay, 4100, 5000, 121, 82));
  drain();
  EXPECT_EQ(linesStartingWith(logs, "insertCapacityLog step failed: rc=19 "), 1u);

  EXPECT_THAT(sql().rows("SELECT timestamp, nominal_capacity_mah, design_capacity_mah, "
                         "cycle_count, health_pct, max_temperature_c FROM capacity_log "
                         "ORDER BY id LIMIT 2"),
              ElementsAre(ElementsAre("1800000000.0", "4000", "5000", "120", "80.0", "33.5"),
                          ElementsAre("1800003600.0", "4500", "5000", "118", "90.0", "33.5")));
  EXPECT_THAT(sql().rows("SELECT day_key, nominal_capacity_mah, design_capacity_mah, "
                         "cycle_count, health_pct, capacity_sample_count, quality, "
                         "avg_temperature_c, temperature_sample_count FROM "
                         "daily_battery_metrics ORDER BY day_key"),
              ElementsAre(ElementsAre("2027-01-15", "4250.0", "5000.0", "120", "85.0", "2",
                                      "measured", "NULL", "0"),
                          ElementsAre("2027-01-16", "4100.0", "5000.0", "121", "82.0", "1",
                                      "measured", "28.0", "10")));
}

TEST_F(WritesTest, SessionsLandWithTheirTextsAndClampedFiguresAndRefusedOnesAreLogged) {
  LogCapture logs;
  db->insertSession(sessionFrom(-1800, 0));
  db->insertSession(sessionFrom(-600, 0));  // same id again
  // clang-format off
  SessionRecord odd{"5D1E8F3A-0000-4000-8000-00000000000B", at(0), at(60), 80, 62.5, true, -9.5,
                    4.75, PowerSessionMode::charging, -5, -1, HistoricalValueQuality::inferred, 1.7};
  // clang-format on
  db->insertSession(odd);
  SessionRecord reversed = sessionFrom(0, -60);
  reversed.id = "11111111-2222-4333-8444-555555555555";
  db->insertSession(reversed);
  drain();

  EXPECT_EQ(linesStartingWith(logs, "insertSession step failed: rc=19 "), 2u);
  EXPECT_THAT(sql().rows("SELECT * FROM sessions ORDER BY rowid"),
              ElementsAre(ElementsAre("0E6C1A4B-9F1D-4C53-A7D0-2B5F0C9E7A11", "1799998200.0",
                                      "1800000000.0", "80.0", "62.5", "0", "-9.5", "4.75",
                                      "force_discharge", "1700.0", "100.0", "measured", "0.9"),
                          ElementsAre("5D1E8F3A-0000-4000-8000-00000000000B", "1800000000.0",
                                      "1800000060.0", "80.0", "62.5", "1", "-9.5", "4.75",
                                      "charging", "0.0", "0.0", "inferred", "1.0")));
}

TEST_F(WritesTest, EnergyBatchesLandWithClampsAndOneBadRecordCostsItsWholeBatch) {
  LogCapture logs;
  std::vector<TrackedEnergyRecord> batch;
  for (int i = 0; i < 10; ++i) batch.push_back(energyRecord(i));
  std::vector<TrackedEnergyRecord> bad = batch;
  bad[5].averageCPU = std::numeric_limits<double>::quiet_NaN();  // NOT NULL refuses it
  // clang-format off
  batch[1] = {at(60), "proc-1", -4, -2, -1, 6, -1, -3, -0.5, 0, HistoricalValueQuality::measured,
              "cpu_time_share"};
  // clang-format on
  batch[2].coverageRatio = 1.4, batch[2].quality = HistoricalValueQuality::estimated;
  db->insertProcessEnergy(batch);
  db->insertAIAgentEnergy(bad);
  EXPECT_EQ(db->energyRevision(EnergyHistoryKind::processes), 0u) << "raised only after commit";
  drain();

  EXPECT_EQ(db->energyRevision(EnergyHistoryKind::processes), 1u);
  EXPECT_EQ(db->energyRevision(EnergyHistoryKind::agents), 0u);
  EXPECT_EQ(count("process_energy"), 10);
  EXPECT_EQ(count("ai_agent_energy"), 0);
  EXPECT_EQ(linesStartingWith(logs, "insertAIAgentEnergy step failed: rc=19 "), 1u);
  EXPECT_THAT(sql().rows("SELECT timestamp, process_name, avg_cpu, avg_watts, peak_watts, "
                         "sample_count, observed_duration_s, missing_duration_s, energy_wh, "
                         "coverage_ratio, quality, source FROM process_energy "
                         "WHERE id <= 3 ORDER BY id"),
              ElementsAre(ElementsAre("1800000000.0", "proc-0", "12.5", "1.5", "3.0", "6", "60.0",
                                      "0.0", "0.025", "1.0", "measured", "cpu_time_share"),
                          ElementsAre("1800000060.0", "proc-1", "-4.0", "0.0", "-1.0", "6", "0.0",
                                      "0.0", "0.0", "NULL", "measured", "cpu_time_share"),
                          ElementsAre("1800000120.0", "proc-2", "12.5", "1.5", "3.0", "6", "60.0",
                                      "0.0", "0.025", "1.0", "estimated", "cpu_time_share")));

  // The failed transaction is closed: the next batch and other writes go through, and an empty
  // flush commits too, and tells the caches.
  bad[5].averageCPU = 1;
  db->insertAIAgentEnergy(bad);
  db->insertPowerSample(sampleAt(0));
  db->insertProcessEnergy({});
  drain();
  EXPECT_EQ(count("ai_agent_energy"), 10);
  EXPECT_EQ(count("power_samples"), 1);
  EXPECT_EQ(db->energyRevision(EnergyHistoryKind::agents), 1u);
  EXPECT_EQ(db->energyRevision(EnergyHistoryKind::processes), 2u);
  EXPECT_EQ(sql().text("SELECT agent_id FROM ai_agent_energy ORDER BY id LIMIT 1"), "proc-0");
}

class PruneTest : public WritesTest {
 protected:
  // One row in every pruned table at each of `agos` days before now, and capacity readings
  // without a design capacity 2 and 0.5 days before now.
  void rowsAt(std::initializer_list<double> agos) {
    for (double ago : agos) {
      const double t = kT0 - ago * kDay;
      const std::string tag = std::to_string(ago);
      sql().insert("power_samples", {{"timestamp", t}, {"component_quality", tag}});
      sql().insert("sessions", {{"id", tag}, {"start_time", t}, {"end_time", t + 60}});
      for (auto [table, name] : {std::pair{"process_energy", "process_name"},
                                 std::pair{"ai_agent_energy", "agent_id"}}) {
        sql().insert(table, {{"timestamp", t}, {name, tag}, {"avg_cpu", 1.0}, {"avg_watts", 1.0}});
      }
      sql().insert("daily_battery_metrics", {{"day_key", tag}, {"day_start", t}});
      sql().insert("collection_intervals",
                   {{"start_time", t - 60}, {"end_time", t}, {"status", std::string("collected")}});
      sql().insert("capacity_log", {{"timestamp", t}, {"design_capacity_mah", std::int64_t{5000}}});
    }
    for (double ago : {2.0, 0.5}) sql().insert("capacity_log", {{"timestamp", kT0 - ago * kDay}});
  }
  // Days before now of what is left, oldest first.
  std::string survivors(const std::string& table, const std::string& column) {
    return sql()
        .text("SELECT group_concat(d, ' ') FROM (SELECT round((" + std::to_string(kT0) + " - " +
              column + ") / 86400.0, 1) AS d FROM " + table + " ORDER BY " + column + ")")
        .value_or("none");
  }
};

TEST_F(PruneTest, SamplesFollowTheRetentionHorizonAndTheDailyTableTheCapacityOne) {
  rowsAt({366, 300, 31, 29});
  db->pruneOldData(30, 365);
  drain();
  for (const auto& [table, column] : {std::pair{"power_samples", "timestamp"},
                                      {"sessions", "start_time"},
                                      {"process_energy", "timestamp"},
                                      {"ai_agent_energy", "timestamp"},
                                      {"collection_intervals", "end_time"}}) {
    EXPECT_EQ(survivors(table, column), "29.0") << table;
  }
  EXPECT_EQ(survivors("daily_battery_metrics", "day_start"), "300.0 31.0 29.0");
  EXPECT_EQ(survivors("capacity_log", "timestamp"), "300.0 31.0 29.0 0.5");
  EXPECT_EQ(count("lifetime_energy_state"), 1) << "the lifetime checkpoint is never pruned";
  // The log was checkpointed and truncated after the commit.
  EXPECT_EQ(fs::file_size(scratch.path() / "quorel.db-wal"), 0u);
}

TEST_F(PruneTest, KeepingForeverDeletesOnlyStaleCapacityReadingsWithoutADesignCapacity) {
  rowsAt({3000, 2});
  for (int days : {0, -5}) {
    db->pruneOldData(days, 365);
    drain();
    EXPECT_EQ(survivors("power_samples", "timestamp"), "3000.0 2.0");
    EXPECT_EQ(survivors("daily_battery_metrics", "day_start"), "3000.0 2.0");
    EXPECT_EQ(survivors("capacity_log", "timestamp"), "3000.0 2.0 0.5");
  }
}

TEST_F(PruneTest, AFailingDeleteRollsTheWholePruneBack) {
  rowsAt({100});
  sql().exec("DROP TABLE collection_intervals");
  LogCapture logs;
  db->pruneOldData(30, 365);
  drain();
  EXPECT_EQ(count("power_samples"), 1);
  EXPECT_EQ(count("sessions"), 1);
  EXPECT_EQ(linesStartingWith(logs, "prune prepare failed: rc=1 msg=no such table"), 1u);
  // No transaction was left open behind.
  db->insertPowerSample(sampleAt(0));
  drain();
  EXPECT_EQ(count("power_samples"), 2);
}

TEST_F(WritesTest, WritesFromAnotherThreadLandInCallOrderAndReadsWaitTheirTurn) {
  db.reset();
  db = std::make_unique<QuorelDatabase>(options(false, /*startQueue=*/true), clock);
  constexpr int kSamples = 400;
  std::thread writer([&] {
    for (int i = 0; i < kSamples; ++i) {
      db->insertPowerSample(sampleAt(i));
      if (i % 50 == 0) {
        db->insertCollectionInterval(at(i), at(i + 1), CollectionIntervalStatus::collected,
                                     std::to_string(i));
      }
    }
  });
  writer.join();
  // Posted before the read: the read, waiting its turn on the queue, sees every write.
  EXPECT_EQ(db->queryCollectionIntervals(at(0), at(kSamples)).value().size(), 8u);
  EXPECT_EQ(db->queue().sync([&] { return db->databaseInfo().sampleCount; }), kSamples)
      << "a read on the queue runs in place";
  std::thread([&] { EXPECT_EQ(db->queryPowerSamples(at(0), at(1), 5).value().size(), 2u); }).join();
  const Rows rows = sql().rows("SELECT timestamp FROM power_samples ORDER BY id");
  ASSERT_EQ(rows.size(), static_cast<std::size_t>(kSamples));
  for (int i = 0; i < kSamples; ++i) ASSERT_EQ(std::stod(rows[i][0]), kT0 + i) << i;
  EXPECT_EQ(sql().rows("SELECT reason FROM collection_intervals ORDER BY id"),
            (Rows{{"0"}, {"50"}, {"100"}, {"150"}, {"200"}, {"250"}, {"300"}, {"350"}}));
}

TEST_F(WritesTest, ACorruptedTableIsSignalledOnceAndItsWritesAreDropped) {
  for (int i = 0; i < 200; ++i) db->insertPowerSample(sampleAt(i));
  drain();
  const std::int64_t pageSize = sql().integer("PRAGMA page_size");
  const std::int64_t root =
      sql().integer("SELECT rootpage FROM sqlite_schema WHERE name = 'power_samples'");
  // Closing both connections folds the log into the main file, so the damage below is what the
  // next connection reads.
  db.reset();
  raw.reset();
  std::fstream(file, std::ios::in | std::ios::out | std::ios::binary).seekp((root - 1) * pageSize)
      << std::string(static_cast<std::size_t>(pageSize), '\x5a');
  db = std::make_unique<QuorelDatabase>(options(), clock);
  ASSERT_EQ(corruptionSignals, 0);

  LogCapture logs;
  for (int i = 0; i < 3; ++i) db->insertPowerSample(sampleAt(1000 + i));
  db->insertSession(sessionFrom(-60, 0));
  drain();
  EXPECT_EQ(corruptionSignals, 1);
  EXPECT_EQ(logs.count(corruptionLine(file)), 1u);
  EXPECT_EQ(linesStartingWith(logs, "insertPowerSample step failed: rc=11 "), 3u);
  // Tables that are whole still take their rows.
  EXPECT_EQ(count("sessions"), 1);
}

TEST_F(WritesTest, AStoreThatCouldNotOpenWritesNothingAndReadsSayWhy) {
  const fs::path nowhere = scratch.path() / "no" / "such" / "quorel.db";
  LogCapture logs;
  QuorelDatabase closed(options(false, false, nowhere), clock);
  ASSERT_FALSE(closed.isAvailable());
  EXPECT_EQ(corruptionSignals, 0) << "an explicit path that cannot be opened is no corruption";
  EXPECT_EQ(logs.count("failed to open explicit database path"), 1u);
  closed.insertPowerSample(sampleAt(0));
  closed.insertCapacityLog(capacityAt(0, 4000, 5000, 120, 80));
  closed.insertSession(sessionFrom(-60, 0));
  closed.insertCollectionInterval(at(0), at(1), CollectionIntervalStatus::missing, std::nullopt);
  closed.insertProcessEnergy({energyRecord(0)});
  closed.insertAIAgentEnergy({energyRecord(0)});
  closed.pruneOldData(30, 365);
  EXPECT_EQ(closed.queue().runPending(), 7u);
  EXPECT_EQ(logs.lines().size(), 1u) << "nothing but the failed open is logged";
  EXPECT_EQ(closed.energyRevision(EnergyHistoryKind::processes), 0u);
  EXPECT_FALSE(fs::exists(scratch.path() / "no"));

  const Error why{"the database is not available: cannot open " + nowhere.string() +
                  ": unable to open database file"};
  const TimePoint from = at(0), to = at(3600);
  EXPECT_EQ(closed.queryPowerSamples(from, to, 10).error(), why);
  EXPECT_EQ(closed.historicalCoverage(from, to).error(), why);
  EXPECT_EQ(closed.queryRecentSessions(1).error(), why);
  EXPECT_EQ(closed.queryDailyBatteryMetrics().error(), why);
  EXPECT_EQ(closed.queryAIAgentEnergy(from, to, 2, 2).error(), why);
  EXPECT_EQ(closed.totalComponentEnergy_Wh().error(), why);
  EXPECT_EQ(closed.powerSampleDateRange().error(), why);
  EXPECT_EQ(closed.cachedEnergyHistory(EnergyHistoryKind::agents,
                                       EnergyHistoryWindow::rolling(Seconds(3600)), from, to),
            EnergyHistorySnapshot{});
  EXPECT_EQ(closed.databaseInfo(), DatabaseInfo{});
}

}  // namespace
}  // namespace quorel
