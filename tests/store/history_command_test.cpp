// `quorel history` against files built with plain SQL: refusals, missing files, and the JSON
// shapes shared with the MCP read tools.

#include "store/history_command.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "store/quorel_database.hpp"
#include "store/sqlite_test_support.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;
using testing::SqlFile;

constexpr double kT0 = 1'800'000'000;  // 2027-01-15T08:00:00Z

class HistoryCommandTest : public ::testing::Test {
 protected:
  HistoryCommandTest() {
    QuorelDatabase::Options o;
    o.dataDirectory = std::nullopt;
    o.databasePathOverride = file();
    o.startQueue = false;
    QuorelDatabase made(std::move(o));  // a current schema, then closed
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
  EXPECT_EQ(run({.subcommand = "samples", .to = "2027-01-15T08:00:00"}).exitStatus, 2)
      << "a time without a zone";
  EXPECT_EQ(run({.subcommand = "samples", .to = "2027-02-30T08:00:00Z"}).exitStatus, 2);
  r = run({.subcommand = "samples", .points = "12x"});
  EXPECT_EQ(r.exitStatus, 2);
  EXPECT_EQ(r.error,
            "--points \"12x\" is not a whole number of at least 1 — give a count such "
            "as 240.");
  EXPECT_EQ(run({.subcommand = "sessions", .limit = "0"}).exitStatus, 2);
  EXPECT_EQ(run({.subcommand = "everything"}).exitStatus, 2);
}

TEST_F(HistoryCommandTest, MissingOrUnreadableDatabaseSaysWhereItLooked) {
  fs::remove(file());
  auto r = run({.subcommand = "lifetime"});
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_NE(r.error.find(file().string()), std::string::npos) << r.error;
  EXPECT_FALSE(fs::exists(file())) << "looking must not create it";

  std::ofstream(file()) << "this is not a database, just some text long enough to be a header";
  r = run({.subcommand = "lifetime"});
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_EQ(r.error.rfind("Cannot read the history database at " + file().string(), 0), 0u);
}

TEST_F(HistoryCommandTest, TimesReadWithAndWithoutFractionsAndOffsets) {
  EXPECT_EQ(parseIso8601("2027-01-15T08:00:00Z"), fromUnixSeconds(kT0));
  EXPECT_EQ(parseIso8601("2027-01-15T08:00:00.250Z"), fromUnixSeconds(kT0 + 0.25));
  EXPECT_EQ(parseIso8601("2027-01-15T09:30:00+01:30"), fromUnixSeconds(kT0));
  EXPECT_EQ(parseIso8601("2027-01-15T03:00:00-05:00"), fromUnixSeconds(kT0));
  EXPECT_FALSE(parseIso8601("2027-01-15T08:00:00.Z"));
  EXPECT_FALSE(parseIso8601("2027-01-15 08:00:00Z"));
  EXPECT_FALSE(parseIso8601(""));
}

TEST_F(HistoryCommandTest, SamplesJsonHasTheToolsKeysWithNullsForAbsentFigures) {
  {
    SqlFile sql(file());
    sql.insert("power_samples", {{"timestamp", kT0 + 600},
                                 {"wattage", -6.5},
                                 {"battery_pct", 80.0},
                                 {"gpu_w", 1.5},
                                 {"dram_w", 0.5},
                                 {"observed_duration_s", 30.0},
                                 {"component_quality", std::string("measured")}});
    sql.insert("power_samples", {{"timestamp", kT0 + 630}, {"wattage", -6.0}});
    sql.insert("power_samples", {{"timestamp", kT0 - 600}, {"wattage", -6.0}});  // before
  }
  const JSONValue v = parsed(run({.subcommand = "samples", .json = true}));
  EXPECT_EQ(v.member("available"), JSONValue(true));
  EXPECT_EQ(v.member("from"), JSONValue("2027-01-15T08:00:00.000Z")) << "an hour before now";
  EXPECT_EQ(v.member("to"), JSONValue("2027-01-15T09:00:00.000Z"));
  EXPECT_EQ(v.member("count"), JSONValue(2));
  const auto* samples = v.find("samples")->arrayValue();
  ASSERT_EQ(samples->size(), 2u);
  const JSONValue& s = (*samples)[0];
  EXPECT_EQ(s.objectValue()->size(), 25u);
  EXPECT_EQ(s.member("t"), JSONValue("2027-01-15T08:10:00.000Z"));
  EXPECT_EQ(s.member("component_sum_w"), JSONValue(2.0));
  EXPECT_EQ(s.member("ecpu_w"), JSONValue(nullptr));
  EXPECT_EQ(s.member("component_quality"), JSONValue("measured"));
  EXPECT_EQ(s.member("system_power_quality"), JSONValue("unavailable"));
  EXPECT_EQ(s.member("charging"), JSONValue(false));
  EXPECT_EQ((*samples)[1].member("component_sum_w"), JSONValue(nullptr));

  const JSONValue coverage = *v.member("coverage");
  EXPECT_EQ(coverage.member("collected_s"), JSONValue(60.0));
  EXPECT_EQ(coverage.member("missing_s"), JSONValue(3540.0));
  EXPECT_EQ(coverage.member("sleep_s"), JSONValue(0.0));
  EXPECT_EQ(coverage.member("rejected_values"), JSONValue(0));
  EXPECT_EQ(coverage.member("confidence"), coverage.member("ratio"));
  EXPECT_EQ(parsed(run({.subcommand = "coverage", .json = true})), coverage);

  EXPECT_EQ(parsed(run({.subcommand = "samples", .points = "1", .json = true})).member("count"),
            JSONValue(2));
}

TEST_F(HistoryCommandTest, AppsRankOverADayWithCurrentPowerFromTheLastMinuteAndAHalf) {
  {
    SqlFile sql(file());
    auto row = [&](double offset, const char* name, double watts, double wh) {
      sql.insert("process_energy", {{"timestamp", kT0 + offset},
                                    {"process_name", std::string(name)},
                                    {"avg_cpu", 1.0},
                                    {"avg_watts", watts},
                                    {"peak_watts", watts},
                                    {"observed_duration_s", 60.0},
                                    {"energy_wh", wh},
                                    {"coverage_ratio", 1.0},
                                    {"quality", std::string("measured")}});
    };
    row(-20 * 3600, "compiler", 30, 5.0);  // within the default day
    row(3600 - 30, "compiler", 12, 0.2);   // within the last 90 seconds
    row(-3600, "editor", 3, 0.05);
    row(-30 * 3600, "ancient", 99, 50.0);  // older than a day
  }
  const JSONValue v = parsed(run({.subcommand = "apps", .json = true}));
  const auto* apps = v.find("apps")->arrayValue();
  ASSERT_EQ(apps->size(), 2u);
  const JSONValue& top = (*apps)[0];
  EXPECT_EQ(top.member("app"), JSONValue("compiler"));
  EXPECT_EQ(top.member("wh"), JSONValue(5.2));
  EXPECT_EQ(top.member("current_w"), JSONValue(12.0));
  EXPECT_EQ(top.member("source"), JSONValue("cpu_package_apportionment"));
  EXPECT_EQ((*apps)[1].member("current_w"), JSONValue(0));
  EXPECT_EQ(parsed(run({.subcommand = "apps", .limit = "1", .json = true}))
                .find("apps")
                ->arrayValue()
                ->size(),
            1u);
  EXPECT_EQ(
      parsed(run({.subcommand = "agents", .json = true})).find("agents")->arrayValue()->size(), 0u);

  const auto table = run({.subcommand = "apps"});
  EXPECT_EQ(table.exitStatus, 0);
  EXPECT_NE(table.output.find("compiler"), std::string::npos);
}

TEST_F(HistoryCommandTest, LifetimeOfAnEmptyStoreHasNullBounds) {
  const JSONValue v = parsed(run({.subcommand = "lifetime", .json = true}));
  EXPECT_EQ(v.member("lifetime_wh"), JSONValue(0));
  EXPECT_EQ(v.member("lifetime_from"), JSONValue(nullptr));
  EXPECT_EQ(v.member("lifetime_quality"), JSONValue("inferred"));
  EXPECT_EQ(parsed(run({.subcommand = "sessions", .json = true})).member("count"), JSONValue(0));
  EXPECT_EQ(parsed(run({.subcommand = "daily", .json = true})).member("count"), JSONValue(0));
}

}  // namespace
}  // namespace quorel
