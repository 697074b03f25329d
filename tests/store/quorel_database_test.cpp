// The store against real files: schema and migrations from every version, corruption and the
// places a store is put.

#include "store/quorel_database.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>

#include "store/corruption_report.hpp"
#include "store/fixtures/legacy_database.hpp"
#include "store/sqlite_test_support.hpp"
#include "store/store_test_fixture.hpp"
#include "support/log_capture.hpp"
#include "support/zone_guard.hpp"

namespace quorel {
namespace {

using namespace store_test;

// Tables with their columns, and indexes with their columns: everything two files must agree on.
std::map<std::string, Rows> schemaOf(const fs::path& file) {
  SqlFile db(file);
  std::map<std::string, Rows> schema;
  for (const auto& r : db.rows("SELECT name, type, tbl_name FROM sqlite_master WHERE name NOT "
                               "LIKE 'sqlite_%' AND type IN ('table', 'index') ORDER BY name")) {
    const bool table = r[1] == "table";
    schema[r[1] + " " + r[0]] =
        db.rows(table ? "PRAGMA table_xinfo(" + r[0] + ")" : "PRAGMA index_info(" + r[0] + ")");
    if (!table) schema[r[1] + " " + r[0]].push_back({"on " + r[2]});
  }
  return schema;
}

// Three identical component readings: the kind the v6 step heals, so a rerun of it would show.
void insertIdenticalReadings(const fs::path& file) {
  SqlFile(file).exec(
      "INSERT INTO power_samples (timestamp, ecpu_w, pcpu_w, gpu_w, ane_w, dram_w) VALUES "
      "(1, 1, 1, 1, 1, 1), (2, 1, 1, 1, 1, 1), (3, 1, 1, 1, 1, 1)");
}
const char* kReadingsLeft = "SELECT COUNT(*) FROM power_samples WHERE ecpu_w IS NOT NULL";

// Stores placed by the data directory, as the agent places them.
class QuorelDatabaseTest : public ScratchStoreTest {
 protected:
  fs::path dataDir = scratch.path() / "share" / "quorel";
  fs::path dbFile = dataDir / "quorel.db";

