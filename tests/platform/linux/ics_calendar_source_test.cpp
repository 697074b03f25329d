#include "platform/linux/ics_calendar_source.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <random>
#include <thread>

#include "control/calendar_service.hpp"
#include "core/iso8601.hpp"
#include "support/log_capture.hpp"
#include "support/zone_guard.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;

TimePoint at(const char* iso) {
  return *parseIso8601(iso);
}

// The zone the fixtures' TZID names, carried in the file so that no system zone data is needed.
constexpr const char* kBerlinZone =
    "BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin\r\n"
    "BEGIN:DAYLIGHT\r\nTZOFFSETFROM:+0100\r\nTZOFFSETTO:+0200\r\nTZNAME:CEST\r\n"
    "DTSTART:19700329T020000\r\nRRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=-1SU\r\nEND:DAYLIGHT\r\n"
    "BEGIN:STANDARD\r\nTZOFFSETFROM:+0200\r\nTZOFFSETTO:+0100\r\nTZNAME:CET\r\n"
    "DTSTART:19701025T030000\r\nRRULE:FREQ=YEARLY;BYMONTH=10;BYDAY=-1SU\r\nEND:STANDARD\r\n"
    "END:VTIMEZONE\r\n";

std::string calendar(const std::string& body, bool withZone = false) {
  return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//quorel tests//EN\r\n" +
         std::string(withZone ? kBerlinZone : "") + body + "END:VCALENDAR\r\n";
}

std::string event(const std::string& uid, const std::string& lines) {
  return "BEGIN:VEVENT\r\nUID:" + uid + "\r\nDTSTAMP:20260101T000000Z\r\n" + lines +
         "END:VEVENT\r\n";
}

class TempTree {
 public:
  TempTree() {
    std::random_device random;
    root_ = fs::temp_directory_path() /
            ("quorel-calendar-" + std::to_string(random()) + std::to_string(random()));
    fs::create_directories(root_);
  }
  ~TempTree() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  fs::path write(const fs::path& relative, const std::string& content) const {
    const fs::path file = root_ / relative;
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
    return file;
  }
  const fs::path& root() const { return root_; }

 private:
  fs::path root_;
};

IcsCalendarSource::Options configured(std::vector<fs::path> paths) {
  IcsCalendarSource::Options options;
  options.configuredPaths = [paths] { return paths; };
  options.floatingTimeZone = "UTC";
  return options;
}

std::vector<std::pair<std::string, std::string>> listed(
    const std::vector<BatteryControlCalendarEvent>& events) {
  std::vector<std::pair<std::string, std::string>> out;
  for (const auto& e : events) out.emplace_back(e.title, formatIso8601(e.startDate));
  return out;
}

using Listing = std::vector<std::pair<std::string, std::string>>;

TEST(IcsCalendarSource, ExpandsRecurrenceAcrossTheDaylightChangeAndLeavesOutWhatIsNotAMeeting) {
  TempTree tree;
  const auto file = tree.write(
      "work.ics", calendar(
                      // Weekly since 2024, so the window is reached only by iterating; the EXDATE
                      // removes the Wednesday inside the window, and the end of summer time on 25
                      // October moves the 09:00 local meeting from 07:00 to 08:00 UTC.
                      event("standup",
                            "SUMMARY:Standup\r\nDTSTART;TZID=Europe/Berlin:20240101T090000\r\n"
                            "RRULE:FREQ=WEEKLY;BYDAY=MO,WE\r\n"
                            "EXDATE;TZID=Europe/Berlin:20261021T090000\r\n") +
                          event("holiday", "SUMMARY:Holiday\r\nDTSTART;VALUE=DATE:20261020\r\n") +
                          event("gone",
                                "SUMMARY:Cancelled review\r\nSTATUS:CANCELLED\r\n"
                                "DTSTART:20261020T100000Z\r\n") +
                          event("untitled", "DTSTART:20261022T120000Z\r\n") +
                          event("counted",
                                "SUMMARY:Course\r\nDTSTART:20261019T150000Z\r\n"
                                "RRULE:FREQ=DAILY;COUNT=2\r\nRDATE:20261027T150000Z\r\n"),
                      true));
  IcsCalendarSource source(configured({file}));
  const Listing expected = {
      {"Standup", "2026-10-19T07:00:00.000Z"}, {"Course", "2026-10-19T15:00:00.000Z"},
      {"Course", "2026-10-20T15:00:00.000Z"},  {"", "2026-10-22T12:00:00.000Z"},
      {"Standup", "2026-10-26T08:00:00.000Z"}, {"Course", "2026-10-27T15:00:00.000Z"},
      {"Standup", "2026-10-28T08:00:00.000Z"},
  };
  EXPECT_EQ(listed(source.events(at("2026-10-19T00:00:00Z"), at("2026-10-28T23:00:00Z"))),
            expected);
  EXPECT_EQ(source.authorization(), CalendarAuthorization::fullAccess);
}

