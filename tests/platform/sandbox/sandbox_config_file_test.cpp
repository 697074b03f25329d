#include "platform/sandbox/sandbox_config_file.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace quorel {
namespace {

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
  const auto s = parsed(
      R"j({"powerSource": "AC (Supplementing)", "adapterWatts": 30, "systemLoad": "Heavy"})j");
  EXPECT_EQ(s.powerSource, SandboxPowerSource::acSupplementing);
  EXPECT_EQ(s.adapterWatts, 30);
  EXPECT_EQ(s.systemLoad, SandboxLoadPreset::heavy);
  EXPECT_DOUBLE_EQ(s.effectiveWattage(), -5);
  // Everything not named keeps the base's value.
  EXPECT_EQ(s.batteryPercentage, 72.0);
  EXPECT_EQ(s.monitorName, "Studio Display");

  SandboxSettings base;
  base.enabled = true;
  base.cycleCount = 5;
  const auto r = parseSandboxConfig(R"j({"cycleCount": 6})j", base);
  ASSERT_TRUE(r.ok());
  EXPECT_TRUE(r.settings->enabled);
  EXPECT_EQ(r.settings->cycleCount, 6);
  EXPECT_EQ(parsed("{}"), SandboxSettings{});
}

TEST(SandboxConfigFileTest, ChoicesByTextOrCaseName) {
  const auto byText = parsed(R"j({"powerSource": "AC (On Hold)", "thermalState": "Critical",
                                  "macModel": "Mac mini", "connectionType": "MagSafe 3"})j");
  const auto byName = parsed(R"j({"powerSource": "acOnHold", "thermalState": "critical",
                                  "macModel": "macMini", "connectionType": "magsafe3"})j");
  EXPECT_EQ(byText, byName);
  EXPECT_EQ(byText.powerSource, SandboxPowerSource::acOnHold);
  EXPECT_EQ(byText.thermalState, SandboxThermalState::critical);
  EXPECT_EQ(byText.macModel, MacModel::macMini);
  EXPECT_EQ(byText.connectionType, ConnectionType::magsafe3);
}

TEST(SandboxConfigFileTest, EveryKindOfSettingIsRead) {
  const auto s = parsed(R"j({
    "enabled": true, "batteryPercentage": 55.5, "batteryHealth": 88, "cycleCount": 412,
    "temperature": 41.25, "isCharging": true, "wattageOverride": -7.5, "externalMonitor": true,
    "monitorName": "Side Screen", "dock": true, "dockName": "Travel Dock", "keyboard": true,
    "mouse": true, "externalDrive": true, "webcam": true, "networkAdapter": true,
    "adapterWatts": 140.0
  })j");
  EXPECT_TRUE(s.enabled);
  EXPECT_EQ(s.batteryPercentage, 55.5);
  EXPECT_EQ(s.batteryHealth, 88);
  EXPECT_EQ(s.cycleCount, 412);
  EXPECT_EQ(s.temperature, 41.25);
  EXPECT_TRUE(s.isCharging);
  EXPECT_EQ(s.wattageOverride, -7.5);
  EXPECT_EQ(s.adapterWatts, 140);
  EXPECT_EQ(s.simulatedUSBDevices().size(), 7u);
  EXPECT_EQ(s.simulatedUSBDevices()[0].name, "Side Screen");
  EXPECT_EQ(s.dockName, "Travel Dock");

  SandboxSettings withOverride;
  withOverride.wattageOverride = 3;
  const auto cleared = parseSandboxConfig(R"j({"wattageOverride": null})j", withOverride);
  ASSERT_TRUE(cleared.ok());
  EXPECT_EQ(cleared.settings->wattageOverride, std::nullopt);
}

TEST(SandboxConfigFileTest, UnknownSettingIsNamedWithTheKnownOnes) {
  const auto error = refusal(R"j({"adapterWats": 30})j");
  EXPECT_THAT(error, HasSubstr("Sandbox config: unknown setting \"adapterWats\". Known settings: "
                               "enabled, powerSource, "));
  EXPECT_THAT(error, HasSubstr(", adapterWatts, "));
}