  // At the default location inside `directory`, or at `file`.
  QuorelDatabase::Options placed(std::optional<fs::path> file = {},
                                 std::optional<fs::path> directory = {}) {
    return {.dataDirectory = file ? file->parent_path() : directory,
            .databasePathOverride = file,
            .onCorruption = [this] { ++corruptionSignals; },
            .startQueue = false};
  }
  QuorelDatabase::Options atDefaultLocation() { return placed({}, dataDir); }
  fs::path freshDatabase() {
    QuorelDatabase db(atDefaultLocation(), clock);
    return dbFile;
  }
};

TEST_F(QuorelDatabaseTest, FreshFileHasTheCurrentVersionPrivateModesAndWalAndReopensUnchanged) {
  {
    QuorelDatabase db(atDefaultLocation(), clock);
    EXPECT_TRUE(db.isAvailable());
    EXPECT_EQ(db.databasePath(), dbFile);
    EXPECT_EQ(db.databaseFolder(), dataDir);
    EXPECT_EQ(modeOf(dataDir), 0700u);
    for (const char* name : {"quorel.db", "quorel.db-wal", "quorel.db-shm"}) {
      EXPECT_EQ(modeOf(dataDir / name), 0600u) << name << " (0 if it is missing)";
    }
  }
  EXPECT_EQ(corruptionSignals, 0);
  EXPECT_EQ(SqlFile(dbFile).integer("PRAGMA user_version"), 8);
  EXPECT_EQ(SqlFile(dbFile).text("PRAGMA journal_mode"), "wal");

  insertIdenticalReadings(dbFile);
  LogCapture logs;
  QuorelDatabase again(atDefaultLocation(), clock);
  EXPECT_EQ(SqlFile(dbFile).integer(kReadingsLeft), 3);
  for (const auto& line : logs.lines()) EXPECT_THAT(line.message, Not(HasSubstr("migrating")));
}

class MigrationTest : public QuorelDatabaseTest, public ::testing::WithParamInterface<int> {};

// Version 0 is a version 1 file that never had its version set.
TEST_P(MigrationTest, CarriesTheFileToTheCurrentSchemaAndFixesItsRows) {
  const int version = GetParam();
  const auto fresh = schemaOf(freshDatabase());
  const fs::path file = scratch.path() / ("v" + std::to_string(version) + ".db");
  testing::buildLegacyDatabase(file, std::max(version, 1));
  if (version == 0) SqlFile(file).exec("PRAGMA user_version = 0");
  LogCapture logs;
  { QuorelDatabase db(placed(file), clock); }
  EXPECT_EQ(corruptionSignals, 0);
  EXPECT_EQ(logs.count("migrating schema from v" + std::to_string(version) + " to v8"), 1u);
  EXPECT_EQ(schemaOf(file), fresh);

  SqlFile db(file);
  constexpr double T0 = testing::kFixtureStart;
  auto row = [&](double dt, const std::string& columns) {
    const std::string t = std::to_string(T0 + dt);
    return db.rows("SELECT " + columns + " FROM power_samples WHERE timestamp = " + t).at(0);
  };
  auto count = [&](const std::string& where) {
    return db.integer("SELECT COUNT(*) FROM " + where);
  };
  // v2: rows that broke a constraint are gone, the others kept their ids; v5: epochs survive;
  // v8: the capacity readings of 100 and 50 mAh went.
  EXPECT_EQ(
      db.rows("SELECT (SELECT user_version FROM pragma_user_version), (SELECT COUNT(*) FROM "
              "power_samples WHERE battery_pct > 100 OR timestamp < 0 OR timestamp >= "
              "4102444800), (SELECT COUNT(*) FROM power_samples), (SELECT MIN(id) FROM "
              "power_samples), (SELECT COUNT(*) FROM sessions), (SELECT COUNT(*) FROM capacity_log "
              "WHERE design_capacity_mah <= 0 OR nominal_capacity_mah < 0 OR cycle_count < 0), "
              "(SELECT COUNT(*) FROM capacity_log), (SELECT COUNT(*) FROM battery_epoch)"),
      (Rows{{"8", "0", "77", "1", "4", "0", "3", version >= 5 ? "1" : "0"}}));

  // v3: the temperature column exists; values only where the file had them.
  EXPECT_EQ(row(0, "temperature_c"), Row{version >= 3 ? "30.0" : "NULL"});

  // v4: the lifetime checkpoint restarts from zero, once.
  EXPECT_EQ(db.rows("SELECT last_ts, last_total_w, accumulated_wh FROM lifetime_energy_state"),
            (Rows{version < 4 ? Row{"0.0", "0.0", "0.0"} : Row{"1699963300.0", "4.5", "6.75"}}));

  // v6: three identical readings keep the first; two identical readings both stay.
  const std::string components = "ecpu_w, pcpu_w, gpu_w, ane_w, dram_w";
  const Row read{"1.0", "2.0", "3.0", "0.5", "0.25"}, kept = version < 6 ? Row(5, "NULL") : read;
  const Row twice{"1.0", "2.0", "3.0", "0.5", "0.3"};
  EXPECT_EQ(db.rows("SELECT " + components + " FROM power_samples WHERE timestamp BETWEEN " +
                    std::to_string(T0 + 3600) + " AND " + std::to_string(T0 + 3720) +
                    " ORDER BY timestamp"),
            (Rows{read, kept, kept, twice, twice}));

  // v7: labels, rejected components and wall estimates, energy buckets, daily rows, sessions.
  const std::string labels =
      "component_quality, component_rejection_reason, system_power_quality, "
      "wall_estimate_quality";
  if (version < 7) {
    const std::string reason = "legacy component aggregate exceeded physical rail bounds";
    EXPECT_EQ(row(7200, components + ", " + labels),
              (Row{"NULL", "NULL", "NULL", "NULL", "NULL", "rejected", reason, "inferred",
                   "unavailable"}));
    EXPECT_EQ(row(7230, "component_quality, ecpu_w"), (Row{"rejected", "NULL"}));
    // 151 W in all is beyond the package even though every rail is within its own bound; its
    // wall estimate is measured against what survives, nothing, and the 5 W input.
    EXPECT_EQ(row(7260, "component_quality, pcpu_w, wall_estimate_quality"),
              (Row{"rejected", "NULL", "legacy"}));
    EXPECT_EQ(row(7290, "component_quality, pcpu_w, gpu_w"), (Row{"legacy", "60.0", "90.0"}));
    EXPECT_EQ(row(7320, labels), (Row{"unavailable", "NULL", "inferred", "rejected"}));
    EXPECT_EQ(row(7350, labels), (Row{"legacy", "NULL", "unavailable", "rejected"}));
    EXPECT_EQ(row(7380, labels), (Row{"legacy", "NULL", "inferred", "legacy"}));
    EXPECT_EQ(row(0, labels), (Row{"unavailable", "NULL", "inferred", "unavailable"}));

    // Observed duration, energy and missing duration, then the same coverage and labels on each.
    Rows buckets{{"60.0", "0.1", "0.0"},
                 {"0.0", "0.0", "0.0"},
                 {"60.0", "0.0", "0.0"},
                 {"0.0", "0.0", "0.0"}};
    for (auto& r : buckets) r.insert(r.end(), {"NULL", "legacy", "legacy_60s_flush_estimate"});
    for (const std::string table : {"process_energy", "ai_agent_energy"}) {
      EXPECT_EQ(db.rows("SELECT observed_duration_s, round(energy_wh, 6), missing_duration_s, "
                        "coverage_ratio, quality, source FROM " +
                        table + " ORDER BY id"),
                buckets)
          << table;
    }

    // A: intervals of 60 s after the start: 30 s cut at the start (10 W both ends), 60 s at
    // 15 W, one 480 s gap that counts for nothing, 60 s at 15 W.
    EXPECT_EQ(
        db.rows("SELECT substr(id, -1), round(total_wh, 9), collected_duration_s, "
                "missing_duration_s, round(avg_wattage, 9), mode, quality, "
                "round(confidence, 9) FROM sessions ORDER BY id"),
        (Rows{{"A", "0.583333333", "150.0", "480.0", "14.0", "battery", "inferred", "0.238095238"},
              {"B", "0.0", "0.0", "0.0", "0.0", "charging", "unavailable", "0.0"},
              {"C", "0.0", "0.0", "1000.0", "0.0", "battery", "unavailable", "0.0"},
              {"D", "0.0", "0.0", "0.0", "0.0", "battery", "unavailable", "0.0"}}));
  } else {
    // A file already at v7 keeps what that step would have rewritten.
    EXPECT_EQ(row(7200, "component_quality, ecpu_w"), (Row{"legacy", "31.0"}));
    EXPECT_EQ(count("process_energy WHERE observed_duration_s = 0"), 4);
    EXPECT_EQ(count("sessions WHERE total_wh = 99"), 4);
  }

  auto daily = [&](double days) {
    const std::string query =
        "SELECT day_start, nominal_capacity_mah, design_capacity_mah, cycle_count, health_pct, "
        "capacity_sample_count, avg_temperature_c, max_temperature_c, temperature_observed_s, "
        "temperature_sample_count, quality FROM daily_battery_metrics WHERE day_key = '" +
        testing::localDayKey(T0 + days * 86400) + "'";
    return db.rows(query).at(0);
  };
  const Row day0 = daily(0);
  EXPECT_EQ(std::stod(day0[0]), T0);
  EXPECT_EQ(
      Row(day0.begin() + 1, day0.end()),
      (version >= 3
           ? Row{"3950.0", "5000.0", "101", "79.0", "2", "32.0", "34.0", "90.0", "3", "legacy"}
           : Row{"3950.0", "5000.0", "101", "79.0", "2", "NULL", "NULL", "0.0", "0", "legacy"}));

  // v8: undersized capacities leave the log and the daily table; 101 mAh stays.
  EXPECT_EQ(count("capacity_log WHERE design_capacity_mah = 101"), 1);
  EXPECT_EQ(count("capacity_log WHERE design_capacity_mah <= 100"), 0);
  for (double day : {2.0, 4.0}) {
    const Row healed = daily(day);
    EXPECT_EQ(Row(healed.begin() + 1, healed.begin() + 6),
              (Row{"NULL", "NULL", healed[3], "NULL", "0"}));
    EXPECT_EQ(healed.back(), "unavailable");
  }
  EXPECT_EQ(daily(3)[2], "101.0");

  // v8: frozen CPU and DRAM counters, healed only in runs of ten or more over five minutes.
  const bool healedRun[] = {true, false, false, false, true, false};
  for (std::size_t index = 0; index < std::size(healedRun); ++index) {
    const auto& run = testing::kFrozenRuns[index];
    const Row healed{"NULL", "NULL", "NULL", "unavailable", "CPU and DRAM energy counters stalled"};
    Row expected = healedRun[index] ? healed : Row{"0.0", "0.0", "0.0", "legacy", "NULL"};
    expected.insert(expected.begin(), std::to_string(run.rows));
    expected.push_back("0");  // the GPU counter is not part of the stall
    EXPECT_EQ(db.rows("SELECT COUNT(*), ecpu_w, pcpu_w, dram_w, component_quality, "
                      "component_rejection_reason, gpu_w IS NULL FROM power_samples WHERE "
                      "timestamp BETWEEN " +
                      std::to_string(run.start - 0.001) + " AND " +
                      std::to_string(run.start + (run.rows - 1) * run.step_s + 0.001) +
                      " GROUP BY 2, 3, 4, 5, 6, 7"),
              Rows{expected})
        << "run " << index;
  }
}

INSTANTIATE_TEST_SUITE_P(EveryOlderVersion, MigrationTest,
                         ::testing::Range(testing::kOldestFixtureVersion - 1,
                                          testing::kNewestFixtureVersion + 1),
                         [](const ::testing::TestParamInfo<int>& p) {
                           return "v" + std::to_string(p.param);
                         });

TEST_F(QuorelDatabaseTest, AFailingStepLeavesTheFileAtItsOldVersionWithAllItsData) {
  const fs::path file = scratch.path() / "v2.db";
  testing::buildLegacyDatabase(file, 2);
  // Step 6 is the first to update samples; refusing that update makes it fail after steps 3
  // to 5 have already changed the file inside the transaction.
  SqlFile(file).exec(
      "CREATE TRIGGER refuse_heal BEFORE UPDATE ON power_samples BEGIN SELECT RAISE(ABORT, "
      "'refused'); END");
  const auto before = schemaOf(file);
  const auto componentRows = SqlFile(file).integer(kReadingsLeft);
  LogCapture logs;
  { QuorelDatabase db(placed(file), clock); }
  EXPECT_EQ(SqlFile(file).rows("SELECT (SELECT user_version FROM pragma_user_version), (SELECT "
                               "accumulated_wh FROM lifetime_energy_state), (" +
                               std::string(kReadingsLeft) + ")"),
            (Rows{{"2", "6.75", std::to_string(componentRows)}}));
  EXPECT_EQ(schemaOf(file).at("table power_samples"), before.at("table power_samples"));
  EXPECT_EQ(corruptionSignals, 0);
  EXPECT_EQ(linesStartingWith(logs, "v6 migration heal stale component power failed: rc=19 msg=",
                              spdlog::level::err),
            1u);

  // The next start tries again from the old version.
  SqlFile(file).exec("DROP TRIGGER refuse_heal");
  { QuorelDatabase db(placed(file), clock); }
  EXPECT_EQ(SqlFile(file).integer("PRAGMA user_version"), 8);
}

TEST_F(QuorelDatabaseTest, NewerFileIsLeftAsItIs) {
  freshDatabase();
  SqlFile(dbFile).exec(
      "PRAGMA user_version = 9; ALTER TABLE power_samples ADD COLUMN from_the_future REAL");
  insertIdenticalReadings(dbFile);
  const auto before = schemaOf(dbFile);
  LogCapture logs;
  { QuorelDatabase db(atDefaultLocation(), clock); }
  SqlFile db(dbFile);
  EXPECT_EQ(db.integer("PRAGMA user_version"), 9);
  EXPECT_EQ(schemaOf(dbFile), before);
  EXPECT_EQ(db.integer(kReadingsLeft), 3);
  EXPECT_EQ(logs.count("on-disk schema v9 is newer than app v8 — downgrade detected; running with "
                       "potential write skew"),
            1u);
  EXPECT_EQ(db.tryExec("INSERT INTO power_samples (timestamp) VALUES (4)"), SQLITE_OK);
}

TEST_F(QuorelDatabaseTest, RandomBytesSignalCorruptionOnceAndStayUntouched) {
  fs::create_directories(dataDir);
  std::mt19937 random(42);
  std::string noise(64 * 1024, '\0');
  for (auto& c : noise) c = static_cast<char>(random() & 0xff);
  std::ofstream(dbFile, std::ios::binary) << noise;
  LogCapture logs;
  {
    QuorelDatabase db(atDefaultLocation(), clock);
    EXPECT_EQ(corruptionSignals, 1);
    // Later failures of any statement on the same file say nothing new.
    db.insertPowerSample({});
    db.queue().runPending();
    EXPECT_FALSE(db.queryRecentSessions(5));
  }
  EXPECT_EQ(corruptionSignals, 1);
  EXPECT_EQ(logs.count(corruptionLine(dbFile)), 1u);
  std::stringstream bytes;
  bytes << std::ifstream(dbFile, std::ios::binary).rdbuf();
  EXPECT_EQ(bytes.str(), noise);
  EXPECT_FALSE(fs::exists(dataDir / "quorel.db-wal") &&
               fs::file_size(dataDir / "quorel.db-wal") > 0);
}

TEST_F(QuorelDatabaseTest, NoUsableDataDirectoryMeansUnavailableAndOneSignal) {
  {
    LogCapture logs;
    QuorelDatabase db(placed(), clock);
    EXPECT_FALSE(db.isAvailable());
    EXPECT_EQ(corruptionSignals, 1);
    EXPECT_EQ(logs.count("cannot locate the data directory ($XDG_DATA_HOME/quorel, else "
                         "~/.local/share/quorel) — set HOME or pass --data-dir DIR"),
              1u);
    EXPECT_EQ(db.queryPowerSamples(clock.now(), clock.now(), 10).error().message,
              "the database is not available: no data directory could be located");
  }
}

TEST(CorruptionReportTest, HeadlessReportNamesTheFolderAndTheCommandThatClearsIt) {
  LogCapture logs;
  std::ostringstream err;
  reportCorruptionHeadless(fs::path("/home/u/.local/share/it's"), err);
  EXPECT_EQ(err.str(),
            "Quorel's history database is unreadable\n"
            "Quorel can keep running, but new samples and history won't be saved. To start "
            "fresh, stop quorel, remove the damaged files with the command below and start "
            "quorel again.\n"
            "Database folder: /home/u/.local/share/it's\n"
            "rm -f -- '/home/u/.local/share/it'\\''s/quorel.db' "
            "'/home/u/.local/share/it'\\''s/quorel.db-wal' "
            "'/home/u/.local/share/it'\\''s/quorel.db-shm'\n");
  ASSERT_EQ(logs.lines().size(), 1u);
  EXPECT_EQ(logs.lines()[0].level, spdlog::level::err);
  EXPECT_THAT(logs.lines()[0].message,
              AllOf(StartsWith("Quorel's history database is unreadable — Quorel can keep running"),
                    HasSubstr("rm -f -- '/home/u/.local/share/it'")));

  std::ostringstream nowhere;
  reportCorruptionHeadless(std::nullopt, nowhere);
  EXPECT_THAT(nowhere.str(), HasSubstr("Database folder: (none could be located — set "
                                       "XDG_DATA_HOME or pass --data-dir)\n"));
  EXPECT_THAT(nowhere.str(), Not(HasSubstr("rm -f")));
}

}  // namespace
}  // namespace quorel
