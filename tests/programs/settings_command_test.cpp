// `quorel settings` against a real preference file: round trips, refusals that must not touch
// the file, resets, and an agent's manager following the change through its watch.

#include "programs/quorel/settings_command.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "app/settings_manager.hpp"
#include "core/file_preference_store.hpp"
#include "core/serial_queue.hpp"
#include "store/sqlite_test_support.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

class SettingsCommandTest : public ::testing::Test {
 protected:
  fs::path file() const { return scratch.path() / "config" / "defaults.json"; }
  SettingsCommandResult run(SettingsCommandArguments a) {
    return runSettingsCommand(a, file(), clock);
  }
  Json getJson(const std::string& key) {
    const auto r = run({.action = "get", .key = key, .json = true});
    EXPECT_EQ(r.exitStatus, 0) << r.error;
    return Json::parse(r.output).at("value");
  }
  Json listJson() { return Json::parse(run({.action = "list", .json = true}).output); }
  std::string bytes() const {
    std::ifstream in(file(), std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  std::optional<QuorelSettings> stored() const {
    const auto document = FilePreferenceStore(file()).dataValue(SettingsManager::key);
    return document ? decodeSettings(*document, clock) : std::nullopt;
  }

  testing::ScratchDirectory scratch{"quorel-settings"};
  ManualClock clock{fromUnixSeconds(1'800'000'000)};
};

TEST_F(SettingsCommandTest, SetThenGetRoundTripsEveryKindOfValueAndLeavesTheRestAlone) {
  struct Case {
    std::string key, argument;
    Json expected;
  };
  const Case cases[] = {
      {"dataRetentionDays", "30", 30},
      {"launchAtLogin", "true", true},
      {"temperatureUnit", "°F", "°F"},
      {"carbonRegion", "EU Average", "EU Average"},
      {"carbonRegion", "\"UK Average\"", "UK Average"},   // JSON text works as well
      {"carbonRegion", "australiaAverage", "Australia"},  // the case name
      {"textScale", "xl", "XL"},
      {"menuBarMode", "gauge: power in", "Gauge: Power In"},
      {"dashboardCardPositions", R"({"hero": {"x": 1.5, "y": 2}})",
       Json::parse(R"({"hero": {"x": 1.5, "y": 2.0}})")},
      // Identifiers come back upper-case, as the agent writes them.
      {"customAlertThresholds",
       R"([{"id": "6f9619ff-8b86-d011-b42d-00c04fc964ff", "percentage": 20,
            "direction": "rising", "enabled": false}])",
       Json::parse(R"([{"id": "6F9619FF-8B86-D011-B42D-00C04FC964FF", "percentage": 20,
                        "direction": "rising", "enabled": false}])")},
      {"calibrationToastLastFiredAt", "2026-11-22T10:15:30Z", 817035330.0},
  };
  for (const auto& c : cases) {
    Json before = listJson();
    const auto r = run({.action = "set", .key = c.key, .value = c.argument});
    ASSERT_EQ(r.exitStatus, 0) << c.key << " " << c.argument << ": " << r.error;
    EXPECT_EQ(getJson(c.key), c.expected) << c.key << " " << c.argument;
    before[c.key] = c.expected;
    EXPECT_EQ(listJson(), before) << "only " << c.key << " changes";
    EXPECT_TRUE(stored()) << "the agent can decode what " << c.key << " left";
  }
  EXPECT_EQ(stored()->temperatureUnit, TemperatureUnit::fahrenheit);
  EXPECT_EQ(stored()->menuBarMode, MenuBarMode::gaugePowerIn);
  EXPECT_EQ(run({.action = "get", .key = "carbonRegion"}).output, "Australia\n");
}

TEST_F(SettingsCommandTest, RefusalsSayWhatIsAllowedAndLeaveTheFileByteIdentical) {
  // No file yet: a refusal must not create one.
  EXPECT_EQ(run({.action = "set", .key = "launchAtLogin", .value = "yes"}).exitStatus, 2);
  EXPECT_FALSE(fs::exists(file()));

  ASSERT_EQ(run({.action = "set", .key = "dataRetentionDays", .value = "90"}).exitStatus, 0);
  const std::string original = bytes();
  struct Case {
    std::string action, key;
    std::optional<std::string> value;
    std::vector<std::string> said;
  };
  const Case cases[] = {
      {"set",
       "pollingInterval",
       "fast",
       {"pollingInterval: \"fast\" is not a number — it takes a number of seconds from 0.5 to "
        "3600."}},
      {"set", "pollingInterval", "0.1", {"0.1 is out of range"}},
      {"set", "dataRetentionDays", "5000", {"5000 is out of range", "0 (keep everything) to 3650"}},
      {"set", "dataRetentionDays", "2.5", {"2.5 is not a whole number"}},
      {"set",
       "launchAtLogin",
       "1",
       {"launchAtLogin: 1 is not a boolean — it takes true or false."}},
      {"set",
       "carbonRegion",
       "Mars",
       {"\"Mars\" is not one of its values", "\"China\"", "euAverage"}},
      // The document reads an unknown style as Wattage; that must not let a typo through.
      {"set", "menuBarMode", "Retired", {"\"Retired\" is not one of its values"}},
      {"set", "temperatureUnit", "kelvin", {"\"°C\", \"°F\" (or celsius, fahrenheit)"}},
      {"set", "customAlertThresholds", R"([{"id": "A"}])", {"does not fit", "direction"}},
      {"set", "activePresetId", "not-a-uuid", {"does not fit", "a UUID"}},
      {"set", "dataRetentionDays", "null", {"null is not a whole number"}},
      {"get", "carbonregion", std::nullopt, {"did you mean carbonRegion?", "pollingInterval, "}},
      {"reset", "noSuchSetting", std::nullopt, {"\"noSuchSetting\" is not a setting"}},
      {"set", "carbonRegion", std::nullopt, {"needs a value"}},
  };
  for (const auto& c : cases) {
    const auto r = run({.action = c.action, .key = c.key, .value = c.value});
    EXPECT_EQ(r.exitStatus, 2) << c.key << " " << c.value.value_or("");
    EXPECT_EQ(r.output, "");
    for (const auto& words : c.said) {
      EXPECT_NE(r.error.find(words), std::string::npos) << r.error << "\nlacks: " << words;
    }
    EXPECT_EQ(bytes(), original) << c.key << " " << c.value.value_or("");
  }
}

