// Each read against a real file: bounds, gaps, coverage, rankings, the energy history cache,
// the lifetime total, the residency kept by day, and read-only opening.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <string>

#include "store/quorel_database.hpp"
#include "store/sqlite_test_support.hpp"
#include "store/store_test_fixture.hpp"

namespace quorel {
namespace {

using namespace store_test;

TEST_F(ReadsTest, AnEmptyStoreAnswersEmptilyAndAFailedReadCarriesSQLitesWords) {
  EXPECT_TRUE(db->queryPowerSamples(at(-1e6), at(1e6), 100).value().empty());
  EXPECT_TRUE(db->queryCollectionIntervals(at(-1e6), at(1e6)).value().empty());
  EXPECT_EQ(db->historicalCoverage(at(0), at(3600)).value().missingSeconds, 3600);
  EXPECT_TRUE(db->queryRecentSessions(10).value().empty());
  EXPECT_TRUE(db->queryCapacityLog().value().empty());
  EXPECT_TRUE(db->queryProcessEnergy(at(0), at(3600), 200, 6).value().empty());
  EXPECT_TRUE(
      db->queryTrackedEnergySummaries("ai_agent_energy", "agent_id", at(0), at(1), 9)->empty());
  EXPECT_EQ(db->totalComponentEnergy_Wh().value(), 0);
  EXPECT_EQ(db->powerSampleDateRange().value(), std::nullopt);
  EXPECT_FALSE(db->oldestPowerSampleDate());
  EXPECT_GT(db->databaseInfo().bytes, 0u);

  sample(0, {{"wattage", -1.0}});
  sql().exec("DROP TABLE sessions");
  sql().exec("DROP TABLE collection_intervals");
  EXPECT_EQ(db->queryRecentSessions(5).error().message, "no such table: sessions");
  EXPECT_EQ(db->historicalCoverage(at(0), at(60)).error().message,
            "no such table: collection_intervals")
      << "coverage needs the sleep intervals as well as the samples";
  EXPECT_EQ(db->queryPowerSamples(at(0), at(1), 5).value().size(), 1u);
  EXPECT_EQ(db->queryTrackedEnergySummaries("sessions", "id", at(0), at(1), 5).error().message,
            "sessions.id is not an energy table");
  // A lifetime total that could not be read does not move the checkpoint.
  sql().exec("ALTER TABLE power_samples RENAME TO old_samples");
  EXPECT_FALSE(db->totalComponentEnergy_Wh());
  EXPECT_EQ(sql().real("SELECT last_ts FROM lifetime_energy_state"), 0.0);
}

TEST_F(ReadsTest, SamplesComeBackWithinInclusiveBoundsWithGapsAndUnknownLabelsMarked) {
  sample(-1, {{"wattage", -5.0}});
  sample(0, {{"wattage", -7.5}, {"component_quality", std::string("measured")}});
  sample(400, {{"wattage", -6.0}, {"wall_estimate_quality", std::string("someday")}});
  sample(401, {{"wattage", -6.0}});

  const auto samples = db->queryPowerSamples(at(0), at(400), 100).value();
  ASSERT_EQ(samples.size(), 2u);
  EXPECT_EQ(samples[0].wattage, -7.5);
  EXPECT_EQ(samples[0].componentQuality, HistoricalValueQuality::measured);
  EXPECT_FALSE(samples[0].precededByGap);
  EXPECT_TRUE(samples[1].precededByGap) << "400 s after the first sample of the range";
  EXPECT_EQ(samples[1].wallEstimateQuality, HistoricalValueQuality::unavailable);
  EXPECT_EQ(db->powerHistoryReads(), 1u);

  EXPECT_EQ(db->powerSampleDateRange().value(), (PowerSampleDateRange{at(-1), at(401)}));
  EXPECT_EQ(db->oldestPowerSampleDate(), at(-1));
  EXPECT_EQ(db->databaseInfo().sampleCount, 4);
}

TEST_F(ReadsTest, CoverageCountsSleepApartAndNeverMoreThanTheGapLimitPerRow) {
  // One hour: 30 minutes asleep, 15 minutes of samples each standing for 30 s.
  for (int i = 0; i < 30; ++i) sample(60 + 30.0 * i, {{"observed_duration_s", 30.0}});
  // A missing interval is no sleep, and sleep outside the period does not count.
  sql().exec(
      "INSERT INTO collection_intervals (start_time, end_time, status) VALUES "
      "(1800001800, 1800005400, 'sleep'), (1800001000, 1800001100, 'missing')");
  const auto c = db->historicalCoverage(at(0), at(3600)).value();
  EXPECT_DOUBLE_EQ(c.collectedSeconds, 900);
  EXPECT_DOUBLE_EQ(c.sleepingSeconds, 1800);
  EXPECT_DOUBLE_EQ(c.missingSeconds, 900);
  EXPECT_DOUBLE_EQ(c.coverageRatio(), 0.5);
  EXPECT_EQ(db->historicalCoverage(at(3600), at(0)).value(), c);

  EXPECT_EQ(db->queryCollectionIntervals(at(1050), at(1060)).value(),
            (std::vector<CollectionIntervalRecord>{
                {2, at(1000), at(1100), CollectionIntervalStatus::missing, std::nullopt}}))
      << "intervals come back whole, unclipped";
}

// Asked again from the same start, coverage reads only the rows since its last count and says
// what a fresh count says, across rows that lean on their predecessor; a change made through
// another connection is counted afresh.
TEST_F(ReadsTest, CoverageAskedAgainFromTheSameStartMatchesAFreshCount) {
  for (int i = 0; i < 120; ++i) {
    sample(60.0 * i, {{"observed_duration_s", 60.0},
                      {"component_quality", i % 7 == 0 ? "rejected" : "measured"}});
  }
  const auto fresh = [&](double end) {
    QuorelDatabase other(options(/*readOnly=*/true), clock);
    return other.historicalCoverage(at(0), at(end)).value();
  };
  EXPECT_EQ(db->historicalCoverage(at(0), at(7200)).value(), fresh(7200));
  // Newer rows through this store: legacy ones without a duration, then estimated ones.
  for (int i = 0; i < 60; ++i) {
    PowerSample s;
    s.timestamp = at(7200 + 30.0 * i), s.wattage = -7.25, s.batteryPct = 64.5;
    s.systemPowerQuality =
        i < 20 ? HistoricalValueQuality::legacy : HistoricalValueQuality::estimated;
    if (i >= 20) s.observedDurationS = 30;
    db->insertPowerSample(s);
  }
  drain();
  const auto resumed = db->historicalCoverage(at(0), at(9000)).value();
  EXPECT_EQ(resumed, fresh(9000));
  EXPECT_EQ(resumed.estimatedCount, 60);
  EXPECT_EQ(resumed.rejectedCount, 18);

  sql().exec("DELETE FROM power_samples WHERE timestamp < 1800003600");
  EXPECT_EQ(db->historicalCoverage(at(0), at(9000)).value(), fresh(9000));
}

TEST_F(ReadsTest, SessionsNewestFirstWithUnknownLabelsDecodedToTheirDefaults) {
  // The last one leaves its labels to the column defaults.
  sql().exec(
      "INSERT INTO sessions (id, start_time, end_time, start_pct, end_pct, is_charging, "
      "avg_wattage, total_wh, collected_duration_s, missing_duration_s, confidence, mode, "
      "quality) VALUES "
      "('0B6F1C9E-2D4A-4E7B-9C1D-3A5B7C9D1E2F', 1800000000, 1800003725, 90, 70, 0, 8.5, 12, "
      "3000, 600, 0.8, 'force_discharge', 'measured'), "
      "('not-a-uuid', 1800005000, 1800006000, 90, 70, 0, 8.5, 12, 3000, 600, 0.8, 'battery', "
      "'measured'), "
      "('1B6F1C9E-2D4A-4E7B-9C1D-3A5B7C9D1E2F', 1800007000, 1800007059, 90, 70, 0, 8.5, 12, "
      "3000, 600, 0.8, 'Battery', 'great')");
  sql().exec(
      "INSERT INTO sessions (id, start_time, end_time) VALUES "
      "('2B6F1C9E-2D4A-4E7B-9C1D-3A5B7C9D1E2F', 1799991000, 1799992000)");

  const auto sessions = db->queryRecentSessions(10).value();
  ASSERT_EQ(sessions.size(), 3u);
  EXPECT_EQ(sessions[0].id, "1B6F1C9E-2D4A-4E7B-9C1D-3A5B7C9D1E2F");
  EXPECT_EQ(sessions[0].mode, PowerSessionMode::legacy) << "text is compared exactly";
  EXPECT_EQ(sessions[0].quality, HistoricalValueQuality::unavailable);
  EXPECT_EQ(sessions[1], (SessionRecord{"0B6F1C9E-2D4A-4E7B-9C1D-3A5B7C9D1E2F", at(0), at(3725), 90,
                                        70, false, 8.5, 12, PowerSessionMode::forceDischarge, 3000,
                                        600, HistoricalValueQuality::measured, 0.8}));
  EXPECT_EQ(sessions[2].mode, PowerSessionMode::legacy) << "the column default";

  // The limit counts rows before the bad id is skipped.
  EXPECT_EQ(db->queryRecentSessions(2).value().size(), 1u);
}

TEST_F(ReadsTest, DailyMetricsKeepDaysWithHealthAndDesignAndRoundCapacities) {
  // Days kept need a health and a design capacity above zero; the 16th is out of order.
  sql().exec(
      "INSERT INTO daily_battery_metrics (day_key, day_start, nominal_capacity_mah, "
      "design_capacity_mah, cycle_count, health_pct, avg_temperature_c, max_temperature_c, "
      "temperature_observed_s, temperature_sample_count, capacity_sample_count, quality) VALUES "
      "('2027-01-16', 1800086400, 4500.5, 5000.4, 101, 90, 30, NULL, 0, 0, 3, 'odd'), "
      "('2027-01-15', 1800000000, 4600, 5000, 100, 92, 29, 35, 600, 20, 0, 'measured'), "
      "('2027-01-17', 1800172800, NULL, 5000, NULL, NULL, NULL, NULL, 0, 0, 0, 'measured'), "
      "('2027-01-18', 1800259200, NULL, 0, NULL, 90, NULL, NULL, 0, 0, 0, 'measured'), "
      "('2027-01-19', 1800345600, NULL, NULL, NULL, 90, NULL, NULL, 0, 0, 0, 'measured')");

  const auto metrics = db->queryDailyBatteryMetrics().value();
  ASSERT_EQ(metrics.size(), 2u);
  using Q = HistoricalValueQuality;
  EXPECT_EQ(metrics[0],
            (DailyBatteryMetric{at(0), 4600, 5000, 100, 92, 29, 35, 0, 600, 20, Q::measured}));
  EXPECT_EQ(metrics[1], (DailyBatteryMetric{at(86400), 4501, 5000, 101, 90, 30, std::nullopt, 3, 0,
                                            0, Q::unavailable}))
      << "capacities are rounded, an unknown label is unavailable";

  // The capacity log is the daily table seen as readings; the raw log is not read.
  sql().insert("capacity_log", {{"timestamp", kT0 + 50}, {"design_capacity_mah", 1}});
  const auto log = db->queryCapacityLog().value();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0], (CapacityLogEntry{at(0), 4600, 5000, 100, 92.0, 35.0}));
  EXPECT_DOUBLE_EQ(log[1].maxTemperature_C, 30.0) << "the average stands in for a missing max";
}

