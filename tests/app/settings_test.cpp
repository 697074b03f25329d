#include "app/settings.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <sstream>

namespace quorel {
namespace {

using Json = nlohmann::ordered_json;
using ::testing::ElementsAreArray;

// Every key of the document in order; "?" marks the optional ones, written only when set.
constexpr std::string_view kKeys =
    "pollingInterval idlePollingInterval launchAtLogin showInDock showInMenuBar "
    "openDashboardOnLaunch appearanceMode colorBlindMode temperatureUnit textScale "
    "showContainerBorders chartSmoothing chartStackedComponents showIdleTimeOnGraphsStored? "
    "experimentalClamshellDischargeStored? menuBarMode menuBarColorEnabled "
    "popoverSectionOrder collapsedSections historyTimeScale showCarbonFootprint carbonRegion "
    "calendarPredictionEnabled customAlertThresholds lowPowerRules showHabitScore "
    "dashboardCardOrder dashboardCardPositions dashboardCardTiers dashboardPresets "
    "activePresetId? dataRetentionDays processEnergySamplingInterval processWattageThreshold "
    "hasCompletedOnboarding calibrationToastEnabled chargeLimitCardShowConflicts "
    "chargeLimitLastBreadcrumbShownAt? calibrationToastLastFiredAt? batteryControlEnabled "
    "batteryControlSailingBand heatProtectionThresholdC heatProtectionHysteresisC "
    "smartTopOffRules userHasApprovedHelperBefore helperBundleCDHashAtLastConnect? "
    "chargeLimitAdvancedCTADismissedAt?";

// The keys in order, the optional ones only when asked for.
std::vector<std::string> documentKeys(bool withOptional) {
  std::vector<std::string> keys;
  std::istringstream words{std::string(kKeys)};
  for (std::string key; words >> key;) {
    const bool optional = key.back() == '?';
    if (optional) key.pop_back();
    if (withOptional || !optional) keys.push_back(key);
  }
  return keys;
}

std::vector<std::string> keysOf(const Json& object) {
  std::vector<std::string> keys;
  for (const auto& [k, v] : object.items()) keys.push_back(k);
  return keys;
}

Json defaultDocument() {
  return Json::parse(*encodeSettings(QuorelSettings{}));
}

std::optional<QuorelSettings> decode(const Json& document) {
  static const ManualClock clock;
  return decodeSettings(document.dump(), clock);
}

// 2001-01-01 plus `seconds`, as the document counts dates.
TimePoint referenceDate(double seconds) {
  return fromUnixSeconds(978307200.0 + seconds);
}

QuorelSettings everythingChanged() {
  QuorelSettings s;
  s.pollingInterval = 1.5;
  s.idlePollingInterval = 45;
  s.launchAtLogin = true;
  s.showInDock = true;
  s.showInMenuBar = false;
  s.openDashboardOnLaunch = true;
  s.appearanceMode = AppearanceMode::automatic;
  s.colorBlindMode = ColorBlindMode::tritanopia;
  s.temperatureUnit = TemperatureUnit::fahrenheit;
  s.textScale = TextScale::xxl;
  s.showContainerBorders = true;
  s.chartSmoothing = false;
  s.chartStackedComponents = true;
  s.showIdleTimeOnGraphsStored = false;
  s.experimentalClamshellDischargeStored = true;
  s.menuBarMode = MenuBarMode::gaugePowerIn;
  s.menuBarColorEnabled = true;
  s.popoverSectionOrder = {"habitScore", "hero"};
  s.collapsedSections = {"details"};
  s.historyTimeScale = HistoryTimeScale::thirtyDays;
  s.showCarbonFootprint = true;
  s.carbonRegion = CarbonRegion::australiaAverage;
  s.calendarPredictionEnabled = true;
  s.customAlertThresholds = {
      {"0E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F60", 20, CustomAlert::Direction::falling, true},
      {"1E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F61", 80, CustomAlert::Direction::rising, false}};
  s.lowPowerRules = {
      Json::parse(R"({"id":"2E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F62","kind":"batteryHot",
      "enabled":true,"thresholdPercent":20,"temperatureThresholdC":40.5,"bundleID":"",
      "displayName":""})")};
  s.showHabitScore = false;
  s.dashboardCardOrder = {"power", "health"};
  s.dashboardCardPositions = {{"power", {1.5, 2}}, {"health", {0, 3.25}}};
  s.dashboardCardTiers = {{"power", "s2x2"}};
  s.dashboardPresets = {{"3E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F63",
                         "Desk",
                         {"power"},
                         {{"power", {4, 5}}},
                         {{"power", "full"}},
                         referenceDate(700000000)}};
  s.activePresetId = "3E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F63";
  s.dataRetentionDays = 90;
  s.processEnergySamplingInterval = 10;
  s.processWattageThreshold = 0.25;
  s.hasCompletedOnboarding = true;
  s.calibrationToastEnabled = false;
  s.chargeLimitCardShowConflicts = false;
  s.chargeLimitLastBreadcrumbShownAt = referenceDate(700000100);
  s.calibrationToastLastFiredAt = referenceDate(700000200.5);
  s.batteryControlEnabled = true;
  s.batteryControlSailingBand = 3;
  s.heatProtectionThresholdC = 42;
  s.heatProtectionHysteresisC = 2;
  s.smartTopOffRules = {Json::parse(
      R"({"type":"geofence","id":"4E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F64","latitude":51.5,
          "longitude":-0.12,"radiusMeters":200,"label":"Office"})")};
  s.userHasApprovedHelperBefore = true;
  s.helperBundleCDHashAtLastConnect = "a1b2c3";
  s.chargeLimitAdvancedCTADismissedAt = referenceDate(-5);
  return s;
}

TEST(SettingsCodingTest, DefaultDocumentHasEveryRequiredKeyInFieldOrder) {
  const Json d = defaultDocument();
  EXPECT_THAT(keysOf(d), ElementsAreArray(documentKeys(false)));
  EXPECT_EQ(d["pollingInterval"], 2.0);
  EXPECT_EQ(d["idlePollingInterval"], 30.0);
  EXPECT_EQ(d["appearanceMode"], "Dark");
  EXPECT_EQ(d["colorBlindMode"], "Default");
  EXPECT_EQ(d["temperatureUnit"], "°C");
  EXPECT_EQ(d["textScale"], "M");
  EXPECT_EQ(d["menuBarMode"], "Wattage");
  EXPECT_EQ(d["historyTimeScale"], "10m");
  EXPECT_EQ(d["carbonRegion"], "US Average");
  EXPECT_EQ(d["popoverSectionOrder"].size(), 20u);
  EXPECT_EQ(d["popoverSectionOrder"].front(), "hero");
  EXPECT_EQ(d["popoverSectionOrder"].back(), "habitScore");
  EXPECT_EQ(d["collapsedSections"].size(), 20u);
  EXPECT_EQ(d["dataRetentionDays"], 0);
  EXPECT_EQ(d["processWattageThreshold"], 0.1);
  EXPECT_EQ(d["batteryControlSailingBand"], 5);
  EXPECT_EQ(d["heatProtectionThresholdC"], 38);
  EXPECT_EQ(d["heatProtectionHysteresisC"], 3);
  EXPECT_TRUE(d["dashboardCardPositions"].is_object());
  EXPECT_TRUE(d["dashboardPresets"].is_array());
  EXPECT_EQ(decode(d), QuorelSettings{});
}

TEST(SettingsCodingTest, EveryFieldRoundTripsAndOptionalKeysTakeTheirPlace) {
  const QuorelSettings s = everythingChanged();
  const auto text = encodeSettings(s);
  ASSERT_TRUE(text);
  const Json d = Json::parse(*text);
  EXPECT_THAT(keysOf(d), ElementsAreArray(documentKeys(true)));
  EXPECT_EQ(d["chargeLimitLastBreadcrumbShownAt"], 700000100.0);
  EXPECT_EQ(d["chargeLimitAdvancedCTADismissedAt"], -5.0);
  EXPECT_EQ(d["dashboardPresets"][0]["createdAt"], 700000000.0);
  EXPECT_THAT(
      keysOf(d["dashboardPresets"][0]),
      ElementsAreArray({"id", "name", "cardOrder", "cardPositions", "cardTiers", "createdAt"}));
  EXPECT_THAT(keysOf(d["customAlertThresholds"][0]),
              ElementsAreArray({"id", "percentage", "direction", "enabled"}));
  EXPECT_EQ(d["customAlertThresholds"][1]["direction"], "rising");
  // Rules keep the key order they were written with.
  EXPECT_EQ(keysOf(d["smartTopOffRules"][0]).front(), "type");
  EXPECT_EQ(decode(d), s);
}

TEST(SettingsCodingTest, MissingRequiredKeyFailsTheWholeDocumentOptionalKeysDoNot) {
  const Json full = Json::parse(*encodeSettings(everythingChanged()));
  const auto required = documentKeys(false);
  for (const auto& key : documentKeys(true)) {
    Json d = full;
    d.erase(key);
    const bool isRequired = std::find(required.begin(), required.end(), key) != required.end();
    EXPECT_EQ(decode(d).has_value(), !isRequired) << key;
    // A null counts as absent: fine for an optional key, fatal for a required one.
    d = full;
    d[key] = nullptr;
    EXPECT_EQ(decode(d).has_value(), !isRequired) << key << " = null";
  }
  EXPECT_FALSE(decodeSettings("[]", ManualClock()));
  EXPECT_FALSE(decodeSettings("{\"pollingInterval\": 2", ManualClock()));
}

TEST(SettingsCodingTest, UnknownMenuBarModeReadsAsWattageOtherEnumerationsFail) {
  Json d = defaultDocument();
  d["menuBarMode"] = "Sparkline";
  auto decoded = decode(d);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->menuBarMode, MenuBarMode::wattage);
  d["menuBarMode"] = "Gauge: Battery";
  EXPECT_EQ(decode(d)->menuBarMode, MenuBarMode::gaugeBattery);
  d["menuBarMode"] = 3;
  EXPECT_FALSE(decode(d)) << "lenient about the text, not about the type";

