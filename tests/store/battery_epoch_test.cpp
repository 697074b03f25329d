// Battery epochs against a real file: when the store opens one, which one is current, and what
// it stores for values the table's checks would refuse.

#include <gtest/gtest.h>

#include <cstdlib>

#include "store/quorel_database.hpp"
#include "store/sqlite_test_support.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;
using testing::SqlFile;

class BatteryEpochTest : public ::testing::Test {
 protected:
  BatteryEpochTest() {
    QuorelDatabase::Options options;
    options.dataDirectory = dir_;
    options.databasePathOverride = dir_ / "quorel.db";
    db = std::make_unique<QuorelDatabase>(std::move(options), clock);
  }
  std::vector<std::vector<std::string>> rows(const std::string& sql) {
    SqlFile look(dir_ / "quorel.db");
    return look.rows(sql);
  }

  static TimePoint at(double seconds) { return fromUnixSeconds(1'800'000'000 + seconds); }

  ManualClock clock;
  testing::ScratchDirectory scratch_{"quorel-epochs"};
  const fs::path& dir_ = scratch_.path();
  std::unique_ptr<QuorelDatabase> db;
};

TEST_F(BatteryEpochTest, FirstBatteryOpensAnInitialEpochButIsNoReplacement) {
  EXPECT_FALSE(db->currentBatteryEpoch());
  EXPECT_FALSE(db->reconcileBatteryEpoch("A1", 187, 8693, 8171, at(0)));
  const auto current = db->currentBatteryEpoch();
  ASSERT_TRUE(current);
  EXPECT_EQ(current->source, BatteryEpochSource::initial);
  EXPECT_EQ(current->serial, "A1");
  EXPECT_EQ(current->baselineCycleCount, 187);
  EXPECT_EQ(current->baselineDesign_mAh, 8693);
  EXPECT_EQ(current->baselineNominal_mAh, 8171);
  EXPECT_EQ(current->firstSeen, at(0));

  // The same serial after a relaunch: unchanged, nothing recorded.
  EXPECT_FALSE(db->reconcileBatteryEpoch("A1", 190, 8693, 8100, at(100)));
  EXPECT_EQ(rows("SELECT count(*) FROM battery_epoch")[0][0], "1");
}

TEST_F(BatteryEpochTest, ChangedSerialOpensAnAutomaticEpochAndReturnsIt) {
  db->reconcileBatteryEpoch("A1", 500, 8693, 7000, at(0));
  const auto replaced = db->reconcileBatteryEpoch("B2", 3, 8693, 8650, at(60));
  ASSERT_TRUE(replaced);
  EXPECT_EQ(replaced->source, BatteryEpochSource::automatic);
  EXPECT_EQ(replaced->serial, "B2");
  EXPECT_GT(replaced->id, 0);
  EXPECT_EQ(db->currentBatteryEpoch(), replaced);
  EXPECT_EQ(rows("SELECT source FROM battery_epoch ORDER BY id"),
            (std::vector<std::vector<std::string>>{{"initial"}, {"auto"}}));
}

TEST_F(BatteryEpochTest, AnEpochWithoutSerialIsNeverSupersededAutomatically) {
  db->forceNewBatteryEpoch(std::nullopt, std::nullopt, std::nullopt, std::nullopt, at(0));
  EXPECT_FALSE(db->reconcileBatteryEpoch("C3", 10, 8693, 8600, at(60)));
  EXPECT_EQ(rows("SELECT count(*) FROM battery_epoch")[0][0], "1");
  EXPECT_FALSE(db->currentBatteryEpoch()->serial) << "the new serial does not fill it in";
}

TEST_F(BatteryEpochTest, AbsentValuesAreNullAndValuesTheChecksWouldRefuseAreClamped) {
  const auto epoch =
      db->forceNewBatteryEpoch(std::string(), std::nullopt, std::nullopt, std::nullopt, at(5));
  ASSERT_TRUE(epoch);
  EXPECT_EQ(epoch->source, BatteryEpochSource::manual);
  db->forceNewBatteryEpoch("A1", -4, 0, -20, at(10));
  EXPECT_EQ(rows("SELECT serial, baseline_cycle_count, baseline_design_mah, baseline_nominal_mah, "
                 "source FROM battery_epoch ORDER BY id"),
            (std::vector<std::vector<std::string>>{{"NULL", "NULL", "NULL", "NULL", "manual"},
                                                   {"A1", "0", "NULL", "0", "manual"}}));
}

TEST_F(BatteryEpochTest, OrderIsByFirstSeenThenId) {
  db->forceNewBatteryEpoch("LATER", 1, 8693, 8693, at(100));
  db->forceNewBatteryEpoch("EARLIER", 1, 8693, 8693, at(50));
  EXPECT_EQ(db->currentBatteryEpoch()->serial, "LATER") << "a time in the past is not current";
  db->forceNewBatteryEpoch("TIE", 1, 8693, 8693, at(100));
  EXPECT_EQ(db->currentBatteryEpoch()->serial, "TIE") << "the higher id wins a tie";
}

TEST_F(BatteryEpochTest, UnknownSourceTextReadsAsInitial) {
  {
    SqlFile edit(dir_ / "quorel.db");
    edit.exec("INSERT INTO battery_epoch (first_seen, serial, source) VALUES (1, 'X', 'bogus')");
  }
  const auto epoch = db->currentBatteryEpoch();
  ASSERT_TRUE(epoch);
  EXPECT_EQ(epoch->source, BatteryEpochSource::initial);
}

TEST_F(BatteryEpochTest, ReconcileFromTheStoreQueueRunsInline) {
  // The poll loop calls synchronously; a caller already on the queue must not deadlock.
  const auto result = db->queue().sync([&] {
    db->reconcileBatteryEpoch("A1", 1, 8693, 8693, at(0));
    return db->reconcileBatteryEpoch("B1", 1, 8693, 8693, at(1));
  });
  ASSERT_TRUE(result);
  EXPECT_EQ(result->serial, "B1");
}

}  // namespace
}  // namespace quorel
