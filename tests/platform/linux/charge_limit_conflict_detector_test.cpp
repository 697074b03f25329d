// Other charge-limit managers found from fixture trees of /etc and /usr, and the power daemon's
// switch through a fake bus client.

#include "platform/linux/charge_limit_conflict_detector.hpp"

#include <gmock/gmock.h>

#include "platform/linux/sysfs_tree.hpp"
#include "platform/linux/upower_charge_thresholds.hpp"

namespace quorel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::SysfsTree;

class FakeUPower final : public UPowerChargeThresholds {
 public:
  std::optional<std::vector<UPowerBatteryThreshold>> answer;
  std::optional<std::vector<UPowerBatteryThreshold>> batteryThresholds() override { return answer; }
};

void installUnit(const SysfsTree& tree, const std::string& unit, bool enabled) {
  tree.write("usr/lib/systemd/system/" + unit, "[Service]\n");
  if (!enabled) return;
  std::filesystem::create_directories(tree.root() / "etc/systemd/system/multi-user.target.wants");
  std::filesystem::create_symlink(
      "/usr/lib/systemd/system/" + unit,
      tree.root() / "etc/systemd/system/multi-user.target.wants" / unit);
}

std::vector<std::string> keyValues(const TlpConfiguration& config) {
  std::vector<std::string> out;
  for (const auto& s : config.thresholds) {
    out.push_back(s.key + "=" + s.value + " @" + s.file.string());
  }
  return out;
}

TEST(TlpConfigurationTest, MainFileOverridesDropInsAndCommentsCountForNothing) {
  SysfsTree tree;
  tree.write("etc/tlp.d/10-battery.conf",
             "START_CHARGE_THRESH_BAT0=40\nSTOP_CHARGE_THRESH_BAT0=60\n"
             "STOP_CHARGE_THRESH_BAT1=\"90\"\n");
  tree.write("etc/tlp.d/20-later.conf", "STOP_CHARGE_THRESH_BAT1=85\n");
  tree.write("etc/tlp.d/30-ignored.txt", "STOP_CHARGE_THRESH_BAT1=10\n");
  tree.write("etc/tlp.conf",
             "# STOP_CHARGE_THRESH_BAT0=90\n"
             "  #START_CHARGE_THRESH_BAT1=75\n"
             "TLP_DEFAULT_MODE=AC\n"
             "STOP_CHARGE_THRESH_BAT0=\"80\"\n"
             "START_CHARGE_THRESH_BAT0=   # emptied here\n");
  const auto config = readTlpConfiguration(tree.root());
  EXPECT_TRUE(config.enabled);
  EXPECT_THAT(keyValues(config),
              ElementsAre("STOP_CHARGE_THRESH_BAT0=80 @/etc/tlp.conf",
                          "STOP_CHARGE_THRESH_BAT1=85 @/etc/tlp.d/20-later.conf"));

  tree.write("etc/tlp.d/00-off.conf", "TLP_ENABLE=0\n");
  EXPECT_FALSE(readTlpConfiguration(tree.root()).enabled);
  tree.write("etc/tlp.conf", "TLP_ENABLE=1\n");
  EXPECT_TRUE(readTlpConfiguration(tree.root()).enabled);
}

TEST(ChargeLimitConflictDetectorTest, TlpCountsOnlyWhenInstalledAndOn) {
  SysfsTree tree;
  ChargeLimitConflictDetector detector(tree.root(), nullptr);
  tree.write("etc/tlp.conf", "STOP_CHARGE_THRESH_BAT0=80\n");
  // A configuration left behind by a removed package sets nothing.
  EXPECT_FALSE(detector.reevaluate(std::nullopt).anyDetected());

  installUnit(tree, "tlp.service", false);
  auto report = detector.reevaluate(std::nullopt);
  ASSERT_EQ(report.conflicts.size(), 1u);
  EXPECT_EQ(report.conflicts[0].manager, ChargeLimitManager::tlp);
  EXPECT_EQ(report.conflicts[0].evidence,
            "STOP_CHARGE_THRESH_BAT0=80 in /etc/tlp.conf; tlp.service is not enabled");

  installUnit(tree, "tlp.service", true);
  EXPECT_THAT(detector.reevaluate(std::nullopt).conflicts[0].evidence,
              HasSubstr("tlp.service is enabled"));
  std::filesystem::create_symlink("/dev/null", tree.root() / "etc/systemd/system/tlp.service");
  EXPECT_THAT(detector.reevaluate(std::nullopt).conflicts[0].evidence,
              HasSubstr("tlp.service is masked"));
  tree.write("etc/tlp.d/99-off.conf", "TLP_ENABLE=\"0\"\n");
  EXPECT_FALSE(detector.reevaluate(std::nullopt).anyDetected());
}

