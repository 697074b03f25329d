// Finding the desktop's power settings panel under a fixture root, and starting it.

#include "platform/linux/desktop_actions.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/clock.hpp"
#include "support/wait_until.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class DesktopActionsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() /
            ("quorel-desktop-actions-" + std::to_string(::getpid()) + "-" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root_);
    fs::create_directories(root_ / "usr/bin");
    fs::create_directories(root_ / "bin");
  }
  void TearDown() override { fs::remove_all(root_); }

  fs::path program(const std::string& where, const std::string& script, bool executable = true) {
    const auto path = root_ / where;
    std::ofstream(path) << "#!/bin/sh\n" << script << "\n";
    ::chmod(path.c_str(), executable ? 0755 : 0644);
    return path;
  }

  fs::path root_;
};

TEST_F(DesktopActionsTest, FindsAnInstalledPanelOnlyInTheSystemsDirectories) {
  EXPECT_EQ(findBatterySettingsPanel(root_, "GNOME"), std::nullopt);
  program("usr/bin/gnome-control-center", "exit 0", false);
  EXPECT_EQ(findBatterySettingsPanel(root_, "GNOME"), std::nullopt) << "not executable";
  program("bin/xfce4-power-manager-settings", "exit 0");
  EXPECT_EQ(findBatterySettingsPanel(root_, "GNOME"),
            (SettingsPanel{root_ / "bin/xfce4-power-manager-settings", {}}));
}

TEST_F(DesktopActionsTest, PrefersThePanelOfTheCurrentDesktopElseTheFirstKnown) {
  program("usr/bin/systemsettings", "exit 0");
  program("usr/bin/gnome-control-center", "exit 0");
  const SettingsPanel gnome{root_ / "usr/bin/gnome-control-center", {"power"}};
  const SettingsPanel kde{root_ / "usr/bin/systemsettings", {"kcm_powerdevilprofilesconfig"}};
  for (const auto& [desktop, expected] : std::vector<std::pair<std::string, SettingsPanel>>{
           {"KDE", kde}, {"ubuntu:gnome", gnome}, {"sway", gnome}, {"", gnome}}) {
    EXPECT_EQ(findBatterySettingsPanel(root_, desktop), expected) << desktop;
  }
}

TEST_F(DesktopActionsTest, StartsThePanelWithItsArgumentsAndCollectsItOnceItHasEnded) {
  const auto ran = root_ / "ran";
  program("usr/bin/gnome-control-center", "echo \"$0 $*\" > '" + ran.string() + "'");
  ManualClock clock;
  SerialQueue queue("test.main", clock);
  BatterySettingsOpener opener(queue, findBatterySettingsPanel(root_, "GNOME"));
  ASSERT_TRUE(opener.available());
  ASSERT_TRUE(opener.open());
  EXPECT_EQ(opener.runningChildren(), 1u);

  ASSERT_TRUE(testing::waitUntil([&] {
    clock.advance(5s);
    queue.runPending();
    return opener.runningChildren() == 0;
  }));
  std::stringstream text;
  text << std::ifstream(ran).rdbuf();
  EXPECT_EQ(text.str(), (root_ / "usr/bin/gnome-control-center").string() + " power\n");
}

}  // namespace
}  // namespace quorel
