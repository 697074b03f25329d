// `quorel insights` over generated histories, answered at fixed moments: every figure must be
// what the services give for the rows that existed at that moment.

#include "programs/quorel/insights_command.hpp"

#include "app/settings.hpp"
#include "app/settings_manager.hpp"
#include "core/file_preference_store.hpp"
#include "store/store_test_fixture.hpp"

namespace quorel {
namespace {

using store_test::at;
using store_test::kDay;
namespace fs = std::filesystem;

class InsightsCommandTest : public store_test::StoreFileTest {
 protected:
  // One reading a day at noon; `wobble` keeps the fit's residual, and so its band, above zero.
  void days(int from, int to, double health0, double perDay, int cycles0, double wobble = 0.05) {
    for (int d = from; d < to; ++d) {
      db->insertCapacityLog({at(d * kDay + 4 * 3600), 4500, 5000, cycles0 + 2 * (d - from),
                             health0 - perDay * (d - from) + (d % 2 ? wobble : -wobble), 31});
    }
  }
  InsightsCommandResult run(std::optional<std::string> now, bool json = true) {
    drain();
    return runInsightsCommand({now, json}, file, prefs, clock);
  }
  JSONValue answer(double dayOffset) {
    const auto r = run(formatIso8601(at(dayOffset * kDay)));
    EXPECT_EQ(r.exitStatus, 0) << r.error;
    return JSONValue::parse(r.output).value_or(JSONValue());
  }
  // The health and cycle forecasts the engine gives for the readings taken by `now`.
  std::pair<ForecastResult, ForecastResult> expected(TimePoint now,
                                                     std::optional<TimePoint> epoch) {
    drain();
    auto log = *db->queryCapacityLog();
    std::erase_if(log, [&](const CapacityLogEntry& e) { return e.timestamp > now; });
    return {ForecastEngine::degradationFit(log, epoch, 80, now),
            ForecastEngine::cycleProjection(log, epoch, std::nullopt, now)};
  }

