#include "energy/process_launch_watcher.hpp"

#include <algorithm>
#include <utility>

namespace quorel {

ProcessLaunchWatcher::ProcessLaunchWatcher(const ProcessTable& table,
                                           const ApplicationCatalog* catalog, const Clock& clock,
                                           Report report)
    : table_(table), catalog_(catalog), startedAt_(clock.now()), report_(std::move(report)) {}

void ProcessLaunchWatcher::processesAppeared(const std::vector<ProcessStat>& newcomers) {
  if (!primed_) {
    primed_ = true;
    return;
  }
  std::vector<ProcessLaunch> launches;
  for (const ProcessStat& stat : newcomers) {
    if (stat.isKernelThread) continue;
    // A pid the last pass missed (its record could not be read then) is no launch.
    if (stat.startTime && *stat.startTime < startedAt_) continue;
    std::optional<std::filesystem::path> executable = table_.readExecutablePath(stat.pid);
    if (!executable || executable->empty()) continue;
    const bool seen = std::any_of(launches.begin(), launches.end(), [&](const ProcessLaunch& l) {
      return l.executable == *executable;
    });
    if (seen) continue;
    ProcessLaunch launch;
    launch.pid = stat.pid;
    launch.executable = std::move(*executable);
    const std::optional<ApplicationInfo> application =
        catalog_ != nullptr ? catalog_->applicationFor(launch.executable) : std::nullopt;
    if (application) launch.desktopEntryID = application->identifier;
    launch.displayName = application && !application->name.empty()
                             ? application->name
                             : launch.executable.filename().string();
    launches.push_back(std::move(launch));
  }
  if (!launches.empty() && report_) report_(std::move(launches));
}

}  // namespace quorel
