#pragma once
// Where calendar events come from, apart from how they are stored: on Linux a set of iCalendar
// files; in tests a scripted list. The top-off adapter and CalendarService read through it.

#include <vector>

#include "control/automation_authorization.hpp"
#include "control/battery_control_calendar.hpp"
#include "core/clock.hpp"

namespace quorel {

class CalendarEventSource {
 public:
  virtual ~CalendarEventSource() = default;

  // Timed events (never all-day or cancelled ones) starting within [from, to], in start order,
  // occurrences of recurring events included. Blocking: may read files. Thread-safe.
  virtual std::vector<BatteryControlCalendarEvent> events(TimePoint from, TimePoint to) = 0;
  // As of the last look at the sources (by events() or refresh()); notDetermined before any.
  virtual CalendarAuthorization authorization() const = 0;
  // Looks at the sources again; true when what events() reads changed since the previous look,
  // so that a cache over this source should be dropped.
  virtual bool refresh() = 0;
};

}  // namespace quorel
