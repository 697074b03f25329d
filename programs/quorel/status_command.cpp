#include "status_command.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <csignal>
#include <fstream>
#include <sstream>

namespace quorel {

namespace {

// The modes a status bar can ask for by name.
constexpr EnumTextTable<MenuBarMode, 4> kBarModeNames{{{
    {MenuBarMode::automatic, "auto"},
    {MenuBarMode::wattage, "wattage"},
    {MenuBarMode::minimal, "minimal"},
    {MenuBarMode::percentage, "percentage"},
}}};

std::optional<std::string> readWholeFile(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

std::optional<StatusSnapshot> parseStatus(const std::string& content) {
  const auto object = nlohmann::json::parse(content, nullptr, false);
  if (object.is_discarded()) return std::nullopt;
  return statusFromJson(object);
}

MenuBarMode chosenMode(const StatusCommandArguments& arguments,
                       const std::optional<StatusSnapshot>& snapshot) {
  if (arguments.mode) {
    if (auto mode = kBarModeNames.parse(*arguments.mode)) return *mode;
  }
  return snapshot ? snapshot->effectiveMode : MenuBarMode::wattage;
}

std::string unavailableJson() {
  return nlohmann::json{{"available", false}, {"reason", "agent not running"}}.dump();
}

}  // namespace

std::string drawnText(const DisplayState& d, MenuBarMode mode) {
  switch (mode) {
    case MenuBarMode::percentage:
      return d.batteryPercent;
    case MenuBarMode::minimal: {
      const std::string& text = d.wattageText;
      if (text.size() >= 2 && text.back() == 'W') return text.substr(0, text.size() - 1);
      return text;
    }
    case MenuBarMode::automatic:
      switch (d.phase) {
        case PowerPhase::draining:
        case PowerPhase::supplementing:
          return d.wattageText;
        case PowerPhase::charging:
        case PowerPhase::trickleCharge:
          return "⚡+" + std::to_string(std::llround(std::fabs(d.smoothedWattage))) + "W";
        case PowerPhase::full:
        case PowerPhase::bootSurge:
          return "✓";
        case PowerPhase::onHold:
        case PowerPhase::chargeLimitHold:
        case PowerPhase::thermalHold:
          return d.batteryPercent;
        case PowerPhase::noBattery:
          return "--";
      }
      return "--";
    case MenuBarMode::wattage:
    case MenuBarMode::gaugeBattery:
    case MenuBarMode::gaugePowerIn:
      return d.wattageText;
  }
  return d.wattageText;
}

RenderSignature renderSignature(const StatusSnapshot& snapshot, MenuBarMode mode) {
  const DisplayState& d = snapshot.display;
  if (mode == MenuBarMode::gaugeBattery)
    return {mode, "b" + std::to_string(std::llround(d.batteryPercentageRaw)), std::nullopt};
  if (mode == MenuBarMode::gaugePowerIn) {
    const double last = d.systemPowerInData.empty() ? 0 : d.systemPowerInData.back();
    return {mode, "p" + std::to_string(std::llround(last)), std::nullopt};
  }
  return {mode, drawnText(d, mode),
          snapshot.colorEnabled ? std::optional(d.wattageColor) : std::nullopt};
}

std::string glanceLines(const DisplayState& d) {
  std::string out;
  out += d.phaseLabel.empty() ? std::string(label(d.phase)) : d.phaseLabel;
  out += " — " + d.wattageText + "\n";
  out += "Battery " + d.batteryPercent + ", health " + d.healthPercent;
  if (!d.cycleCountText.empty()) out += ", " + d.cycleCountText;
  out += "\n";
  if (const auto& remaining = d.timeRemaining ? d.timeRemaining : d.calculatedTimeRemaining) {
    out += *remaining;
    if (d.endTimeText) out += " (until " + *d.endTimeText + ")";
    out += "\n";
  }
  if (d.adapterInfo) out += "Adapter: " + *d.adapterInfo + "\n";
  if (d.wallPowerText) out += "From the wall: " + *d.wallPowerText + "\n";
  if (d.temperatureText) out += "Temperature " + *d.temperatureText + ", ";
  out += "thermal state " + d.thermalStateText + "\n";
  if (d.carbonFootprintText) out += "Carbon today: " + *d.carbonFootprintText + "\n";
  if (d.habitScore) out += "Charging habits: " + *d.habitScore + "\n";
  return out;
}

std::string barLine(const std::optional<StatusSnapshot>& snapshot, MenuBarMode mode, bool plain) {
  if (!snapshot) {
    if (plain) return "--";
    return nlohmann::json{{"text", "--"},
                          {"tooltip", kAgentNotRunningSentence},
                          {"class", "unavailable"},
                          {"percentage", 0}}
        .dump();
  }
  const std::string text = drawnText(snapshot->display, mode);
  if (plain) return text;
  std::string tooltip = glanceLines(snapshot->display);
  if (!tooltip.empty()) tooltip.pop_back();
  return nlohmann::json{{"text", text},
                        {"tooltip", tooltip},
                        {"class", std::string(toString(snapshot->display.phase))},
                        {"percentage", snapshot->display.currentDisplayPercent}}
      .dump();
}

bool agentRunning(const std::filesystem::path& lockFile) {
  const int fd = ::open(lockFile.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  // A shared lock is refused only while the agent holds its exclusive one. Taken and dropped at
  // once, so an agent starting in this instant is the only one that could notice it.
  const bool held = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(fd);
  return held;
}

std::optional<StatusSnapshot> readRunningStatus(const std::filesystem::path& lockFile,
                                                const std::filesystem::path& stateFile) {
  // A file left by an agent that crashed describes nobody.
  if (!agentRunning(lockFile)) return std::nullopt;
  const auto content = readWholeFile(stateFile);
  if (!content) return std::nullopt;
  return parseStatus(*content);
}

StatusCommandResult runStatusCommand(const StatusCommandArguments& arguments,
                                     const std::filesystem::path& lockFile,
                                     const std::filesystem::path& stateFile) {
  StatusCommandResult result;
  const auto snapshot = readRunningStatus(lockFile, stateFile);
  if (arguments.bar) {
    result.output = barLine(snapshot, chosenMode(arguments, snapshot), arguments.format == "plain");
    result.output += "\n";
    if (!snapshot) result.exitStatus = kExitAgentNotRunning;
    return result;
  }
  if (!snapshot) {
    result.exitStatus = kExitAgentNotRunning;
    if (arguments.json) {
      result.output = unavailableJson() + "\n";
    } else {
      result.error = kAgentNotRunningSentence;
    }
    return result;
  }
  result.output =
      arguments.json ? statusToJson(*snapshot).dump(2) + "\n" : glanceLines(snapshot->display);
  return result;
}

int followStatusBar(const StatusCommandArguments& arguments, const std::filesystem::path& lockFile,
                    const std::filesystem::path& stateFile, std::FILE* out) {
  // A bar that closes our output ends us through the failed write, not a signal.
  std::signal(SIGPIPE, SIG_IGN);
  const int watcher = ::inotify_init1(IN_CLOEXEC);
  if (watcher < 0) return 1;
  const auto folder = stateFile.parent_path();
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  // The agent writes by renaming a temporary over the file and removes it when it stops; the
  // temporary's own writes and close are not watched, so each new state wakes us once.
  if (::inotify_add_watch(watcher, folder.c_str(), IN_MOVED_TO | IN_DELETE) < 0) {
    ::close(watcher);
    return 1;
  }
  const std::string fileName = stateFile.filename().string();
  int lockWatch = -1;
  std::optional<RenderSignature> last;
  bool printedUnavailable = false;
  bool first = true;
  alignas(inotify_event) char buffer[4096 + NAME_MAX + 1];
  for (;;) {
    // An agent that dies without removing the file still closes its lock; watching the lock
    // file's close tells us so without waking on anything else in the runtime folder.
    lockWatch = ::inotify_add_watch(watcher, lockFile.c_str(), IN_CLOSE_WRITE);
    const auto snapshot = readRunningStatus(lockFile, stateFile);
    const MenuBarMode mode = chosenMode(arguments, snapshot);
    bool print = false;
    if (snapshot) {
      const auto signature = renderSignature(*snapshot, mode);
      print = first || printedUnavailable || !last || *last != signature;
      last = signature;
      printedUnavailable = false;
    } else {
      print = !printedUnavailable;
      printedUnavailable = true;
      last.reset();
    }
    first = false;
    if (print) {
      const std::string line = barLine(snapshot, mode, arguments.format == "plain") + "\n";
      if (std::fwrite(line.data(), 1, line.size(), out) != line.size() || std::fflush(out) != 0) {
        ::close(watcher);
        return 0;
      }
    }
    // Sleep until an event concerns the state file or the lock.
    for (bool relevant = false; !relevant;) {
      const auto n = ::read(watcher, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        ::close(watcher);
        return 1;
      }
      for (char* p = buffer; p < buffer + n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(p);
        if (event->wd == lockWatch || (event->len > 0 && fileName == event->name) ||
            (event->mask & IN_Q_OVERFLOW) != 0)
          relevant = true;
        p += sizeof(inotify_event) + event->len;
      }
    }
  }
}

}  // namespace quorel
