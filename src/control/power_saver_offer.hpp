#pragma once
// The desktop's power-saving profile, offered on a battery notice as the way to make the charge
// last: whether it can be switched on now, and switching it on. The agent's implementation asks
// the system's power-profiles service; a machine without one never offers it.

#include <string_view>

namespace quorel {

inline constexpr std::string_view kSwitchToPowerSaverAction = "SWITCH_TO_POWER_SAVER";
inline constexpr std::string_view kSwitchToPowerSaverTitle = "Switch to Power Saver";

class PowerSaverOffer {
 public:
  virtual ~PowerSaverOffer() = default;
  // True when a power-saver profile exists and is not the active one. Never blocks: it answers
  // from what was last learnt and learns again in the background. Any thread.
  virtual bool available() const = 0;
  // Makes power-saver the active profile; returns at once, failures are the offer's to log.
  virtual void switchOn() = 0;
};

}  // namespace quorel
