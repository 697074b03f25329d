#include "control/battery_control_availability.hpp"

#include "core/enum_text.hpp"

namespace quorel {
namespace {

constexpr EnumTextTable<BatteryControlAvailability, 5> kAvailabilityWords{{{
    {BatteryControlAvailability::available, "available"},
    {BatteryControlAvailability::intelMac, "intel_mac"},
    {BatteryControlAvailability::noBattery, "no_battery"},
    {BatteryControlAvailability::helperUnsupportedOS, "helper_unsupported_os"},
    {BatteryControlAvailability::noChargeControl, "no_charge_control"},
}}};

}  // namespace

std::string_view batteryControlAvailabilityText(BatteryControlAvailability availability) {
  return kAvailabilityWords.text(availability, "no_battery");
}

std::optional<BatteryControlAvailability> parseBatteryControlAvailability(std::string_view text) {
  return kAvailabilityWords.parse(text);
}

BatteryControlAvailability resolveBatteryControlAvailability(bool batteryPresent,
                                                             bool chargeControl) {
  if (!batteryPresent) return BatteryControlAvailability::noBattery;
  return chargeControl ? BatteryControlAvailability::available
                       : BatteryControlAvailability::noChargeControl;
}

}  // namespace quorel
