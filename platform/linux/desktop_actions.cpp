#include "platform/linux/desktop_actions.hpp"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>

#include "core/logging.hpp"

extern char** environ;

namespace quorel {

namespace {

struct PanelCandidate {
  std::string_view desktop;  // as $XDG_CURRENT_DESKTOP names it
  std::string_view program;
  std::vector<std::string> arguments;
};

const std::array<PanelCandidate, 3>& candidates() {
  static const std::array<PanelCandidate, 3> table{{
      {"GNOME", "gnome-control-center", {"power"}},
      {"KDE", "systemsettings", {"kcm_powerdevilprofilesconfig"}},
      {"XFCE", "xfce4-power-manager-settings", {}},
  }};
  return table;
}

bool sameWord(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::toupper(static_cast<unsigned char>(x)) ==
                  std::toupper(static_cast<unsigned char>(y));
         });
}

bool namesDesktop(std::string_view currentDesktop, std::string_view desktop) {
  while (!currentDesktop.empty()) {
    const auto colon = currentDesktop.find(':');
    if (sameWord(currentDesktop.substr(0, colon), desktop)) return true;
    if (colon == std::string_view::npos) break;
    currentDesktop.remove_prefix(colon + 1);
  }
  return false;
}

std::optional<std::filesystem::path> installed(const std::filesystem::path& root,
                                               std::string_view program) {
  for (const char* dir : {"usr/bin", "bin"}) {
    const auto path = root / dir / program;
    std::error_code ec;
    if (std::filesystem::is_regular_file(path, ec) && ::access(path.c_str(), X_OK) == 0) {
      return path;
    }
  }
  return std::nullopt;
}

constexpr Seconds kReapInterval{5};

}  // namespace

std::optional<SettingsPanel> findBatterySettingsPanel(const std::filesystem::path& root,
                                                      std::string_view currentDesktop) {
  std::optional<SettingsPanel> first;
  for (const auto& candidate : candidates()) {
    const auto path = installed(root, candidate.program);
    if (!path) continue;
    SettingsPanel panel{*path, candidate.arguments};
    if (namesDesktop(currentDesktop, candidate.desktop)) return panel;
    if (!first) first = std::move(panel);
  }
  return first;
}

BatterySettingsOpener::BatterySettingsOpener(SerialQueue& queue, std::optional<SettingsPanel> panel)
    : queue_(queue), panel_(std::move(panel)) {}

BatterySettingsOpener::~BatterySettingsOpener() {
  reaper_.cancel();
  // A panel still open is left to run; init collects it once we are gone.
}

bool BatterySettingsOpener::open() {
  auto log = logging::get("Notifications");
  if (!panel_) {
    log->warn("no power settings panel is installed — nothing to open");
    return false;
  }
  std::vector<std::string> words;
  words.push_back(panel_->program.filename().string());
  words.insert(words.end(), panel_->arguments.begin(), panel_->arguments.end());
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  // Its own session, so a signal to the agent's terminal leaves the panel open; the agent
  // ignores SIGPIPE, which the panel must not inherit.
  sigset_t none;
  sigemptyset(&none);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = 0;
  const int r =
      posix_spawn(&pid, panel_->program.c_str(), nullptr, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  if (r != 0) {
    log->warn("could not open {}: {}", panel_->program.string(), std::strerror(r));
    return false;
  }
  log->info("opened {}", panel_->program.string());
  children_.push_back(pid);
  if (!reaper_.pending()) {
    reaper_ = queue_.every(kReapInterval, kReapInterval, [this] { reap(); });
  }
  return true;
}

void BatterySettingsOpener::reap() {
  std::erase_if(children_, [](pid_t pid) {
    int status = 0;
    return ::waitpid(pid, &status, WNOHANG) != 0;
  });
  if (children_.empty()) reaper_.cancel();
}

}  // namespace quorel
