#pragma once
// The calendar as the forecast and smart top-off read it, over a CalendarEventSource.
//
// CalendarService: a cached reader of the next eight hours, and the battery predicted at the
// next event. Single-threaded: the agent keeps it on one utility queue, since a fetch reads files.
//
// CalendarServiceTopOffAdapter: the rules engine's view, uncached, since the engine asks about
// windows of its own once a minute and the source already keeps each file until it changes.

#include <optional>
#include <string>
#include <vector>

#include "control/battery_control_calendar.hpp"
#include "control/calendar_event_source.hpp"
#include "core/clock.hpp"
#include "core/power_state.hpp"

namespace quorel {

struct CalendarEventPrediction {
  std::string eventName;
  TimePoint eventTime;
  double predictedPct = 0;
  bool operator==(const CalendarEventPrediction&) const = default;
};

class CalendarService {
 public:
  static constexpr Seconds kCacheTTL{900};
  static constexpr Seconds kFetchWindow{28800};
  // Shown for an event whose title is missing or empty, so a prediction always names something.
  static constexpr const char* kUntitledEventTitle = "Untitled event";

  CalendarService(CalendarEventSource& source, const Clock& clock);

  // The events starting within the next eight hours, in start order; at most 900 s old unless
  // invalidated.
  std::vector<BatteryControlCalendarEvent> getUpcomingEvents();
  // Drops the cache, for a changed file or a changed list of configured calendars.
  void invalidate();
  // Looks for sources once; later calls do nothing.
  void ensureAccess();
  // The battery at the next event within eight hours at `drainRatePerHour` percent an hour;
  // absent for a drain that is not positive, without full access, or with no such event.
  std::optional<CalendarEventPrediction> predictBatteryAtNextEvent(double currentPct,
                                                                   double drainRatePerHour);

 private:
  CalendarEventSource& source_;
  const Clock& clock_;
  std::vector<BatteryControlCalendarEvent> cachedEvents_;
  // Aged by the monotonic clock, so that a wall clock set back cannot pin a stale cache.
  std::optional<MonotonicTime> cacheTime_;
  bool accessRequested_ = false;
};

class CalendarServiceTopOffAdapter final : public BatteryControlCalendarServicing {
 public:
  static constexpr Seconds kLookBehind{120};

  CalendarServiceTopOffAdapter(CalendarEventSource& source, const Clock& clock);

  // Blocking like the source: every file is looked at, changed ones read again.
  std::vector<BatteryControlCalendarEvent> upcomingEvents(int minutes) override;
  // Looks on the calling thread, so two looks can never overlap.
  void requestAccessIfNeeded() override;
  CalendarAuthorization authorization() const override;

 private:
  CalendarEventSource& source_;
  const Clock& clock_;
};

// Percent of the battery used per hour, from the smoothed wattage over the battery's energy
// (full charge capacity times voltage); from the time left to empty where those are unknown.
// Absent unless the machine runs on its battery.
std::optional<double> batteryDrainRatePerHour(const PowerState& state);

}  // namespace quorel
