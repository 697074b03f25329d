#pragma once
// What the details view says about a grade: a sentence for the grade (with the weakest factor
// named when it drags), a line per factor by its score, advice where a factor falls short, and
// the footer that states the weights. Everything reads the factors as shown, so a snapshot from
// the grade history explains itself the same way as a fresh score.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "insights/habit_grade.hpp"

namespace quorel {

inline constexpr std::string_view kHabitScoringFooter =
    "Scoring weights: Charge Depth 30%, Temperature 25%, High SoC 25%, Cycle Pattern 20%. "
    "Final grade is the weighted sum.";

struct HabitFactorDetail {
  std::string factor;  // "Charge Depth", ...
  int score = 0;       // as shown, 0...100
  std::string_view text;
  std::optional<std::string_view> advice;  // only below 85

  bool operator==(const HabitFactorDetail&) const = default;
};

// The whole-number score a factor shows ("74/100" gives 74); absent when the factor is missing
// or its text is not of that form (a history written by something else).
std::optional<int> habitFactorScore(const HabitFactors& factors, std::string_view factor);

std::string_view habitGradeText(HabitGrade grade);
// The grade's sentence, then the weakest factor's when it scores 74 or less. A grade text that
// is not on the scale reads as "F", as the history chart places it.
std::string habitExplanation(std::string_view grade, const HabitFactors& factors);
// The four scored factors in the weights' order; a factor without a readable score is left out.
std::vector<HabitFactorDetail> habitFactorDetails(const HabitFactors& factors);

}  // namespace quorel
