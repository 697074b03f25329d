// Battery epochs against a real file: when the store opens one, which one is current, and what
// it stores for values the table's checks would refuse.

#include <gtest/gtest.h>

#include "store/quorel_database.hpp"
#include "store/sqlite_test_support.hpp"

namespace quorel {
namespace {

using Rows = std::vector<std::vector<std::string>>;

class BatteryEpochTest : public ::testing::Test {
 protected:
  Rows rows(const std::string& sql) { return testing::SqlFile(file).rows(sql); }
  static TimePoint at(double seconds) { return fromUnixSeconds(1'800'000'000 + seconds); }

  ManualClock clock;
  testing::ScratchDirectory scratch{"quorel-epochs"};
  std::filesystem::path file = scratch.path() / "quorel.db";
  std::unique_ptr<QuorelDatabase> db = std::make_unique<QuorelDatabase>(
      QuorelDatabase::Options{
          .dataDirectory = scratch.path(), .databasePathOverride = file, .onCorruption = {}},
      clock);
};

TEST_F(BatteryEpochTest, FirstBatteryOpensAnInitialEpochAndAChangedSerialAnAutomaticOne) {
  EXPECT_FALSE(db->currentBatteryEpoch());
  EXPECT_FALSE(db->reconcileBatteryEpoch("A1", 187, 8693, 8171, at(0))) << "no replacement";
  const auto first = db->currentBatteryEpoch();
  ASSERT_TRUE(first);
  EXPECT_EQ(*first,
            (BatteryEpoch{first->id, at(0), "A1", 187, 8693, 8171, BatteryEpochSource::initial}));

  // The same serial after a relaunch: unchanged, nothing recorded.
  EXPECT_FALSE(db->reconcileBatteryEpoch("A1", 190, 8693, 8100, at(100)));
  EXPECT_EQ(db->currentBatteryEpoch(), first);

  const auto replaced = db->reconcileBatteryEpoch("B2", 3, 8693, 8650, at(160));
  ASSERT_TRUE(replaced);
  EXPECT_EQ(replaced->source, BatteryEpochSource::automatic);
  EXPECT_EQ(replaced->serial, "B2");
  EXPECT_GT(replaced->id, first->id);
  EXPECT_EQ(db->currentBatteryEpoch(), replaced);
  EXPECT_EQ(rows("SELECT source FROM battery_epoch ORDER BY id"), (Rows{{"initial"}, {"auto"}}));
}

TEST_F(BatteryEpochTest, AbsentValuesAreNullAndValuesTheChecksWouldRefuseAreClamped) {
  const auto epoch =
      db->forceNewBatteryEpoch(std::string(), std::nullopt, std::nullopt, std::nullopt, at(5));
  ASSERT_TRUE(epoch);
  EXPECT_EQ(epoch->source, BatteryEpochSource::manual);
  db->forceNewBatteryEpoch("A1", -4, 0, -20, at(10));
  EXPECT_EQ(rows("SELECT serial, baseline_cycle_count, baseline_design_mah, baseline_nominal_mah, "
                 "source FROM battery_epoch ORDER BY id"),
            (Rows{{"NULL", "NULL", "NULL", "NULL", "manual"}, {"A1", "0", "NULL", "0", "manual"}}));
}

TEST_F(BatteryEpochTest, OrderIsByFirstSeenThenIdAndAnUnknownSourceReadsAsInitial) {
  db->forceNewBatteryEpoch("LATER", 1, 8693, 8693, at(100));
  db->forceNewBatteryEpoch("EARLIER", 1, 8693, 8693, at(50));
  EXPECT_EQ(db->currentBatteryEpoch()->serial, "LATER") << "a time in the past is not current";
  db->forceNewBatteryEpoch("TIE", 1, 8693, 8693, at(100));
  EXPECT_EQ(db->currentBatteryEpoch()->serial, "TIE") << "the higher id wins a tie";

  testing::SqlFile(file).exec(
      "INSERT INTO battery_epoch (first_seen, serial, source) VALUES (1800000200, 'X', 'bogus')");
  EXPECT_EQ(db->currentBatteryEpoch()->source, BatteryEpochSource::initial);
}

}  // namespace
}  // namespace quorel