TEST_F(ReadsTest, RankingsAndBucketedSeriesWeighByObservedTime) {
  const char* table = "process_energy";
  // "build" uses the most energy; "idle" the least and falls out of a top two.
  energy(table, 0, "build", 10, 2, {{"observed_duration_s", 30.0}});
  energy(table, 60, "build", 20, 3, {{"observed_duration_s", 90.0}});
  energy(table, 2000, "build", 5, 0.1, {{"observed_duration_s", 60.0}});
  energy(table, 100, "editor", 4, 1);  // no observed time
  energy(table, 200, "editor", 6, 1);
  energy(table, 300, "idle", 0.1, 0.01);
  energy(table, 99999, "later", 50, 99);

  const auto series = db->queryProcessEnergy(at(0), at(3600), 3, 2).value();
  ASSERT_EQ(series.size(), 2u);
  ASSERT_EQ(series.at("build").size(), 2u);
  EXPECT_DOUBLE_EQ(toUnixSeconds(series.at("build")[0].time), kT0 + (0 * 30 + 60 * 90) / 120.0);
  EXPECT_DOUBLE_EQ(series.at("build")[0].watts, (10.0 * 30 + 20.0 * 90) / 120.0);
  EXPECT_EQ(series.at("build")[1], (EnergyPoint{at(2000), 5.0}));
  ASSERT_EQ(series.at("editor").size(), 1u);
  EXPECT_EQ(series.at("editor")[0], (EnergyPoint{at(150), 5.0})) << "plain averages";
}

