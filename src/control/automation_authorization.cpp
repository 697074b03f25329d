#include "control/automation_authorization.hpp"

#include "core/enum_text.hpp"

namespace quorel {
namespace {

constexpr EnumTextTable<CalendarAuthorization, 5> kCalendarWords{{{
    {CalendarAuthorization::notDetermined, "not_determined"},
    {CalendarAuthorization::restricted, "restricted"},
    {CalendarAuthorization::denied, "denied"},
    {CalendarAuthorization::fullAccess, "full_access"},
    {CalendarAuthorization::writeOnly, "write_only"},
}}};

constexpr EnumTextTable<LocationAuthorization, 5> kLocationWords{{{
    {LocationAuthorization::notDetermined, "not_determined"},
    {LocationAuthorization::restricted, "restricted"},
    {LocationAuthorization::denied, "denied"},
    {LocationAuthorization::authorizedAlways, "authorized_always"},
    {LocationAuthorization::authorizedWhenInUse, "authorized_when_in_use"},
}}};

}  // namespace

std::string_view calendarAuthorizationText(CalendarAuthorization status) {
  return kCalendarWords.text(status, "unknown");
}

std::string_view locationAuthorizationText(LocationAuthorization status) {
  return kLocationWords.text(status, "unknown");
}

}  // namespace quorel
