#pragma once
// Words for why the battery is not charging, or charging slowly, from the states the kernel
// reports. Each text is one a person can read as it stands.
//
// Not charging (the first that applies; absent while the battery charges or discharges on its
// own):
//   charge_behaviour force-discharge  "Discharging on purpose (force-discharge)"
//   charge_behaviour inhibit-charge   "Charging inhibited (inhibit-charge)"
//   then, only when the status reads "Not charging":
//   at or above the end threshold     "Battery at charge limit"
//   at or above the start threshold   "Charging resumes below N %" (N the start threshold)
//   health too hot or too cold        "Battery temperature out of range"
//   any other                         "Charging paused"
//
// Slow charging (while the status reads "Charging", or "Discharging" with the adapter online;
// every text that applies, in this order, joined with "; "):
//   health too hot or too cold        "Battery temperature out of range"
//   charge_type Trickle               "Trickle charging"
//   charge_type Long Life             "Long-life charging"
//   discharging on the adapter        "Adapter supplies less than the system draws"

#include <optional>
#include <string>

#include "control/battery_charge_reading.hpp"

namespace quorel::ChargingReasonMapper {

std::optional<std::string> notChargingReason(const BatteryChargeReading& battery);
std::optional<std::string> slowChargingReason(const BatteryChargeReading& battery);

}  // namespace quorel::ChargingReasonMapper
