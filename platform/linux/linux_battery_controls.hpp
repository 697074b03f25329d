#pragma once
// The helper's controls over the kernel's power_supply attributes of this machine's battery:
// charge_control_end_threshold (the ceiling), charge_control_start_threshold (where charging
// resumes) and charge_behaviour (auto, inhibit-charge, force-discharge). Only those files of the
// battery found at start are ever written; no path comes from a caller.
//
// Capabilities follow what the attributes allow: a writable end threshold is native charging,
// inhibit-charge among the behaviours the charging flags, force-discharge the discharge flags.

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "control/battery_controls.hpp"

namespace quorel {

// Writes one attribute; 0 or the errno of the failure. The seam through which tests stand in for
// a kernel that refuses or rounds.
using AttributeWriter = std::function<int(const std::filesystem::path&, std::string_view)>;
AttributeWriter sysfsAttributeWriter();

// The word in brackets of a sysfs choice list ("auto [inhibit-charge] force-discharge"), and
// every word of it.
std::optional<std::string> selectedChoice(std::string_view list);
std::vector<std::string> listedChoices(std::string_view list);

// Whether thresholds must be written end first: when the new start is not below the current end,
// writing the start first would put it above the end, which drivers refuse.
bool writeEndThresholdFirst(std::optional<std::int64_t> currentEnd, std::int64_t newStart);

class LinuxBatteryControls final : public BatteryControls {
 public:
  // The controls of the first battery powering this machine under `sysfsRoot` (normally /sys).
  static Result<std::unique_ptr<LinuxBatteryControls>> open(
      const std::filesystem::path& sysfsRoot, AttributeWriter writer = sysfsAttributeWriter());
  ~LinuxBatteryControls() override;

  HelperCapabilities capabilities() const override { return capabilities_; }
  bool hasStartThreshold() const override { return hasStart_; }
  BatteryReading read() override;
  Result<ChargeThresholds> writeThresholds(const ChargeThresholds& wanted) override;
  Result<ChargeBehaviour> writeBehaviour(ChargeBehaviour wanted) override;
  Result<bool> setKeepAwake(bool enable) override;
  Result<std::vector<EnergyCounterValue>> readEnergyCounters() override;

  const std::filesystem::path& batteryDirectory() const { return battery_; }

 private:
  LinuxBatteryControls(std::filesystem::path sysfsRoot, std::filesystem::path battery,
                       AttributeWriter writer);
  std::optional<ChargeThresholds> readThresholds() const;
  std::optional<std::string> write(std::string_view attribute, std::string_view value) const;

  std::filesystem::path sysfsRoot_;
  std::filesystem::path battery_;
  AttributeWriter writer_;
  HelperCapabilities capabilities_;
  bool hasStart_ = false;
  // The logind inhibitor that keeps the lid switch from suspending; -1 when not held.
  int lidInhibitor_ = -1;
};

}  // namespace quorel