TEST_F(ReadsTest, SummariesTakeTheWorstQualityAndFallBackToDurationsForCoverage) {
  const char* table = "process_energy";
  const auto quality = [](const char* label) { return std::pair{"quality", SqlValue(label)}; };
  for (int i = 0; i < 9; ++i) {
    energy(table, 10.0 * i, "mostly-measured", 2, 1,
           {{"peak_watts", 3.0 + i},
            {"observed_duration_s", 10.0},
            {"coverage_ratio", 0.5},
            quality("measured")});
  }
  energy(table, 95, "mostly-measured", 2, 1,
         {{"observed_duration_s", 30.0}, {"coverage_ratio", 1.0}, quality("legacy")});
  energy(table, 0, "bad", 2, 0.5,
         {{"observed_duration_s", 60.0}, {"missing_duration_s", 20.0}, quality("legacy")});
  energy(table, 5, "bad", 2, 0.5, {quality("rejected")});
  energy(table, 5, "odd", 2, 0.1,
         {{"coverage_ratio", 1.5}, {"observed_duration_s", 1.0}, quality("whatever")});

  const auto s =
      db->queryTrackedEnergySummaries("process_energy", "process_name", at(0), at(100), 10).value();
  ASSERT_EQ(s.size(), 3u);
  // 10 Wh over 120 s observed; coverage weighed by observed time.
  EXPECT_EQ(s[0],
            (TrackedEnergySummary{"mostly-measured", 10, 120, 0, 10.0 * 3600 / 120, 11,
                                  (0.5 * 90 + 1.0 * 30) / 120, HistoricalValueQuality::legacy}));
  EXPECT_EQ(s[1].identifier, "bad");
  EXPECT_EQ(s[1].quality, HistoricalValueQuality::rejected);
  EXPECT_DOUBLE_EQ(s[1].coverageRatio, 60.0 / 80.0);
  EXPECT_EQ(s[2].quality, HistoricalValueQuality::unavailable);
  EXPECT_DOUBLE_EQ(s[2].coverageRatio, 1.0);

  EXPECT_FALSE(db->queryTrackedEnergySummaries("process_energy", "agent_id", at(0), at(100), 10));
}

