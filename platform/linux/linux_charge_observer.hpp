#pragma once
// What the system is doing with this machine's battery, read without privileges from the
// kernel's power_supply attributes and the other charge-limit managers' traces, folded into one
// ChargeObservation per call. Nothing here writes.
//
// Blocking reads (sysfs, configuration files, a bounded bus call): run it on the poll queue, and
// from one queue only; it keeps the plateau readings between calls.

#include <filesystem>
#include <optional>

#include "control/battery_charge_reading.hpp"
#include "control/battery_control_availability.hpp"
#include "control/charge_limit_inferrer.hpp"
#include "control/charge_observation.hpp"
#include "core/clock.hpp"
#include "platform/linux/charge_limit_conflict_detector.hpp"

namespace quorel {

// The first present battery powering this machine under `powerSupplyRoot` (e.g.
// /sys/class/power_supply), or nothing when there is none. Where no adapter supply reports
// whether it is online, the battery's status tells: charging, full or held means external power.
std::optional<BatteryChargeReading> readBatteryChargeReading(
    const std::filesystem::path& powerSupplyRoot);

// Whether the helper could control this battery: a writable charge_control_end_threshold, or a
// writable charge_behaviour offering inhibit-charge or force-discharge. Writable is the owner's
// write bit as the kernel set it, which is what root would be allowed; the agent itself never
// writes.
BatteryControlAvailability probeBatteryControlAvailability(
    const std::filesystem::path& powerSupplyRoot);

class LinuxChargeObserver {
 public:
  struct Options {
    std::filesystem::path sysfsRoot = "/sys";
    std::filesystem::path configRoot = "/";  // where /etc and /usr are looked up
    // Other managers are installed and configured rarely; looking again costs a few file reads
    // and a bus call, so not on every observation.
    Seconds conflictRefresh{60};
  };

  // `upower` may be null; it and `clock` must outlive the observer.
  LinuxChargeObserver(Options options, UPowerChargeThresholds* upower, const Clock& clock);

  ChargeObservation observe();

 private:
  Options options_;
  const Clock& clock_;
  ChargeLimitInferrer inferrer_;
  ChargeLimitConflictDetector detector_;
  std::optional<MonotonicTime> lastConflictCheck_;
  ConflictReport conflicts_;
};

}  // namespace quorel
