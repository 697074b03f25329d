#include "control/calendar_service.hpp"

#include <algorithm>
#include <chrono>

namespace quorel {

namespace {

std::chrono::system_clock::duration toDuration(Seconds s) {
  return std::chrono::duration_cast<std::chrono::system_clock::duration>(s);
}

}  // namespace

CalendarService::CalendarService(CalendarEventSource& source, const Clock& clock)
    : source_(source), clock_(clock) {}

std::vector<BatteryControlCalendarEvent> CalendarService::getUpcomingEvents() {
  const MonotonicTime age = clock_.monotonicNow();
  if (cacheTime_ && age - *cacheTime_ < kCacheTTL) return cachedEvents_;
  const TimePoint now = clock_.now();
  auto events = source_.events(now, now + toDuration(kFetchWindow));
  // The source keeps all-day events out and sorts already; a source that did not must not
  // mislead the prediction, which takes the first event after now.
  std::stable_sort(events.begin(), events.end(),
                   [](const auto& a, const auto& b) { return a.startDate < b.startDate; });
  cachedEvents_ = std::move(events);
  cacheTime_ = age;
  return cachedEvents_;
}

void CalendarService::invalidate() {
  cacheTime_.reset();
}

void CalendarService::ensureAccess() {
  if (accessRequested_) return;
  accessRequested_ = true;
  source_.refresh();
}

std::optional<CalendarEventPrediction> CalendarService::predictBatteryAtNextEvent(
    double currentPct, double drainRatePerHour) {
  if (!(drainRatePerHour > 0)) return std::nullopt;
  const auto events = getUpcomingEvents();
  if (source_.authorization() != CalendarAuthorization::fullAccess) return std::nullopt;
  const TimePoint now = clock_.now();
  const auto next = std::find_if(events.begin(), events.end(),
                                 [now](const auto& e) { return e.startDate > now; });
  if (next == events.end()) return std::nullopt;
  const double hours = secondsBetween(now, next->startDate) / 3600.0;
  if (!(hours > 0 && hours <= 8)) return std::nullopt;
  return CalendarEventPrediction{
      .eventName = next->title.empty() ? kUntitledEventTitle : next->title,
      .eventTime = next->startDate,
      .predictedPct = std::max(currentPct - drainRatePerHour * hours, 0.0)};
}

CalendarServiceTopOffAdapter::CalendarServiceTopOffAdapter(CalendarEventSource& source,
                                                           const Clock& clock)
    : source_(source), clock_(clock) {}

std::vector<BatteryControlCalendarEvent> CalendarServiceTopOffAdapter::upcomingEvents(int minutes) {
  const TimePoint now = clock_.now();
  auto events = source_.events(now - toDuration(kLookBehind),
                               now + std::chrono::minutes(static_cast<std::int64_t>(minutes)));
  if (source_.authorization() != CalendarAuthorization::fullAccess) return {};
  return events;
}

void CalendarServiceTopOffAdapter::requestAccessIfNeeded() {
  if (source_.authorization() != CalendarAuthorization::notDetermined) return;
  source_.refresh();
}

CalendarAuthorization CalendarServiceTopOffAdapter::authorization() const {
  return source_.authorization();
}

std::optional<double> batteryDrainRatePerHour(const PowerState& state) {
  if (state.externalConnected || state.isCharging || !state.batteryInstalled) return std::nullopt;
  if (state.smoothedWattage >= 0) return std::nullopt;
  const double energy_Wh =
      static_cast<double>(state.maxCapacity_mAh) * static_cast<double>(state.voltage_mV) / 1e6;
  if (energy_Wh > 0) return -state.smoothedWattage / energy_Wh * 100.0;
  // Without a capacity, the time the system expects the rest of the charge to last.
  std::optional<std::int64_t> minutes = state.timeRemaining_min;
  if (!minutes && state.calculatedTimeRemaining_min && *state.calculatedTimeRemaining_min < 0)
    minutes = -*state.calculatedTimeRemaining_min;
  if (minutes && *minutes > 0 && state.batteryPercentage > 0)
    return state.batteryPercentage / (static_cast<double>(*minutes) / 60.0);
  return std::nullopt;
}

}  // namespace quorel
