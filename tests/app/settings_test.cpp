#include "app/settings.hpp"

#include <gtest/gtest.h>

#include <regex>
#include <set>

namespace quorel {
namespace {

using Json = nlohmann::ordered_json;

// The keys a document may leave out; every other key is required.
const std::set<std::string> kOptionalKeys = {"showIdleTimeOnGraphsStored",
                                             "experimentalClamshellDischargeStored",
                                             "activePresetId",
                                             "chargeLimitLastBreadcrumbShownAt",
                                             "calibrationToastLastFiredAt",
                                             "helperBundleCDHashAtLastConnect",
                                             "chargeLimitAdvancedCTADismissedAt"};

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

TEST(SettingsCodingTest, EveryFieldRoundTripsAndOptionalKeysAppearOnlyWhenSet) {
  const QuorelSettings s = everythingChanged();
  const Json d = Json::parse(*encodeSettings(s));
  EXPECT_EQ(decode(d), s);
  EXPECT_EQ(decode(defaultDocument()), QuorelSettings{});
  // Dates count seconds from 2001-01-01; enumerations and rules are stored as their texts.
  EXPECT_EQ(d["chargeLimitLastBreadcrumbShownAt"], 700000100.0);
  EXPECT_EQ(d["chargeLimitAdvancedCTADismissedAt"], -5.0);
  EXPECT_EQ(d["dashboardPresets"][0]["createdAt"], 700000000.0);
  EXPECT_EQ(d["customAlertThresholds"][1]["direction"], "rising");
  EXPECT_EQ(d["carbonRegion"], "Australia");
  EXPECT_EQ(keysOf(d["smartTopOffRules"][0]).front(), "type") << "rules keep their key order";

  std::vector<std::string> withoutOptional;
  for (const auto& key : keysOf(d)) {
    if (!kOptionalKeys.count(key)) withoutOptional.push_back(key);
  }
  EXPECT_EQ(keysOf(defaultDocument()), withoutOptional);
  const auto late = decode(defaultDocument());
  EXPECT_TRUE(late->showIdleTimeOnGraphs());
  EXPECT_FALSE(late->experimentalClamshellDischarge());
}

TEST(SettingsCodingTest, MissingRequiredKeyFailsTheWholeDocumentOptionalKeysDoNot) {
  const Json full = Json::parse(*encodeSettings(everythingChanged()));
  for (const auto& key : keysOf(full)) {
    const bool optional = kOptionalKeys.count(key) > 0;
    Json d = full;
    d.erase(key);
    EXPECT_EQ(decode(d).has_value(), optional) << key;
    // A null counts as absent: fine for an optional key, fatal for a required one.
    d = full;
    d[key] = nullptr;
    EXPECT_EQ(decode(d).has_value(), optional) << key << " = null";
  }
  EXPECT_FALSE(decodeSettings("[]", ManualClock()));
  EXPECT_FALSE(decodeSettings("{\"pollingInterval\": 2", ManualClock()));
}

TEST(SettingsCodingTest, UnknownTextsAndWrongTypesFailTheDocumentExceptAMenuBarMode) {
  const std::vector<std::pair<std::string, Json>> cases = {
      {"appearanceMode", "dark"},
      {"colorBlindMode", "Off"},
      {"temperatureUnit", "C"},
      {"textScale", "XXXL"},
      {"historyTimeScale", "1d"},
      {"carbonRegion", "Mars"},
      {"customAlertThresholds", Json::array({{{"id", "0E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F60"},
                                              {"percentage", 20},
                                              {"direction", "up"},
                                              {"enabled", true}}})},
      {"menuBarMode", 3},
      {"launchAtLogin", 1},
      {"pollingInterval", "2"},
      {"dataRetentionDays", 1.5},
      {"popoverSectionOrder", Json::array({"hero", 3})},
      {"dashboardCardPositions", Json{{"power", {{"x", 1}}}}},
      {"dashboardCardTiers", Json{{"power", 2}}},
      {"lowPowerRules", Json::array({"not an object"})},
      {"activePresetId", "not-a-uuid"},
      {"calibrationToastLastFiredAt", "2024-01-01"}};
  for (const auto& [key, bad] : cases) {
    Json d = defaultDocument();
    d[key] = bad;
    EXPECT_FALSE(decode(d)) << key;
  }
  // A document naming a retired menu bar style stays readable.
  Json d = defaultDocument();
  d["menuBarMode"] = "Sparkline";
  EXPECT_EQ(decode(d)->menuBarMode, MenuBarMode::wattage);
  d["menuBarMode"] = "Gauge: Battery";
  EXPECT_EQ(decode(d)->menuBarMode, MenuBarMode::gaugeBattery);
  // Integral reals are integers, as the platform's codec reads them.
  d["dataRetentionDays"] = 30.0;
  EXPECT_EQ(decode(d)->dataRetentionDays, 30);
  d["pollingInterval"] = 3;
  EXPECT_EQ(decode(d)->pollingInterval, 3.0);
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
