// The time range of a session as people read it: relative day words near today, dates beyond.

#include <fmt/format.h>

#include <array>
#include <string>

#include "core/local_time.hpp"
#include "store/history_records.hpp"

namespace quorel {

namespace {

// The C locale's abbreviations, which is what the agent has always printed.
constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

std::string endText(TimePoint t, const DayIdentity& today, const DayIdentity& yesterday) {
  const LocalDateTime local = localDateTime(t);
  const DayIdentity day = dayIdentity(t);
  std::string label;
  if (day.key == today.key) {
    label = "Today";
  } else if (day.key == yesterday.key) {
    label = "Yesterday";
  } else if (local.month >= 1 && local.month <= 12) {
    label = fmt::format("{} {}", kMonths[static_cast<std::size_t>(local.month - 1)], local.day);
  } else {
    label = "?";
  }
  return fmt::format("{} {:02d}:{:02d}", label, local.hour, local.minute);
}

}  // namespace

std::string SessionRecord::timeRangeText(TimePoint now) const {
  const DayIdentity today = dayIdentity(now);
  // An hour before today's midnight lies in yesterday whatever daylight saving did.
  const DayIdentity yesterday = dayIdentity(fromUnixSeconds(today.start - 3600.0));
  return endText(startTime, today, yesterday) + " – " + endText(endTime, today, yesterday);
}

}  // namespace quorel
