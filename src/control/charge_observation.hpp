#pragma once
// What the system is doing with the battery, read-only, in one value: the gate, the limit in
// force and where it was seen, the reasons in words, the health the system shows, whether the
// helper may be used here, and the other charge-limit managers found on this machine.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "control/battery_charge_reading.hpp"
#include "control/battery_control_availability.hpp"
#include "control/charge_gate_reader.hpp"
#include "control/charge_limit_inferrer.hpp"
#include "core/clock.hpp"

namespace quorel {

// Other programs that set a charge limit of their own and would fight the helper over it.
enum class ChargeLimitManager { tlp, upower, desktopPowerManager, asusd, autoCpufreq };

// The name a person knows it by: "TLP", "UPower", "Plasma power management", "asusd",
// "auto-cpufreq".
std::string_view chargeLimitManagerName(ChargeLimitManager manager);

struct ChargeLimitConflict {
  ChargeLimitManager manager = ChargeLimitManager::tlp;
  // How it was seen, as a sentence fragment naming the file, key or property read, e.g.
  // "STOP_CHARGE_THRESH_BAT0=80 in /etc/tlp.conf; tlp.service is enabled".
  std::string evidence;

  bool operator==(const ChargeLimitConflict&) const = default;
};

struct ConflictReport {
  std::vector<ChargeLimitConflict> conflicts;  // one per manager, in detection order

  bool anyDetected() const { return !conflicts.empty(); }
  bool operator==(const ConflictReport&) const = default;
};

struct ChargeObservation {
  ChargeGateState gate = ChargeGateState::unknown;
  InferredLimit limit;
  std::optional<std::string> notChargingReason;
  std::optional<std::string> slowChargingReason;
  std::optional<std::int64_t> systemHealth_percent;
  BatteryControlAvailability availability = BatteryControlAvailability::noBattery;
  ConflictReport conflicts;
  TimePoint observedAt{};

  bool operator==(const ChargeObservation&) const = default;
};

// Folds one battery reading (absent: no battery of this machine) into the observation, feeding
// `inferrer` on the way, so that successive calls build up a plateau.
ChargeObservation composeChargeObservation(const std::optional<BatteryChargeReading>& battery,
                                           ChargeLimitInferrer& inferrer,
                                           BatteryControlAvailability availability,
                                           ConflictReport conflicts, TimePoint observedAt);

}  // namespace quorel
