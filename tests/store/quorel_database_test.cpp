// The store against real files: schema and migrations, corruption, each write and read, the
// energy history cache, the lifetime total, retention, call order and read-only opening.

#include "store/quorel_database.hpp"

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
#include "store/sqlite_connection.hpp"
#include "store/sqlite_test_support.hpp"
#include "support/log_capture.hpp"
#include "support/zone_guard.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::LogCapture;
using testing::ScratchDirectory;
using testing::SqlFile;
using testing::SqlValue;
using ::testing::StartsWith;
using Row = std::vector<std::string>;
using Rows = std::vector<Row>;
using Values = std::vector<std::pair<std::string, SqlValue>>;

unsigned modeOf(const fs::path& p) {
  struct stat st {};
  ::stat(p.c_str(), &st);
  return st.st_mode & 0777;
}

// Lines at `level` (any, if none) starting with `prefix`; SQLite's own words follow what the
// store writes.
std::size_t linesStartingWith(const LogCapture& logs, const std::string& prefix,
                              std::optional<spdlog::level::level_enum> level = {}) {
  std::size_t n = 0;
  for (const auto& line : logs.lines()) {
    n += line.level == level.value_or(line.level) && line.message.rfind(prefix, 0) == 0;
  }
  return n;
}

constexpr double kT0 = 1'800'000'000;  // 2027-01-15T08:00:00Z
constexpr double kDay = 86400;

TimePoint at(double offset) {
  return fromUnixSeconds(kT0 + offset);
}

class ScratchStoreTest : public ::testing::Test {
 protected:
  // What the store logs, once, when `path` is damaged.
  static std::string corruptionLine(const fs::path& path) {
    const std::string f = path.string();
    return "database corruption detected — to start a fresh history, stop quorel and run: rm -f "
           "-- '" +
           f + "' '" + f + "-wal' '" + f + "-shm'";
  }

  // Days are keyed in the local zone; pin it so the expected keys hold on any machine.
  testing::ZoneGuard zone{"UTC0"};
  ScratchDirectory scratch{"quorel-store"};
  ManualClock clock{at(0)};
  int corruptionSignals = 0;
};

// A store on a file in the scratch directory, and a second connection to look at it.
class StoreFileTest : public ScratchStoreTest {
 protected:
  // On the scratch file, or on `path` with no data directory to tighten.
  QuorelDatabase::Options options(bool readOnly = false, bool startQueue = false,
                                  std::optional<fs::path> path = {}) {
    return {.dataDirectory = path ? std::nullopt : std::optional(scratch.path()),
            .databasePathOverride = path.value_or(file),
            .onCorruption = [this] { ++corruptionSignals; },
            .startQueue = startQueue,
            .readOnly = readOnly};
  }
  void drain() { db->queue().runPending(); }
  SqlFile& sql() {
    if (!raw) raw = std::make_unique<SqlFile>(file);
    return *raw;
  }
  std::int64_t count(const std::string& from) {
    return sql().integer("SELECT COUNT(*) FROM " + from);
  }
  void sample(double offset, Values values = {}) {
    values.insert(values.begin(), {"timestamp", kT0 + offset});
    sql().insert("power_samples", values);
  }
  void energy(const char* table, double offset, const std::string& name, double watts, double wh,
              Values values = {}) {
    const bool agents = std::string(table) == "ai_agent_energy";
    values.insert(values.end(), {{"timestamp", kT0 + offset},
                                 {agents ? "agent_id" : "process_name", name},
                                 {"avg_watts", watts},
                                 {"energy_wh", wh},
                                 {"avg_cpu", 1.0}});
    sql().insert(table, values);
  }

  fs::path file = scratch.path() / "quorel.db";
  std::unique_ptr<QuorelDatabase> db = std::make_unique<QuorelDatabase>(options(), clock);
  std::unique_ptr<SqlFile> raw;
};
class ReadsTest : public StoreFileTest {};
class WritesTest : public StoreFileTest {};

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

