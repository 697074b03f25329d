#include "control/charge_gate_policy.hpp"

#include <algorithm>

namespace quorel::ChargeGatePolicy {

Action action(std::int64_t target, std::optional<std::int64_t> capacity, std::int64_t sailingBand,
              std::optional<bool> externalConnected) {
  if (sailingBand < 0 || target < 0 || target > 100 || (capacity && *capacity < 0)) {
    return Action::hold;
  }
  if (target >= 100) return Action::allowCharging;
  if (!capacity || externalConnected != true) return Action::hold;
  const std::int64_t resumeBelow = std::max<std::int64_t>(target - sailingBand, 0);
  if (*capacity >= target) return Action::pause;
  if (*capacity < resumeBelow) return Action::resume;
  return Action::hold;
}

bool shouldPauseBeforeSleep(std::int64_t target, std::optional<bool> externalConnected,
                            bool wasForceDischarging) {
  return target < 100 && (externalConnected != true || wasForceDischarging);
}

}  // namespace quorel::ChargeGatePolicy
