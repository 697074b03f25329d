#pragma once
// The agent's current display, shared with `quorel status` through one small file that the agent
// replaces whenever what it shows changes. Readers wait on the directory for the replacement, so
// neither side polls and nobody reads the database to learn the present figures.

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "app/settings.hpp"
#include "core/paths.hpp"
#include "telemetry/display_state.hpp"

namespace quorel {

// The preference behind which the menu bar styles are offered.
inline constexpr const char* kDeveloperModeKey = "QuorelDevMode";

// What the status line needs beside the display: the menu bar choices in force.
struct StatusSnapshot {
  DisplayState display;
  MenuBarMode effectiveMode = MenuBarMode::wattage;
  bool colorEnabled = false;
  bool operator==(const StatusSnapshot&) const = default;
};

// The per-user single-instance lock, and the state file beside it.
std::filesystem::path instanceLockFile(const QuorelPaths& paths);
std::filesystem::path stateFile(const QuorelPaths& paths);

// The menu bar styles are a developer feature: the chosen mode counts only behind the gate.
MenuBarMode effectiveMenuBarMode(MenuBarMode chosen, bool developerMode);

// One object, snake_case keys; absent texts are null.
nlohmann::json statusToJson(const StatusSnapshot& snapshot);
// Reads back what statusToJson wrote; nothing when the object is not one of ours.
std::optional<StatusSnapshot> statusFromJson(const nlohmann::json& object);

// Writes `content` to `file` so that a reader sees the old file or the new one, never a part:
// a temporary beside it, then a rename over it. Creates the folder (0700) when missing. Returns
// the reason on failure.
std::optional<std::string> replaceFileAtomically(const std::filesystem::path& file,
                                                 const std::string& content);

// The agent's side: writes each snapshot that differs from the last written, and takes the file
// away when destroyed, so that a file present means an agent that is (or was, after a crash)
// running.
class StateFilePublisher {
 public:
  explicit StateFilePublisher(std::filesystem::path file) : file_(std::move(file)) {}
  ~StateFilePublisher();
  StateFilePublisher(const StateFilePublisher&) = delete;
  StateFilePublisher& operator=(const StateFilePublisher&) = delete;

  // True when the file was written; false when unchanged or on failure (`lastError()` says).
  bool publish(const StatusSnapshot& snapshot);
  const std::string& lastError() const { return lastError_; }
  const std::filesystem::path& file() const { return file_; }

 private:
  std::filesystem::path file_;
  std::optional<std::string> lastWritten_;
  std::string lastError_;
};

}  // namespace quorel
