#pragma once
// Whether the privileged helper may be used on this machine at all.
//
// On Linux a battery is present or not, and its driver offers charge control or not; the two
// firmware words of other machines ("intel_mac", "helper_unsupported_os") never occur here, but
// stay in the table so that the words an assistant may see are one closed set.

#include <optional>
#include <string_view>

namespace quorel {

enum class BatteryControlAvailability {
  available,
  intelMac,
  noBattery,
  helperUnsupportedOS,
  // A battery whose driver exposes neither a charge threshold nor charge_behaviour.
  noChargeControl,
};

// "available", "intel_mac", "no_battery", "helper_unsupported_os", "no_charge_control".
std::string_view batteryControlAvailabilityText(BatteryControlAvailability availability);
std::optional<BatteryControlAvailability> parseBatteryControlAvailability(std::string_view text);

// `chargeControl`: the battery has at least one attribute the helper can write.
BatteryControlAvailability resolveBatteryControlAvailability(bool batteryPresent,
                                                             bool chargeControl);

}  // namespace quorel