TEST_F(QuorelDatabaseTest, SqliteErrorsAreClassifiedByResultCode) {
  SqliteConnection db(logging::get("db"), [this] { ++corruptionSignals; });
  ASSERT_EQ(db.openReadWrite(dbFile.parent_path() / "x.db", /*createPrivate=*/false),
            SQLITE_CANTOPEN)
      << "the data directory does not exist yet";
  fs::create_directories(dataDir);
  ASSERT_EQ(db.openReadWrite(dbFile, /*createPrivate=*/true), SQLITE_OK);
  EXPECT_EQ(modeOf(dbFile), 0600u);
  LogCapture logs;
  db.logError(SQLITE_BUSY, "insert sample");
  db.logError(SQLITE_LOCKED, "insert sample");
  db.logError(SQLITE_CONSTRAINT, "insert session");
  EXPECT_EQ(corruptionSignals, 0);
  db.logError(SQLITE_CORRUPT, "read history");
  EXPECT_EQ(corruptionSignals, 1);
  db.logError(SQLITE_NOTADB, "read history");
  db.logError(SQLITE_CORRUPT_INDEX, "read history");
  EXPECT_EQ(corruptionSignals, 1);

  using Line = std::pair<spdlog::level::level_enum, std::string>;
  std::vector<Line> lines;
  for (const auto& line : logs.lines()) lines.emplace_back(line.level, line.message);
  using spdlog::level::critical, spdlog::level::err, spdlog::level::warn;
  EXPECT_EQ(lines, (std::vector<Line>{
                       {warn, "insert sample transient: rc=5 msg=not an error"},
                       {warn, "insert sample transient: rc=6 msg=not an error"},
                       {err, "insert session failed: rc=19 msg=not an error"},
                       {err, "read history failed: rc=11 msg=not an error"},
                       {critical, corruptionLine(dbFile)},
                       {err, "read history failed: rc=26 msg=not an error"},
                       {err, "read history failed: rc=779 msg=not an error"},
                   }));
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
  // A plain file where the data directory should be: neither the directory nor the database
  // can be made.
  const fs::path blocker = scratch.path() / "blocker";
  std::ofstream(blocker) << "x";
  LogCapture logs;
  QuorelDatabase db(placed({}, blocker / "quorel"), clock);
  EXPECT_FALSE(db.isAvailable());
  EXPECT_EQ(corruptionSignals, 2);
  const std::string dir = (blocker / "quorel").string();
  EXPECT_EQ(
      linesStartingWith(logs, "createDirectory failed at " + dir + " — ", spdlog::level::critical),
      1u);
  EXPECT_EQ(linesStartingWith(logs, "failed to open database at " + dir + "/quorel.db rc=14 "), 1u);
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
  // An implausible one is stored without its components, and its wall estimate labelled.
  PowerSample implausible = sampleAt(1);
  implausible.ecpuW = 1, implausible.gpuW = 91, implausible.powerInW = 30;
  implausible.wallPowerW = 20;
  implausible.componentQuality = Q::measured, implausible.wallEstimateQuality = Q::estimated;
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
          ElementsAre("1800000001.0", "-7.25", "64.5", "NULL", "NULL", "NULL", "NULL", "NULL",
                      "NULL", "30.0", "20.0", "0", "0", "0", "NULL", "NULL", "rejected",
                      "unavailable", "rejected", "component aggregate failed storage validation",
                      "NULL", "NULL", "NULL", "NULL", "NULL", "NULL")));
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
  odd.id = "5D1E8F3A-0000-4000-8000-00000000000C";
  odd.confidence = -0.2;
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
                                      "charging", "0.0", "0.0", "inferred", "1.0"),
                          ElementsAre("5D1E8F3A-0000-4000-8000-00000000000C", "1800000000.0",
                                      "1800000060.0", "80.0", "62.5", "1", "-9.5", "4.75",
                                      "charging", "0.0", "0.0", "inferred", "0.0")));
}