TEST(IcsCalendarSource, ReadsZonesTheFileDoesNotCarryAndFloatingTimes) {
  TempTree tree;
  const auto file = tree.write(
      "mixed.ics",
      calendar(
          event("ny", "SUMMARY:New York\r\nDTSTART;TZID=America/New_York:20261102T090000\r\n") +
          event("float", "SUMMARY:Floating\r\nDTSTART:20261102T090000\r\n")));
  const TimePoint from = at("2026-11-01T00:00:00Z");
  const TimePoint to = at("2026-11-03T00:00:00Z");

  auto options = configured({file});
  options.floatingTimeZone = "Asia/Tokyo";
  IcsCalendarSource tokyo(options);
  EXPECT_EQ(listed(tokyo.events(from, to)), (Listing{{"Floating", "2026-11-02T00:00:00.000Z"},
                                                     {"New York", "2026-11-02T14:00:00.000Z"}}));

  // Without a named zone, floating times follow the process's local zone.
  testing::ZoneGuard zone("America/Los_Angeles");
  options.floatingTimeZone.clear();
  IcsCalendarSource local(options);
  EXPECT_EQ(listed(local.events(from, to)), (Listing{{"New York", "2026-11-02T14:00:00.000Z"},
                                                     {"Floating", "2026-11-02T17:00:00.000Z"}}));
}

TEST(IcsCalendarSource, InstancesMovedOrCancelledByRecurrenceIdReplaceTheRulesOwn) {
  TempTree tree;
  const auto file = tree.write(
      "moved.ics", calendar(event("weekly",
                                  "SUMMARY:Sync\r\nDTSTART:20261005T100000Z\r\n"
                                  "RRULE:FREQ=WEEKLY\r\n") +
                            event("weekly",
                                  "SUMMARY:Sync (moved)\r\nRECURRENCE-ID:20261012T100000Z\r\n"
                                  "DTSTART:20261013T160000Z\r\n") +
                            event("weekly",
                                  "SUMMARY:Sync\r\nRECURRENCE-ID:20261019T100000Z\r\n"
                                  "STATUS:CANCELLED\r\nDTSTART:20261019T100000Z\r\n")));
  IcsCalendarSource source(configured({file}));
  EXPECT_EQ(listed(source.events(at("2026-10-06T00:00:00Z"), at("2026-10-27T00:00:00Z"))),
            (Listing{{"Sync (moved)", "2026-10-13T16:00:00.000Z"},
                     {"Sync", "2026-10-26T10:00:00.000Z"}}));
}

// The places calendar programs keep their files, under a fake home.
struct Home {
  TempTree tree;
  CalendarRoots roots() const {
    return CalendarRoots{.home = tree.root(), .dataHome = tree.root() / "data"};
  }
};

