#include "control/battery_control_guards.hpp"

namespace quorel::BatteryControlGuards {

GuardResult canSetChargeLimit(std::int64_t percent) {
  if (percent >= kMinimumChargeLimit && percent <= kMaximumChargeLimit) return GuardResult::allow();
  return GuardResult::refuse("Charge limit must be between 20 and 100 percent.");
}

GuardResult canForceDischarge(const ForceDischargeInputs& in) {
  if (in.isDischargeActive) return GuardResult::allow();
  if (in.isLidClosed && !(in.experimentalClamshellEnabled && in.hasExternalDisplay)) {
    return GuardResult::refuse(in.experimentalClamshellEnabled
                                   ? "Attach an external display to discharge with the lid closed."
                                   : "Discharge is unavailable in clamshell mode (lid closed).");
  }
  if (!in.isOnExternalPower) {
    return GuardResult::refuse(
        "Connect AC to discharge \u2014 the battery is already draining on battery power.");
  }
  if (in.isTopUpInFlight) {
    return GuardResult::refuse(
        "Top-up is in flight \u2014 wait for it to finish before discharging.");
  }
  if (!in.capacity) return GuardResult::refuse("Battery level unknown.");
  if (*in.capacity > in.limit) return GuardResult::allow();
  return GuardResult::refuse("Battery is already at or below the " + std::to_string(in.limit) +
                             "% limit.");
}

GuardResult canTopUp(const TopUpInputs& in) {
  if (in.isTopUpInFlight) return GuardResult::refuse("Top-up already in progress.");
  if (in.isTopUpAlreadyFilling) return GuardResult::refuse("Already charging to full.");
  // A running discharge blocks the adapter, so the machine reads as on battery; that must not
  // stand in the way of ending it with a top-up.
  if (!in.isOnExternalPower && !in.isDischargeActive) {
    return GuardResult::refuse("Connect AC to top up.");
  }
  if (in.capacity && *in.capacity >= 100) {
    return GuardResult::refuse("Battery is already at 100%.");
  }
  if (in.limit >= 100 && !in.isDischargeActive) {
    return GuardResult::refuse("Charge limit is already 100% \u2014 nothing to release.");
  }
  return GuardResult::allow();
}

}  // namespace quorel::BatteryControlGuards
