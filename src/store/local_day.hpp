#pragma once
// The local calendar day a point in time falls on, as the daily table keys it. Days follow the
// process's time zone at the moment of the call (TZ, else the system zone), so a change of zone
// starts a new key instead of folding two different days together.

#include <string>

#include "core/clock.hpp"

namespace quorel {

struct DayIdentity {
  std::string key;   // local date, "YYYY-MM-DD"
  double start = 0;  // the local midnight that opens the day, seconds since 1970

  bool operator==(const DayIdentity&) const = default;
};

// Thread-safe with respect to other callers of this function; like every time-zone lookup it must
// not race with a change of the TZ variable.
DayIdentity dayIdentity(TimePoint t);

}  // namespace quorel
