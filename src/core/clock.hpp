#pragma once
// Time as the rest of the system sees it. Every "now" goes through an injected Clock so that
// tests can move time by hand instead of sleeping.

#include <chrono>
#include <mutex>
#include <string>

namespace quorel {

using TimePoint = std::chrono::system_clock::time_point;
// Time for delays and deadlines: it only moves forward and ignores changes to the wall clock.
using MonotonicTime = std::chrono::steady_clock::time_point;
using Seconds = std::chrono::duration<double>;

// Passed as `const Clock&` to whatever reads the time; the composition root owns the one
// SystemClock, tests a ManualClock.
class Clock {
 public:
  virtual ~Clock() = default;
  // Both thread-safe.
  virtual TimePoint now() const = 0;
  virtual MonotonicTime monotonicNow() const = 0;
};

class SystemClock final : public Clock {
 public:
  TimePoint now() const override { return std::chrono::system_clock::now(); }
  MonotonicTime monotonicNow() const override { return std::chrono::steady_clock::now(); }
};

// A clock that only moves when told to. Thread-safe, so a test can advance it while a queue
// thread reads it.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(TimePoint start = TimePoint{std::chrono::seconds{1'800'000'000}});
  TimePoint now() const override;
  MonotonicTime monotonicNow() const override;
  // Moves the wall clock only, as a user or NTP setting the time would.
  void set(TimePoint t);
  // Moves both clocks, as time passing does; a negative step moves the wall clock alone.
  void advance(Seconds by);

 private:
  mutable std::mutex mutex_;
  TimePoint now_;
  MonotonicTime monotonic_{};
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