TEST_F(ReadsTest, EnergyHistoryCacheIsReusedUntilRowsChangeOrTheWindowReachesNewOnes) {
  energy("process_energy", 100, "build", 10.0, 1.0);
  energy("process_energy", 5000, "build", 12.0, 1.0);
  const auto window = EnergyHistoryWindow::rolling(Seconds(3600));
  const auto kind = EnergyHistoryKind::processes;

  const auto first = db->cachedEnergyHistory(kind, window, at(0), at(3600));
  EXPECT_EQ(db->energyHistoryBuilds(), 1u);
  ASSERT_EQ(first.summaries.size(), 1u);
  EXPECT_DOUBLE_EQ(first.summaries.at("build").energyWh, 1.0);

  const auto builds = [&](double from, double to) {
    db->cachedEnergyHistory(kind, window, at(from), at(to));
    return db->energyHistoryBuilds();
  };
  // Slid forward without dropping the first row or reaching the next one: the same answer.
  EXPECT_EQ(db->cachedEnergyHistory(kind, window, at(50), at(3650)), first);
  EXPECT_EQ(db->energyHistoryBuilds(), 1u);
  // Reaching the next row, or dropping the first one, builds anew.
  EXPECT_EQ(builds(1500, 5100), 2u);
  EXPECT_EQ(builds(5050, 8650), 3u) << "the row at 5000 s left the window";

  // Another connection's write changes data_version.
  energy("process_energy", 7000, "build", 12.0, 1.5);
  const auto after = db->cachedEnergyHistory(kind, window, at(5050), at(8650));
  EXPECT_EQ(db->energyHistoryBuilds(), 4u);
  EXPECT_DOUBLE_EQ(after.summaries.at("build").energyWh, 1.5);

  // This connection's own flush raises the revision, although the window has not moved.
  db->insertProcessEnergy({});
  db->queue().runPending();
  EXPECT_EQ(builds(5050, 8650), 5u);

  // Pruning empties the cache even when it deletes nothing.
  db->pruneOldData(0, 365);
  db->queue().runPending();
  EXPECT_EQ(builds(5050, 8650), 6u);
}

