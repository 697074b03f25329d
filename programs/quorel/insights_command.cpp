#include "insights_command.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <system_error>

#include "app/settings.hpp"
#include "app/settings_manager.hpp"
#include "core/file_preference_store.hpp"
#include "core/iso8601.hpp"
#include "insights/habit_explanation.hpp"
#include "store/quorel_database.hpp"

namespace quorel {

namespace fs = std::filesystem;

namespace {

// A clock that stands still at the moment asked about, so every service sees the same now.
class FixedClock final : public Clock {
 public:
  explicit FixedClock(TimePoint at)
      : at_(at), monotonic_(MonotonicTime{} + at.time_since_epoch()) {}
  TimePoint now() const override { return at_; }
  MonotonicTime monotonicNow() const override { return monotonic_; }

 private:
  TimePoint at_;
  MonotonicTime monotonic_;
};

// The 100 most recent sessions that had ended by `now`. The common case, nothing after `now`,
// costs one short read; an earlier `now` reads them all to find its hundred.
Result<std::vector<SessionRecord>> sessionsBefore(QuorelDatabase& db, TimePoint now) {
  auto recent = db.queryRecentSessions(HabitScoringService::kSessionLimit);
  if (!recent) return recent;
  const auto later = [&](const SessionRecord& s) { return s.endTime > now; };
  if (std::none_of(recent->begin(), recent->end(), later)) return recent;
  auto all = db.queryRecentSessions(INT_MAX);
  if (!all) return all;
  std::erase_if(*all, later);
  if (all->size() > static_cast<std::size_t>(HabitScoringService::kSessionLimit)) {
    all->resize(HabitScoringService::kSessionLimit);
  }
  return all;
}

JSONValue pointsJson(const std::vector<ForecastPoint>& points) {
  JSONValue::Array list;
  list.reserve(points.size());
  for (const auto& p : points) {
    list.push_back(JSONValue::object({{"t", formatIso8601(p.date)}, {"value", p.value}}));
  }
  return list;
}

// The sentence a result carries, if any: a series' readout or a statement's headline and detail.
std::optional<std::string> readoutOf(const ForecastResult& result) {
  if (const auto* s = std::get_if<ForecastSeries>(&result)) return s->readout;
  if (const auto* r = std::get_if<ForecastReadout>(&result)) {
    return r->detail ? r->headline + " " + *r->detail : r->headline;
  }
  return std::nullopt;
}

JSONValue forecastJson(const ForecastResult& result) {
  static const ForecastSeries none;
  const auto* series = std::get_if<ForecastSeries>(&result);
  const ForecastSeries& s = series ? *series : none;
  const auto readout = readoutOf(result);
  return JSONValue::object({{"result", toString(kindOf(result))},
                            {"readout", readout ? JSONValue(*readout) : JSONValue(nullptr)},
                            {"points", pointsJson(s.points)},
                            {"band_upper", pointsJson(s.bandUpper)},
                            {"band_lower", pointsJson(s.bandLower)}});
}

JSONValue factorsJson(const HabitFactors& factors) {
  JSONValue::Object object;
  for (const auto& [name, text] : factors) object.emplace(name, text);
  return object;
}

std::string forecastLine(std::string_view what, const ForecastResult& result) {
  if (const auto readout = readoutOf(result)) return fmt::format("{}: {}\n", what, *readout);
  if (kindOf(result) == ForecastResultKind::insufficientData) {
    return fmt::format("{}: not enough history yet — a forecast needs five days of readings.\n",
                       what);
  }
  return fmt::format("{}: no trend to forecast from yet.\n", what);
}

// "below 25 °C", "25–35 °C", ..., "45 °C and above".
std::string temperatureBandText(std::size_t band) {
  const auto& edges = SoCResidency::kTemperatureEdges_C;
  if (band == 0) return fmt::format("below {:.0f} °C", edges.front());
  if (band == edges.size()) return fmt::format("{:.0f} °C and above", edges.back());
  return fmt::format("{:.0f}–{:.0f} °C", edges[band - 1], edges[band]);
}

InsightsCommandResult unreadable(const std::string& why, const fs::path& databaseFile) {
  return {1, "", fmt::format("the history could not be read: {} ({})", why, databaseFile.string())};
}

}  // namespace

CarbonRegionIntensity carbonRegionOf(const PreferenceStore& preferences, const Clock& clock) {
  QuorelSettings settings;
  if (const auto stored = preferences.dataValue(SettingsManager::key)) {
    if (auto decoded = decodeSettings(*stored, clock)) settings = std::move(*decoded);
  }
  const auto named = carbonRegionNamed(kCarbonRegionTexts.text(settings.carbonRegion, ""));
  return named.value_or(kCarbonRegions.front());
}

Result<Insights> computeInsights(QuorelDatabase& db, const Clock& asOf,
                                 const CarbonRegionIntensity& region,
                                 std::optional<std::int64_t> ratedCycleLimit) {
  Insights out;
  out.now = asOf.now();
  const TimePoint now = out.now;

  const auto sessions = sessionsBefore(db, now);
  if (!sessions) return sessions.error();
  auto daily = db.queryDailyBatteryMetrics();
  if (!daily) return daily.error();
  std::erase_if(*daily, [&](const DailyBatteryMetric& d) { return d.dayStart > now; });
  out.habit = HabitScoringService::score(*sessions, *daily, now);

  // Only the battery in use counts; an epoch opened after `now` is a battery not yet fitted, and
  // the one before it is not recorded apart, so then the whole history is fitted.
  std::optional<TimePoint> epochStart;
  if (const auto epoch = db.currentBatteryEpoch(); epoch && epoch->firstSeen <= now) {
    epochStart = epoch->firstSeen;
  }
  auto capacity = db.queryCapacityLog();
  if (!capacity) return capacity.error();
  std::erase_if(*capacity, [&](const CapacityLogEntry& e) { return e.timestamp > now; });
  out.healthForecast =
      ForecastEngine::degradationFit(*capacity, epochStart, kInsightsTargetHealthPct, now);
  out.cycleForecast =
      ForecastEngine::cycleProjection(std::move(*capacity), epochStart, ratedCycleLimit, now);

  CarbonFootprintService carbon(db);
  const auto grams = carbon.todayCO2Grams(region, now);
  if (!grams) return grams.error();
  out.carbonRegion = region;
  out.carbonGramsToday = *grams;

  // The store keeps no gauge histogram, so this is what the agent itself watched of this battery.
  const auto observations =
      db.queryResidencyObservations(epochStart.value_or(fromUnixSeconds(0)), now);
  if (!observations) return observations.error();
  out.residency = currentResidency(std::nullopt, *observations);
  return out;
}

JSONValue insightsJson(const Insights& in) {
  const HabitScore& h = in.habit;
  const std::string grade(h.gradeText());
  JSONValue::Array bands;
  for (const double hours : in.residency.bandHours()) bands.push_back(hours);
  JSONValue::Array history;
  for (const auto& s : in.gradeHistory) {
    history.push_back(JSONValue::object({{"timestamp", formatIso8601(s.timestamp)},
                                         {"grade", s.grade},
                                         {"factors", factorsJson(s.factors)}}));
  }
  return JSONValue::object(
      {{"habit", JSONValue::object({{"grade", grade},
                                    {"total", h.total},
                                    {"scores", JSONValue::object({
                                                   {"charge_depth", h.chargeDepth},
                                                   {"temperature", h.temperature},
                                                   {"high_soc", h.highSoc},
                                                   {"cycle_pattern", h.cyclePattern},
                                               })},
                                    {"factors", factorsJson(h.factors)},
                                    {"explanation", habitExplanation(grade, h.factors)}})},
       {"health_forecast", forecastJson(in.healthForecast)},
       {"cycle_forecast", forecastJson(in.cycleForecast)},
       {"carbon", JSONValue::object({{"region", in.carbonRegion.rawValue},
                                     {"intensity_g_per_kwh", in.carbonRegion.gramsCO2PerKWh},
                                     {"grams_today", in.carbonGramsToday}})},
       {"residency", JSONValue::object(
                         {{"source", toString(in.residency.source)}, {"bands", std::move(bands)}})},
       {"grade_history", std::move(history)}});
}

std::string insightsText(const Insights& in) {
  const HabitScore& h = in.habit;
  const std::string grade(h.gradeText());
  std::string text = fmt::format("As of {}\n", formatIso8601(in.now));
  text += fmt::format("Habit grade {} ({:.1f}/100): {}\n", grade, h.total,
                      habitExplanation(grade, h.factors));
  for (const auto& detail : habitFactorDetails(h.factors)) {
    text += fmt::format("  {} {}/100 — {}\n", detail.factor, detail.score, detail.text);
  }
  if (const auto found = h.factors.find(std::string(kDataConfidenceFactor));
      found != h.factors.end()) {
    text += fmt::format("  Data confidence {}\n", found->second);
  }
  text += forecastLine("Health", in.healthForecast);
  text += forecastLine("Cycles", in.cycleForecast);
  text += fmt::format("Carbon today: {:.1f} g CO₂ ({}, {:.0f} g per kWh)\n", in.carbonGramsToday,
                      in.carbonRegion.rawValue, in.carbonRegion.gramsCO2PerKWh);
  const auto bands = in.residency.bandHours();
  text += in.residency.source == ResidencySource::gauge
              ? "Time at temperature (gauge):"
              : "Time at temperature (observed by Quorel):";
  for (std::size_t i = 0; i < bands.size(); ++i) {
    text += fmt::format("{} {} {:.1f} h", i == 0 ? "" : ",", temperatureBandText(i), bands[i]);
  }
  text += "\n";
  if (in.gradeHistory.empty()) {
    text += "Grade history: none recorded yet.\n";
  } else {
    const auto& last = in.gradeHistory.back();
    text += fmt::format("Grade history: {} day{}, the latest {} on {}\n", in.gradeHistory.size(),
                        in.gradeHistory.size() == 1 ? "" : "s", last.grade,
                        formatIso8601(last.timestamp).substr(0, 10));
  }
  return text;
}

InsightsCommandResult runInsightsCommand(const InsightsCommandArguments& arguments,
                                         const fs::path& databaseFile,
                                         const fs::path& preferencesFile, const Clock& clock) {
  TimePoint now = clock.now();
  if (arguments.now) {
    const auto parsed = parseIso8601(*arguments.now);
    if (!parsed) {
      return {2, "",
              fmt::format("--now \"{}\" is not an ISO-8601 date-time with a zone — write it like "
                          "2026-11-22T10:15:30Z or 2026-11-22T11:15:30.250+01:00.",
                          *arguments.now)};
    }
    now = *parsed;
  }
  const FixedClock asOf(now);

  std::error_code ec;
  if (!fs::exists(databaseFile, ec)) {
    return unreadable(
        "there is no history database — start the agent once to create it, or point --data-dir "
        "at the folder that holds quorel.db",
        databaseFile);
  }
  // The preference file is only read here; without one the defaults apply and no grade has
  // been recorded, and nothing is created for it.
  CarbonRegionIntensity region = kCarbonRegions.front();
  std::vector<HabitGradeSnapshot> gradeHistory;
  if (fs::exists(preferencesFile, ec)) {
    FilePreferenceStore preferences(preferencesFile);
    region = carbonRegionOf(preferences, asOf);
    gradeHistory = HabitGradeHistoryStore(preferences).loadAll();
  }

  QuorelDatabase::Options options;
  options.dataDirectory = std::nullopt;
  options.databasePathOverride = databaseFile;
  options.startQueue = false;
  options.readOnly = true;
  QuorelDatabase db(std::move(options), asOf);
  auto insights = computeInsights(db, asOf, region, std::nullopt);
  if (!insights) return unreadable(insights.error().message, databaseFile);
  insights->gradeHistory = std::move(gradeHistory);
  if (!arguments.json) return {0, insightsText(*insights), ""};
  return {0, insightsJson(*insights).write().value_or("null") + "\n", ""};
}

}  // namespace quorel
