#pragma once
// Low-power rules and heat protection in the agent: the engine over the settings, fed every
// power state, pausing through the helper link, and told of the applications the process
// sampler sees start.
//
// Threading: made, used and destroyed on the main queue's thread.

#include <functional>
#include <memory>

#include "app/low_power_settings.hpp"
#include "control/low_power_rules_engine.hpp"
#include "energy/process_launch_watcher.hpp"
#include "platform/linux/desktop_application_catalog.hpp"

namespace quorel {

class AgentLowPower {
 public:
  struct Inputs {
    SettingsManager& settings;
    PreferenceStore& preferences;
    NoticePoster& notices;
    // Whether the desktop's power-saver profile can be offered now.
    std::function<bool()> powerSaverOffered;
    SerialQueue& mainQueue;
    const Clock& clock;
  };

  explicit AgentLowPower(Inputs inputs);
  // Stops the launch reports, waiting for a sampler pass in progress.
  ~AgentLowPower();
  AgentLowPower(const AgentLowPower&) = delete;
  AgentLowPower& operator=(const AgentLowPower&) = delete;

  void setHelperLink(HelperLink* link) { engine_.setHelperLink(link); }
  void evaluate(const PowerState& state) { engine_.evaluate(state); }

  // Launches seen by `sampler`'s passes over `table`, named by the desktop entries of this
  // session, handed to the engine on the main queue. Call once; both must outlive this object.
  void watchLaunches(TopProcessesService& sampler, const ProcessTable& table);

 private:
  SerialQueue& mainQueue_;
  const Clock& clock_;
  SettingsLowPowerAccess settings_;
  LowPowerRulesEngine engine_;
  TopProcessesService* sampler_ = nullptr;
  std::unique_ptr<DesktopApplicationCatalog> catalog_;
  std::unique_ptr<ProcessLaunchWatcher> watcher_;
  // Launch reports queued on the main queue check it, so none reaches an engine that is gone.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace quorel