TEST_F(ReadsTest, LifetimeTotalReadsOnlyNewRowsAndSkipsGapsAndUnknownAdapterState) {
  // On battery: total is -wattage. 10 W for 360 s = 1 Wh.
  sample(0, {{"wattage", -10.0}});
  sample(360, {{"wattage", -10.0}});  // 360 s: a gap, nothing
  sample(660, {{"wattage", -10.0}});  // 300 s: counted
  const double first = db->totalComponentEnergy_Wh().value();
  EXPECT_NEAR(first, 300 * 10 / 3600.0, 1e-12);
  EXPECT_EQ(sql().real("SELECT last_ts FROM lifetime_energy_state"), kT0 + 660);

  // Old rows are never read again: deleting them changes nothing.
  sql().exec("DELETE FROM power_samples");
  EXPECT_DOUBLE_EQ(db->totalComponentEnergy_Wh().value(), first);

  // A new row pairs with the checkpoint. On AC the total is power in minus battery flow.
  sample(690, {{"wattage", 5.0}, {"power_in_w", 25.0}, {"external_connected", std::int64_t{1}}});
  const double second = db->totalComponentEnergy_Wh().value();
  EXPECT_NEAR(second - first, 30 * (10 + 20) * 0.5 / 3600.0, 1e-12);

  // Connected without a power-in reading is unknown: neither neighbouring stretch counts.
  sample(720, {{"wattage", 5.0}, {"external_connected", std::int64_t{1}}});
  sample(750, {{"wattage", -4.0}});
  EXPECT_DOUBLE_EQ(db->totalComponentEnergy_Wh().value(), second);
  sample(780, {{"wattage", -4.0}});
  EXPECT_NEAR(db->totalComponentEnergy_Wh().value() - second, 30 * 4 / 3600.0, 1e-12);
}

