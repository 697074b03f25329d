// The ranking answered from the in-memory rollup against the plain ranking statement over the
// same rows: random windows over a random history, through every way the rows can change.

#include "store/energy_rollup.hpp"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "store/store_test_fixture.hpp"

namespace quorel {
namespace {

using namespace store_test;

TEST(ExactSumTest, TheSameValuesGiveTheSameDoubleInAnyOrderAndAnyBucketing) {
  std::mt19937 random(7);
  std::uniform_real_distribution<double> value(0.0, 3.0);
  std::vector<double> values;
  for (int i = 0; i < 2000; ++i) values.push_back(value(random) / std::pow(10.0, i % 7));
  ExactSum reference;
  for (const double v : values) reference.add(v);
  long double wide = 0;
  for (const double v : values) wide += v;
  EXPECT_NEAR(reference.value(), static_cast<double>(wide), 1e-15 * static_cast<double>(wide));
  for (int round = 0; round < 10; ++round) {
    std::shuffle(values.begin(), values.end(), random);
    ExactSum whole;
    std::vector<ExactSum> buckets(1 + static_cast<std::size_t>(round) * 7);
    for (std::size_t i = 0; i < values.size(); ++i) buckets[i % buckets.size()].add(values[i]);
    for (const auto& bucket : buckets) whole.add(bucket);
    EXPECT_EQ(whole.value(), reference.value()) << "round " << round;
  }
}

class EnergyRollupTest : public StoreFileTest {
 protected:
  static constexpr double kStart = kT0 - 4 * kDay + 1234;  // on no hour

  // The ranking statement over the rows, ties broken by identifier as the store promises.
  std::vector<TrackedEnergySummary> reference(const char* table, const char* column, double from,
                                              double to, int limit) {
    const std::string text =
        std::string("SELECT ") + column +
        ", SUM(energy_wh), SUM(observed_duration_s), SUM(missing_duration_s),"
        " CASE WHEN SUM(observed_duration_s)>0 THEN "
        "SUM(energy_wh)*3600.0/SUM(observed_duration_s) ELSE 0 END,"
        " MAX(peak_watts), CASE WHEN SUM(CASE WHEN coverage_ratio IS NOT NULL"
        " THEN observed_duration_s ELSE 0 END)>0 THEN "
        "SUM(COALESCE(coverage_ratio,0)*observed_duration_s)/SUM(CASE WHEN "
        "coverage_ratio IS NOT NULL THEN observed_duration_s ELSE 0 END) ELSE "
        "NULL END, CASE WHEN SUM(quality='rejected')>0 THEN 'rejected' WHEN "
        "SUM(quality='legacy')>0 THEN 'legacy' WHEN SUM(quality='estimated')>0 "
        "THEN 'estimated' WHEN SUM(quality='inferred')>0 THEN 'inferred' WHEN "
        "SUM(quality='measured')>0 THEN 'measured' ELSE 'unavailable' END FROM " +
        table + " WHERE timestamp BETWEEN ? AND ? GROUP BY " + column +
        " ORDER BY SUM(energy_wh) DESC, " + column + " ASC LIMIT ?";
    sqlite3_stmt* st = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(sql().handle(), text.c_str(), -1, &st, nullptr), SQLITE_OK);
    sqlite3_bind_double(st, 1, from);
    sqlite3_bind_double(st, 2, to);
    sqlite3_bind_int(st, 3, limit);
    std::vector<TrackedEnergySummary> out;
    while (sqlite3_step(st) == SQLITE_ROW) {
      TrackedEnergySummary s{reinterpret_cast<const char*>(sqlite3_column_text(st, 0)),
                             sqlite3_column_double(st, 1),
                             sqlite3_column_double(st, 2),
                             sqlite3_column_double(st, 3),
                             sqlite3_column_double(st, 4),
                             sqlite3_column_double(st, 5)};
      const double seen = s.observedDuration_s + s.missingDuration_s;
      s.coverageRatio = sqlite3_column_type(st, 6) != SQLITE_NULL
                            ? std::min(sqlite3_column_double(st, 6), 1.0)
                            : (seen > 0 ? s.observedDuration_s / seen : 0);
      s.quality = *historicalValueQualityFromString(
          reinterpret_cast<const char*>(sqlite3_column_text(st, 7)));
      out.push_back(s);
    }
    sqlite3_finalize(st);
    return out;
  }

