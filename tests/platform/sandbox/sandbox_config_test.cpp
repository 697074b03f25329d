#include "platform/sandbox/sandbox_config.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/sandbox/sandbox_config_file.hpp"

namespace quorel {
namespace {

TEST(SandboxSettingsTest, DevicesInToggleOrderWithTheScenariosNames) {
  auto listed = [](const SandboxSettings& s) {
    std::vector<std::string> ids;
    for (const auto& d : s.simulatedUSBDevices()) ids.push_back(d.id + " " + d.name);
    return ids;
  };
  SandboxSettings s;
  s.networkAdapter = s.mouse = s.dock = s.externalMonitor = true;
  s.monitorName = "Desk Display";
  s.dockName = "Travel Dock";
  EXPECT_EQ(listed(s), (std::vector<std::string>{
                           "sandbox-monitor Desk Display", "sandbox-dock Travel Dock",
                           "sandbox-mouse Magic Mouse", "sandbox-ethernet USB Ethernet Adapter"}));
}

TEST(SandboxConfigTest, ObserversHearRealChangesOnlyWithTheNewValuesInPlace) {
  SandboxConfig config;
  std::vector<SandboxConfig::Change> seen;
  double wattageWhenCalled = 0;
  const auto id = config.addObserver([&](const SandboxConfig::Change& c) {
    seen.push_back(c);
    wattageWhenCalled = config.effectiveWattage();  // re-entering must not deadlock
  });
  int other = 0;
  config.addObserver([&](const SandboxConfig::Change&) { ++other; });

  config.update([](SandboxSettings& s) { s.adapterWatts = 96; });  // already so
  EXPECT_TRUE(seen.empty());

  config.update([](SandboxSettings& s) { s.enabled = true; });
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_TRUE(seen[0].enabledChanged());
  EXPECT_FALSE(seen[0].parametersChanged());

  config.update([](SandboxSettings& s) { s.systemLoad = SandboxLoadPreset::heavy; });
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_FALSE(seen[1].enabledChanged());
  EXPECT_TRUE(seen[1].parametersChanged());
  EXPECT_EQ(seen[1].before.systemLoad, SandboxLoadPreset::medium);
  EXPECT_EQ(seen[1].after.systemLoad, SandboxLoadPreset::heavy);

  config.update([](SandboxSettings& s) { s.wattageOverride = 7; });
  EXPECT_EQ(wattageWhenCalled, 7);

  config.removeObserver(id);
  config.removeObserver(id);  // twice is harmless
  config.update([](SandboxSettings& s) { s.dock = true; });
  EXPECT_EQ(seen.size(), 3u);
  EXPECT_EQ(other, 4);
}

TEST(SandboxConfigTest, ChangeMadeByAnObserverIsDeliveredAfterTheCurrentOne) {
  SandboxConfig config;
  std::vector<std::string> log;
  // The first observer reacts to entering the sandbox by switching to a scenario of its own.
  config.addObserver([&](const SandboxConfig::Change& c) {
    log.push_back("first:" + std::string(toString(c.after.powerSource)));
    if (c.enabledChanged() && c.after.enabled) {
      config.update([](SandboxSettings& s) { s.powerSource = SandboxPowerSource::acFull; });
    }
  });
  config.addObserver([&](const SandboxConfig::Change& c) {
    log.push_back("second:" + std::string(toString(c.after.powerSource)));
  });
  config.update([](SandboxSettings& s) { s.enabled = true; });
  EXPECT_EQ(log, (std::vector<std::string>{"first:battery", "second:battery", "first:acFull",
                                           "second:acFull"}));
}

TEST(SandboxConfigTest, ThrowingObserverDoesNotSilenceLaterChanges) {
  SandboxConfig config;
  int heard = 0;
  config.addObserver([&](const SandboxConfig::Change& c) {
    ++heard;
    if (c.after.mouse) throw std::runtime_error("observer failed");
  });
  EXPECT_THROW(config.update([](SandboxSettings& s) { s.mouse = true; }), std::runtime_error);
  config.update([](SandboxSettings& s) { s.mouse = false; });
  EXPECT_EQ(heard, 2);
}

TEST(SandboxConfigTest, ReadersNeverSeeAHalfAppliedScenario) {
  // Two scenarios that differ in every number; a reader must always get one or the other.
  SandboxSettings a;
  SandboxSettings b;
  b.adapterWatts = 30;
  b.batteryPercentage = 10;
  b.cycleCount = 900;
  b.monitorName = "A much longer monitor name that will not fit in place";
  SandboxConfig config(a);
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) config.set(i % 2 ? a : b);
    done = true;
  });
  long torn = 0;
  long reads = 0;
  while (!done) {
    const auto v = config.values();
    ++reads;
    if (v != a && v != b) ++torn;
  }
  writer.join();
  EXPECT_EQ(torn, 0) << "of " << reads << " reads";
}

using ::testing::HasSubstr;

SandboxSettings parsed(std::string_view json) {
  const auto r = parseSandboxConfig(json);
  EXPECT_TRUE(r.ok()) << r.error;
  return r.settings.value_or(SandboxSettings{});
}

std::string refusal(std::string_view json) {
  const auto r = parseSandboxConfig(json);
  EXPECT_FALSE(r.ok()) << json;
  return r.error;
}

