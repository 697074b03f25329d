#include "core/local_time.hpp"

#include <fmt/format.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <mutex>

namespace quorel {

namespace {

std::mutex& zoneMutex() {
  static std::mutex m;
  return m;
}

// localtime_r does not look at TZ again by itself; tzset makes the answer follow the zone the
// user is in now. Call with the lock held.
bool localFields(double seconds, std::tm& local) {
  const auto whole = static_cast<std::time_t>(std::floor(seconds));
  ::tzset();
  return ::localtime_r(&whole, &local) != nullptr;
}

}  // namespace

DayIdentity dayIdentity(TimePoint t) {
  const double seconds = toUnixSeconds(t);
  std::tm local{};
  std::time_t midnight = -1;
  {
    std::lock_guard lock(zoneMutex());
    if (!localFields(seconds, local)) return {"0000-00-00", seconds};
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

LocalDateTime localDateTime(TimePoint t) {
  std::tm local{};
  {
    std::lock_guard lock(zoneMutex());
    if (!localFields(toUnixSeconds(t), local)) return {};
  }
  return {local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
          local.tm_hour,        local.tm_min,     local.tm_sec};
}

std::optional<TimePoint> fromLocalDateTime(const LocalDateTime& local) {
  std::tm fields{};
  fields.tm_year = local.year - 1900;
  fields.tm_mon = local.month - 1;
  fields.tm_mday = local.day;
  fields.tm_hour = local.hour;
  fields.tm_min = local.minute;
  fields.tm_sec = local.second;
  fields.tm_isdst = -1;
  std::time_t at = -1;
  {
    std::lock_guard lock(zoneMutex());
    ::tzset();
    at = std::mktime(&fields);
  }
  if (at == -1) return std::nullopt;
  return fromUnixSeconds(static_cast<double>(at));
}

void setTimeZone(const std::optional<std::string>& zone) {
  std::lock_guard lock(zoneMutex());
  if (zone) {
    ::setenv("TZ", zone->c_str(), 1);
  } else {
    ::unsetenv("TZ");
  }
  ::tzset();
}

}  // namespace quorel
