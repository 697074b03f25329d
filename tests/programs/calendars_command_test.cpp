#include "programs/quorel/calendars_command.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "core/file_preference_store.hpp"
#include "core/iso8601.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;

struct Tree {
  fs::path root;
  Tree() {
    char pattern[] = "/tmp/quorel-calendars-XXXXXX";
    root = ::mkdtemp(pattern);
  }
  ~Tree() { fs::remove_all(root); }
  fs::path write(const fs::path& relative, const std::string& content) const {
    fs::create_directories((root / relative).parent_path());
    std::ofstream(root / relative) << content;
    return root / relative;
  }
};

std::string meetingAt(const char* utc) {
  return std::string(
             "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nBEGIN:VEVENT\r\nUID:m\r\nSUMMARY:Meeting\r\n"
             "DTSTART:") +
         utc + "\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
}

struct Fixture {
  Tree tree;
  ManualClock clock{*parseIso8601("2026-11-02T08:00:00Z")};
  CalendarsCommandEnvironment environment{
      .preferencesFile = tree.root / "config" / "defaults.json",
      .roots = CalendarRoots{.home = tree.root / "home", .dataHome = tree.root / "home/data"},
      .workingDirectory = tree.root / "cwd"};

  CalendarsCommandResult run(std::string action, std::optional<std::string> path = {},
                             bool json = false) {
    return runCalendarsCommand({.action = std::move(action), .path = std::move(path), .json = json},
                               environment, clock);
  }
  nlohmann::json listed() { return nlohmann::json::parse(run("list", {}, true).output); }
  std::optional<nlohmann::json> stored() const {
    return FilePreferenceStore(environment.preferencesFile).value(kCalendarFilesKey);
  }
};

TEST(CalendarsCommand, AddListRemoveRoundTripThroughThePreferenceFile) {
  Fixture f;
  const auto work = f.tree.write("cwd/work.ics", meetingAt("20261102T100000Z"));
  f.tree.write("home/.calendars/personal/a.ics", meetingAt("20261103T100000Z"));

  auto added = f.run("add", "work.ics");
  EXPECT_EQ(added.exitStatus, 0) << added.error;
  EXPECT_EQ(f.stored(), nlohmann::json::array({work.string()})) << "relative to the working dir";
  EXPECT_EQ(f.run("add", work.string()).output, work.string() + " is already listed.\n");
  EXPECT_EQ(f.stored(), nlohmann::json::array({work.string()}));

  const auto list = f.listed();
  EXPECT_EQ(list["authorization"], "full_access");
  ASSERT_EQ(list["sources"].size(), 2u);
  EXPECT_EQ(list["sources"][0]["origin"], "vdir");
  EXPECT_EQ(list["sources"][0]["kind"], "folder");
  EXPECT_EQ(list["sources"][0]["events_next_24h"], 0) << "tomorrow's is past the 24 h";
  EXPECT_EQ(list["sources"][1]["path"], work.string());
  EXPECT_EQ(list["sources"][1]["readable"], true);
  EXPECT_EQ(list["sources"][1]["events_next_24h"], 1);
  EXPECT_TRUE(list["sources"][1]["problem"].is_null());

  auto removed = f.run("remove", "./work.ics");
  EXPECT_EQ(removed.exitStatus, 0) << removed.error;
  EXPECT_EQ(f.stored(), std::nullopt) << "an empty list leaves no key behind";
  EXPECT_EQ(f.listed()["sources"].size(), 1u);
}

TEST(CalendarsCommand, RefusesWhatCouldNeverBeReadAndWritesNothing) {
  Fixture f;
  f.tree.write("cwd/notes.ics", "shopping list\n");
  const struct {
    const char* action;
    std::optional<std::string> path;
    const char* says;
  } cases[] = {
      {"add", "missing.ics", "does not exist"},
      {"add", "notes.ics", "is not a calendar Quorel can read: not an iCalendar file"},
      {"add", std::nullopt, "needs a path"},
      {"remove", "never-added.ics", "is not among the listed calendar files"},
      {"sync", "x.ics", "is not a calendars action"},
  };
  for (const auto& c : cases) {
    const auto result = f.run(c.action, c.path);
    EXPECT_EQ(result.exitStatus, 2) << c.action << " " << c.path.value_or("");
    EXPECT_NE(result.error.find(c.says), std::string::npos) << result.error;
  }
  EXPECT_EQ(f.stored(), std::nullopt);
}

TEST(CalendarsCommand, AuthorizationWordsFollowWhatIsListed) {
  Fixture f;
  auto none = f.run("list");
  EXPECT_EQ(none.exitStatus, 0);
  EXPECT_NE(none.output.find("Calendar access: not_determined"), std::string::npos);
  EXPECT_NE(none.output.find("quorel calendars add PATH"), std::string::npos);
  EXPECT_FALSE(fs::exists(f.environment.preferencesFile)) << "listing creates no file";

  // A path that vanished after it was added.
  FilePreferenceStore(f.environment.preferencesFile)
      .setValue(kCalendarFilesKey, nlohmann::json::array({(f.tree.root / "gone.ics").string()}));
  const auto denied = f.listed();
  EXPECT_EQ(denied["authorization"], "denied");
  EXPECT_EQ(denied["sources"][0]["readable"], false);
  EXPECT_EQ(denied["sources"][0]["problem"], "not found");
  EXPECT_NE(f.run("list").output.find("not readable (not found)"), std::string::npos);
}

TEST(CalendarsCommand, AFailedWriteExitsOne) {
  Fixture f;
  const auto work = f.tree.write("cwd/work.ics", meetingAt("20261102T100000Z"));
  // The configuration directory cannot be made where a file stands.
  f.tree.write("blocked", "");
  f.environment.preferencesFile = f.tree.root / "blocked" / "defaults.json";
  const auto result = f.run("add", work.string());
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.error.find("could not be written"), std::string::npos) << result.error;
}

}  // namespace
}  // namespace quorel
