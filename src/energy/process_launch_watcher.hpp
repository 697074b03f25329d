#pragma once
// Tells which programs the person started while the agent runs. It rides on the process
// sampler's pass, which already reads every process's record: the sampler hands over the
// records of the processes its previous pass had not met, and only for those does the watcher
// read where the program lives and ask the desktop which application it is.

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/clock.hpp"
#include "energy/application_catalog.hpp"
#include "energy/process_table.hpp"
#include "energy/top_processes_service.hpp"

namespace quorel {

struct ProcessLaunch {
  ProcessId pid = 0;
  std::filesystem::path executable;
  // The desktop entry that claims the program, without ".desktop"; absent for programs no entry
  // names.
  std::optional<std::string> desktopEntryID;
  // The entry's name, or the program's file name without one.
  std::string displayName;
  bool operator==(const ProcessLaunch&) const = default;
};

// Called by one sampler pass at a time. `report` runs on the sampler's thread with the launches
// of one pass, and never with an empty list.
class ProcessLaunchWatcher final : public ProcessArrivalObserving {
 public:
  using Report = std::function<void(std::vector<ProcessLaunch>)>;

  // The catalog may be null: launches then carry no desktop entry. Processes that started
  // before `clock`'s present are not launches.
  ProcessLaunchWatcher(const ProcessTable& table, const ApplicationCatalog* catalog,
                       const Clock& clock, Report report);

  // The first pass only learns what already runs. After it, each program is reported once per
  // pass, however many of its processes appeared together.
  void processesAppeared(const std::vector<ProcessStat>& newcomers) override;

 private:
  const ProcessTable& table_;
  const ApplicationCatalog* catalog_;
  TimePoint startedAt_;
  Report report_;
  bool primed_ = false;
};

}  // namespace quorel
