#pragma once
// Smart top-off in the agent: the rules engine over the settings, the calendar and the location,
// and what a firing does. A firing asks the helper for one release-until-full cycle; the helper
// puts the limit back by itself at full, so nothing here has to be restored. When the helper
// cannot be asked, or refuses, the person is told, since the rule now rests for six hours.
//
// Threading: built, started and driven on the main queue.

#include <memory>

#include "app/settings_manager.hpp"
#include "app/top_off_rules_source.hpp"
#include "control/battery_control_rules_engine.hpp"
#include "control/helper_link.hpp"
#include "core/notice_poster.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

class AgentTopOff {
 public:
  static constexpr const char* kFailureNoticeIdentifier = "quorel.charge-limit.topoff-failed";

  struct Services {
    SettingsManager& settings;
    BatteryControlCalendarServicing& calendar;
    BatteryControlLocationMonitoring& location;
    PreferenceStore& userDefaults;
    HelperLink& helper;
    NoticePoster& notices;
  };

  // Every service must outlive this object.
  AgentTopOff(Services services, const Clock& clock, SerialQueue& mainQueue);
  ~AgentTopOff();
  AgentTopOff(const AgentTopOff&) = delete;
  AgentTopOff& operator=(const AgentTopOff&) = delete;

  void start() { engine_.start(); }
  void systemDidWake() { engine_.systemDidWake(); }
  BatteryControlRulesEngine& engine() { return engine_; }

 private:
  void topOff(const TopOffRule& rule);
  void postFailureNotice();

  Services services_;
  SerialQueue& mainQueue_;
  std::shared_ptr<spdlog::logger> log_;
  SettingsTopOffRulesSource rules_;
  BatteryControlRulesEngine engine_;
  std::shared_ptr<AgentTopOff*> self_;
};

}  // namespace quorel
