#pragma once
// The battery commands of an agent that has no link to the privileged helper: the control state
// and the automation settings read as they are, and every write refused with the words a person
// is shown when battery control is not turned on. Nothing here can change the battery or the
// settings.
//
// Threading: main queue only, like the view model and the settings it reads.

#include <functional>

#include "app/settings_manager.hpp"
#include "control/battery_commands.hpp"
#include "telemetry/power_view_model.hpp"

namespace quorel {

inline constexpr const char* kBatteryControlNotEnabled =
    "Battery control isn't enabled — turn it on in Quorel → Settings → Battery Control.";

class UnlinkedBatteryCommands final : public BatteryCommands {
 public:
  // `chargeControl`: the battery's driver offers an attribute a helper could write. Both
  // references must outlive the object.
  UnlinkedBatteryCommands(const PowerViewModel& viewModel, const SettingsManager& settings,
                          bool chargeControl);

  JSONValue state() const override;
  JSONValue automation() const override;

  void setChargeLimit(std::int64_t percent, BatteryCommandCompletion done) override;
  void setForceDischarge(bool enable, BatteryCommandCompletion done) override;
  void setTopUp(bool enable, BatteryCommandCompletion done) override;
  BatteryCommandResult setSmartTopOffRules(std::vector<TopOffRule> rules) override;
  BatteryCommandResult setHeatProtection(std::int64_t thresholdC,
                                         std::int64_t hysteresisC) override;

 private:
  const PowerViewModel& viewModel_;
  const SettingsManager& settings_;
  bool chargeControl_;
};

}  // namespace quorel
