#pragma once
// The battery command service's view of the settings: reads from the one SettingsManager and
// writes through it, saving at once, so that the rules and thresholds a command stores are what
// the automation and the next `quorel battery automation` see.
//
// Threading: the main queue, like the manager.

#include "app/settings_manager.hpp"
#include "control/battery_control_command_service.hpp"

namespace quorel {

class SettingsBatteryControlAccess final : public BatteryControlSettingsAccess {
 public:
  explicit SettingsBatteryControlAccess(SettingsManager& settings) : settings_(settings) {}

  bool experimentalClamshellDischarge() const override;
  // A stored list that no longer decodes counts as no rules: it is refused whole, as on load.
  std::vector<TopOffRule> smartTopOffRules() const override;
  std::int64_t heatProtectionThresholdC() const override;
  std::int64_t heatProtectionHysteresisC() const override;
  void storeSmartTopOffRules(const std::vector<TopOffRule>& rules) override;
  void storeHeatProtection(std::int64_t thresholdC, std::int64_t hysteresisC) override;

 private:
  SettingsManager& settings_;
};

}  // namespace quorel
