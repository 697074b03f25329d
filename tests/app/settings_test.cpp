#include "app/settings.hpp"

#include <gtest/gtest.h>

#include <set>

#include "app/settings_manager.hpp"
#include "core/memory_preference_store.hpp"
#include "store/sqlite_test_support.hpp"

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

// A document from a run that changed every setting, its keys in the order they are written.
const char* const kEverythingChanged = R"({
    "pollingInterval": 1.5, "idlePollingInterval": 45, "launchAtLogin": true, "showInDock": true,
    "showInMenuBar": false, "openDashboardOnLaunch": true, "appearanceMode": "Auto",
    "colorBlindMode": "Green/Magenta", "temperatureUnit": "°F", "textScale": "XXL",
    "showContainerBorders": true, "chartSmoothing": false, "chartStackedComponents": true,
    "showIdleTimeOnGraphsStored": false, "experimentalClamshellDischargeStored": true,
    "menuBarMode": "Gauge: Power In", "menuBarColorEnabled": true,
    "popoverSectionOrder": ["habitScore", "hero"], "collapsedSections": ["details"],
    "historyTimeScale": "30d", "showCarbonFootprint": true, "carbonRegion": "Australia",
    "calendarPredictionEnabled": true,
    "customAlertThresholds": [{"id": "0E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F60", "percentage": 20,
      "direction": "falling", "enabled": true}, {"id": "1E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F61",
      "percentage": 80, "direction": "rising", "enabled": false}],
    "lowPowerRules": [{"id": "2E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F62", "kind": "batteryHot",
      "enabled": true, "thresholdPercent": 20, "temperatureThresholdC": 40.5, "bundleID": "",
      "displayName": ""}], "showHabitScore": false, "dashboardCardOrder": ["power", "health"],
    "dashboardCardPositions": {"health": {"x": 0, "y": 3.25}, "power": {"x": 1.5, "y": 2}},
    "dashboardCardTiers": {"power": "s2x2"},
    "dashboardPresets": [{"id": "3E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F63", "name": "Desk",
      "cardOrder": ["power"], "cardPositions": {"power": {"x": 4, "y": 5}},
      "cardTiers": {"power": "full"}, "createdAt": 700000000}],
    "activePresetId": "3E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F63", "dataRetentionDays": 90,
    "processEnergySamplingInterval": 10, "processWattageThreshold": 0.25,
    "hasCompletedOnboarding": true, "calibrationToastEnabled": false,
    "chargeLimitCardShowConflicts": false, "chargeLimitLastBreadcrumbShownAt": 700000100,
    "calibrationToastLastFiredAt": 700000200.5, "batteryControlEnabled": true,
    "batteryControlSailingBand": 3, "heatProtectionThresholdC": 42, "heatProtectionHysteresisC": 2,
    "smartTopOffRules": [{"type": "geofence", "id": "4E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F64",
      "latitude": 51.5, "longitude": -0.12, "radiusMeters": 200, "label": "Office"}],
    "userHasApprovedHelperBefore": true, "helperBundleCDHashAtLastConnect": "a1b2c3",
    "chargeLimitAdvancedCTADismissedAt": -5})";

TEST(SettingsCodingTest, EveryFieldRoundTripsAndOptionalKeysAppearOnlyWhenSet) {
  const Json full = Json::parse(kEverythingChanged);
  const auto s = decode(full);
  ASSERT_TRUE(s);
  EXPECT_EQ(Json::parse(*encodeSettings(*s)), full) << "every field, in order, rules as stored";
  EXPECT_EQ(decode(defaultDocument()), QuorelSettings{});
  // Dates count seconds from 2001-01-01.
  EXPECT_EQ(s->chargeLimitAdvancedCTADismissedAt, referenceDate(-5));

  std::vector<std::string> withoutOptional;
  for (const auto& key : keysOf(full)) {
    if (!kOptionalKeys.count(key)) withoutOptional.push_back(key);
  }
  EXPECT_EQ(keysOf(defaultDocument()), withoutOptional);
  const auto late = decode(defaultDocument());
  EXPECT_TRUE(late->showIdleTimeOnGraphs());
  EXPECT_FALSE(late->experimentalClamshellDischarge());
}

