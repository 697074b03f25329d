#pragma once
// The calendars of a Linux desktop, read from their iCalendar files: the desktop calendar's local
// store, KOrganizer-style files, vdir collections kept by sync tools, and whatever files or
// folders the user lists under the preference "Quorel.calendarFiles".
//
// Each file is read again only when its modification time or size changed; a file that is too
// large or holds no calendar is skipped and logged once per version of it. Thread-safe: one mutex
// serialises every look at the files.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "control/calendar_event_source.hpp"
#include "core/enum_text.hpp"
#include "core/paths.hpp"
#include "core/preference_store.hpp"

namespace quorel {

// A JSON array of paths in the preference domain, not a key of the settings document, so that
// `quorel calendars add` needs no settings decoding and an agent picks it up through its watch.
inline constexpr const char* kCalendarFilesKey = "Quorel.calendarFiles";

// The paths under kCalendarFilesKey, in order; entries that are not non-empty texts are ignored.
std::vector<std::filesystem::path> configuredCalendarFiles(const PreferenceStore& preferences);

// Where the calendar programs of the user keep their files.
struct CalendarRoots {
  std::filesystem::path home;
  std::filesystem::path dataHome;  // $XDG_DATA_HOME, default ~/.local/share
  // Absent without HOME.
  static std::optional<CalendarRoots> fromEnvironment(const Environment& env);
};

enum class CalendarSourceOrigin { evolution, korganizer, vdir, configured };
inline constexpr EnumTextTable<CalendarSourceOrigin, 4> kCalendarSourceOriginTexts{{{
    {CalendarSourceOrigin::evolution, "evolution"},
    {CalendarSourceOrigin::korganizer, "korganizer"},
    {CalendarSourceOrigin::vdir, "vdir"},
    {CalendarSourceOrigin::configured, "configured"},
}}};

// One place events are read from, as of the last look.
struct CalendarSourceStatus {
  std::filesystem::path path;
  CalendarSourceOrigin origin = CalendarSourceOrigin::configured;
  bool directory = false;
  // Events could be read from it: it was found, opened, and (a folder: any of) its files parsed.
  bool readable = false;
  // Why it is not readable, or why some of a folder's files were skipped; empty otherwise.
  std::string problem;
  std::size_t files = 0;  // .ics files read from it
  bool operator==(const CalendarSourceStatus&) const = default;
};

class IcsCalendarSource final : public CalendarEventSource {
 public:
  static constexpr std::uintmax_t kDefaultMaxFileBytes = 16u << 20;
  // How deep below a vdir root or a configured folder .ics files are looked for.
  static constexpr int kMaxDepth = 3;
  // A folder beyond this many files is read only this far, with a warning.
  static constexpr std::size_t kMaxFilesPerFolder = 5000;

  struct Options {
    // Absent: only the configured paths are read.
    std::optional<CalendarRoots> roots;
    // Read on every look, so that a change of the preference needs no restart.
    std::function<std::vector<std::filesystem::path>()> configuredPaths;
    // The Olson name that times without a zone are read in; empty: the system's local time.
    std::string floatingTimeZone;
    std::uintmax_t maxFileBytes = kDefaultMaxFileBytes;
  };

  explicit IcsCalendarSource(Options options);
  ~IcsCalendarSource() override;
  IcsCalendarSource(const IcsCalendarSource&) = delete;
  IcsCalendarSource& operator=(const IcsCalendarSource&) = delete;

  std::vector<BatteryControlCalendarEvent> events(TimePoint from, TimePoint to) override;
  // "full_access" when any source is readable, "not_determined" when none is configured or
  // found, "denied" when there are sources and none can be read.
  CalendarAuthorization authorization() const override;
  bool refresh() override;

  struct SourceReport {
    CalendarSourceStatus status;
    std::size_t eventCount = 0;  // starting within the asked window
  };
  // Looks again, and says per source what it holds within [from, to].
  std::vector<SourceReport> report(TimePoint from, TimePoint to);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace quorel