TEST_F(ReadsTest, ReadOnlyStoreReadsWithoutWritingAndRefusesAMissingFile) {
  sample(0, {{"wattage", -36.0}});
  sample(10, {{"wattage", -36.0}});
  {
    QuorelDatabase reader(options(/*readOnly=*/true), clock);
    ASSERT_TRUE(reader.isAvailable());
    EXPECT_EQ(reader.queryPowerSamples(at(0), at(10), 10).value().size(), 2u);
    EXPECT_NEAR(reader.totalComponentEnergy_Wh().value(), 0.1, 1e-12);
  }
  EXPECT_EQ(sql().real("SELECT last_ts FROM lifetime_energy_state"), 0.0);

  const fs::path missing = scratch.path() / "elsewhere" / "quorel.db";
  EXPECT_FALSE(QuorelDatabase(options(true, false, missing), clock).isAvailable());
  EXPECT_FALSE(fs::exists(missing.parent_path()));

  // An old file is left at its version: no schema work happens on a read-only connection.
  const fs::path old = scratch.path() / "old.db";
  { SqlFile(old).exec("CREATE TABLE power_samples (id INTEGER PRIMARY KEY, timestamp REAL)"); }
  EXPECT_TRUE(QuorelDatabase(options(true, false, old), clock).isAvailable());
  EXPECT_EQ(SqlFile(old).integer("PRAGMA user_version"), 0);
  EXPECT_EQ(SqlFile(old).integer("SELECT COUNT(*) FROM sqlite_master WHERE name='sessions'"), 0);
}

// Whole past days are read from the totals kept for them; whatever the period's edges, a day not
// kept, or a day cut short by pruning, the answer is what summing the samples themselves gives.
TEST_F(ReadsTest, ResidencyFromKeptDaysIsTheSumOfTheSamples) {
  struct Row {
    double t, pct, temperature;
  };
  std::vector<Row> rows;
  for (double t = -5 * kDay + 300; t < 0; t += 600) {
    rows.push_back({t, 50 + 40 * std::sin(t / 7000), 30 + 5 * std::cos(t / 9000) - 1});
    sample(t, {{"battery_pct", rows.back().pct},
               {"temperature_c", rows.back().temperature},
               {"observed_duration_s", 600.0}});
  }
  sample(-kDay - 60, {{"observed_duration_s", 20.0}});  // neither reading
  rows.push_back({-kDay - 60, NAN, NAN});
  const auto expected = [&](double from, double to) {
    std::map<std::pair<std::optional<std::int64_t>, std::optional<std::int64_t>>, double> sums;
    for (const Row& r : rows) {
      if (r.t < from || r.t > to) continue;
      const auto whole = [](double v) {
        return std::isnan(v) ? std::nullopt
                             : std::optional(static_cast<std::int64_t>(std::floor(v)));
      };
      sums[{whole(r.pct), whole(r.temperature)}] += std::isnan(r.pct) ? 20.0 : 300.0;
    }
    return sums;
  };
  const auto check = [&](double from, double to) {
    const auto read = db->queryResidencyObservations(at(from), at(to));
    ASSERT_TRUE(read.ok()) << read.error().message;
    auto want = expected(from, to);
    for (const auto& o : *read) {
      const auto found = want.find({o.chargePct, o.temperatureC});
      ASSERT_NE(found, want.end()) << "from " << from;
      EXPECT_NEAR(o.observedSeconds, found->second, 1e-6) << "from " << from;
      want.erase(found);
    }
    EXPECT_TRUE(want.empty()) << want.size() << " cells missing, from " << from;
  };

  EXPECT_EQ(count("power_samples"), static_cast<std::int64_t>(rows.size()));
  check(-10 * kDay, 0);
  db->pruneOldData(0, 0);  // keeps everything; keeps the past days' totals
  drain();
  EXPECT_EQ(count("residency_days"), 5);  // the first, partial day too; not today
  for (const double from : {-10 * kDay, -4.5 * kDay, -2 * kDay - 1}) check(from, 0);
  check(-3 * kDay, -kDay - 60);  // an end inside a kept day, on a row

  // A day whose totals are lost is read from its samples.
  sql().exec(
      "DELETE FROM residency_days WHERE day_start = (SELECT MIN(day_start) + 172800 FROM "
      "residency_days)");
  check(-10 * kDay, 0);

  // Pruning at 08:00 three days back: that day is kept again from the rows that remain.
  db->pruneOldData(3, 3);
  drain();
  std::erase_if(rows, [](const Row& r) { return r.t < -3 * kDay; });
  check(-10 * kDay, 0);
  EXPECT_EQ(count("residency_days"), 3);
}

}  // namespace
}  // namespace quorel
