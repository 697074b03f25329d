#pragma once
// `quorel calendars`: which calendars the calendar prediction and smart top-off read, and the
// list of extra files and folders under the preference "Quorel.calendarFiles". It edits the
// preference file directly, so it needs no agent; a running agent picks the change up through
// its watch of that file.

#include <filesystem>
#include <optional>
#include <string>

#include "core/clock.hpp"
#include "platform/linux/ics_calendar_source.hpp"

namespace quorel {

struct CalendarsCommandArguments {
  std::string action = "list";  // "list", "add" or "remove"
  std::optional<std::string> path = std::nullopt;
  bool json = false;
};

struct CalendarsCommandResult {
  // 0 done, 1 the preference file could not be written, 2 refused (nothing was written).
  int exitStatus = 0;
  std::string output;  // for standard output
  std::string error;   // for standard error
};

struct CalendarsCommandEnvironment {
  std::filesystem::path preferencesFile;
  // Where calendar programs keep their files; absent without a home.
  std::optional<CalendarRoots> roots;
  // Relative paths given to `add` and `remove` are taken from here.
  std::filesystem::path workingDirectory;
};

CalendarsCommandResult runCalendarsCommand(const CalendarsCommandArguments& arguments,
                                           const CalendarsCommandEnvironment& environment,
                                           const Clock& clock);

}  // namespace quorel
