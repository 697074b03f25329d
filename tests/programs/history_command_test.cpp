// `quorel history` against files built with plain SQL: refusals, files that cannot be read, and
// the JSON shapes shared with the assistants' tools.

#include "programs/quorel/history_command.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "core/json_value.hpp"
#include "store/quorel_database.hpp"
#include "store/sqlite_test_support.hpp"
#include "support/zone_guard.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;
using testing::SqlFile;

constexpr double kT0 = 1'800'000'000;  // 2027-01-15T08:00:00Z
constexpr const char* kQuestions[] = {"samples", "coverage", "sessions", "daily",
                                      "apps",    "agents",   "lifetime"};

class HistoryCommandTest : public ::testing::Test {
 protected:
  HistoryCommandTest() {
    // A current schema, then closed.
    QuorelDatabase made({.dataDirectory = {}, .databasePathOverride = file(), .onCorruption = {}},
                        clock);
  }
  fs::path file() const { return scratch.path() / "quorel.db"; }
  HistoryCommandResult run(HistoryCommandArguments a) {
    return runHistoryCommand(a, file(), clock);
  }
  JSONValue parsed(const HistoryCommandResult& r) {
    EXPECT_EQ(r.exitStatus, 0) << r.error;
    auto value = JSONValue::parse(r.output);
    EXPECT_TRUE(value) << r.output;
    return value.value_or(JSONValue());
  }

  testing::ScratchDirectory scratch{"quorel-history"};
  ManualClock clock{fromUnixSeconds(kT0 + 3600)};
};

TEST_F(HistoryCommandTest, BadArgumentsAreRefusedWithASentenceBeforeAnythingIsOpened) {
  fs::remove(file());
  auto r = run({.subcommand = "samples", .from = "yesterday"});
  EXPECT_EQ(r.exitStatus, 2);
  EXPECT_EQ(r.error,
            "--from \"yesterday\" is not an ISO-8601 date-time — write it like "
            "2026-11-22T10:15:30Z or 2026-11-22T11:15:30.250+01:00.");
  r = run({.subcommand = "samples", .points = "12x"});
  EXPECT_EQ(r.exitStatus, 2);
  EXPECT_EQ(r.error,
            "--points \"12x\" is not a whole number of at least 1 — give a count such "
            "as 240.");
  r = run({.subcommand = "sessions", .limit = "0"});
  EXPECT_EQ(r.exitStatus, 2);
  EXPECT_NE(r.error.find("such as 20."), std::string::npos) << "the sessions' own default";
  EXPECT_EQ(run({.subcommand = "everything"}).exitStatus, 2);
}

TEST_F(HistoryCommandTest, AHistoryThatCannotBeReadIsAFailureNotAnEmptyAnswer) {
  const std::string prefix = "the history could not be read: ";
  // A table gone from under the read-only connection: that question fails, the others answer.
  SqlFile(file()).exec("DROP TABLE sessions");
  auto r = run({.subcommand = "sessions", .json = true});
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_TRUE(r.output.empty());
  EXPECT_EQ(r.error, prefix + "no such table: sessions (" + file().string() + ")");
  EXPECT_EQ(run({.subcommand = "daily", .json = true}).exitStatus, 0);

  // Bytes that are no database at all fail every question the same way.
  std::ofstream(file(), std::ios::trunc)
      << "this is not a database, just some text long enough to be a header";
  for (const char* question : kQuestions) {
    r = run({.subcommand = question});
    EXPECT_EQ(r.exitStatus, 1) << question;
    EXPECT_EQ(r.error, prefix + "file is not a database (" + file().string() + ")") << question;
  }

  fs::remove(file());
  r = run({.subcommand = "lifetime"});
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_EQ(r.error.rfind(prefix + "there is no history database at " + file().string(), 0), 0u)
      << r.error;
  EXPECT_FALSE(fs::exists(file())) << "looking must not create it";
}