  // Values are small multiples of powers of two, so every summing order is exact and the two
  // answers can be held to the last bit; small energies make ties common.
  TrackedEnergyRecord record(double t) {
    std::uniform_int_distribution<int> pick(0, 7);
    const double observed = 60.0 * (pick(random) % 3);
    return {.timestamp = fromUnixSeconds(t),
            .identifier = "app-" + std::to_string(pick(random)),
            .peakWatts = pick(random) == 0 ? NAN : pick(random) / 4.0,
            .observedDuration_s = observed,
            .missingDuration_s = 30.0 * (pick(random) % 2),
            .energyWh = (pick(random) % 4) / 64.0,
            .coverageRatio = (pick(random) % 3) / 2.0,  // 0 is stored as NULL
            .quality = static_cast<HistoricalValueQuality>(pick(random) % 6),
            .source = "cpu_time_share"};
  }

  // Batches of rows over [from, from + span), with rows on hour and day boundaries.
  void write(double from, double span, int batches) {
    std::uniform_int_distribution<int> step(0, static_cast<int>(span / 30) - 1);
    for (int b = 0; b < batches; ++b) {
      double t = from + 30.0 * step(random);
      if (b % 5 == 0) t = std::ceil(t / (b % 10 == 0 ? kDay : 3600)) * (b % 10 == 0 ? kDay : 3600);
      std::vector<TrackedEnergyRecord> batch{record(t), record(t), record(t)};
      b % 2 ? db->insertAIAgentEnergy(batch) : db->insertProcessEnergy(batch);
    }
    drain();
  }

  void expectSameRankings(const char* phase) {
    SCOPED_TRACE(phase);
    // Ends on hour and day boundaries and on rows (BETWEEN takes both ends in), half each.
    std::vector<double> boundaries{kStart - 10, kStart + 5 * kDay};
    for (double t = std::floor(kStart / 3600) * 3600; t < kStart + 5 * kDay; t += 3600) {
      boundaries.push_back(t);
    }
    std::vector<double> rowTimes;
    for (const auto& row : sql().rows(
             "SELECT timestamp FROM process_energy UNION SELECT timestamp FROM ai_agent_energy")) {
      rowTimes.push_back(std::stod(row[0]));
    }
    const auto anyEnd = [&] {
      const auto& from = std::bernoulli_distribution()(random) ? boundaries : rowTimes;
      return from[std::uniform_int_distribution<std::size_t>(0, from.size() - 1)(random)];
    };
    std::uniform_real_distribution<double> nudge(-1800.0, 1800.0);
    const int limits[] = {-1, 0, 1, 3, 500};
    for (int i = 0; i < 80; ++i) {
      double from = anyEnd();
      double to = anyEnd();
      if (from > to && i % 4 != 2) std::swap(from, to);
      if (i % 4 == 1) from += nudge(random);
      if (i % 4 == 2) std::swap(from, to);  // some windows are inverted
      const int limit = limits[i % 5];
      const bool agents = i % 2 == 1;
      const char* table = agents ? "ai_agent_energy" : "process_energy";
      const char* column = agents ? "agent_id" : "process_name";
      const auto got = db->queryTrackedEnergySummaries(table, column, fromUnixSeconds(from),
                                                       fromUnixSeconds(to), limit);
      ASSERT_TRUE(got) << got.error().message;
      ASSERT_EQ(*got, reference(table, column, from, to, limit))
          << std::fixed << table << " [" << from << ", " << to << "] limit " << limit;
    }
  }

  std::mt19937 random{20270115};
};

TEST_F(EnergyRollupTest, RandomWindowsRankAsTheRowsDoThroughEveryChangeOfTheRows) {
  write(kStart, 4 * kDay, 700);
  expectSameRankings("folded in as written");

  db = std::make_unique<QuorelDatabase>(options(), clock);
  expectSameRankings("built from the rows of an existing file");

  write(kStart, 5 * kDay, 150);
  expectSameRankings("rows written after the build, old days and new");

  sql().insert("process_energy", {{"timestamp", kStart + 2 * kDay + 45.5},
                                  {"process_name", "outsider"},
                                  {"avg_cpu", 1.0},
                                  {"avg_watts", 1.0},
                                  {"energy_wh", 1.0}});
  expectSameRankings("a row written by another connection");

  clock.set(fromUnixSeconds(kStart + 2.5 * kDay + 1000.5));
  db->pruneOldData(1, 400);
  drain();
  ASSERT_EQ(count("process_energy WHERE timestamp < " + std::to_string(kStart + 1.5 * kDay + 1000)),
            0);
  expectSameRankings("pruned in the middle of an hour");
}

}  // namespace
}  // namespace quorel
