#pragma once
// The one place where a point in time becomes local calendar terms, and where the zone may be
// changed. The C library keeps the zone in process-wide state, so every reading and every change
// goes through one lock here. Each reading re-reads the zone (TZ, else the system zone), so a
// change of zone while the agent runs takes effect at the next call instead of at the next start.

#include <optional>
#include <string>

#include "core/clock.hpp"

namespace quorel {

// The local calendar day a point in time falls on, as the daily table keys it. A change of zone
// starts a new key instead of folding two different days together.
struct DayIdentity {
  std::string key;   // local date, "YYYY-MM-DD"
  double start = 0;  // the local midnight that opens the day, seconds since 1970

  bool operator==(const DayIdentity&) const = default;
};

// A point in time on the local wall clock, to the whole second.
struct LocalDateTime {
  int year = 0;
  int month = 0;  // 1...12
  int day = 0;    // 1...31
  int hour = 0;
  int minute = 0;
  int second = 0;

  bool operator==(const LocalDateTime&) const = default;
};

// All three thread-safe with respect to each other. Outside the representable range the day is
// "0000-00-00" opened by `t` itself, and the fields are all zero.
DayIdentity dayIdentity(TimePoint t);
LocalDateTime localDateTime(TimePoint t);
// The moment a local wall time names, in whole seconds; a time skipped or repeated by a change
// of offset is read as the C library reads it. Absent outside the representable range.
std::optional<TimePoint> fromLocalDateTime(const LocalDateTime& local);
// Sets TZ to `zone` (a POSIX or Olson zone), or removes it to fall back on the system zone, and
// re-reads it. Nothing else in the process may write TZ.
void setTimeZone(const std::optional<std::string>& zone);

}  // namespace quorel
