#pragma once
// Calendar days in the user's zone, for windows that are counted in days rather than seconds:
// across a change of summer time a day is 23 or 25 hours long, so "30 days before" is never
// 30 x 86400 seconds.

#include "core/clock.hpp"

namespace quorel {

// The local midnight that opens the day `t` falls on.
TimePoint startOfLocalDay(TimePoint t);
// The local midnight that opens the day `days` calendar days before the day of `t`.
TimePoint startOfLocalDayBefore(TimePoint t, int days);

}  // namespace quorel
