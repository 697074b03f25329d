#pragma once
// Time as the rest of the system sees it. Every "now" goes through an injected Clock so that
// tests can move time by hand instead of sleeping.

#include <chrono>
#include <mutex>
#include <string>

namespace quorel {

using TimePoint = std::chrono::system_clock::time_point;
using Seconds = std::chrono::duration<double>;

class Clock {
 public:
  virtual ~Clock() = default;
  // Thread-safe.
  virtual TimePoint now() const = 0;
};

class SystemClock final : public Clock {
 public:
  TimePoint now() const override { return std::chrono::system_clock::now(); }
};

// A clock that only moves when told to. Thread-safe, so a test can advance it while a queue
// thread reads it.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(TimePoint start = TimePoint{std::chrono::seconds{1'800'000'000}});
  TimePoint now() const override;
  void set(TimePoint t);
  void advance(Seconds by);

 private:
  mutable std::mutex mutex_;
  TimePoint now_;
};

// Seconds from `from` to `to` as a real; negative when `to` is earlier.
double secondsBetween(TimePoint from, TimePoint to);
// Points in time are stored as real seconds since 1970.
double toUnixSeconds(TimePoint t);
TimePoint fromUnixSeconds(double seconds);
// The "distant past" that empty ring slots hold.
TimePoint distantPast();
// ISO-8601 in UTC with millisecond fraction, e.g. "2026-11-22T10:15:30.250Z".
std::string formatIso8601(TimePoint t);

}  // namespace quorel