TEST_F(SettingsCommandTest, ResetRestoresTheDefaultAndClearsAnOptionalKey) {
  const QuorelSettings defaults;
  ASSERT_EQ(run({.action = "set", .key = "dataRetentionDays", .value = "30"}).exitStatus, 0);
  ASSERT_EQ(run({.action = "set",
                 .key = "activePresetId",
                 .value = "6f9619ff-8b86-d011-b42d-00c04fc964ff"})
                .exitStatus,
            0);
  auto r = run({.action = "reset", .key = "dataRetentionDays"});
  EXPECT_EQ(r.exitStatus, 0) << r.error;
  EXPECT_EQ(r.output, "dataRetentionDays: 30 → 0\n");
  EXPECT_EQ(stored()->dataRetentionDays, defaults.dataRetentionDays);
  ASSERT_EQ(run({.action = "reset", .key = "activePresetId"}).exitStatus, 0);
  EXPECT_EQ(stored()->activePresetId, std::nullopt);
  EXPECT_TRUE(getJson("activePresetId").is_null());

  // Nothing to reset: nothing is written.
  const std::string before = bytes();
  r = run({.action = "reset", .key = "dataRetentionDays"});
  EXPECT_EQ(r.output, "dataRetentionDays is already 0; nothing changed.\n");
  EXPECT_EQ(bytes(), before);
}

TEST_F(SettingsCommandTest, ListShowsEveryKeyWithItsValueAndTheDefaultWhereItDiffers) {
  ASSERT_EQ(run({.action = "set", .key = "carbonRegion", .value = "India"}).exitStatus, 0);
  const Json all = listJson();
  EXPECT_TRUE(all.at("activePresetId").is_null()) << "optional keys are listed when absent";
  const std::string text = run({.action = "list"}).output;
  std::istringstream lines(text);
  for (const auto& [key, value] : all.items()) {
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(line.substr(0, key.size() + 1), key + " ") << line;
  }
  EXPECT_TRUE(lines.peek() == EOF) << "one line per key";
  EXPECT_NE(text.find("India  (default US Average)\n"), std::string::npos) << text;
  EXPECT_NE(text.find("(not set)"), std::string::npos);
}

TEST_F(SettingsCommandTest, AnUndecodableDocumentGivesWayToDefaultsWithAWarning) {
  FilePreferenceStore(file()).setValue(SettingsManager::key, R"({"pollingInterval": 9})");
  EXPECT_EQ(run({.action = "get", .key = "pollingInterval"}).output, "2.0\n");
  const auto r = run({.action = "set", .key = "carbonRegion", .value = "China"});
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_NE(r.error.find("do not decode"), std::string::npos);
  QuorelSettings expected;
  expected.carbonRegion = CarbonRegion::chinaAverage;
  EXPECT_EQ(stored(), expected);
}

TEST_F(SettingsCommandTest, AFileThatCannotBeWrittenFailsRatherThanClaimingSuccess) {
  std::ofstream(scratch.path() / "config") << "a file where the directory should be";
  const auto r = run({.action = "set", .key = "dataRetentionDays", .value = "7"});
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_NE(r.error.find("could not write the settings"), std::string::npos);
}

TEST_F(SettingsCommandTest, AnAgentWatchingTheFileFollowsAndKeepsWhatWasSetBeforeItFirstRan) {
  // Set before any agent ran: its first start must not migrate this away.
  ASSERT_EQ(run({.action = "set", .key = "collapsedSections", .value = "[]"}).exitStatus, 0);
  SerialQueue main{"test.main", clock};
  FilePreferenceStore agentStore(file());
  agentStore.watchOn(main);
  SettingsManager manager(agentStore, main, clock);
  EXPECT_TRUE(manager.settings().collapsedSections.empty());
  int published = 0;
  manager.subscribe([&](const QuorelSettings&) { ++published; });
  main.runPending();

  ASSERT_EQ(run({.action = "set", .key = "temperatureUnit", .value = "fahrenheit"}).exitStatus, 0);
  for (int i = 0; i < 100 && published == 0; ++i) main.runPending();
  EXPECT_EQ(published, 1);
  QuorelSettings expected;
  expected.collapsedSections.clear();
  expected.temperatureUnit = TemperatureUnit::fahrenheit;
  EXPECT_EQ(manager.settings(), expected);
}

}  // namespace
}  // namespace quorel