TEST_F(HistoryCommandTest, SamplesJsonHasTheToolsKeysWithNullsForAbsentFigures) {
  // The last one is before the default hour.
  SqlFile(file()).exec(
      "INSERT INTO power_samples (timestamp, wattage, battery_pct, gpu_w, dram_w, "
      "observed_duration_s, component_quality) VALUES "
      "(1800000600, -6.5, 80, 1.5, 0.5, 30, 'measured'), "
      "(1800000630, -6, NULL, NULL, NULL, NULL, 'unavailable'), "
      "(1799999400, -6, NULL, NULL, NULL, NULL, 'unavailable')");
  const JSONValue v = parsed(run({.subcommand = "samples", .json = true}));
  EXPECT_EQ(v.member("from"), JSONValue("2027-01-15T08:00:00.000Z")) << "an hour before now";
  EXPECT_EQ(v.member("count"), JSONValue(2));
  const auto* samples = v.find("samples")->arrayValue();
  ASSERT_EQ(samples->size(), 2u);
  const JSONValue& s = (*samples)[0];
  EXPECT_EQ(s.member("t"), JSONValue("2027-01-15T08:10:00.000Z"));
  EXPECT_EQ(s.member("component_sum_w"), JSONValue(2.0));
  EXPECT_EQ(s.member("ecpu_w"), JSONValue(nullptr));
  EXPECT_EQ(s.member("component_quality"), JSONValue("measured"));
  EXPECT_EQ(s.member("system_power_quality"), JSONValue("unavailable"));
  EXPECT_EQ((*samples)[1].member("component_sum_w"), JSONValue(nullptr));

  const JSONValue coverage = *v.member("coverage");
  EXPECT_EQ(coverage.member("collected_s"), JSONValue(60.0));
  EXPECT_EQ(coverage.member("missing_s"), JSONValue(3540.0));
  EXPECT_EQ(parsed(run({.subcommand = "coverage", .json = true})), coverage);
}

TEST_F(HistoryCommandTest, AppsRankOverADayWithCurrentPowerFromTheLastMinuteAndAHalf) {
  // Within the default day; within the last 90 seconds; within the day; older than a day.
  SqlFile(file()).exec(
      "INSERT INTO process_energy (timestamp, process_name, avg_cpu, avg_watts, peak_watts, "
      "observed_duration_s, energy_wh, coverage_ratio, quality) VALUES "
      "(1799928000, 'compiler', 1, 30, 30, 60, 5.0, 1, 'measured'), "
      "(1800003570, 'compiler', 1, 12, 12, 60, 0.2, 1, 'measured'), "
      "(1799996400, 'editor', 1, 3, 3, 60, 0.05, 1, 'measured'), "
      "(1799892000, 'ancient', 1, 99, 99, 60, 50.0, 1, 'measured')");
  const JSONValue v = parsed(run({.subcommand = "apps", .json = true}));
  const auto* apps = v.find("apps")->arrayValue();
  ASSERT_EQ(apps->size(), 2u);
  const JSONValue& top = (*apps)[0];
  EXPECT_EQ(top.member("app"), JSONValue("compiler"));
  EXPECT_EQ(top.member("wh"), JSONValue(5.2));
  EXPECT_EQ(top.member("current_w"), JSONValue(12.0));
  EXPECT_EQ((*apps)[1].member("current_w"), JSONValue(0));
  EXPECT_EQ(parsed(run({.subcommand = "apps", .limit = "1", .json = true}))
                .find("apps")
                ->arrayValue()
                ->size(),
            1u);
  EXPECT_EQ(
      parsed(run({.subcommand = "agents", .json = true})).find("agents")->arrayValue()->size(), 0u);
  EXPECT_NE(run({.subcommand = "apps"}).output.find("compiler"), std::string::npos);
}

TEST_F(HistoryCommandTest, LifetimeAndDailyJsonAreTheToolsObjects) {
  testing::ZoneGuard zone{"UTC"};
  SqlFile(file()).exec(
      "INSERT INTO power_samples (timestamp, wattage, external_connected) VALUES "
      "(1800000000, -12, 0), (1800000060, -12, 0); "
      "INSERT INTO battery_epoch (first_seen, serial, source) VALUES (1799990000, 'B1', 'auto')");
  HistoryCommandArguments lifetime{.subcommand = "lifetime", .json = true};
  lifetime.carbonRegion = kCarbonRegions[2];
  const JSONValue totals = parsed(run(lifetime));
  EXPECT_EQ(totals.member("carbon_region"), JSONValue(kCarbonRegions[2].rawValue));
  EXPECT_EQ(totals.member("lifetime_wh"), JSONValue(0.2));
  EXPECT_EQ(totals.member("lifetime_system_consumption_wh"), totals.member("lifetime_wh"));
  // Both samples fall on the clock's day: 0.2 Wh at the region's intensity.
  EXPECT_NEAR(*totals.member("co2_g_today")->numberValue(),
              0.0002 * kCarbonRegions[2].gramsCO2PerKWh, 1e-12);

  const JSONValue daily = parsed(run({.subcommand = "daily", .json = true}));
  EXPECT_EQ(daily.find("epoch")->member("serial"), JSONValue("B1"));
  EXPECT_EQ(daily.find("epoch")->member("source"), JSONValue("auto"));
}

}  // namespace
}  // namespace quorel
