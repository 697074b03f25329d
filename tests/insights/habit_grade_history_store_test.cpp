// One snapshot a local day for a year, and a damaged stored value read as no history.

#include "insights/habit_grade_history_store.hpp"

#include <gtest/gtest.h>

#include "core/iso8601.hpp"
#include "core/memory_preference_store.hpp"
#include "support/log_capture.hpp"
#include "support/zone_guard.hpp"

namespace quorel {
namespace {

TimePoint when(const char* iso) {
  return *parseIso8601(iso);
}

HabitGradeSnapshot snapshot(const char* iso, std::string grade) {
  return {when(iso), std::move(grade), {{"Charge Depth", "81/100"}, {"Data Confidence", "40%"}}};
}

class HabitGradeHistoryStoreTest : public ::testing::Test {
 protected:
  testing::ZoneGuard zone{"CET-1CEST,M3.5.0,M10.5.0/3"};
  MemoryPreferenceStore defaults;
  HabitGradeHistoryStore store{defaults};
};

TEST_F(HabitGradeHistoryStoreTest, KeepsTheLatestSnapshotOfEachLocalDay) {
  store.record(snapshot("2027-06-01T08:00:00+02:00", "B"));
  store.record(snapshot("2027-06-01T23:30:00+02:00", "C"));  // 21:30 UTC, still 1 June here
  const auto history = store.record(snapshot("2027-06-02T00:10:00+02:00", "A"));
  EXPECT_EQ(history, (std::vector{snapshot("2027-06-01T23:30:00+02:00", "C"),
                                  snapshot("2027-06-02T00:10:00+02:00", "A")}));
  EXPECT_EQ(store.loadAll(), history) << "what was stored reads back whole";
}

TEST_F(HabitGradeHistoryStoreTest, KeepsAYearBackFromTheNewSnapshotsDay) {
  store.record(snapshot("2026-06-01T00:00:00+02:00", "F"));  // 366 days before 2 June
  store.record(snapshot("2026-06-02T00:00:00+02:00", "D"));  // 365 days: the first day kept
  store.record(snapshot("2026-12-24T18:00:00+01:00", "C"));
  const auto history = store.record(snapshot("2027-06-02T09:00:00+02:00", "A+"));
  ASSERT_EQ(history.size(), 3u);
  EXPECT_EQ(history.front().grade, "D");
  EXPECT_EQ(history.back().gradeIndex(), 12);
  EXPECT_EQ(history.front().gradeIndex(), 2);
  EXPECT_EQ(snapshot("2027-06-02T09:00:00+02:00", "Z").gradeIndex(), 0);
}

TEST_F(HabitGradeHistoryStoreTest, ADamagedValueReadsAsNoHistoryAndIsOverwritten) {
  const nlohmann::json damaged[] = {
      "[{\"timestamp\": 1,",
      nlohmann::json::array({1, 2}),  // not the JSON text at all
      "{\"timestamp\": 0, \"grade\": \"A\", \"factors\": {}}",
      "[{\"timestamp\": 0, \"grade\": \"A\", \"factors\": {\"Temperature\": 90}}]",
      "[{\"timestamp\": 1e300, \"grade\": \"A\", \"factors\": {}}]",
  };
  for (const auto& value : damaged) {
    testing::LogCapture logs;
    defaults.setValue(HabitGradeHistoryStore::kStorageKey, value);
    EXPECT_TRUE(store.loadAll().empty()) << value;
    ASSERT_EQ(logs.messages("insights").size(), 1u) << value;
    EXPECT_TRUE(logs.messages("insights")[0].starts_with("habit grade history unreadable"));
  }
  store.record(snapshot("2027-06-02T09:00:00+02:00", "B"));
  EXPECT_EQ(store.loadAll(), std::vector{snapshot("2027-06-02T09:00:00+02:00", "B")});
}

}  // namespace
}  // namespace quorel
