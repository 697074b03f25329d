#include "insights/local_days.hpp"

#include <chrono>

#include "core/local_time.hpp"

namespace quorel {

TimePoint startOfLocalDay(TimePoint t) {
  return fromUnixSeconds(dayIdentity(t).start);
}

TimePoint startOfLocalDayBefore(TimePoint t, int days) {
  // Whole days of seconds back from midnight land within an hour or two of the wanted midnight
  // (the zone's offset may differ between the two dates); noon of that stretch is safely inside
  // the wanted day, whose own midnight the zone then gives.
  const TimePoint midnight = startOfLocalDay(t);
  const TimePoint inside =
      midnight - std::chrono::duration_cast<TimePoint::duration>(Seconds(86400.0 * days)) +
      std::chrono::hours(12);
  return startOfLocalDay(inside);
}

}  // namespace quorel
