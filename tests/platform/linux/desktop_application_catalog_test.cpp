#include "platform/linux/desktop_application_catalog.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "energy/app_metadata_resolver.hpp"
#include "platform/linux/linux_procfs_process_table.hpp"
#include "sysfs_tree.hpp"

namespace quorel {

void PrintTo(const ApplicationInfo& info, std::ostream* os) {
  *os << info.identifier << " '" << info.name << "' " << info.version.value_or("-");
}

namespace {

namespace fs = std::filesystem;

TEST(DesktopExecTest, SplitsWordsByTheQuotingRules) {
  using Words = std::optional<std::vector<std::string>>;
  EXPECT_EQ(desktop::execWords(R"("/opt/My App/app" --new %U)"),
            Words({"/opt/My App/app", "--new"}));
  EXPECT_EQ(desktop::execWords(R"("say \"hi\" \$x \\" 100%% --file=%f)"),
            Words({R"(say "hi" $x \)", "100%", "--file="}));
  EXPECT_EQ(desktop::execWords(R"("/opt/open quote --x)"), std::nullopt);
}

TEST(AppStreamTest, FirstReleaseVersionOfTheReleasesList) {
  const std::vector<std::pair<std::string, std::optional<std::string>>> cases = {
      {R"(<component><!-- <releases><release version="0.1"/></releases> -->
          <release version="9"/>
          <releases><release date="2024-01-01" version = '2.4&amp;1' note="a>b"/>
          <release version="2.3"/></releases></component>)",
       "2.4&1"},
      {R"(<releases type="external"/><release version="3.0"/>)", std::nullopt},
      {R"(<releases><release/><release version="1.1"></release></releases>)", "1.1"},
  };
  for (const auto& [xml, version] : cases) EXPECT_EQ(desktop::firstReleaseVersion(xml), version);
}

class DesktopApplicationCatalogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* program :
         {"opt/Example Editor/editor", "opt/viewer/viewer-bin", "bin/term", "opt/player/player",
          "opt/player/player-new", "opt/gone/gone", "opt/settings/settings", "opt/legacy/legacy",
          "opt/zeta/zeta", "opt/wrapped/real"}) {
      tree.write(program, "#!/bin/sh\n");
    }
    fs::create_directories(tree.root() / "usr/bin");
    fs::create_symlink("../../opt/viewer/viewer-bin", tree.root() / "usr/bin/viewer");
    entry("home", "org.example.Editor", "Exec=\"" + path("opt/Example Editor/editor") + "\" %U");
    entry("sys", "org.example.Viewer", "Exec=viewer %f");
    entry("sys", "vendor/term", "Exec=term\nName[de]=Terminal DE");
    entry("home", "org.example.Player", "Exec=" + path("opt/player/player-new"));
    entry("sys", "org.example.Player", "Exec=" + path("opt/player/player"));
    entry("home", "org.example.Gone", "Hidden=true\nExec=" + path("opt/gone/gone"));
    entry("sys", "org.example.Gone", "Exec=" + path("opt/gone/gone"));
    entry("sys", "a.panel", "NoDisplay=true\nExec=" + path("opt/settings/settings") + " panel");
    entry("sys", "org.example.Settings", "Exec=" + path("opt/settings/settings"));
    entry("sys", "org.example.Legacy", "Exec=env GDK_BACKEND=x11 " + path("opt/legacy/legacy"));
    entry("sys", "org.example.Wrapped", "TryExec=" + path("opt/wrapped/real") + "\nExec=wrapped");
    tree.write("sys/applications/broken.desktop", "Exec=" + path("opt/zeta/zeta") + "\n");
    entry("sys", "zeta", "Exec=" + path("opt/zeta/zeta"));
    tree.write("sys/metainfo/org.example.Editor.metainfo.xml",
               "<component><releases><release version=\"2.4.1\"/></releases></component>");
    tree.write("sys/appdata/org.example.Viewer.appdata.xml", "<component/>");
    // Left behind by an uninstall; one such link must not end the scan of its directory.
    fs::create_symlink("missing.desktop", tree.root() / "sys/applications/dangling.desktop");
  }

  std::string path(const std::string& relative) const { return (tree.root() / relative).string(); }
  void entry(const std::string& dir, const std::string& id, const std::string& keys) const {
    tree.write(dir + "/applications/" + id + ".desktop",
               "# comment\n[Desktop Entry]\nType=Application\nName=" + id + "\n" + keys +
                   "\n\n[Desktop Action new]\nExec=/bin/false\n");
  }

  testing::SysfsTree tree;
  DesktopApplicationCatalog catalog{
      {tree.root() / "home", tree.root() / "sys"},
      {tree.root() / "none", tree.root() / "usr/bin", tree.root() / "bin"}};
};

