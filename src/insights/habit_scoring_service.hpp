#pragma once
// Recent charging behaviour as a grade from "A+" to "F": four sub-scores of 0 to 100 from the
// stored sessions and daily battery metrics, weighted into a total, with a statement of how much
// data stood behind it.
//
// Threading: calculateScore reads the store (waiting for its queue) and may run on any thread
// other than the store's queue; the scoring functions are pure.

#include <string>
#include <vector>

#include "core/clock.hpp"
#include "core/result.hpp"
#include "insights/habit_grade.hpp"
#include "store/history_read_records.hpp"
#include "store/history_records.hpp"

namespace quorel {

class QuorelDatabase;

struct HabitScore {
  double chargeDepth = 0;  // each 0...100
  double temperature = 0;
  double highSoc = 0;
  double cyclePattern = 0;
  double total = 0;
  HabitGrade grade = HabitGrade::F;
  // The four scores and "Data Confidence", as the details view and the grade history show them.
  HabitFactors factors;

  std::string_view gradeText() const { return kHabitGradeTexts.text(grade); }
  bool operator==(const HabitScore&) const = default;
};

class HabitScoringService {
 public:
  static constexpr int kSessionLimit = 100;
  // What a score reads when there is nothing to judge: neither praise nor blame.
  static constexpr double kNeutralScore = 75.0;

  // Both must outlive the service.
  HabitScoringService(QuorelDatabase& database, const Clock& clock);
  HabitScoringService(const HabitScoringService&) = delete;
  HabitScoringService& operator=(const HabitScoringService&) = delete;

  // The 100 most recent sessions and every daily metric, judged at the clock's now. A failed
  // read is an error rather than the neutral grade, so that no one records a grade for data
  // that could not be seen.
  Result<HabitScore> calculateScore() const;

  static HabitScore score(const std::vector<SessionRecord>& sessions,
                          const std::vector<DailyBatteryMetric>& daily, TimePoint now);

  // Penalises session ends outside 20-85 %, weighted by duration.
  static double chargeDepthScore(const std::vector<SessionRecord>& sessions);
  // Penalises the level a session leaves the battery at (or starts draining from) above 80 %.
  static double highSocScore(const std::vector<SessionRecord>& sessions);
  // From the daily average temperatures of the last 30 calendar days.
  static double temperatureScore(const std::vector<DailyBatteryMetric>& daily, TimePoint now);
  // "Cycle Pattern": the worse of mean depth and mean level, unweighted.
  static double cycleFrequencyScore(const std::vector<SessionRecord>& sessions);
  // A total above 100, or not a number, is "F": it can only come from bad input.
  static HabitGrade scoreToGrade(double total);
  // "<percent>% · <days> temp days".
  static std::string confidenceText(const std::vector<SessionRecord>& sessions,
                                    const std::vector<DailyBatteryMetric>& daily, TimePoint now);

 private:
  QuorelDatabase& database_;
  const Clock& clock_;
};

}  // namespace quorel
