#pragma once
// The low-power engine's view of the settings: the stored rule objects decoded (a rule that does
// not decode is skipped and warned about once per stored list, not at every power reading), the
// heat-protection pair, and the write of a rule's last firing into its stored object, which
// keeps any key the decoder does not know.
//
// Threading: the main queue, like the manager.

#include <nlohmann/json.hpp>
#include <vector>

#include "app/settings_manager.hpp"
#include "control/low_power_rules_engine.hpp"

namespace quorel {

class SettingsLowPowerAccess final : public LowPowerRuleSettings {
 public:
  explicit SettingsLowPowerAccess(SettingsManager& settings) : settings_(settings) {}

  std::vector<LowPowerRule> lowPowerRules() const override;
  std::int64_t heatProtectionThresholdC() const override;
  std::int64_t heatProtectionHysteresisC() const override;
  void storeLastFiredAt(const std::string& ruleID, TimePoint at) override;

 private:
  SettingsManager& settings_;
  mutable std::vector<nlohmann::ordered_json> decodedFrom_;
  mutable std::vector<LowPowerRule> decoded_;
};

}  // namespace quorel