TEST(SandboxConfigFileTest, ImpossibleValuesAreRefusedWithWhatIsAllowed) {
  EXPECT_EQ(refusal(R"j({"batteryPercentage": 101})j"),
            "Sandbox config: setting \"batteryPercentage\" must be a number from 0 to 100 "
            "(percent), not 101.");
  EXPECT_EQ(refusal(R"j({"batteryHealth": -1})j"),
            "Sandbox config: setting \"batteryHealth\" must be a number from 0 to 100 (percent), "
            "not -1.");
  EXPECT_EQ(refusal(R"j({"adapterWatts": -30})j"),
            "Sandbox config: setting \"adapterWatts\" must be a whole number of watts from 0 to "
            "1000, not -30.");
  EXPECT_THAT(refusal(R"j({"adapterWatts": 96.5})j"), HasSubstr("not 96.5."));
  EXPECT_THAT(refusal(R"j({"adapterWatts": 18446744073709551615})j"),
              HasSubstr("\"adapterWatts\" must be a whole number of watts"));
  EXPECT_EQ(refusal(R"j({"cycleCount": -1})j"),
            "Sandbox config: setting \"cycleCount\" must be a whole number of cycles from 0 to "
            "100000, not -1.");
  EXPECT_THAT(refusal(R"j({"temperature": 400})j"),
              HasSubstr("\"temperature\" must be a number of degrees Celsius from -40 to 100"));
  EXPECT_THAT(refusal(R"j({"wattageOverride": 5000})j"),
              HasSubstr("\"wattageOverride\" must be a number of watts from -1000 to 1000, or "
                        "null for none, not 5000."));
  EXPECT_THAT(refusal(R"j({"monitorName": ""})j"),
              HasSubstr("\"monitorName\" must be a non-empty text, not \"\"."));
}

TEST(SandboxConfigFileTest, WrongTypesAreRefused) {
  EXPECT_EQ(refusal(R"j({"adapterWatts": "30"})j"),
            "Sandbox config: setting \"adapterWatts\" must be a whole number of watts from 0 to "
            "1000, not \"30\".");
  EXPECT_EQ(refusal(R"j({"enabled": 1})j"),
            "Sandbox config: setting \"enabled\" must be true or false, not 1.");
  EXPECT_THAT(refusal(R"j({"batteryPercentage": null})j"), HasSubstr("not null."));
  EXPECT_EQ(refusal(R"j({"systemLoad": "Huge"})j"),
            "Sandbox config: setting \"systemLoad\" must be one of \"Idle\", \"Light\", "
            "\"Medium\", \"Heavy\", \"Extreme\" (or the case names idle, light, medium, heavy, "
            "extreme), not \"Huge\".");
  EXPECT_THAT(refusal(R"j({"powerSource": 3})j"), HasSubstr("must be one of \"Battery\", "));
  // Texts are matched exactly: a near miss is refused rather than guessed.
  EXPECT_THAT(refusal(R"j({"powerSource": "ac (full)"})j"), HasSubstr("not \"ac (full)\"."));
  EXPECT_THAT(refusal(R"j({"macModel": "MacBook"})j"), HasSubstr("\"MacBook Pro\""));
}

TEST(SandboxConfigFileTest, DocumentThatIsNotAnObject) {
  EXPECT_EQ(refusal(R"j(["Heavy"])j"),
            "Sandbox config must hold a JSON object of settings, such as {\"systemLoad\": "
            "\"Heavy\"}, but holds an array.");
  EXPECT_THAT(refusal("42"), HasSubstr("but holds a number."));
  EXPECT_THAT(refusal("null"), HasSubstr("but holds null."));
}

TEST(SandboxConfigFileTest, SyntaxErrorGivesItsPosition) {
  const auto error = refusal("{\n  \"adapterWatts\": 30,\n  \"systemLoad\": Heavy\n}");
  EXPECT_THAT(error, HasSubstr("Sandbox config is not valid JSON at line 3, column 17: "));
  EXPECT_THAT(error, HasSubstr("Fix the JSON and try again."));
  EXPECT_THAT(refusal("{\"a\": 1,}"), HasSubstr("at line 1, column 9"));
  EXPECT_THAT(refusal(""), HasSubstr("not valid JSON at line 1, column 1"));
  EXPECT_THAT(refusal("{} {}"), HasSubstr("not valid JSON at line 1, column 4"));
}

class SandboxConfigFileOnDiskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = std::filesystem::temp_directory_path() /
          ("quorel-sandbox-config-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
  }
  void TearDown() override { std::filesystem::remove_all(dir); }
  std::filesystem::path write(const std::string& name, const std::string& text) {
    const auto path = dir / name;
    std::ofstream(path) << text;
    return path;
  }
  std::filesystem::path dir;
};

TEST_F(SandboxConfigFileOnDiskTest, ReadsAScenarioFile) {
  const auto r = readSandboxConfigFile(write("hold.json", R"j({"powerSource": "AC (On Hold)"})j"));
  ASSERT_TRUE(r.ok()) << r.error;
  EXPECT_EQ(r.settings->powerSource, SandboxPowerSource::acOnHold);
}

TEST_F(SandboxConfigFileOnDiskTest, MessagesNameTheFile) {
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
}

}  // namespace
}  // namespace quorel
