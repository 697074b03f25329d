#pragma once
// `quorel status`: what the running agent shows, as lines to glance at, as one JSON object, or
// as a status bar's line, once or whenever it visibly changes.

#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>

#include "status_state.hpp"

namespace quorel {

inline constexpr int kExitAgentNotRunning = 3;
inline constexpr const char* kAgentNotRunningSentence =
    "Quorel's agent is not running: start it with `quorel` in a terminal, or `systemctl --user "
    "start quorel` where it is installed as a service.";

struct StatusCommandArguments {
  bool json = false;
  bool bar = false;
  std::optional<std::string> mode;  // auto, wattage, minimal or percentage
  std::string format = "json";      // of --bar: json or plain
  bool follow = false;
};

struct StatusCommandResult {
  std::string output;
  std::string error;
  int exitStatus = 0;
};

// The text the status item draws in `mode`.
std::string drawnText(const DisplayState& display, MenuBarMode mode);

// What decides whether the status item must be redrawn: equal signatures draw the same.
struct RenderSignature {
  MenuBarMode mode = MenuBarMode::wattage;
  std::string drawn;
  std::optional<NamedColor> color;
  bool operator==(const RenderSignature&) const = default;
};
RenderSignature renderSignature(const StatusSnapshot& snapshot, MenuBarMode mode);

// The lines a person would glance at, each ending in a newline.
std::string glanceLines(const DisplayState& display);

// One line for a status bar (without its newline): JSON {text, tooltip, class, percentage}, or
// the drawn text alone when `plain`. No snapshot means no agent.
std::string barLine(const std::optional<StatusSnapshot>& snapshot, MenuBarMode mode, bool plain);

// Whether an agent holds the single-instance lock at `lockFile`.
bool agentRunning(const std::filesystem::path& lockFile);

// The agent's snapshot, when an agent is running and has written one.
std::optional<StatusSnapshot> readRunningStatus(const std::filesystem::path& lockFile,
                                                const std::filesystem::path& stateFile);

// Everything but --follow.
StatusCommandResult runStatusCommand(const StatusCommandArguments& arguments,
                                     const std::filesystem::path& lockFile,
                                     const std::filesystem::path& stateFile);

// --bar --follow: writes a line to `out` at the start and at each visible change, sleeping on
// the state file's folder in between. Returns when `out` is closed (0) or cannot watch (1).
int followStatusBar(const StatusCommandArguments& arguments, const std::filesystem::path& lockFile,
                    const std::filesystem::path& stateFile, std::FILE* out);

}  // namespace quorel
