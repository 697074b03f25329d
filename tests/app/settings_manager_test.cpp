#include "app/settings_manager.hpp"

#include <gtest/gtest.h>

#include "core/file_preference_store.hpp"
#include "core/memory_preference_store.hpp"
#include "store/sqlite_test_support.hpp"

namespace quorel {
namespace {

using Json = nlohmann::ordered_json;

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

  // A first launch stores the defaults on its way through the migrations.
  MemoryPreferenceStore fresh;
  SettingsManager first(fresh, main, clock);
  EXPECT_TRUE(fresh.boolValue(SettingsManager::kCollapsedSectionsMigrationKey));
  EXPECT_EQ(decodeSettings(*fresh.dataValue(SettingsManager::key), clock), QuorelSettings{});
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
  old.menuBarMode = MenuBarMode::percentage;
  storeMigrated(old);

  SettingsManager manager(store, main, clock);
  EXPECT_EQ(manager.settings().historyTimeScale, HistoryTimeScale::tenMinutes);
  EXPECT_EQ(manager.settings().menuBarMode, MenuBarMode::percentage);
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

TEST_F(SettingsManagerTest, SubscribersHearChangesNotRepeats) {
  SettingsManager manager(store, main, clock);
  std::vector<double> seen;
  const auto id =
      manager.subscribe([&](const QuorelSettings& s) { seen.push_back(s.pollingInterval); });
  manager.update([](QuorelSettings& s) { s.pollingInterval = 3; });
  manager.update([](QuorelSettings& s) { s.pollingInterval = 3; });
  manager.unsubscribe(id);
  manager.update([](QuorelSettings& s) { s.pollingInterval = 4; });
  EXPECT_EQ(seen, (std::vector<double>{3}));
}

TEST_F(SettingsManagerTest, AnotherWriterOfTheDocumentIsAdoptedOnTheMainQueue) {
  SettingsManager manager(store, main, clock);
  std::vector<double> seen;
  manager.subscribe([&](const QuorelSettings& s) { seen.push_back(s.pollingInterval); });
  manager.update([](QuorelSettings& s) { s.historyTimeScale = HistoryTimeScale::oneHour; });
  manager.save();
  main.runPending();  // the manager's own write is no news
  seen.clear();

  QuorelSettings fromCommandLine;
  fromCommandLine.pollingInterval = 5;
  fromCommandLine.historyTimeScale = HistoryTimeScale::sevenDays;
  storeDocument(document(fromCommandLine));
  EXPECT_EQ(manager.settings().pollingInterval, 2) << "nothing happens off the main queue";
  main.runPending();
  EXPECT_EQ(manager.settings().pollingInterval, 5);
  EXPECT_EQ(manager.settings().historyTimeScale, HistoryTimeScale::oneHour);
  EXPECT_EQ(seen, (std::vector<double>{5}));

  store.setValue("Quorel.mcpServerPort", 9000);  // another key: the settings stay as they are
  manager.update([](QuorelSettings& s) { s.showHabitScore = false; });  // not yet saved
  main.runPending();
  EXPECT_FALSE(manager.settings().showHabitScore);
}

TEST_F(SettingsManagerTest, ChangeNoticeAfterDestructionIsHarmless) {
  {
    SettingsManager manager(store, main, clock);
    store.setValue("QuorelSettings", "{}");
  }
  EXPECT_NO_THROW(main.runPending());
}

TEST(SettingsManagerFileTest, AgentAdoptsTheCommandLinesSaveAndDoesNotUndoIt) {
  const testing::ScratchDirectory dir("quorel-settings");
  const auto file = dir.path() / "defaults.json";
  ManualClock clock;
  SerialQueue main("test.main", clock);
  {
    FilePreferenceStore agentStore(file);
    SettingsManager agent(agentStore, main, clock);
    {
      FilePreferenceStore commandLineStore(file);
      SettingsManager commandLine(commandLineStore, main, clock);
      commandLine.update([](QuorelSettings& s) { s.dataRetentionDays = 30; });
      commandLine.save();
    }
    main.runPending();
    agentStore.poll();
    main.runPending();
    EXPECT_EQ(agent.settings().dataRetentionDays, 30);
    agent.update([](QuorelSettings& s) { s.menuBarMode = MenuBarMode::minimal; });
    agent.save();
  }
  auto stored = decodeSettings(*FilePreferenceStore(file).dataValue("QuorelSettings"), clock);
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->dataRetentionDays, 30);
  EXPECT_EQ(stored->menuBarMode, MenuBarMode::minimal);
}

}  // namespace
}  // namespace quorel
