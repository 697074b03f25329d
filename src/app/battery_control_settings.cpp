#include "app/battery_control_settings.hpp"

#include "core/logging.hpp"

namespace quorel {

bool SettingsBatteryControlAccess::experimentalClamshellDischarge() const {
  return settings_.settings().experimentalClamshellDischarge();
}

std::vector<TopOffRule> SettingsBatteryControlAccess::smartTopOffRules() const {
  const nlohmann::ordered_json stored(settings_.settings().smartTopOffRules);
  const auto value = JSONValue::parse(stored.dump());
  if (!value) return {};
  auto decoded = decodeTopOffRules(*value);
  if (!decoded) {
    logging::get("BatteryControl")
        ->warn("stored smart top-off rules ignored: {}", decoded.error().message);
    return {};
  }
  return std::move(decoded).value();
}

std::int64_t SettingsBatteryControlAccess::heatProtectionThresholdC() const {
  return settings_.settings().heatProtectionThresholdC;
}

std::int64_t SettingsBatteryControlAccess::heatProtectionHysteresisC() const {
  return settings_.settings().heatProtectionHysteresisC;
}

void SettingsBatteryControlAccess::storeSmartTopOffRules(const std::vector<TopOffRule>& rules) {
  std::vector<nlohmann::ordered_json> stored;
  stored.reserve(rules.size());
  for (const auto& rule : rules) {
    stored.push_back(nlohmann::ordered_json::parse(rule.toJSON().write().value_or("null")));
  }
  settings_.update([&](QuorelSettings& s) { s.smartTopOffRules = std::move(stored); });
  settings_.save();
}

void SettingsBatteryControlAccess::storeHeatProtection(std::int64_t thresholdC,
                                                       std::int64_t hysteresisC) {
  settings_.update([&](QuorelSettings& s) {
    s.heatProtectionThresholdC = static_cast<int>(thresholdC);
    s.heatProtectionHysteresisC = static_cast<int>(hysteresisC);
  });
  settings_.save();
}

}  // namespace quorel
