#pragma once
// One iCalendar file, parsed once by libical and kept so that its events can be expanded over any
// window: recurring events through the library's recurrence iterator (RRULE, RDATE, EXDATE, and
// instances moved or cancelled by a RECURRENCE-ID), times with a TZID through the file's
// VTIMEZONE or the library's built-in zones. Thread-safe: the library keeps its built-in zones
// in process-wide state, so every call into it from here takes one process-wide lock.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "control/battery_control_calendar.hpp"
#include "core/clock.hpp"

namespace quorel {

class IcsCalendarFile {
 public:
  // A file that holds no iCalendar object: what went wrong, for the log and `quorel calendars`.
  struct ParseError {
    std::string message;
  };

  // Parses `text`. `floatingTimeZone` is the Olson name that times without a zone are read in;
  // empty means the system's local time.
  static std::shared_ptr<const IcsCalendarFile> parse(std::string_view text,
                                                      const std::string& floatingTimeZone,
                                                      ParseError* error);
  ~IcsCalendarFile();
  IcsCalendarFile(const IcsCalendarFile&) = delete;
  IcsCalendarFile& operator=(const IcsCalendarFile&) = delete;

  // Timed events starting within [from, to], unsorted. All-day and cancelled events are left
  // out; an expansion stops after kMaxOccurrencesPerRule steps of one rule.
  std::vector<BatteryControlCalendarEvent> events(TimePoint from, TimePoint to) const;

  static constexpr int kMaxOccurrencesPerRule = 100'000;

 private:
  struct Impl;
  explicit IcsCalendarFile(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace quorel
