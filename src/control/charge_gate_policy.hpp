#pragma once
// What the charge gate must do next, decided from the ceiling, the state of charge, the band and
// the adapter. Pure: the helper acts on it where the firmware holds no threshold of its own, and
// the agent reads the battery the same way.

#include <cstdint>
#include <optional>

namespace quorel::ChargeGatePolicy {

enum class Action {
  hold,           // leave the gate as it is; write nothing
  allowCharging,  // no ceiling to enforce: charging must be open
  pause,          // close the gate: stop charging, keep running from the adapter
  resume,         // open the gate: charge up to the ceiling
};

// Percentages throughout. A target of 100 or more means no ceiling; an absent capacity or adapter
// state is one that could not be read, and the gate is never flipped on such a reading.
Action action(std::int64_t target, std::optional<std::int64_t> capacity, std::int64_t sailingBand,
              std::optional<bool> externalConnected);

// Whether to close the gate ahead of sleep, when nothing will watch the battery.
bool shouldPauseBeforeSleep(std::int64_t target, std::optional<bool> externalConnected,
                            bool wasForceDischarging);

}  // namespace quorel::ChargeGatePolicy
