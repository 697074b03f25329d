#pragma once
// The smart top-off rules as the settings hold them, decoded for the rules engine. A stored list
// that no longer decodes counts as no rules, as it does for the command service; that is said
// once per stored document, not at every settings change.
//
// Threading: the main queue, like the settings manager.

#include <map>
#include <optional>
#include <string>

#include "app/settings_manager.hpp"
#include "control/battery_control_rules_engine.hpp"

namespace quorel {

class SettingsTopOffRulesSource final : public TopOffRulesSource {
 public:
  explicit SettingsTopOffRulesSource(SettingsManager& settings) : settings_(settings) {}
  ~SettingsTopOffRulesSource() override;
  SettingsTopOffRulesSource(const SettingsTopOffRulesSource&) = delete;
  SettingsTopOffRulesSource& operator=(const SettingsTopOffRulesSource&) = delete;

  std::vector<TopOffRule> currentRules() const override;
  std::uint64_t subscribe(Subscriber subscriber) override;
  void unsubscribe(std::uint64_t id) override;

 private:
  std::vector<TopOffRule> decode(const QuorelSettings& settings) const;

  SettingsManager& settings_;
  // The last stored list that failed to decode, so its failure is logged once.
  mutable std::optional<std::string> reportedDocument_;
  std::map<std::uint64_t, std::uint64_t> settingsSubscriptions_;
};

}  // namespace quorel
