#include "store/local_day.hpp"

#include <fmt/format.h>

#include <cmath>
#include <ctime>
#include <mutex>

namespace quorel {

namespace {
std::mutex& zoneMutex() {
  static std::mutex m;
  return m;
}
}  // namespace

DayIdentity dayIdentity(TimePoint t) {
  const double seconds = toUnixSeconds(t);
  const auto whole = static_cast<std::time_t>(std::floor(seconds));
  std::tm local{};
  std::time_t midnight = -1;
  {
    // localtime_r does not look at TZ again by itself; tzset makes the day follow the zone the
    // user is in now. The lock keeps two threads from re-reading the zone at once.
    std::lock_guard lock(zoneMutex());
    ::tzset();
    if (::localtime_r(&whole, &local) == nullptr) return {"0000-00-00", seconds};
    std::tm start = local;
    start.tm_hour = 0;
    start.tm_min = 0;
    start.tm_sec = 0;
    start.tm_isdst = -1;
    midnight = std::mktime(&start);
  }
  // mktime fails only outside the representable range; the time itself then opens the day.
  const double startSeconds = midnight == -1 ? seconds : static_cast<double>(midnight);
  return {
      fmt::format("{:04d}-{:02d}-{:02d}", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday),
      startSeconds};
}

}  // namespace quorel
