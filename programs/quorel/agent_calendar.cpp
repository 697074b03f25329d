#include "agent_calendar.hpp"

#include "core/logging.hpp"

namespace quorel {

namespace {

IcsCalendarSource::Options sourceOptions(std::optional<CalendarRoots> roots,
                                         PreferenceStore& preferences) {
  IcsCalendarSource::Options options;
  options.roots = std::move(roots);
  options.configuredPaths = [&preferences] { return configuredCalendarFiles(preferences); };
  return options;
}

}  // namespace

AgentCalendar::AgentCalendar(std::optional<CalendarRoots> roots, PreferenceStore& preferences,
                             SerialQueue& mainQueue, const Clock& clock)
    : clock_(clock),
      mainQueue_(mainQueue),
      preferences_(preferences),
      utilityQueue_("com.quorel.calendar", clock),
      source_(sourceOptions(std::move(roots), preferences)),
      adapter_(source_, clock),
      service_(source_, clock) {}

AgentCalendar::~AgentCalendar() {
  preferences_.removeObserver(preferenceObserver_);
  utilityQueue_.shutdown();
}

void AgentCalendar::start() {
  utilityQueue_.start();
  preferenceObserver_ = preferences_.addObserver([this] { preferencesChanged(); });
  utilityQueue_.async([this] {
    calendarFiles_ = preferences_.value(kCalendarFilesKey);
    service_.ensureAccess();
    logging::get("calendar")
        ->info("calendar access: {}", calendarAuthorizationText(source_.authorization()));
  });
}

// Any key may have changed; only a new list of calendar files throws the events away, and the
// prediction is then worked out again at the next state instead of up to five minutes later.
void AgentCalendar::preferencesChanged() {
  utilityQueue_.async([this] {
    auto files = preferences_.value(kCalendarFilesKey);
    if (files == calendarFiles_) return;
    calendarFiles_ = std::move(files);
    service_.invalidate();
    mainQueue_.async([this] { lastRefresh_.reset(); });
  });
}

std::optional<CalendarPrediction> AgentCalendar::prediction(const PowerState& state, bool enabled) {
  if (!enabled) {
    cached_.reset();
    lastRefresh_.reset();
    return std::nullopt;
  }
  const MonotonicTime now = clock_.monotonicNow();
  if (!refreshPending_ && (!lastRefresh_ || now - *lastRefresh_ >= kRefreshInterval)) {
    lastRefresh_ = now;
    refreshPending_ = true;
    const double currentPct = state.batteryPercentage;
    // Plugged in or charging there is no drain, and so no prediction to show.
    const double drain = batteryDrainRatePerHour(state).value_or(0);
    utilityQueue_.async([this, currentPct, drain] {
      // The look that notices an edited or removed file, before the cache is trusted.
      if (source_.refresh()) service_.invalidate();
      const auto predicted = service_.predictBatteryAtNextEvent(currentPct, drain);
      std::optional<CalendarPrediction> shown;
      if (predicted) {
        shown = CalendarPrediction{.eventName = predicted->eventName,
                                   .eventTime = predicted->eventTime,
                                   .predictedPct = predicted->predictedPct};
      }
      mainQueue_.async([this, shown] {
        refreshPending_ = false;
        cached_ = shown;
      });
    });
  }
  return cached_;
}

}  // namespace quorel
