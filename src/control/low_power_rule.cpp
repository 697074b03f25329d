#include "control/low_power_rule.hpp"

#include <cmath>

#include "core/logging.hpp"
#include "core/uuid.hpp"

namespace quorel {
namespace {

// Dates in the settings document count from 2001-01-01.
constexpr double kReferenceDateUnixSeconds = 978307200.0;

bool fail(std::string* why, std::string text) {
  if (why != nullptr) *why = std::move(text);
  return false;
}

// The member under `key`, or a failure naming it.
const nlohmann::ordered_json* member(const nlohmann::ordered_json& object, const char* key,
                                     std::string* why) {
  const auto found = object.find(key);
  if (found == object.end() || found->is_null()) {
    fail(why, std::string("missing key `") + key + "`");
    return nullptr;
  }
  return &*found;
}

bool wrongType(const char* key, const char* type, std::string* why) {
  return fail(why, std::string("wrong type (expected ") + type + ") for `" + key + "`");
}

bool readText(const nlohmann::ordered_json& object, const char* key, std::string& out,
              std::string* why) {
  const auto* value = member(object, key, why);
  if (value == nullptr) return false;
  if (!value->is_string()) return wrongType(key, "String", why);
  out = value->get<std::string>();
  return true;
}

bool readNumber(const nlohmann::ordered_json& object, const char* key, double& out,
                std::string* why) {
  const auto* value = member(object, key, why);
  if (value == nullptr) return false;
  if (!value->is_number()) return wrongType(key, "Double", why);
  out = value->get<double>();
  return std::isfinite(out) || wrongType(key, "Double", why);
}

bool readInteger(const nlohmann::ordered_json& object, const char* key, std::int64_t& out,
                 std::string* why) {
  double number = 0;
  if (!readNumber(object, key, number, why)) return false;
  // A whole number written as 20.0 is still an integer; 20.5 is not.
  if (number != std::trunc(number) || std::fabs(number) >= 9.2e18) {
    return wrongType(key, "Int", why);
  }
  out = static_cast<std::int64_t>(number);
  return true;
}

}  // namespace

nlohmann::ordered_json LowPowerRule::toJSON() const {
  nlohmann::ordered_json out;
  out["id"] = id;
  out["kind"] = std::string(kLowPowerRuleKindTexts.text(kind));
  out["enabled"] = enabled;
  out["thresholdPercent"] = thresholdPercent;
  out["temperatureThresholdC"] = temperatureThresholdC;
  out["bundleID"] = bundleID;
  out["displayName"] = displayName;
  if (lastFiredAt) out["lastFiredAt"] = toUnixSeconds(*lastFiredAt) - kReferenceDateUnixSeconds;
  return out;
}

std::optional<LowPowerRule> LowPowerRule::fromJSON(const nlohmann::ordered_json& value,
                                                   std::string* why) {
  if (!value.is_object()) {
    fail(why, "not a JSON object");
    return std::nullopt;
  }
  LowPowerRule rule;
  std::string idText;
  std::string kindText;
  if (!readText(value, "id", idText, why) || !readText(value, "kind", kindText, why)) {
    return std::nullopt;
  }
  const auto id = normalizeUuid(idText);
  if (!id) {
    fail(why, "id `" + idText + "` is not a UUID");
    return std::nullopt;
  }
  rule.id = *id;
  const auto kind = kLowPowerRuleKindTexts.parse(kindText);
  if (!kind) {
    fail(why, "unknown kind `" + kindText + "`");
    return std::nullopt;
  }
  rule.kind = *kind;
  const auto* enabled = member(value, "enabled", why);
  if (enabled == nullptr) return std::nullopt;
  if (!enabled->is_boolean()) {
    wrongType("enabled", "Bool", why);
    return std::nullopt;
  }
  rule.enabled = enabled->get<bool>();
  if (!readInteger(value, "thresholdPercent", rule.thresholdPercent, why) ||
      !readNumber(value, "temperatureThresholdC", rule.temperatureThresholdC, why) ||
      !readText(value, "bundleID", rule.bundleID, why) ||
      !readText(value, "displayName", rule.displayName, why)) {
    return std::nullopt;
  }
  if (const auto fired = value.find("lastFiredAt"); fired != value.end() && !fired->is_null()) {
    if (!fired->is_number() || !std::isfinite(fired->get<double>())) {
      wrongType("lastFiredAt", "Date", why);
      return std::nullopt;
    }
    rule.lastFiredAt = fromUnixSeconds(fired->get<double>() + kReferenceDateUnixSeconds);
  }
  return rule;
}

std::vector<LowPowerRule> decodeLowPowerRules(const std::vector<nlohmann::ordered_json>& stored) {
  std::vector<LowPowerRule> rules;
  rules.reserve(stored.size());
  for (std::size_t index = 0; index < stored.size(); ++index) {
    std::string why;
    if (auto rule = LowPowerRule::fromJSON(stored[index], &why)) {
      rules.push_back(std::move(*rule));
    } else {
      logging::get("LowPowerRulesEngine")
          ->warn("low-power rule at index {} skipped: {}", index, why);
    }
  }
  return rules;
}

}  // namespace quorel