  for (const auto& [key, bad] :
       std::vector<std::pair<std::string, Json>>{{"appearanceMode", "dark"},
                                                 {"colorBlindMode", "Off"},
                                                 {"temperatureUnit", "C"},
                                                 {"textScale", "XXXL"},
                                                 {"historyTimeScale", "1d"},
                                                 {"carbonRegion", "Mars"}}) {
    Json broken = defaultDocument();
    broken[key] = bad;
    EXPECT_FALSE(decode(broken)) << key;
  }
  Json alert = defaultDocument();
  alert["customAlertThresholds"] = Json::array({{{"id", "0E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F60"},
                                                 {"percentage", 20},
                                                 {"direction", "up"},
                                                 {"enabled", true}}});
  EXPECT_FALSE(decode(alert));
}

TEST(SettingsCodingTest, ValuesOfTheWrongTypeFailTheDocument) {
  const std::vector<std::pair<std::string, Json>> cases = {
      {"launchAtLogin", 1},
      {"pollingInterval", "2"},
      {"dataRetentionDays", 1.5},
      {"popoverSectionOrder", Json::array({"hero", 3})},
      {"dashboardCardPositions", Json{{"power", {{"x", 1}}}}},
      {"dashboardCardTiers", Json{{"power", 2}}},
      {"lowPowerRules", Json::array({"not an object"})},
      {"activePresetId", "not-a-uuid"},
      {"calibrationToastLastFiredAt", "2024-01-01"},
  };
  for (const auto& [key, bad] : cases) {
    Json d = defaultDocument();
    d[key] = bad;
    EXPECT_FALSE(decode(d)) << key;
  }
  // Integral reals are integers, as the platform's codec reads them.
  Json d = defaultDocument();
  d["dataRetentionDays"] = 30.0;
  EXPECT_EQ(decode(d)->dataRetentionDays, 30);
  d["pollingInterval"] = 3;
  EXPECT_EQ(decode(d)->pollingInterval, 3.0);
}

TEST(SettingsCodingTest, LateSettingsReadTheirDefaultsWhenAbsent) {
  Json d = defaultDocument();
  auto s = decode(d);
  ASSERT_TRUE(s);
  EXPECT_TRUE(s->showIdleTimeOnGraphs());
  EXPECT_FALSE(s->experimentalClamshellDischarge());
  d["showIdleTimeOnGraphsStored"] = false;
  d["experimentalClamshellDischargeStored"] = true;
  s = decode(d);
  EXPECT_FALSE(s->showIdleTimeOnGraphs());
  EXPECT_TRUE(s->experimentalClamshellDischarge());
}

TEST(SettingsCodingTest, IdentifiersAreUpperCaseUuids) {
  Json d = defaultDocument();
  d["activePresetId"] = "3e4b1c7a-3f51-4f0b-9b8e-2d4c1a7e5f63";
  EXPECT_EQ(decode(d)->activePresetId, "3E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F63");
  d["activePresetId"] = "3E4B1C7A3F514F0B9B8E2D4C1A7E5F63AAAA";
  EXPECT_FALSE(decode(d));

  const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  const std::string a = makeUuid();
  EXPECT_TRUE(std::regex_match(a, uuid)) << a;
  EXPECT_NE(a, makeUuid());
}

TEST(SettingsCodingTest, PresetsSurviveMissingKeys) {
  const ManualClock clock(referenceDate(800000000));
  Json d = defaultDocument();
  d["dashboardPresets"] = Json::array(
      {Json::object(), Json{{"name", "Travel"}, {"cardOrder", {"a", "b"}}, {"createdAt", 12.5}}});
  auto s = decodeSettings(d.dump(), clock);
  ASSERT_TRUE(s);
  ASSERT_EQ(s->dashboardPresets.size(), 2u);
  const auto& empty = s->dashboardPresets[0];
  EXPECT_EQ(empty.id.size(), 36u);
  EXPECT_EQ(empty.name, "");
  EXPECT_TRUE(empty.cardOrder.empty() && empty.cardPositions.empty() && empty.cardTiers.empty());
  EXPECT_EQ(empty.createdAt, clock.now());
  const auto& travel = s->dashboardPresets[1];
  EXPECT_EQ(travel.name, "Travel");
  EXPECT_EQ(travel.cardOrder, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(travel.createdAt, referenceDate(12.5));
  EXPECT_NE(travel.id, empty.id);

  // Present but of the wrong type is not drift but damage.
  d["dashboardPresets"] = Json::array({Json{{"name", 5}}});
  EXPECT_FALSE(decodeSettings(d.dump(), clock));
}

TEST(SettingsCodingTest, TextThatIsNotUtf8CannotBeEncoded) {
  QuorelSettings s;
  s.helperBundleCDHashAtLastConnect = std::string("\xff\xfe", 2);
  EXPECT_FALSE(encodeSettings(s));
}

TEST(PollingIntervalsTest, SettingsDecideUnlessTheCommandLineOverrides) {
  QuorelSettings s;
  EXPECT_EQ(pollingIntervals(s), (PollingIntervals{Seconds{2}, Seconds{30}}));
  s.pollingInterval = 1;
  s.idlePollingInterval = 60;
  EXPECT_EQ(pollingIntervals(s), (PollingIntervals{Seconds{1}, Seconds{60}}));
  EXPECT_EQ(pollingIntervals(s, Seconds{0.5}), (PollingIntervals{Seconds{0.5}, Seconds{0.5}}));
  // Nonsense never reaches the timer.
  s.pollingInterval = 0;
  s.idlePollingInterval = -3;
  EXPECT_EQ(pollingIntervals(s), (PollingIntervals{Seconds{2}, Seconds{30}}));
  EXPECT_EQ(pollingIntervals(s, Seconds{0}), (PollingIntervals{Seconds{2}, Seconds{30}}));
}

}  // namespace
}  // namespace quorel
