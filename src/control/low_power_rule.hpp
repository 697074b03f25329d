#pragma once
// A low-power rule: a nudge when the battery falls through a percentage or an application that
// drains it starts, and the heat protection that lowers the charge ceiling while the battery is
// hot. Stored as a JSON list of objects whose keys are the field names below, in this order.

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "core/clock.hpp"
#include "core/enum_text.hpp"

namespace quorel {

struct LowPowerRule {
  enum class Kind { batteryThreshold, appLaunch, batteryHot };

  std::string id;  // upper-case UUID text
  Kind kind = Kind::batteryThreshold;
  bool enabled = true;
  std::int64_t thresholdPercent = 20;  // batteryThreshold
  // Carried for the editor; whether the battery is hot is decided by the heat-protection
  // setting, so that one threshold governs both the notice and the pause.
  double temperatureThresholdC = 38;
  std::string bundleID;     // appLaunch: a desktop entry id or an executable's name
  std::string displayName;  // appLaunch
  std::optional<TimePoint> lastFiredAt;

  // Keys in field order; `lastFiredAt` only when set, as seconds since 2001-01-01.
  nlohmann::ordered_json toJSON() const;
  // Absent, with `why` filled when given, unless every key but `lastFiredAt` is present with
  // its type, the id is UUID text and the kind one of the three.
  static std::optional<LowPowerRule> fromJSON(const nlohmann::ordered_json& value,
                                              std::string* why = nullptr);

  bool operator==(const LowPowerRule&) const = default;
};

inline constexpr EnumTextTable<LowPowerRule::Kind, 3> kLowPowerRuleKindTexts{{{
    {LowPowerRule::Kind::batteryThreshold, "batteryThreshold"},
    {LowPowerRule::Kind::appLaunch, "appLaunch"},
    {LowPowerRule::Kind::batteryHot, "batteryHot"},
}}};

// The rules of a stored list that decode. Each one that does not is left out with one warning
// naming its index, so that one broken rule never silences the others.
std::vector<LowPowerRule> decodeLowPowerRules(const std::vector<nlohmann::ordered_json>& stored);

}  // namespace quorel
