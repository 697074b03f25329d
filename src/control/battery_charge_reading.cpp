#include "control/battery_charge_reading.hpp"

#include <algorithm>
#include <cmath>

#include "core/enum_text.hpp"

namespace quorel {
namespace {

constexpr EnumTextTable<BatteryChargeStatus, 5> kStatusWords{{{
    {BatteryChargeStatus::charging, "Charging"},
    {BatteryChargeStatus::discharging, "Discharging"},
    {BatteryChargeStatus::notCharging, "Not charging"},
    {BatteryChargeStatus::full, "Full"},
    {BatteryChargeStatus::unknown, "Unknown"},
}}};

std::optional<std::int64_t> ratioPercent(std::optional<std::int64_t> full,
                                         std::optional<std::int64_t> design) {
  if (!full || !design || *full <= 0 || *design <= 0) return std::nullopt;
  const double percent = static_cast<double>(*full) * 100.0 / static_cast<double>(*design);
  return std::min<std::int64_t>(std::llround(percent), 100);
}

}  // namespace

std::optional<BatteryChargeStatus> parseBatteryChargeStatus(std::string_view text) {
  return kStatusWords.parse(text);
}

std::string_view batteryChargeStatusText(BatteryChargeStatus status) {
  return kStatusWords.text(status, "Unknown");
}

std::optional<std::int64_t> systemHealthPercent(const BatteryChargeReading& reading) {
  if (auto energy = ratioPercent(reading.energyFull_uWh, reading.energyFullDesign_uWh)) {
    return energy;
  }
  return ratioPercent(reading.chargeFull_uAh, reading.chargeFullDesign_uAh);
}

}  // namespace quorel
