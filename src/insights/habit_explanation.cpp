#include "insights/habit_explanation.hpp"

#include <array>
#include <charconv>

namespace quorel {

namespace {

struct FactorWords {
  std::string_view factor;
  // 90 and up, 70 to 89, 50 to 69, below 50.
  std::array<std::string_view, 4> byScore;
  std::string_view advice;
};

constexpr std::array<FactorWords, 4> kFactorWords{{
    {kChargeDepthFactor,
     {"Sessions stay in the 20–85% longevity band.",
      "Mostly in-range with occasional excursions outside 20–85%.",
      "Frequent drifts — some deep discharges or full top-ups.",
      "Regular extremes: sessions often go below 20% or above 85%."},
     "Try to unplug before 90% and top up before dropping under 20% — shallow cycles in the "
     "20–80% band extend cell life the most."},
    {kTemperatureFactor,
     {"Cool operation, average max ≤47°C.", "Normal M-series temps (~47–52°C) under routine load.",
      "Warm (~53–57°C) — sustained heavy workloads.",
      "Hot (≥57°C) — sustained heat accelerates aging."},
     "Keep the Mac off soft surfaces (beds, laps) and watch for background jobs pinning CPU; "
     "thermal stress compounds with high SoC."},
    {kHighSocFactor,
     {"Mostly below 80% — matches Apple Optimized Battery Charging's target.",
      "Time spent around 80–85% — slightly above ideal but not harmful.",
      "Frequent time at 85–90%. A charge limiter would help.",
      "Often sits at 90%+. Calendar aging is accelerated at high dwell SoC."},
     "Enable Battery → Optimized Battery Charging in System Settings, or unplug once you hit 80%. "
     "Dwelling at 90–100% is the biggest calendar-aging driver."},
    {kCyclePatternFactor,
     {"Healthy — either shallow holding at safe SoC or moderate 20–60% cycles.",
      "Mostly healthy with some borderline patterns (85–90% SoC, or deep cycles).",
      "Either sitting near 100% or cycles deeper than ideal.",
      "Pathological cycling: full-depletion runs or chronic top-off at 100%."},
     "Avoid full 0→100% charges in a single run; partial cycles (e.g. 40→80) count as less than "
     "one full cycle of wear."},
}};

constexpr int kAdviceBelow = 85;
constexpr int kDragAtOrBelow = 74;

std::size_t scoreBand(int score) {
  if (score >= 90) return 0;
  if (score >= 70) return 1;
  if (score >= 50) return 2;
  return 3;
}

}  // namespace

std::optional<int> habitFactorScore(const HabitFactors& factors, std::string_view factor) {
  const auto it = factors.find(std::string(factor));
  if (it == factors.end()) return std::nullopt;
  const std::string_view text = it->second;
  constexpr std::string_view kSuffix = "/100";
  if (text.size() <= kSuffix.size() || !text.ends_with(kSuffix)) return std::nullopt;
  int score = 0;
  const char* end = text.data() + text.size() - kSuffix.size();
  const auto [ptr, ec] = std::from_chars(text.data(), end, score);
  if (ec != std::errc{} || ptr != end) return std::nullopt;
  return score;
}

std::string_view habitGradeText(HabitGrade grade) {
  switch (grade) {
    case HabitGrade::aPlus:
      return "Textbook routine — your habits match long-life best practices.";
    case HabitGrade::a:
      return "Excellent — very close to ideal.";
    case HabitGrade::aMinus:
    case HabitGrade::bPlus:
      return "Good — a couple of small tweaks would push you into A-range.";
    case HabitGrade::b:
    case HabitGrade::bMinus:
      return "Decent — a habit or two is measurably shortening battery life.";
    case HabitGrade::cPlus:
      return "Fair — worth adjusting at least one factor.";
    case HabitGrade::c:
      return "Fair — multiple factors are drifting from ideal.";
    case HabitGrade::cMinus:
      return "Below average — noticeable calendar-aging acceleration.";
    case HabitGrade::dPlus:
      return "Poor — your routine is meaningfully shortening battery life.";
    case HabitGrade::d:
      return "Poor — several habits are compounding damage.";
    case HabitGrade::dMinus:
      return "Poor — battery life will be noticeably shorter than expected.";
    case HabitGrade::F:
      break;
  }
  return "Critical — this pattern will shorten battery life significantly.";
}

std::string habitExplanation(std::string_view grade, const HabitFactors& factors) {
  std::string text(habitGradeText(kHabitGradeTexts.parse(grade).value_or(HabitGrade::F)));
  std::optional<HabitFactorDetail> weakest;
  // Strictly lower only: on a tie the factor with the larger weight is named.
  for (auto& detail : habitFactorDetails(factors)) {
    if (!weakest || detail.score < weakest->score) weakest = std::move(detail);
  }
  if (weakest && weakest->score <= kDragAtOrBelow) {
    text += " The " + weakest->factor + " sub-score (" + std::to_string(weakest->score) +
            "/100) is the main drag — the per-factor breakdown below shows what moves it.";
  }
  return text;
}

std::vector<HabitFactorDetail> habitFactorDetails(const HabitFactors& factors) {
  std::vector<HabitFactorDetail> details;
  for (const auto& words : kFactorWords) {
    const auto score = habitFactorScore(factors, words.factor);
    if (!score) continue;
    HabitFactorDetail detail{std::string(words.factor), *score, words.byScore[scoreBand(*score)],
                             std::nullopt};
    if (*score < kAdviceBelow) detail.advice = words.advice;
    details.push_back(std::move(detail));
  }
  return details;
}

}  // namespace quorel