TEST(SettingsCodingTest, MissingRequiredKeyFailsTheWholeDocumentOptionalKeysDoNot) {
  const Json full = Json::parse(kEverythingChanged);
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
      {"temperatureUnit", "C"},
      {"customAlertThresholds", Json::array({{{"id", "0E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F60"},
                                              {"percentage", 20},
                                              {"direction", "up"},
                                              {"enabled", true}}})},
      {"menuBarMode", 3},
      {"launchAtLogin", 1},
      {"dataRetentionDays", 1.5},
      {"popoverSectionOrder", Json::array({"hero", 3})},
      {"dashboardCardPositions", Json{{"power", {{"x", 1}}}}},
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
}

class SettingsManagerTest : public ::testing::Test {
 protected:
  MemoryPreferenceStore store;
  ManualClock clock;
  SerialQueue main{"test.main", clock};

  Json storedDocument() const { return Json::parse(*store.dataValue(SettingsManager::key)); }
  void storeDocument(const Json& d) { store.setValue(SettingsManager::key, d.dump()); }
  void markMigrated() {
    store.setValue(SettingsManager::kContainerBordersMigrationKey, true);
    store.setValue(SettingsManager::kCollapsedSectionsMigrationKey, true);
  }
  static Json document(const QuorelSettings& s) { return Json::parse(*encodeSettings(s)); }
  // Stores `s` as an earlier run that had already migrated would have.
  void storeMigrated(const QuorelSettings& s) {
    markMigrated();
    storeDocument(document(s));
  }
  std::optional<QuorelSettings> decodedStore() const {
    return decodeSettings(*store.dataValue(SettingsManager::key), clock);
  }
};

TEST_F(SettingsManagerTest, MigrationsRunOncePerDomain) {
  QuorelSettings old;
  old.showContainerBorders = true;
  old.collapsedSections = {"hero"};
  old.pollingInterval = 4;
  storeDocument(document(old));
  {
    SettingsManager manager(store, main, clock);
    EXPECT_FALSE(manager.settings().showContainerBorders);
    EXPECT_EQ(manager.settings().collapsedSections.size(), 20u);
    EXPECT_EQ(manager.settings().pollingInterval, 4);
    EXPECT_EQ(storedDocument()["showContainerBorders"], false);
    EXPECT_EQ(storedDocument()["collapsedSections"].size(), 20u);
    manager.update([](QuorelSettings& s) {
      s.showContainerBorders = true;
      s.collapsedSections = {"details"};
    });
    manager.save();
  }
  SettingsManager relaunched(store, main, clock);
  EXPECT_TRUE(relaunched.settings().showContainerBorders);
  EXPECT_EQ(relaunched.settings().collapsedSections, (std::set<std::string>{"details"}));
}

TEST_F(SettingsManagerTest, UndecodableDocumentFallsBackToDefaultsUntilTheNextSave) {
  markMigrated();
  QuorelSettings old;
  old.pollingInterval = 9;
  Json d = document(old);
  d.erase("chargeLimitCardShowConflicts");
  storeDocument(d);

  SettingsManager manager(store, main, clock);
  EXPECT_EQ(manager.settings(), QuorelSettings{});
  EXPECT_EQ(storedDocument(), d) << "nothing is written until someone saves";
  manager.save();
  EXPECT_EQ(decodedStore(), QuorelSettings{});
}

TEST_F(SettingsManagerTest, HistoryScaleReopensOnTenMinutesAndIsStoredOnlyAtTheNextSave) {
  QuorelSettings old;
  old.historyTimeScale = HistoryTimeScale::sevenDays;
  storeMigrated(old);

  SettingsManager manager(store, main, clock);
  EXPECT_EQ(manager.settings().historyTimeScale, HistoryTimeScale::tenMinutes);
  EXPECT_EQ(storedDocument()["historyTimeScale"], "7d");
  manager.save();
  EXPECT_EQ(storedDocument()["historyTimeScale"], "10m");
}