TEST(ChargeLimitConflictDetectorTest, UPowerSaysOnlyWhatTheBusSays) {
  SysfsTree tree;
  FakeUPower upower;
  ChargeLimitConflictDetector detector(tree.root(), &upower);
  const std::string bat0 = "/org/freedesktop/UPower/devices/battery_BAT0";
  const std::string bat1 = "/org/freedesktop/UPower/devices/battery_BAT1";

  EXPECT_FALSE(detector.reevaluate(std::nullopt).anyDetected());  // no bus
  upower.answer = std::vector<UPowerBatteryThreshold>{{bat0, false}, {bat1, false}};
  EXPECT_FALSE(detector.reevaluate(std::nullopt).anyDetected());
  upower.answer = std::vector<UPowerBatteryThreshold>{{bat0, true}, {bat1, true}};
  EXPECT_EQ(
      detector.reevaluate(std::nullopt).conflicts,
      (std::vector<ChargeLimitConflict>{
          {ChargeLimitManager::upower, "ChargeThresholdEnabled is on for " + bat0 + ", " + bat1}}));
}

TEST(ChargeLimitConflictDetectorTest, DesktopAndVendorDaemonsNeedTheirOwnTraces) {
  SysfsTree tree;
  ChargeLimitConflictDetector detector(tree.root(), nullptr);
  BatteryChargeReading battery;
  battery.supply = "BAT0";
  battery.endThreshold_percent = 80;

  tree.write("etc/asusd/asusd.ron", "(\n    charge_control_end_threshold: 100,\n)\n");
  installUnit(tree, "asusd.service", true);
  tree.write("etc/auto-cpufreq.conf",
             "[charger]\nenable_thresholds = true\n[battery]\nenable_thresholds = false\n"
             "stop_threshold = 80\n");
  installUnit(tree, "auto-cpufreq.service", false);
  // A limit of 100 is none, thresholds enabled only on the charger section count for nothing,
  // and the desktop's helper is not installed.
  EXPECT_FALSE(detector.reevaluate(battery).anyDetected());

  tree.write("etc/asusd/asusd.ron", "(\n    bat_charge_limit: 60,\n)\n");
  tree.write("etc/auto-cpufreq.conf",
             "[battery]\n# enable_thresholds = false\nenable_thresholds = true\n"
             "start_threshold = 20\nstop_threshold = 80\n");
  tree.write("usr/share/dbus-1/system-services/org.kde.powerdevil.chargethresholdhelper.service",
             "[D-BUS Service]\n");
  const auto report = detector.reevaluate(battery);
  std::vector<std::string> evidence;
  for (const auto& c : report.conflicts) {
    evidence.push_back(std::string(chargeLimitManagerName(c.manager)) + ": " + c.evidence);
  }
  EXPECT_THAT(
      evidence,
      ElementsAre(HasSubstr("Plasma power management: its charge-limit helper is installed"),
                  "asusd: bat_charge_limit: 60 in /etc/asusd/asusd.ron; asusd.service is "
                  "enabled",
                  "auto-cpufreq: enable_thresholds = true, start_threshold = 20, "
                  "stop_threshold = 80 in [battery] of /etc/auto-cpufreq.conf; "
                  "auto-cpufreq.service is not enabled"));
  EXPECT_THAT(evidence[0], HasSubstr("BAT0's charge_control_end_threshold reads 80"));

  // The desktop leaves only the threshold behind: a battery without one names it no more.
  battery.endThreshold_percent = 100;
  EXPECT_EQ(detector.reevaluate(battery).conflicts.size(), 2u);
}

TEST(UPowerBusChargeThresholdsTest, AnUnreachableBusAnswersNothing) {
  UPowerBusChargeThresholds upower("unix:path=/nonexistent/quorel-test-bus",
                                   std::chrono::milliseconds(200));
  EXPECT_EQ(upower.batteryThresholds(), std::nullopt);
}

}  // namespace
}  // namespace quorel
