#include "control/charging_reason_mapper.hpp"

#include <fmt/format.h>

#include <vector>

namespace quorel::ChargingReasonMapper {
namespace {

// The health words the kernel uses for a pack outside its charging temperatures.
bool temperatureOutOfRange(const BatteryChargeReading& battery) {
  if (!battery.health) return false;
  const std::string& h = *battery.health;
  return h == "Overheat" || h == "Hot" || h == "Warm" || h == "Cold" || h == "Cool";
}

bool atOrAbove(std::optional<std::int64_t> capacity, std::optional<std::int64_t> threshold) {
  return capacity && threshold && *threshold < 100 && *capacity >= *threshold;
}

}  // namespace

std::optional<std::string> notChargingReason(const BatteryChargeReading& battery) {
  if (battery.behaviour == ChargeBehaviour::forceDischarge) {
    return "Discharging on purpose (force-discharge)";
  }
  if (battery.behaviour == ChargeBehaviour::inhibitCharge) {
    return "Charging inhibited (inhibit-charge)";
  }
  if (battery.status != BatteryChargeStatus::notCharging) return std::nullopt;
  if (atOrAbove(battery.capacity_percent, battery.endThreshold_percent)) {
    return "Battery at charge limit";
  }
  if (atOrAbove(battery.capacity_percent, battery.startThreshold_percent)) {
    return fmt::format("Charging resumes below {} %", *battery.startThreshold_percent);
  }
  if (temperatureOutOfRange(battery)) return "Battery temperature out of range";
  return "Charging paused";
}

std::optional<std::string> slowChargingReason(const BatteryChargeReading& battery) {
  const bool dischargingOnAdapter = battery.status == BatteryChargeStatus::discharging &&
                                    battery.externalConnected == true &&
                                    battery.behaviour != ChargeBehaviour::forceDischarge;
  if (battery.status != BatteryChargeStatus::charging && !dischargingOnAdapter) {
    return std::nullopt;
  }
  std::vector<std::string_view> reasons;
  if (temperatureOutOfRange(battery)) reasons.push_back("Battery temperature out of range");
  if (battery.chargeType == "Trickle") reasons.push_back("Trickle charging");
  if (battery.chargeType == "Long Life") reasons.push_back("Long-life charging");
  if (dischargingOnAdapter) reasons.push_back("Adapter supplies less than the system draws");
  if (reasons.empty()) return std::nullopt;
  return fmt::format("{}", fmt::join(reasons, "; "));
}

}  // namespace quorel::ChargingReasonMapper
