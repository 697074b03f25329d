#pragma once
// The agent's calendars: the iCalendar files of the user, the forecast's CalendarService over
// them, and the view that smart top-off and the battery command service read.
//
// Files are read on a utility queue of the calendar's own, never on the main queue, except by
// the top-off adapter, which the rules engine calls on the main queue: there it costs a stat of
// each file, since a file is parsed again only when it changed.

#include <memory>
#include <optional>

#include "control/battery_control_calendar.hpp"
#include "control/calendar_service.hpp"
#include "core/power_state.hpp"
#include "core/preference_store.hpp"
#include "core/serial_queue.hpp"
#include "platform/linux/ics_calendar_source.hpp"
#include "telemetry/display_state.hpp"

namespace quorel {

class AgentCalendar {
 public:
  static constexpr Seconds kRefreshInterval{300};

  // `roots` absent: only the files listed in the preference are read. The preference store,
  // the main queue and the clock must outlive this object.
  AgentCalendar(std::optional<CalendarRoots> roots, PreferenceStore& preferences,
                SerialQueue& mainQueue, const Clock& clock);
  // Stops the utility queue; call after the main queue has stopped.
  ~AgentCalendar();
  AgentCalendar(const AgentCalendar&) = delete;
  AgentCalendar& operator=(const AgentCalendar&) = delete;

  // Starts the utility queue and takes the first look at the sources there.
  void start();

  // Main queue, once per published state: the prediction the view model shows, worked out
  // again in the background every 300 s while `enabled`; absent while not.
  std::optional<CalendarPrediction> prediction(const PowerState& state, bool enabled);

  // For the rules engine (main queue).
  BatteryControlCalendarServicing& topOffCalendar() { return adapter_; }
  // As of the last look; any thread.
  CalendarAuthorization authorization() const { return source_.authorization(); }

 private:
  void preferencesChanged();

  const Clock& clock_;
  SerialQueue& mainQueue_;
  PreferenceStore& preferences_;
  SerialQueue utilityQueue_;
  IcsCalendarSource source_;
  CalendarServiceTopOffAdapter adapter_;
  // Utility queue only.
  CalendarService service_;
  std::optional<nlohmann::json> calendarFiles_;
  // Main queue only.
  std::optional<MonotonicTime> lastRefresh_;
  bool refreshPending_ = false;
  std::optional<CalendarPrediction> cached_;
  std::uint64_t preferenceObserver_ = 0;
};

}  // namespace quorel
