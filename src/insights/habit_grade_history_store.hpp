#pragma once
// One habit grade per local day for a year, kept in the preference domain so that the trend can
// be drawn without the history database. Stored as the JSON text of a list of snapshots.
//
// Threading: calls may come from any thread; record() is serialised within the process.

#include <mutex>
#include <string>
#include <vector>

#include "core/clock.hpp"
#include "core/preference_store.hpp"
#include "insights/habit_grade.hpp"

namespace quorel {

struct HabitGradeSnapshot {
  TimePoint timestamp;
  std::string grade;  // "A+" ... "F"
  HabitFactors factors;

  // The grade's position on the scale, "F" 0 up to "A+" 12; a grade off the scale gives 0.
  int gradeIndex() const;
  bool operator==(const HabitGradeSnapshot&) const = default;
};

class HabitGradeHistoryStore {
 public:
  static constexpr const char* kStorageKey = "quorel.habitGradeHistory.v1";
  static constexpr int kRetentionDays = 365;

  // `userDefaults` must outlive the store. Days are the local zone's.
  explicit HabitGradeHistoryStore(PreferenceStore& userDefaults);
  HabitGradeHistoryStore(const HabitGradeHistoryStore&) = delete;
  HabitGradeHistoryStore& operator=(const HabitGradeHistoryStore&) = delete;

  // Replaces any snapshot of the same local day (the latest wins), drops those from before the
  // day 365 days ahead of it, stores the list and returns it.
  std::vector<HabitGradeSnapshot> record(HabitGradeSnapshot snapshot);
  // What is stored, in stored order. Nothing stored reads as empty; so does a value that cannot
  // be decoded, which is logged and left for the next record() to overwrite.
  std::vector<HabitGradeSnapshot> loadAll() const;

 private:
  PreferenceStore& userDefaults_;
  std::mutex recordMutex_;
};

}  // namespace quorel
