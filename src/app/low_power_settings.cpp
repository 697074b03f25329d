#include "app/low_power_settings.hpp"

#include "core/uuid.hpp"

namespace quorel {
namespace {

// Dates in the settings document count from 2001-01-01.
constexpr double kReferenceDateUnixSeconds = 978307200.0;

}  // namespace

std::vector<LowPowerRule> SettingsLowPowerAccess::lowPowerRules() const {
  const auto& stored = settings_.settings().lowPowerRules;
  if (stored != decodedFrom_) {
    decoded_ = decodeLowPowerRules(stored);
    decodedFrom_ = stored;
  }
  return decoded_;
}

std::int64_t SettingsLowPowerAccess::heatProtectionThresholdC() const {
  return settings_.settings().heatProtectionThresholdC;
}

std::int64_t SettingsLowPowerAccess::heatProtectionHysteresisC() const {
  return settings_.settings().heatProtectionHysteresisC;
}

void SettingsLowPowerAccess::storeLastFiredAt(const std::string& ruleID, TimePoint at) {
  bool found = false;
  settings_.update([&](QuorelSettings& s) {
    for (auto& rule : s.lowPowerRules) {
      const auto id = rule.find("id");
      if (id == rule.end() || !id->is_string()) continue;
      if (normalizeUuid(id->get<std::string>()) != ruleID) continue;
      rule["lastFiredAt"] = toUnixSeconds(at) - kReferenceDateUnixSeconds;
      found = true;
      break;
    }
  });
  if (found) settings_.save();
}

}  // namespace quorel
