#pragma once
// A calendar, a location monitor and a rules source that the smart top-off tests steer by hand.

#include <map>
#include <string>
#include <vector>

#include "control/battery_control_rules_engine.hpp"

namespace quorel::testing {

// Keeps the calendar contract's window (120 s back to the lead ahead) so the engine's lead is
// what decides which events it sees.
class FakeCalendar final : public BatteryControlCalendarServicing {
 public:
  explicit FakeCalendar(const Clock& clock) : clock_(clock) {}
  std::vector<BatteryControlCalendarEvent> events;
  CalendarAuthorization status = CalendarAuthorization::fullAccess;
  std::vector<int> requestedMinutes;
  int accessRequests = 0;

  std::vector<BatteryControlCalendarEvent> upcomingEvents(int minutes) override {
    requestedMinutes.push_back(minutes);
    std::vector<BatteryControlCalendarEvent> out;
    if (status != CalendarAuthorization::fullAccess) return out;
    const TimePoint from = clock_.now() - std::chrono::seconds(120);
    const TimePoint to = clock_.now() + std::chrono::minutes(minutes);
    for (const auto& e : events) {
      if (e.startDate >= from && e.startDate <= to) out.push_back(e);
    }
    return out;
  }
  void requestAccessIfNeeded() override { ++accessRequests; }
  CalendarAuthorization authorization() const override { return status; }

 private:
  const Clock& clock_;
};

class FakeLocationMonitor final : public BatteryControlLocationMonitoring {
 public:
  LocationAuthorization status = LocationAuthorization::authorizedAlways;
  // "start <id> <radius>", "stop <id>", "state <id>", "authorize".
  std::vector<std::string> calls;
  Callbacks callbacks;

  void setCallbacks(Callbacks c) override { callbacks = std::move(c); }
  LocationAuthorization authorization() const override { return status; }
  void requestAlwaysAuthorization() override { calls.push_back("authorize"); }
  void startMonitoring(const CircularRegion& region) override {
    calls.push_back("start " + region.identifier + " " +
                    std::to_string(static_cast<int>(region.radiusMeters)));
  }
  void stopMonitoring(const std::string& identifier) override {
    calls.push_back("stop " + identifier);
  }
  void requestState(const std::string& identifier) override {
    calls.push_back("state " + identifier);
  }
  // As the platform would: the status moves, then the receiver hears of it.
  void changeAuthorization(LocationAuthorization next) {
    status = next;
    callbacks.onAuthorizationChange(next);
  }
};

class FakeRulesSource final : public TopOffRulesSource {
 public:
  std::vector<TopOffRule> rules;

  std::vector<TopOffRule> currentRules() const override { return rules; }
  std::uint64_t subscribe(Subscriber s) override {
    subscribers_[next_] = std::move(s);
    return next_++;
  }
  void unsubscribe(std::uint64_t id) override { subscribers_.erase(id); }
  void publish(std::vector<TopOffRule> next) {
    rules = std::move(next);
    for (auto& [id, s] : subscribers_) s(rules);
  }
  std::size_t subscriberCount() const { return subscribers_.size(); }

 private:
  std::map<std::uint64_t, Subscriber> subscribers_;
  std::uint64_t next_ = 1;
};

inline TopOffRule calendarRule(std::string id, std::string title, std::int64_t lead = 30) {
  return TopOffRule{CalendarTopOffRule{std::move(id), std::move(title), lead}};
}

inline TopOffRule geofenceRule(std::string id, double radius = 200, double lat = 48.8566,
                               double lon = 2.3522) {
  return TopOffRule{GeofenceTopOffRule{std::move(id), lat, lon, radius, "Office"}};
}

}  // namespace quorel::testing
