#pragma once
// The agent's line-per-tick JSON form of a PowerState: every field under its own name, the
// computed values beside them, absent values as null.

#include <nlohmann/json.hpp>

#include "core/power_state.hpp"

namespace quorel {

nlohmann::ordered_json toJson(const PowerState& state);
nlohmann::ordered_json toJson(const ComponentPower& component);
nlohmann::ordered_json toJson(const SystemPowerRails& rails);
nlohmann::ordered_json toJson(const BatteryDiagnostics& diagnostics);

}  // namespace quorel
