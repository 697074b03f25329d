#include "app/top_off_rules_source.hpp"

#include <spdlog/logger.h>

#include "core/logging.hpp"

namespace quorel {

SettingsTopOffRulesSource::~SettingsTopOffRulesSource() {
  for (const auto& [id, subscription] : settingsSubscriptions_) settings_.unsubscribe(subscription);
}

std::vector<TopOffRule> SettingsTopOffRulesSource::currentRules() const {
  return decode(settings_.settings());
}

std::vector<TopOffRule> SettingsTopOffRulesSource::decode(const QuorelSettings& settings) const {
  const std::string document = nlohmann::ordered_json(settings.smartTopOffRules).dump();
  const auto value = JSONValue::parse(document);
  auto decoded =
      value ? decodeTopOffRules(*value) : Result<std::vector<TopOffRule>>(Error{"not JSON"});
  if (decoded) {
    reportedDocument_.reset();
    return std::move(decoded).value();
  }
  if (reportedDocument_ != document) {
    reportedDocument_ = document;
    logging::get("BatteryControl")
        ->warn("stored smart top-off rules ignored: {}", decoded.error().message);
  }
  return {};
}

std::uint64_t SettingsTopOffRulesSource::subscribe(Subscriber subscriber) {
  const std::uint64_t subscription =
      settings_.subscribe([this, subscriber = std::move(subscriber)](
                              const QuorelSettings& settings) { subscriber(decode(settings)); });
  settingsSubscriptions_.emplace(subscription, subscription);
  return subscription;
}

void SettingsTopOffRulesSource::unsubscribe(std::uint64_t id) {
  if (settingsSubscriptions_.erase(id) != 0) settings_.unsubscribe(id);
}

}  // namespace quorel
