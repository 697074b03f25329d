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
  void SetUp() override { freshRoot(); }
  void TearDown() override { fs::remove_all(root_); }

  void freshRoot() {
    root_ = fs::temp_directory_path() /
            ("quorel-desktop-actions-" + std::to_string(::getpid()) + "-" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root_);
    fs::create_directories(root_ / "usr/bin");
    fs::create_directories(root_ / "bin");
  }

  fs::path program(const std::string& where, const std::string& script, bool executable = true) {
    const auto path = root_ / where;
    std::ofstream(path) << "#!/bin/sh\n" << script << "\n";
    ::chmod(path.c_str(), executable ? 0755 : 0644);
    return path;
  }

  fs::path root_;
};

TEST_F(DesktopActionsTest, FindsThePanelOfTheCurrentDesktopElseTheFirstInstalled) {
  struct Case {
    const char* what;
    std::vector<std::pair<std::string, bool>> installed;  // path under the root, executable
    std::string desktop;
    std::optional<SettingsPanel> expected;
  };
  const auto gnome = [&] {
    return SettingsPanel{root_ / "usr/bin/gnome-control-center", {"power"}};
  };
  const auto kde = [&] {
    return SettingsPanel{root_ / "usr/bin/systemsettings", {"kcm_powerdevilprofilesconfig"}};
  };
  const std::vector<Case> cases{
      {"nothing installed", {}, "GNOME", std::nullopt},
      {"only in /bin",
       {{"bin/xfce4-power-manager-settings", true}},
       "",
       SettingsPanel{root_ / "bin/xfce4-power-manager-settings", {}}},
      {"not executable", {{"usr/bin/gnome-control-center", false}}, "GNOME", std::nullopt},
      {"two desktops, KDE current",
       {{"usr/bin/gnome-control-center", true}, {"usr/bin/systemsettings", true}},
       "KDE",
       kde()},
      {"two desktops, a compound name",
       {{"usr/bin/gnome-control-center", true}, {"usr/bin/systemsettings", true}},
       "ubuntu:gnome",
       gnome()},
      {"two desktops, neither current",
       {{"usr/bin/systemsettings", true}, {"usr/bin/gnome-control-center", true}},
       "sway",
       gnome()},
  };
  for (const auto& c : cases) {
    freshRoot();
    for (const auto& [path, executable] : c.installed) program(path, "exit 0", executable);
    EXPECT_EQ(findBatterySettingsPanel(root_, c.desktop), c.expected) << c.what;
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

TEST_F(DesktopActionsTest, WithoutAPanelThereIsNothingToOpen) {
  ManualClock clock;
  SerialQueue queue("test.main", clock);
  BatterySettingsOpener opener(queue, findBatterySettingsPanel(root_, "GNOME"));
  EXPECT_FALSE(opener.available());
  EXPECT_FALSE(opener.open());
  EXPECT_EQ(opener.runningChildren(), 0u);
}

}  // namespace
}  // namespace quorel
