#pragma once
// A calendar, a location monitor and a rules source that the smart top-off tests steer by hand.

#include <map>
#include <string>
#include <vector>

#include "control/battery_control_rules_engine.hpp"

namespace quorel::testing {

// Keeps the calendar's window (120 s back to the lead ahead), so the engine's lead decides.
class FakeCalendar final : public BatteryControlCalendarServicing {
 public:
  explicit FakeCalendar(const Clock& clock) : clock_(clock) {}
  std::vector<BatteryControlCalendarEvent> events;
  std::vector<int> requestedMinutes;
  int accessRequests = 0;

  std::vector<BatteryControlCalendarEvent> upcomingEvents(int minutes) override {
    requestedMinutes.push_back(minutes);
    std::vector<BatteryControlCalendarEvent> out;
    for (const auto& e : events) {
      if (e.startDate >= clock_.now() - std::chrono::seconds(120) &&
          e.startDate <= clock_.now() + std::chrono::minutes(minutes)) {
        out.push_back(e);
      }
    }
    return out;
  }
  void requestAccessIfNeeded() override { ++accessRequests; }
  CalendarAuthorization authorization() const override { return CalendarAuthorization::fullAccess; }

 private:
  const Clock& clock_;
};

class FakeLocationMonitor final : public BatteryControlLocationMonitoring {
 public:
  LocationAuthorization status = LocationAuthorization::authorizedAlways;
  std::vector<std::string> calls;  // "start <id> <radius>", "stop <id>", "state <id>", "authorize"
  Callbacks callbacks;

  void setCallbacks(Callbacks c) override { callbacks = std::move(c); }
  LocationAuthorization authorization() const override { return status; }
  void requestAlwaysAuthorization() override { calls.push_back("authorize"); }
  void startMonitoring(const CircularRegion& r) override {
    calls.push_back("start " + r.identifier + " " + std::to_string(int(r.radiusMeters)));
  }
  void stopMonitoring(const std::string& id) override { calls.push_back("stop " + id); }
  void requestState(const std::string& id) override { calls.push_back("state " + id); }
};

class FakeRulesSource final : public TopOffRulesSource {
 public:
  std::vector<TopOffRule> rules;
  std::map<std::uint64_t, Subscriber> subscribers;

  std::vector<TopOffRule> currentRules() const override { return rules; }
  std::uint64_t subscribe(Subscriber s) override {
    subscribers[subscribers.size() + 1] = std::move(s);
    return subscribers.size();
  }
  void unsubscribe(std::uint64_t id) override { subscribers.erase(id); }
  void publish(std::vector<TopOffRule> next) {
    rules = std::move(next);
    for (auto& [id, s] : subscribers) s(rules);
  }
};

}  // namespace quorel::testing