TEST_F(WritesTest, CollectionIntervalsLandWithStatusAndOptionalReason) {
  LogCapture logs;
  db->insertCollectionInterval(at(-600), at(0), CollectionIntervalStatus::sleep, "system sleep");
  db->insertCollectionInterval(at(0), at(30), CollectionIntervalStatus::collected, std::nullopt);
  db->insertCollectionInterval(at(0), at(-1), CollectionIntervalStatus::missing, std::nullopt);
  drain();
  EXPECT_THAT(sql().rows("SELECT start_time, end_time, status, reason FROM "
                         "collection_intervals ORDER BY id"),
              ElementsAre(ElementsAre("1799999400.0", "1800000000.0", "sleep", "system sleep"),
                          ElementsAre("1800000000.0", "1800000030.0", "collected", "NULL")));
  EXPECT_EQ(linesStartingWith(logs, "insertCollectionInterval step failed: rc=19 "), 1u);
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

  EXPECT_EQ(db->queryPowerSamples(at(-10), at(1000), 1).value().size(), 2u);
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
  EXPECT_EQ(db->historicalCoverage(at(60), at(60)).value(), HistoricalCoverageSummary{});

  EXPECT_EQ(db->queryCollectionIntervals(at(1050), at(1060)).value(),
            (std::vector<CollectionIntervalRecord>{
                {2, at(1000), at(1100), CollectionIntervalStatus::missing, std::nullopt}}))
      << "intervals come back whole, unclipped";
}

TEST_F(ReadsTest, CoverageWalkSumsExactlyWhatTheWindowStatementSums) {
  // Fractional times, ties, gaps over 300 s, rows with and without durations and every label:
  // any difference in order or rounding from a LAG() window over the same rows shows.
  const char* labels[] = {"measured", "estimated", "inferred", "legacy", "rejected", "unavailable"};
  double t = 0;
  for (int i = 0; i < 400; ++i) {
    t += i % 37 == 0 ? 301.5 : (i % 11 == 0 ? 0 : 29.7 + 0.013 * (i % 7));
    Values values = {{"component_quality", std::string(labels[i % 6])},
                     {"system_power_quality", std::string(labels[(i / 6) % 6])},
                     {"wall_estimate_quality", std::string(labels[(i / 3) % 6])}};
    if (i % 4 != 0) values.emplace_back("observed_duration_s", i % 9 == 0 ? 420.0 : 30.1);
    sample(t, values);
  }
  const double from = kT0 + 500;
  const double to = kT0 + t + 100000;  // long enough that nothing caps the sum
  const auto c = db->historicalCoverage(fromUnixSeconds(from), fromUnixSeconds(to)).value();
  // Compared inside SQLite: a printed sum would round away the last bits.
  EXPECT_EQ(sql().rows(fmt::format(
                "WITH ordered AS (SELECT timestamp, observed_duration_s, component_quality,"
                " system_power_quality, wall_estimate_quality,"
                " LAG(timestamp) OVER (ORDER BY timestamp) AS previous_timestamp"
                " FROM power_samples WHERE timestamp BETWEEN {0:.17g} AND {1:.17g})"
                " SELECT COALESCE(SUM(CASE WHEN observed_duration_s > 0"
                " THEN min(observed_duration_s,300) WHEN previous_timestamp IS NOT NULL"
                " AND timestamp-previous_timestamp BETWEEN 0 AND 300"
                " THEN timestamp-previous_timestamp ELSE 0 END),0) = {2:.17g},"
                " COALESCE(SUM(component_quality='rejected' OR wall_estimate_quality='rejected'),0)"
                " = {3}, COALESCE(SUM(component_quality IN ('estimated','inferred','legacy')"
                " OR system_power_quality IN ('estimated','inferred','legacy')),0) = {4}"
                " FROM ordered",
                from, to, c.collectedSeconds, c.rejectedCount, c.estimatedCount)),
            (std::vector<std::vector<std::string>>{{"1", "1", "1"}}))
      << "collected " << c.collectedSeconds << ", rejected " << c.rejectedCount << ", estimated "
      << c.estimatedCount;
  EXPECT_GT(c.rejectedCount, 0);
  EXPECT_GT(c.estimatedCount, 0);
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

  EXPECT_TRUE(db->queryAIAgentEnergy(at(0), at(3600), 3, 2).value().empty());
  energy("ai_agent_energy", 10, "assistant", 3, 1);
  EXPECT_EQ(db->queryAIAgentEnergy(at(0), at(3600), 3, 2).value().size(), 1u);
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

  EXPECT_EQ(
      db->queryTrackedEnergySummaries("process_energy", "process_name", at(0), at(100), 1)->size(),
      1u);
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

  const auto builds = [&](double from, double to,
                          EnergyHistoryKind k = EnergyHistoryKind::processes) {
    db->cachedEnergyHistory(k, window, at(from), at(to));
    return db->energyHistoryBuilds();
  };
  // Slid forward without dropping the first row or reaching the next one: the same answer.
  EXPECT_EQ(db->cachedEnergyHistory(kind, window, at(50), at(3650)), first);
  EXPECT_EQ(db->energyHistoryBuilds(), 1u);
  // Reaching the next row, or dropping the first one, builds anew.
  EXPECT_EQ(builds(1500, 5100), 2u);
  EXPECT_EQ(builds(1500, 5100), 2u);
  EXPECT_EQ(builds(4000, 7600), 2u) << "still holds the row at 5000 s and nothing else";
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
  // The agents' cache is a different entry, and the processes' revision does not touch it.
  EXPECT_EQ(builds(4000, 7600, EnergyHistoryKind::agents), 6u);
  EXPECT_EQ(builds(4000, 7600, EnergyHistoryKind::agents), 6u);

  // Pruning empties the cache even when it deletes nothing.
  db->pruneOldData(0, 365);
  db->queue().runPending();
  EXPECT_EQ(builds(4000, 7600, EnergyHistoryKind::agents), 7u);
}