TEST_F(SettingsManagerTest, SaveThatCannotEncodeStoresNothing) {
  SettingsManager manager(store, main, clock);
  const auto before = store.dataValue("QuorelSettings");
  manager.update([](QuorelSettings& s) {
    s.pollingInterval = 7;
    s.helperBundleCDHashAtLastConnect = std::string("\xc3\x28", 2);
  });
  manager.save();
  EXPECT_EQ(store.dataValue("QuorelSettings"), before);
}

TEST_F(SettingsManagerTest, ReconcileTiersHealsListedCardsAndSavesOnlyOnChange) {
  QuorelSettings s;
  s.dashboardCardTiers = {
      {"power", "s2x2"}, {"health", "huge"}, {"cycles", "full"}, {"unlisted", "bogus"}};
  storeMigrated(s);
  SettingsManager manager(store, main, clock);
  int published = 0;
  manager.subscribe([&](const QuorelSettings&) { ++published; });

  const std::vector<SettingsManager::CardTierRequirement> cards = {
      {"power", {CardTier::s1x1, CardTier::s2x2}, CardTier::s1x1},
      {"health", {CardTier::s2x1}, CardTier::s2x1},
      {"cycles", {CardTier::s1x1, CardTier::s2x1}, CardTier::s2x1},
      {"carbon", {CardTier::s1x1}, CardTier::s1x1},
  };
  const auto writesBefore = store.changeCount();
  manager.reconcileTiers(cards);
  const std::map<std::string, std::string> healed = {
      {"power", "s2x2"}, {"health", "s2x1"}, {"cycles", "s2x1"}, {"unlisted", "bogus"}};
  EXPECT_EQ(manager.settings().dashboardCardTiers, healed);
  EXPECT_EQ(store.changeCount(), writesBefore + 1);
  EXPECT_EQ(published, 1);
  EXPECT_EQ(decodedStore()->dashboardCardTiers, healed);

  manager.reconcileTiers(cards);
  EXPECT_EQ(store.changeCount(), writesBefore + 1);
  EXPECT_EQ(published, 1);
}

TEST_F(SettingsManagerTest, SubscribersHearChangesNotRepeatsAndAnotherWriterOnTheMainQueue) {
  SettingsManager manager(store, main, clock);
  std::vector<double> seen;
  const auto id =
      manager.subscribe([&](const QuorelSettings& s) { seen.push_back(s.pollingInterval); });
  manager.update([](QuorelSettings& s) { s.historyTimeScale = HistoryTimeScale::oneHour; });
  manager.update([](QuorelSettings& s) { s.historyTimeScale = HistoryTimeScale::oneHour; });
  manager.save();
  main.runPending();  // the manager's own write is no news
  EXPECT_EQ(seen, (std::vector<double>{2}));

  QuorelSettings fromCommandLine;
  fromCommandLine.pollingInterval = 5;
  fromCommandLine.historyTimeScale = HistoryTimeScale::sevenDays;
  storeDocument(document(fromCommandLine));
  EXPECT_EQ(manager.settings().pollingInterval, 2) << "nothing happens off the main queue";
  main.runPending();
  EXPECT_EQ(manager.settings().pollingInterval, 5);
  EXPECT_EQ(manager.settings().historyTimeScale, HistoryTimeScale::oneHour);
  EXPECT_EQ(seen, (std::vector<double>{2, 5}));

  manager.unsubscribe(id);
  manager.update([](QuorelSettings& s) { s.pollingInterval = 4; });
  EXPECT_EQ(seen.size(), 2u);
}

TEST_F(SettingsManagerTest, ChangeNoticeAfterDestructionIsHarmless) {
  {
    SettingsManager manager(store, main, clock);
    store.setValue("QuorelSettings", "{}");
  }
  EXPECT_NO_THROW(main.runPending());
}

}  // namespace
}  // namespace quorel
