#include "agent_low_power.hpp"

#include "core/logging.hpp"

namespace quorel {

AgentLowPower::AgentLowPower(Inputs inputs)
    : mainQueue_(inputs.mainQueue),
      clock_(inputs.clock),
      settings_(inputs.settings),
      engine_(settings_, inputs.preferences, inputs.notices, std::move(inputs.powerSaverOffered),
              inputs.mainQueue, inputs.clock) {}

AgentLowPower::~AgentLowPower() {
  if (sampler_ != nullptr) sampler_->setArrivalObserver(nullptr);
}

void AgentLowPower::watchLaunches(TopProcessesService& sampler, const ProcessTable& table) {
  // The catalog reads the entries on its first lookup, on the sampler's thread.
  catalog_ = std::make_unique<DesktopApplicationCatalog>(
      DesktopApplicationCatalog::dataDirectories(ProcessEnvironment),
      DesktopApplicationCatalog::searchPath(ProcessEnvironment));
  watcher_ = std::make_unique<ProcessLaunchWatcher>(
      table, catalog_.get(), clock_,
      [this, alive = std::weak_ptr(alive_)](std::vector<ProcessLaunch> launches) {
        mainQueue_.async([this, alive, launches = std::move(launches)] {
          if (alive.expired()) return;
          for (const ProcessLaunch& launch : launches) {
            logging::get("LowPowerRulesEngine")
                ->debug("launched: {} (pid {}, {})", launch.displayName, launch.pid,
                        launch.desktopEntryID.value_or("no desktop entry"));
            engine_.handleAppLaunch({.desktopEntryID = launch.desktopEntryID,
                                     .executableName = launch.executable.filename().string(),
                                     .displayName = launch.displayName});
          }
        });
      });
  sampler_ = &sampler;
  sampler.setArrivalObserver(watcher_.get());
}

}  // namespace quorel
