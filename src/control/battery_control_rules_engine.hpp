#pragma once
// Decides when a smart top-off rule fires: a calendar rule when an event whose title holds the
// rule's text starts within its lead time, a geofence rule on arrival inside its circle. A rule
// that fired rests six hours, remembered in the preference domain so that a restart of the
// agent does not make it fire again. What a firing does is the subscriber's business.
//
// Threading: everything runs on the main queue, which also carries the once-a-minute poll.
// Location callbacks may arrive on any thread; they are posted to the main queue first.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "control/battery_control_calendar.hpp"
#include "control/battery_control_location.hpp"
#include "control/top_off_rule.hpp"
#include "core/clock.hpp"
#include "core/preference_store.hpp"
#include "core/serial_queue.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

// The stored rules, already decoded. Subscribers are told on the main queue whenever the rules
// may have changed; an unchanged list may be published again.
class TopOffRulesSource {
 public:
  using Subscriber = std::function<void(std::vector<TopOffRule>)>;
  virtual ~TopOffRulesSource() = default;
  virtual std::vector<TopOffRule> currentRules() const = 0;
  virtual std::uint64_t subscribe(Subscriber subscriber) = 0;
  virtual void unsubscribe(std::uint64_t id) = 0;
};

class BatteryControlRulesEngine {
 public:
  static constexpr std::string_view kCooldownKeyPrefix = "BatteryControlRulesEngine.cooldown.";
  static constexpr double kCooldownSeconds = 21600;
  static constexpr Seconds kPollInterval{60};
  // The lead used when a stored lead is beyond a day.
  static constexpr int kFallbackLeadMinutes = 1440;

  using FireHandler = std::function<void(const TopOffRule&)>;

  // Every reference must outlive the engine.
  BatteryControlRulesEngine(TopOffRulesSource& rules, BatteryControlCalendarServicing& calendar,
                            BatteryControlLocationMonitoring& location,
                            PreferenceStore& userDefaults, const Clock& clock,
                            SerialQueue& mainQueue);
  ~BatteryControlRulesEngine();
  BatteryControlRulesEngine(const BatteryControlRulesEngine&) = delete;
  BatteryControlRulesEngine& operator=(const BatteryControlRulesEngine&) = delete;

  // Applies the current rules, follows their changes, starts the minute poll and polls once.
  // A second call does nothing.
  void start();

  // Each handler hears every firing, in the order added, on the main queue.
  void addFireHandler(FireHandler handler);

  // A sleeping machine misses its timer and its region entries: poll the calendar now and ask
  // where the machine is for every watched circle.
  void systemDidWake();

  void pollCalendarRules();
  bool isOnCooldown(const TopOffRule& rule) const;

  static std::string cooldownKey(std::string_view ruleId);

  const std::vector<TopOffRule>& currentRules() const { return currentRules_; }
  // The circles being watched, by rule id.
  const std::map<std::string, CircularRegion>& monitoredRegions() const {
    return monitoredRegions_;
  }

 private:
  void applyRules(std::vector<TopOffRule> rules);
  void reconcileGeofences();
  void handleRegionEntry(const std::string& identifier);
  void handleDeterminedState(const std::string& identifier, RegionState state);
  void fire(const TopOffRule& rule);
  void connectLocationCallbacks();

  TopOffRulesSource& rulesSource_;
  BatteryControlCalendarServicing& calendar_;
  BatteryControlLocationMonitoring& location_;
  PreferenceStore& userDefaults_;
  const Clock& clock_;
  SerialQueue& mainQueue_;
  std::shared_ptr<spdlog::logger> log_;

  bool started_ = false;
  std::optional<std::vector<TopOffRule>> lastApplied_;
  std::vector<TopOffRule> currentRules_;
  std::map<std::string, CircularRegion> monitoredRegions_;
  std::vector<FireHandler> fireHandlers_;
  std::uint64_t rulesSubscription_ = 0;
  TimerHandle pollTimer_;
  // Posted callbacks hold this weakly, so none runs into a destroyed engine.
  std::shared_ptr<BatteryControlRulesEngine*> self_;
};

}  // namespace quorel
