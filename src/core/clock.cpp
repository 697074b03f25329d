#include "core/clock.hpp"

#include <fmt/format.h>

#include <cmath>
#include <cstdint>
#include <ctime>
#include <string>

namespace quorel {

ManualClock::ManualClock(TimePoint start) : now_(start) {}

TimePoint ManualClock::now() const {
  std::lock_guard lock(mutex_);
  return now_;
}

MonotonicTime ManualClock::monotonicNow() const {
  std::lock_guard lock(mutex_);
  return monotonic_;
}

void ManualClock::set(TimePoint t) {
  std::lock_guard lock(mutex_);
  now_ = t;
}

void ManualClock::advance(Seconds by) {
  std::lock_guard lock(mutex_);
  now_ += std::chrono::round<TimePoint::duration>(by);
  // Going back is a wall-clock change; monotonic time never runs backwards.
  if (by.count() > 0) monotonic_ += std::chrono::round<MonotonicTime::duration>(by);
}

double secondsBetween(TimePoint from, TimePoint to) {
  return std::chrono::duration_cast<Seconds>(to - from).count();
}

double toUnixSeconds(TimePoint t) {
  return std::chrono::duration_cast<Seconds>(t.time_since_epoch()).count();
}

TimePoint fromUnixSeconds(double seconds) {
  // Whole and fractional seconds are converted apart: scaling the whole value to nanoseconds
  // first would lose the fraction to the double's 256 ns spacing near the present day.
  const double whole = std::floor(seconds);
  const auto nanos = static_cast<std::int64_t>(std::llround((seconds - whole) * 1e9));
  return TimePoint{std::chrono::duration_cast<TimePoint::duration>(
      std::chrono::seconds(static_cast<std::int64_t>(whole)) + std::chrono::nanoseconds(nanos))};
}

TimePoint distantPast() {
  // Nanosecond time points only span 1677 to 2262, and the difference to any present-day time
  // must not overflow either, so the distant past is 1900-01-01 rather than year 1.
  return fromUnixSeconds(-2'208'988'800.0);
}

std::string formatIso8601(TimePoint t) {
  const auto ms = std::chrono::floor<std::chrono::milliseconds>(t);
  const auto secs = std::chrono::floor<std::chrono::seconds>(ms);
  const auto frac = (ms - secs).count();
  const std::time_t tt = std::chrono::system_clock::to_time_t(secs);
  std::tm tm{};
  gmtime_r(&tt, &tm);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", tm.tm_year + 1900, tm.tm_mon + 1,
                     tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, frac);
}

}  // namespace quorel
