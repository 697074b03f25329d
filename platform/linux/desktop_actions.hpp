#pragma once
// What a notice's "Open Battery Settings" can open on this machine: the desktop's own power
// settings panel, where one is installed. Only the system's own program directories are looked
// at, never the caller's PATH, and the panel is started without a shell.

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/serial_queue.hpp"

namespace quorel {

inline constexpr std::string_view kOpenBatterySettingsAction = "OPEN_BATTERY_SETTINGS";
inline constexpr std::string_view kOpenBatterySettingsTitle = "Open Battery Settings";

struct SettingsPanel {
  std::filesystem::path program;
  std::vector<std::string> arguments;  // after the program's own name
  bool operator==(const SettingsPanel&) const = default;
};

// The power settings panel installed under `root` (usr/bin, then bin), preferring the one of
// `currentDesktop` (the colon-separated $XDG_CURRENT_DESKTOP) when several desktops are
// installed. Absent when there is none.
std::optional<SettingsPanel> findBatterySettingsPanel(const std::filesystem::path& root,
                                                      std::string_view currentDesktop);

// Starts the panel in a session of its own and never waits for it; children that have ended
// are collected on `queue` every few seconds while any is left.
//
// Threading: the queue's (the main queue).
class BatterySettingsOpener {
 public:
  BatterySettingsOpener(SerialQueue& queue, std::optional<SettingsPanel> panel);
  ~BatterySettingsOpener();
  BatterySettingsOpener(const BatterySettingsOpener&) = delete;
  BatterySettingsOpener& operator=(const BatterySettingsOpener&) = delete;

  bool available() const { return panel_.has_value(); }
  // False, with a logged reason, when there is no panel or it could not be started.
  bool open();
  std::size_t runningChildren() const { return children_.size(); }

 private:
  void reap();

  SerialQueue& queue_;
  std::optional<SettingsPanel> panel_;
  std::vector<pid_t> children_;
  TimerHandle reaper_;
};

}  // namespace quorel