TEST_F(DesktopApplicationCatalogTest, FindsTheApplicationOfAnExecutable) {
  const std::vector<std::pair<std::string, std::optional<ApplicationInfo>>> cases = {
      {"opt/Example Editor/editor",
       ApplicationInfo{"org.example.Editor", "org.example.Editor", "2.4.1"}},
      {"opt/viewer/viewer-bin", ApplicationInfo{"org.example.Viewer", "org.example.Viewer", {}}},
      {"usr/bin/viewer", ApplicationInfo{"org.example.Viewer", "org.example.Viewer", {}}},
      {"bin/term", ApplicationInfo{"vendor-term", "vendor/term", {}}},
      {"opt/player/player-new", ApplicationInfo{"org.example.Player", "org.example.Player", {}}},
      {"opt/player/player", std::nullopt},
      {"opt/gone/gone", std::nullopt},
      {"opt/settings/settings",
       ApplicationInfo{"org.example.Settings", "org.example.Settings", {}}},
      {"opt/legacy/legacy", ApplicationInfo{"org.example.Legacy", "org.example.Legacy", {}}},
      {"opt/zeta/zeta", ApplicationInfo{"zeta", "zeta", {}}},
      {"opt/wrapped/real", ApplicationInfo{"org.example.Wrapped", "org.example.Wrapped", {}}},
      {"opt/missing", std::nullopt},
  };
  for (const auto& [relative, info] : cases) {
    EXPECT_EQ(catalog.applicationFor(tree.root() / relative), info) << relative;
  }
}

TEST_F(DesktopApplicationCatalogTest, DescribesARunningProcessThroughItsExecutableLink) {
  tree.write("proc/stat", "btime 1700000000\n");
  tree.write("proc/40/stat", "40 (editor) S 1 40 40 0 -1 4194560 0 0 0 0 5 3 0 0 20 0 1 0 100\n");
  tree.write("proc/40/comm", "editor\n");
  tree.write("proc/40/cmdline", std::string("editor\0--new\0", 13));
  fs::create_symlink(path("opt/Example Editor/editor"), tree.root() / "proc/40/exe");
  const LinuxProcfsProcessTable table(tree.root() / "proc", 100);
  AppMetadataResolver resolver(table, catalog);
  EXPECT_EQ(resolver.describe("editor"), "ID  org.example.Editor\nVersion  2.4.1\nLocation  " +
                                             path("opt/Example Editor/editor"));
}

TEST(DesktopApplicationCatalogEnvironmentTest, DataDirectoriesFollowXDG) {
  const auto env = [](std::map<std::string, std::string> vars) {
    return [vars](const std::string& name) -> std::optional<std::string> {
      const auto it = vars.find(name);
      return it == vars.end() ? std::nullopt : std::optional(it->second);
    };
  };
  using Paths = std::vector<fs::path>;
  EXPECT_EQ(DesktopApplicationCatalog::dataDirectories(env({{"HOME", "/h"}})),
            Paths({"/h/.local/share", "/usr/local/share", "/usr/share"}));
  EXPECT_EQ(DesktopApplicationCatalog::dataDirectories(
                env({{"HOME", "/h"}, {"XDG_DATA_HOME", "/d"}, {"XDG_DATA_DIRS", "rel::/s"}})),
            Paths({"/d", "/s"}));
}

}  // namespace
}  // namespace quorel
