#pragma once
// One battery's charging state as the operating system shows it to an unprivileged reader: the
// supply's status, the charge-control attributes and the capacity figures. The read-only side of
// charge control works from this value alone, so it can be tested without a machine.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "control/battery_controls.hpp"

namespace quorel {

// The kernel's power-supply status words.
enum class BatteryChargeStatus { charging, discharging, notCharging, full, unknown };

// "Charging", "Discharging", "Not charging", "Full", "Unknown"; absent for any other text.
std::optional<BatteryChargeStatus> parseBatteryChargeStatus(std::string_view text);
std::string_view batteryChargeStatusText(BatteryChargeStatus status);

struct BatteryChargeReading {
  std::string supply;  // e.g. "BAT0"
  // Each field is absent when the driver does not report it or the value is malformed.
  std::optional<BatteryChargeStatus> status;
  std::optional<ChargeBehaviour> behaviour;  // the selected charge_behaviour
  std::optional<std::int64_t> startThreshold_percent;
  std::optional<std::int64_t> endThreshold_percent;
  std::optional<std::int64_t> capacity_percent;
  // An adapter is online; absent when no supply says either way.
  std::optional<bool> externalConnected;
  std::optional<std::string> chargeType;  // the selected charge_type, e.g. "Trickle"
  std::optional<std::string> health;      // e.g. "Good", "Overheat"
  std::optional<std::int64_t> energyFull_uWh;
  std::optional<std::int64_t> energyFullDesign_uWh;
  std::optional<std::int64_t> chargeFull_uAh;
  std::optional<std::int64_t> chargeFullDesign_uAh;

  bool operator==(const BatteryChargeReading&) const = default;
};

// The maximum capacity the system shows a person: full over design, from the energy pair when the
// driver reports energy, else from the charge pair, never one of each. Rounded to a whole percent
// and capped at 100, since a new pack often holds a little more than its design and "104 %
// health" reads as a fault. Absent when neither pair is complete and positive.
std::optional<std::int64_t> systemHealthPercent(const BatteryChargeReading& reading);

}  // namespace quorel