TEST(IcsCalendarSource, FindsTheDesktopProgramsFilesAndVdirCollectionsWithinTheirDepth) {
  Home home;
  const std::string one = calendar(event("e", "SUMMARY:Found\r\nDTSTART:20261102T090000Z\r\n"));
  home.tree.write("data/evolution/calendar/system/calendar.ics", one);
  home.tree.write("data/evolution/calendar/trash/other.ics", one);  // not a store file
  home.tree.write("data/korganizer/std.ics", one);
  home.tree.write(".calendars/work/meeting-1.ics", one);
  home.tree.write(".calendars/work/notes.txt", "not a calendar");
  home.tree.write("data/calendars/a/b/deep.ics", one);
  home.tree.write("data/calendars/a/b/c/too-deep.ics", one);
  IcsCalendarSource::Options options;
  options.roots = home.roots();
  IcsCalendarSource source(options);

  const auto reports = source.report(at("2026-11-02T00:00:00Z"), at("2026-11-03T00:00:00Z"));
  std::vector<std::tuple<std::string, std::string, std::size_t, std::size_t>> seen;
  for (const auto& r : reports) {
    seen.emplace_back(fs::relative(r.status.path, home.tree.root()).string(),
                      kCalendarSourceOriginTexts.text(r.status.origin), r.status.files,
                      r.eventCount);
  }
  using Row = std::tuple<std::string, std::string, std::size_t, std::size_t>;
  EXPECT_EQ(seen, (std::vector<Row>{
                      Row{"data/evolution/calendar/system/calendar.ics", "evolution", 1, 1},
                      Row{"data/korganizer/std.ics", "korganizer", 1, 1},
                      Row{".calendars", "vdir", 1, 1},
                      Row{"data/calendars", "vdir", 1, 1},
                  }));
  EXPECT_EQ(source.authorization(), CalendarAuthorization::fullAccess);
}

TEST(IcsCalendarSource, AuthorizationSaysWhetherAnythingCanBeRead) {
  Home home;
  const fs::path missing = home.tree.root() / "nowhere.ics";
  const fs::path broken = home.tree.write("broken.ics", "this is no calendar\n");
  const fs::path good =
      home.tree.write("good.ics", calendar(event("g", "DTSTART:20261102T090000Z\r\n")));
  const fs::path emptyFolder = home.tree.root() / "empty";
  fs::create_directories(emptyFolder);

  const std::vector<std::pair<std::vector<fs::path>, CalendarAuthorization>> cases = {
      {{}, CalendarAuthorization::notDetermined},
      {{missing}, CalendarAuthorization::denied},
      {{missing, broken}, CalendarAuthorization::denied},
      {{missing, broken, good}, CalendarAuthorization::fullAccess},
      {{emptyFolder}, CalendarAuthorization::fullAccess},
  };
  for (const auto& [paths, expected] : cases) {
    IcsCalendarSource source(configured(paths));
    source.refresh();
    EXPECT_EQ(calendarAuthorizationText(source.authorization()),
              calendarAuthorizationText(expected))
        << paths.size() << " configured";
  }
}

TEST(IcsCalendarSource, SkipsABrokenOrOversizedFileOnceAndReadsTheNext) {
  Home home;
  home.tree.write("folder/1-broken.ics", "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nDTSTART:2026");
  home.tree.write("folder/2-huge.ics", calendar(event("h",
                                                      "SUMMARY:Huge\r\nDTSTART:20261102T090000Z\r\n"
                                                      "DESCRIPTION:" +
                                                          std::string(4096, 'x') + "\r\n")));
  home.tree.write("folder/3-good.ics",
                  calendar(event("g", "SUMMARY:Good\r\nDTSTART:20261102T100000Z\r\n")));
  auto options = configured({home.tree.root() / "folder"});
  options.maxFileBytes = 2048;
  testing::LogCapture logs;
  IcsCalendarSource source(options);
  const TimePoint from = at("2026-11-02T00:00:00Z");
  const TimePoint to = at("2026-11-03T00:00:00Z");

  EXPECT_EQ(listed(source.events(from, to)), (Listing{{"Good", "2026-11-02T10:00:00.000Z"}}));
  EXPECT_EQ(listed(source.events(from, to)), (Listing{{"Good", "2026-11-02T10:00:00.000Z"}}));
  const auto reports = source.report(from, to);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_TRUE(reports[0].status.readable);
  EXPECT_EQ(reports[0].status.problem, "2 of 3 files skipped");
  const auto warnings = logs.messages("calendar");
  ASSERT_EQ(warnings.size(), 2u) << "one warning per file, however often it is looked at";
  EXPECT_NE(warnings[0].find("1-broken.ics skipped — not an iCalendar file"), std::string::npos);
  EXPECT_NE(warnings[1].find("2-huge.ics skipped — larger than"), std::string::npos);
}