  fs::path prefs = scratch.path() / "config" / "defaults.json";
};

void expectSame(const JSONValue& got, const ForecastResult& want) {
  EXPECT_EQ(got.member("result"), JSONValue(toString(kindOf(want))));
  const auto* s = std::get_if<ForecastSeries>(&want);
  const auto* r = std::get_if<ForecastReadout>(&want);
  EXPECT_EQ(got.member("readout"), s   ? JSONValue(s->readout)
                                   : r ? JSONValue(r->headline)
                                       : JSONValue(nullptr));
  const ForecastSeries none;
  const ForecastSeries& series = s ? *s : none;
  const std::pair<const char*, const std::vector<ForecastPoint>*> lists[] = {
      {"points", &series.points},
      {"band_upper", &series.bandUpper},
      {"band_lower", &series.bandLower}};
  for (const auto& [key, points] : lists) {
    const auto* list = got.find(key)->arrayValue();
    ASSERT_EQ(list->size(), points->size()) << key;
    for (std::size_t i = 0; i < list->size(); ++i) {
      EXPECT_EQ((*list)[i].member("t"), JSONValue(formatIso8601((*points)[i].date))) << key << i;
      EXPECT_NEAR(*(*list)[i].find("value")->numberValue(), (*points)[i].value, 1e-9) << key << i;
    }
  }
}

std::vector<std::string> keysOf(const JSONValue& v) {
  std::vector<std::string> keys;
  for (const auto& [k, _] : *v.objectValue()) keys.push_back(k);
  return keys;
}

TEST_F(InsightsCommandTest, AnEmptyStoreAnswersWithTheExactKeysAndNothingToForecast) {
  const JSONValue v = answer(0);
  EXPECT_THAT(keysOf(v), ::testing::ElementsAre("carbon", "cycle_forecast", "grade_history",
                                                "habit", "health_forecast", "residency"));
  EXPECT_THAT(keysOf(*v.find("habit")),
              ::testing::ElementsAre("explanation", "factors", "grade", "scores", "total"));
  EXPECT_THAT(keysOf(*v.find("habit")->find("scores")),
              ::testing::ElementsAre("charge_depth", "cycle_pattern", "high_soc", "temperature"));
  EXPECT_THAT(keysOf(*v.find("carbon")),
              ::testing::ElementsAre("grams_today", "intensity_g_per_kwh", "region"));
  EXPECT_THAT(keysOf(*v.find("residency")), ::testing::ElementsAre("bands", "source"));
  for (const char* f : {"health_forecast", "cycle_forecast"}) {
    EXPECT_THAT(keysOf(*v.find(f)),
                ::testing::ElementsAre("band_lower", "band_upper", "points", "readout", "result"));
    expectSame(*v.find(f), ForecastInsufficientData{});
  }
  const auto neutral = HabitScoringService::score({}, {}, at(0));
  EXPECT_EQ(v.find("habit")->member("grade"), JSONValue(neutral.gradeText()));
  EXPECT_EQ(v.find("habit")->find("factors")->objectValue()->size(), 5u);
  EXPECT_EQ(v.find("carbon")->member("region"), JSONValue("US Average")) << "no preference file";
  EXPECT_EQ(v.find("carbon")->member("grams_today"), JSONValue(0));
  EXPECT_EQ(v.find("residency")->member("bands"), JSONValue::array({0, 0, 0, 0}));
  EXPECT_EQ(v.member("grade_history"), JSONValue(JSONValue::Array{}));
  EXPECT_FALSE(fs::exists(prefs.parent_path())) << "reading must create nothing";

  const auto text = run(std::nullopt, false);
  EXPECT_EQ(text.exitStatus, 0);
  EXPECT_THAT(text.output, ::testing::HasSubstr("Health: not enough history yet"));
}

TEST_F(InsightsCommandTest, FallingFlatAndReplacedHistoriesMatchTheEngineAsOfEachMoment) {
  days(-40, 0, 95, 0.1, 100);
  struct Case {
    double day;
    ForecastResultKind health;
  };
  // Today; half-way, with the later readings not yet taken; too early to say anything.
  for (const Case c :
       {Case{0, ForecastResultKind::forecast}, Case{-20, ForecastResultKind::forecast},
        Case{-37, ForecastResultKind::insufficientData}}) {
    const JSONValue v = answer(c.day);
    const auto [health, cycles] = expected(at(c.day * kDay), std::nullopt);
    EXPECT_EQ(kindOf(health), c.health) << c.day;
    expectSame(*v.find("health_forecast"), health);
    expectSame(*v.find("cycle_forecast"), cycles);
  }
  EXPECT_EQ(answer(0).find("cycle_forecast")->member("readout"),
            JSONValue(kNoRatedCycleLimitHeadline));
  EXPECT_NE(answer(0).find("health_forecast")->member("points"),
            answer(-20).find("health_forecast")->member("points"));

  // A new battery three days ago: its three readings are too few, the old ones no longer count.
  db->forceNewBatteryEpoch("NEW", 0, 5000, 5000, at(-3 * kDay));
  days(-2, 1, 100, 0, 0, 0);
  const auto epoch = db->currentBatteryEpoch()->firstSeen;
  const auto [health, cycles] = expected(at(kDay), epoch);
  EXPECT_EQ(kindOf(health), ForecastResultKind::insufficientData);
  expectSame(*answer(1).find("health_forecast"), health);
  expectSame(*answer(1).find("cycle_forecast"), cycles);
  // Before the replacement the old battery is still the one being fitted.
  expectSame(*answer(-10).find("health_forecast"), expected(at(-10 * kDay), std::nullopt).first);
}

TEST_F(InsightsCommandTest, AFlatHealthHasNoTrend) {
  days(-10, 0, 97, 0, 40, 0);
  const JSONValue v = answer(0);
  expectSame(*v.find("health_forecast"), ForecastNoTrend{});
  expectSame(*v.find("cycle_forecast"), expected(at(0), std::nullopt).second);
}

TEST_F(InsightsCommandTest, HabitCarbonResidencyAndGradesComeFromTheStoreAndThePreferences) {
  SessionRecord s;
  s.id = "6F9619FF-8B86-D011-B42D-00C04FC964FF";
  std::tie(s.startTime, s.endTime, s.startPct, s.endPct, s.isCharging) =
      std::tuple(at(-7200), at(-3600), 15.0, 95.0, true);
  db->insertSession(s);
  for (int i = 0; i < 20; ++i) {
    sample(-1200 + 60 * i, {{"wattage", -8.0 - i % 3},
                            {"battery_pct", 60.0 - i},
                            {"temperature_c", 30.0 + i},
                            {"observed_duration_s", 60.0}});
  }
  {
    FilePreferenceStore preferences(prefs);
    QuorelSettings settings;
    settings.carbonRegion = CarbonRegion::euAverage;
    preferences.setValue(SettingsManager::key, *encodeSettings(settings));
    HabitGradeHistoryStore(preferences).record({at(-kDay), "C+", {{"Charge Depth", "61/100"}}});
  }
  const JSONValue v = answer(0);
  drain();

  const auto habit = HabitScoringService::score(*db->queryRecentSessions(100),
                                                *db->queryDailyBatteryMetrics(), at(0));
  EXPECT_EQ(habit.chargeDepth, 100 - 3 * 15) << "the session must have been read";
  EXPECT_EQ(v.find("habit")->member("grade"), JSONValue(habit.gradeText()));
  EXPECT_EQ(v.find("habit")->find("scores")->member("high_soc"), JSONValue(habit.highSoc));
  EXPECT_EQ(v.find("habit")->find("factors")->member("Data Confidence"),
            JSONValue(habit.factors.at("Data Confidence")));

  CarbonFootprintService carbon(*db);
  const double grams = *carbon.todayCO2Grams(*carbonRegionNamed("EU Average"), at(0));
  EXPECT_GT(grams, 0);
  EXPECT_EQ(v.find("carbon")->member("region"), JSONValue("EU Average"));
  EXPECT_NEAR(*v.find("carbon")->find("grams_today")->numberValue(), grams, 1e-9);

  const auto bands =
      observedResidency(*db->queryResidencyObservations(at(-kDay), at(0))).bandHours();
  EXPECT_EQ(v.find("residency")->member("bands"),
            JSONValue::array({bands[0], bands[1], bands[2], bands[3]}));
  EXPECT_GT(bands[1] + bands[2], 0);
  EXPECT_EQ(v.find("residency")->member("source"), JSONValue("observed"));

  const auto* history = v.find("grade_history")->arrayValue();
  ASSERT_EQ(history->size(), 1u);
  EXPECT_EQ((*history)[0].member("timestamp"), JSONValue(formatIso8601(at(-kDay))));
  EXPECT_EQ((*history)[0].member("grade"), JSONValue("C+"));
  EXPECT_EQ((*history)[0].find("factors")->member("Charge Depth"), JSONValue("61/100"));

  // Settings that no longer decode fall back on the default region, as the agent does.
  FilePreferenceStore(prefs).setValue(SettingsManager::key, "{not settings");
  EXPECT_EQ(answer(0).find("carbon")->member("region"), JSONValue("US Average"));
}

TEST_F(InsightsCommandTest, AMomentThatIsNotISO8601IsRefusedWithASentence) {
  for (const char* bad : {"yesterday", "2027-01-15T08:00:00", "2027-02-30T08:00:00Z"}) {
    const auto r = run(bad);
    EXPECT_EQ(r.exitStatus, 2) << bad;
    EXPECT_TRUE(r.output.empty());
    EXPECT_THAT(r.error, ::testing::StartsWith(std::string("--now \"") + bad + "\" is not"));
    EXPECT_THAT(r.error, ::testing::HasSubstr("2026-11-22T10:15:30Z"));
  }
}

}  // namespace
}  // namespace quorel
