#pragma once
// Whether the battery's charge gate is open, read from what the kernel shows: the selected
// charge_behaviour and the supply's status. Read-only; nothing here writes.

#include <optional>
#include <string_view>

#include "control/battery_charge_reading.hpp"

namespace quorel {

// `paused` is any closed gate: a firmware threshold holding the charge, charging inhibited or a
// forced discharge. `unsupported` is a machine with no battery of its own to read.
enum class ChargeGateState { charging, paused, unknown, unsupported };

// "charging", "paused", "unknown", "unsupported".
std::string_view chargeGateStateText(ChargeGateState state);

namespace ChargeGateReader {

// The rules, first match wins:
//   1. no battery: unsupported;
//   2. charge_behaviour inhibit-charge or force-discharge: paused, whatever the status says,
//      since the kernel itself reports that it keeps the battery from charging;
//   3. status "Charging" or "Full": charging (a full battery's gate is open; it has nothing to
//      take);
//   4. status "Not charging": paused, unless the adapter is known to be off, which this status
//      cannot honestly mean, so unknown. Held at a threshold or below one, the gate is closed
//      either way; the reason words tell the two apart;
//   5. anything else (discharging, "Unknown", unreadable): charging when charge_behaviour reads
//      auto, which is the kernel saying the gate is open; unknown otherwise.
ChargeGateState state(const std::optional<BatteryChargeReading>& battery);

}  // namespace ChargeGateReader

}  // namespace quorel