TEST(IcsCalendarSource, ReadsAFileAgainOnlyWhenItChanged) {
  Home home;
  const auto file = home.tree.write(
      "cal.ics", calendar(event("a", "SUMMARY:Before\r\nDTSTART:20261102T090000Z\r\n")));
  std::vector<fs::path> paths = {file};
  IcsCalendarSource::Options options;
  options.configuredPaths = [&paths] { return paths; };
  IcsCalendarSource source(options);
  const TimePoint from = at("2026-11-02T00:00:00Z");
  const TimePoint to = at("2026-11-03T00:00:00Z");

  EXPECT_TRUE(source.refresh()) << "the first look finds something new";
  EXPECT_FALSE(source.refresh());
  home.tree.write("cal.ics",
                  calendar(event("a", "SUMMARY:After, longer\r\nDTSTART:20261102T090000Z\r\n")));
  EXPECT_TRUE(source.refresh());
  EXPECT_EQ(listed(source.events(from, to)),
            (Listing{{"After, longer", "2026-11-02T09:00:00.000Z"}}));
  EXPECT_FALSE(source.refresh());
  // A change of the configured list is a change too, even to a file that cannot be read.
  paths.push_back(home.tree.root() / "missing.ics");
  EXPECT_TRUE(source.refresh());
  EXPECT_EQ(source.authorization(), CalendarAuthorization::fullAccess);
  fs::remove(file);
  EXPECT_TRUE(source.refresh());
  EXPECT_EQ(source.authorization(), CalendarAuthorization::denied);
  EXPECT_TRUE(source.events(from, to).empty());
}

// The agent reads on its utility queue while the rules engine reads on the main queue and the
// user saves the file; every reader must see one version or the other.
TEST(IcsCalendarSource, ReadersOnTwoThreadsWhileTheFileIsRewritten) {
  Home home;
  // Replaced whole, by rename, as editors and sync tools save.
  const auto write = [&](const char* title) {
    const auto staged = home.tree.write(
        "cal.ics.new",
        calendar(event("a", std::string("SUMMARY:") + title + "\r\nDTSTART:20261102T090000Z\r\n")));
    fs::rename(staged, home.tree.root() / "cal.ics");
  };
  write("One");
  IcsCalendarSource source(configured({home.tree.root() / "cal.ics"}));
  const TimePoint from = at("2026-11-02T00:00:00Z");
  std::atomic<int> torn{0};
  auto reader = [&] {
    for (int i = 0; i < 200; ++i) {
      const auto events = source.events(from, from + std::chrono::hours(24));
      source.refresh();
      if (events.size() != 1 || (events[0].title != "One" && events[0].title != "Two, longer"))
        ++torn;
    }
  };
  std::thread a(reader), b(reader);
  for (int i = 0; i < 50; ++i) write(i % 2 ? "One" : "Two, longer");
  a.join();
  b.join();
  EXPECT_EQ(torn, 0);
}

TEST(CalendarServiceTopOffAdapter, WindowReachesTwoMinutesBackAndTheAskedMinutesAhead) {
  TempTree tree;
  ManualClock clock(at("2026-11-02T09:00:00Z"));
  const auto file = tree.write(
      "edges.ics",
      calendar(event("a", "SUMMARY:Three minutes ago\r\nDTSTART:20261102T085700Z\r\n") +
               event("b", "SUMMARY:Ninety seconds ago\r\nDTSTART:20261102T085830Z\r\n") +
               event("c", "SUMMARY:In thirty\r\nDTSTART:20261102T093000Z\r\n") +
               event("d", "SUMMARY:In thirty and a second\r\nDTSTART:20261102T093001Z\r\n") +
               event("e", "SUMMARY:All day\r\nDTSTART;VALUE=DATE:20261102\r\n")));
  IcsCalendarSource source(configured({file}));
  CalendarServiceTopOffAdapter adapter(source, clock);
  EXPECT_EQ(adapter.authorization(), CalendarAuthorization::notDetermined);
  adapter.requestAccessIfNeeded();
  EXPECT_EQ(adapter.authorization(), CalendarAuthorization::fullAccess);

  EXPECT_EQ(listed(adapter.upcomingEvents(30)),
            (Listing{{"Ninety seconds ago", "2026-11-02T08:58:30.000Z"},
                     {"In thirty", "2026-11-02T09:30:00.000Z"}}));
  clock.advance(Seconds{31});
  EXPECT_EQ(listed(adapter.upcomingEvents(0)), Listing{})
      << "ninety seconds became two minutes and a second";
}

}  // namespace
}  // namespace quorel
