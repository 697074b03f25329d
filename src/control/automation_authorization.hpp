#pragma once
// Whether the agent may read the sources smart top-off watches, in the words an assistant and
// `quorel battery automation` are shown. On Linux a calendar is a set of iCalendar files and a
// location comes from the desktop's location service; each source reports one of these.

#include <string_view>

namespace quorel {

enum class CalendarAuthorization { notDetermined, restricted, denied, fullAccess, writeOnly };
enum class LocationAuthorization {
  notDetermined,
  restricted,
  denied,
  authorizedAlways,
  authorizedWhenInUse,
};

// "not_determined", "restricted", "denied", "full_access", "write_only"; "unknown" otherwise.
std::string_view calendarAuthorizationText(CalendarAuthorization status);
// "not_determined", "restricted", "denied", "authorized_always", "authorized_when_in_use";
// "unknown" otherwise.
std::string_view locationAuthorizationText(LocationAuthorization status);

}  // namespace quorel