TEST(SandboxConfigFileTest, AppliesNamedSettingsOverTheBase) {
  EXPECT_EQ(parsed("{}"), SandboxSettings{});
  const SandboxSettings base{.enabled = true, .cycleCount = 5, .wattageOverride = 3};
  const auto r = parseSandboxConfig(R"j({"cycleCount": 6, "wattageOverride": null})j", base);
  ASSERT_TRUE(r.ok()) << r.error;
  EXPECT_EQ(r.settings, (SandboxSettings{.enabled = true, .cycleCount = 6}));

  // clang-format off
  EXPECT_EQ(parsed(R"j({"powerSource": "AC (Supplementing)", "adapterWatts": 30,
                        "systemLoad": "Heavy"})j"),
            (SandboxSettings{.powerSource = SandboxPowerSource::acSupplementing, .adapterWatts = 30,
                             .systemLoad = SandboxLoadPreset::heavy}));
  const SandboxSettings held{.powerSource = SandboxPowerSource::acOnHold,
                             .connectionType = ConnectionType::magsafe3,
                             .thermalState = SandboxThermalState::critical,
                             .macModel = MacModel::macMini};
  // clang-format on
  EXPECT_EQ(parsed(R"j({"powerSource": "AC (On Hold)", "thermalState": "Critical",
                        "macModel": "Mac mini", "connectionType": "MagSafe 3"})j"),
            held);
  EXPECT_EQ(parsed(R"j({"powerSource": "acOnHold", "thermalState": "critical",
                        "macModel": "macMini", "connectionType": "magsafe3"})j"),
            held);
}

TEST(SandboxConfigFileTest, RefusalsSayWhatIsAllowedAndWhatWasGiven) {
  const std::string notWatts = "\"adapterWatts\" must be a whole number of watts from 0 to 1000";
  const std::string syntax = "{\n  \"adapterWatts\": 30,\n  \"systemLoad\": Heavy\n}";
  // clang-format off
  const std::pair<std::string, std::string> cases[] = {
      {R"({"adapterWats": 30})", "Sandbox config: unknown setting \"adapterWats\". Known settings: "
                                 "enabled, powerSource, connectionType, adapterWatts, "},
      {R"({"batteryPercentage": 101})", "Sandbox config: setting \"batteryPercentage\" must be a "
                                        "number from 0 to 100 (percent), not 101."},
      {R"({"adapterWatts": -30})", "Sandbox config: setting " + notWatts + ", not -30."},
      {R"({"adapterWatts": 96.5})", notWatts + ", not 96.5."},
      {R"({"adapterWatts": "30"})", notWatts + ", not \"30\"."},
      {R"({"cycleCount": -1})", "a whole number of cycles from 0 to 100000, not -1."},
      {R"({"temperature": 400})", "must be a number of degrees Celsius from -40 to 100"},
      {R"({"wattageOverride": 5000})",
       "must be a number of watts from -1000 to 1000, or null for none, not 5000."},
      {R"({"monitorName": ""})", "\"monitorName\" must be a non-empty text, not \"\"."},
      {R"({"enabled": 1})", "Sandbox config: setting \"enabled\" must be true or false, not 1."},
      {R"({"batteryPercentage": null})", "not null."},
      {R"({"systemLoad": "Huge"})", "Sandbox config: setting \"systemLoad\" must be one of "
       "\"Idle\", \"Light\", \"Medium\", \"Heavy\", \"Extreme\" (or the case names idle, light, "
       "medium, heavy, extreme), not \"Huge\"."},
      {R"({"powerSource": 3})", "must be one of \"Battery\", "},
      // Texts are matched exactly: a near miss is refused rather than guessed.
      {R"j({"powerSource": "ac (full)"})j", "not \"ac (full)\"."},
      {R"({"macModel": "MacBook"})", "\"MacBook Pro\""},
      {R"(["Heavy"])", "Sandbox config must hold a JSON object of settings, such as "
                       "{\"systemLoad\": \"Heavy\"}, but holds an array."},
      {"null", "but holds null."},
      {syntax, "Sandbox config is not valid JSON at line 3, column 17: "},
      {syntax, "Fix the JSON and try again."},
      {"{\"a\": 1,}", "at line 1, column 9"}, {"{} {}", "not valid JSON at line 1, column 4"},
      {"", "not valid JSON at line 1, column 1"},
  };
  // clang-format on
  for (const auto& [json, message] : cases) EXPECT_THAT(refusal(json), HasSubstr(message));
}

TEST(SandboxConfigFileTest, ReadsAScenarioFileAndNamesItInMessages) {
  const auto dir = std::filesystem::temp_directory_path() /
                   ("quorel-sandbox-config-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  auto write = [&](const std::string& name, const std::string& text) {
    std::ofstream(dir / name) << text;
    return dir / name;
  };
  const auto r = readSandboxConfigFile(write("hold.json", R"j({"powerSource": "AC (On Hold)"})j"));
  ASSERT_TRUE(r.ok()) << r.error;
  EXPECT_EQ(r.settings->powerSource, SandboxPowerSource::acOnHold);

  const auto bad = write("bad.json", R"j({"batteryPercentage": 120})j");
  EXPECT_EQ(readSandboxConfigFile(bad).error,
            "Sandbox config file \"" + bad.string() +
                "\": setting \"batteryPercentage\" must be a number from 0 to 100 (percent), "
                "not 120.");
  const auto missing = dir / "missing.json";
  EXPECT_EQ(readSandboxConfigFile(missing).error,
            "Sandbox config file \"" + missing.string() +
                "\" cannot be read: No such file or directory. Check the path and its "
                "permissions.");
  EXPECT_THAT(readSandboxConfigFile(dir).error, HasSubstr("is a directory, not a file."));
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace quorel
