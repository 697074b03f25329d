#pragma once
// The calendar as smart top-off sees it: the events starting soon, and whether it may be read.
// On Linux a calendar is a set of iCalendar files; the engine runs without them in tests.

#include <string>
#include <vector>

#include "control/automation_authorization.hpp"
#include "core/clock.hpp"

namespace quorel {

struct BatteryControlCalendarEvent {
  std::string title;  // empty for an event without one
  TimePoint startDate;
  bool operator==(const BatteryControlCalendarEvent&) const = default;
};

class BatteryControlCalendarServicing {
 public:
  virtual ~BatteryControlCalendarServicing() = default;
  // Events that are not all-day and start from 120 s before now to `minutes` from now, in
  // start order. Empty unless the authorization is full access.
  virtual std::vector<BatteryControlCalendarEvent> upcomingEvents(int minutes) = 0;
  // Looks for readable sources once when none has been looked for; never twice at once.
  virtual void requestAccessIfNeeded() = 0;
  virtual CalendarAuthorization authorization() const = 0;
};

}  // namespace quorel