TEST_F(ReadsTest, SeventeenthWindowEvictsTheEntryWithTheEarliestEnd) {
  energy("process_energy", 100, "build", 10.0, 1.0);
  const auto builds = [&](EnergyHistoryWindow window, double end) {
    db->cachedEnergyHistory(EnergyHistoryKind::processes, window, at(0), at(end));
    return db->energyHistoryBuilds();
  };
  const auto day = [&](int d) { return EnergyHistoryWindow::day(at(-86400.0 * d)); };
  // Sixteen day windows; the one ending first is day 5, not the first one asked for.
  for (int d = 0; d < 16; ++d) builds(day(d), d == 5 ? 10 : 1000 + d);
  ASSERT_EQ(db->energyHistoryBuilds(), 16u);
  EXPECT_EQ(builds(day(5), 10), 16u) << "sixteen fit";
  EXPECT_EQ(builds(EnergyHistoryWindow::rolling(Seconds(60)), 2000), 17u);
  EXPECT_EQ(builds(day(0), 1000), 17u) << "the first window asked for is still cached";
  EXPECT_EQ(builds(day(5), 10), 18u) << "day 5 ended first and was evicted";
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
    EXPECT_NEAR(reader.totalComponentEnergy_Wh().value(), 0.1, 1e-12)
        << "a read-only sum never moves";
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

TEST_F(ReadsTest, SessionTimeRangeWordsFollowTheLocalZone) {
  SessionRecord session;
  session.startTime = at(-86400 - 1800);  // 2027-01-14T07:30:00Z
  session.endTime = at(300);              // 2027-01-15T08:05:00Z
  const TimePoint now = at(3600);         // 2027-01-15T09:00:00Z

  EXPECT_EQ(session.timeRangeText(now), "Yesterday 07:30 – Today 08:05");
  // Nine hours west it has just turned the 15th: the end was yesterday, the start before that.
  zone.set("<-09>9");
  EXPECT_EQ(session.timeRangeText(at(3600)), "Jan 13 22:30 – Yesterday 23:05");
  zone.set("UTC0");
  EXPECT_EQ(session.timeRangeText(at(40 * 86400)), "Jan 14 07:30 – Jan 15 08:05");
}

}  // namespace
}  // namespace quorel
