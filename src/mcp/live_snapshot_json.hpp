#pragma once
// The live tools' objects, shaped from one PowerState: what the machine draws now, the battery,
// the adapter, the components and the attached devices. Pure functions, so that every surface
// that shows them (tools, the dashboard to come) says the same thing.
//
// Every number that is absent or not finite is written as null with its key kept.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/json_value.hpp"
#include "core/power_state.hpp"
#include "devices/usb_device.hpp"

namespace quorel::live_snapshot_json {

// The charger maker's name for a USB vendor id, when it is known.
using ChargerVendorNames = std::function<std::optional<std::string>(std::int64_t vendorID)>;

JSONValue noPowerData();
JSONValue currentPower(const PowerState& state);
// {"available":false,"reason":"no battery"} without a battery.
JSONValue batteryStatus(const PowerState& state);
// {"connected":false} off external power.
JSONValue adapter(const PowerState& state, const ChargerVendorNames& vendorNames);
JSONValue systemComponents(const PowerState& state);
JSONValue connectedDevices(const std::vector<USBDevice>& devices);

// "1h 5m until full", "59m until empty"; absent for no time or zero. With the gauge's own
// estimate the direction follows `charging`; the calculated one carries it in its sign.
std::optional<std::string> timeRemainingHuman(std::optional<std::int64_t> timeRemaining_min,
                                              std::optional<std::int64_t> calculated_min,
                                              bool charging);

// "Apple" for the platform maker's own adapter, the maker's name for a known vendor id, and
// "Third-Party" otherwise.
std::string chargerSourceLabel(bool isAppleSource, std::optional<std::int64_t> vendorID,
                               const ChargerVendorNames& vendorNames);

}  // namespace quorel::live_snapshot_json
