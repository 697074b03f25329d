#pragma once
// What the store tests share: a scratch file in a pinned zone on a manual clock, a second
// connection to look at it, and the log helpers.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "store/quorel_database.hpp"
#include "store/sqlite_test_support.hpp"
#include "support/log_capture.hpp"
#include "support/zone_guard.hpp"

namespace quorel::store_test {

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

inline unsigned modeOf(const fs::path& p) {
  struct stat st {};
  ::stat(p.c_str(), &st);
  return st.st_mode & 0777;
}

// Lines at `level` (any, if none) starting with `prefix`; SQLite's own words follow what the
// store writes.
inline std::size_t linesStartingWith(const LogCapture& logs, const std::string& prefix,
                                     std::optional<spdlog::level::level_enum> level = {}) {
  std::size_t n = 0;
  for (const auto& line : logs.lines()) {
    n += line.level == level.value_or(line.level) && line.message.rfind(prefix, 0) == 0;
  }
  return n;
}

inline constexpr double kT0 = 1'800'000'000;  // 2027-01-15T08:00:00Z
inline constexpr double kDay = 86400;

inline TimePoint at(double offset) {
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

}  // namespace quorel::store_test
