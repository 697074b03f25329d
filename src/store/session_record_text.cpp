// The time range of a session as people read it: relative day words near today, dates beyond.

#include <fmt/format.h>

#include <cmath>
#include <ctime>
#include <string>

#include "store/history_records.hpp"
#include "store/local_day.hpp"

namespace quorel {

namespace {

std::tm localTime(TimePoint t) {
  const auto whole = static_cast<std::time_t>(std::floor(toUnixSeconds(t)));
  std::tm local{};
  ::tzset();
  ::localtime_r(&whole, &local);
  return local;
}

std::string endText(TimePoint t, const DayIdentity& today, const DayIdentity& yesterday) {
  const std::tm local = localTime(t);
  const DayIdentity day = dayIdentity(t);
  std::string label;
  if (day.key == today.key) {
    label = "Today";
  } else if (day.key == yesterday.key) {
    label = "Yesterday";
  } else {
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%b %d", &local);
    label = buffer;
    // "Mar 04" reads better as "Mar 4".
    if (label.size() > 4 && label[4] == '0') label.erase(4, 1);
  }
  return fmt::format("{} {:02d}:{:02d}", label, local.tm_hour, local.tm_min);
}

}  // namespace

std::string SessionRecord::timeRangeText(TimePoint now) const {
  const DayIdentity today = dayIdentity(now);
  // An hour before today's midnight lies in yesterday whatever daylight saving did.
  const DayIdentity yesterday = dayIdentity(fromUnixSeconds(today.start - 3600.0));
  return endText(startTime, today, yesterday) + " – " + endText(endTime, today, yesterday);
}

}  // namespace quorel
