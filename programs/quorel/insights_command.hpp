#pragma once
// `quorel insights`: what the history means (habit grade, health and cycle forecasts, today's
// carbon, where the battery has sat) from the store and the preference file alone, on a
// read-only connection, so it works with or without a running agent. Everything is computed as of
// one moment, `--now` or the present, and only rows from before that moment count.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/clock.hpp"
#include "core/json_value.hpp"
#include "core/result.hpp"
#include "insights/carbon_footprint_service.hpp"
#include "insights/forecast_engine.hpp"
#include "insights/habit_grade_history_store.hpp"
#include "insights/habit_scoring_service.hpp"
#include "insights/soc_residency.hpp"

namespace quorel {

class QuorelDatabase;
class PreferenceStore;

// The health level the forecast looks for, the one the view model shows.
inline constexpr double kInsightsTargetHealthPct = 80.0;

struct Insights {
  TimePoint now;
  HabitScore habit;
  ForecastResult healthForecast;
  ForecastResult cycleForecast;
  CarbonRegionIntensity carbonRegion;
  double carbonGramsToday = 0;
  SoCResidency residency;
  std::vector<HabitGradeSnapshot> gradeHistory;
};

// Everything but the grade history, as of `asOf.now()`. `ratedCycleLimit` is the battery's design
// cycle count; the store keeps none, so the command passes what it knows (nothing) and the cycle
// forecast says so. A read that fails is an error rather than an empty answer.
Result<Insights> computeInsights(QuorelDatabase& database, const Clock& asOf,
                                 const CarbonRegionIntensity& region,
                                 std::optional<std::int64_t> ratedCycleLimit);

JSONValue insightsJson(const Insights& insights);
// The region the agent would use: the stored settings' when they decode, else the default.
CarbonRegionIntensity carbonRegionOf(const PreferenceStore& preferences, const Clock& clock);
// A few lines a person would read.
std::string insightsText(const Insights& insights);

struct InsightsCommandArguments {
  std::optional<std::string> now = std::nullopt;  // as typed; ISO-8601
  bool json = false;
};

struct InsightsCommandResult {
  // 0 done (an empty history included), 1 the history could not be read, 2 a bad --now.
  int exitStatus = 0;
  std::string output;
  std::string error;  // a sentence
};

// `clock` gives the present when --now is absent. The carbon region and the grade history come
// from the preference file at `preferencesFile`; a missing file means the defaults and no history.
InsightsCommandResult runInsightsCommand(const InsightsCommandArguments& arguments,
                                         const std::filesystem::path& databaseFile,
                                         const std::filesystem::path& preferencesFile,
                                         const Clock& clock);

}  // namespace quorel
