#pragma once
// The privileged helper's logic: the ceiling, the band, a discharge, a top-up and the charge gate,
// kept on the battery's controls, persisted, and put back when the firmware lets them drop.
//
// Threading: not thread-safe; the helper calls it from its one queue only. tick() must be called
// every kTickPeriod: it ends a discharge and a top-up, runs the gate where the firmware holds no
// threshold, and repairs drift. A fresh controller writes nothing until a command asks it to.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "control/battery_controls.hpp"
#include "control/helper_contract.hpp"
#include "core/clock.hpp"

namespace quorel {

// What survives a restart, written atomically as JSON in the state directory.
struct HelperSettings {
  std::int64_t ceiling_percent = 100;  // 100: no ceiling
  std::int64_t band_percent = 5;
  bool forceDischarge = false;
  bool topUp = false;
  // The helper wrote charge_behaviour and must put it back to automatic when done.
  bool ownsBehaviour = false;
  // The thresholds found before the first write, for resetAll.
  std::optional<ChargeThresholds> original;
  TimePoint lastWriteAt = distantPast();
  bool lastWriteVerified = true;
  std::optional<std::string> lastDischargeAbortReason;
  std::optional<TimePoint> lastDischargeAbortAt;

  JSONValue toJSON() const;
  static std::optional<HelperSettings> fromJSON(const JSONValue& value);
  bool operator==(const HelperSettings&) const = default;
};

using HelperOutcome = std::optional<QuorelHelperError>;

class HelperController {
 public:
  static constexpr Seconds kTickPeriod{10};
  static constexpr std::int64_t kMinimumChargeLimit = 20;
  static constexpr std::int64_t kMaximumChargeLimit = 100;
  static constexpr std::int64_t kMaximumSailingBand = 50;
  static constexpr const char* kStateFileName = "helper-state.json";

  // `controls` and `clock` must outlive the controller.
  HelperController(BatteryControls& controls, const Clock& clock,
                   std::filesystem::path stateDirectory, std::string version);

  // Loads what was persisted and puts it back on the battery; with nothing persisted, writes
  // nothing. A state file that cannot be read is logged and treated as absent.
  void start();
  void tick();

  HelperCapabilities capabilities() const { return controls_.capabilities(); }
  HelperState state() const;
  const HelperSettings& settings() const { return settings_; }

  HelperOutcome setChargeLimit(std::int64_t percent);
  HelperOutcome clearChargeLimit();
  HelperOutcome setSailingBand(std::int64_t band);
  HelperOutcome forceDischarge(bool enable);
  HelperOutcome setClamshellKeepAwake(bool enable);
  HelperOutcome releaseLimitUntilFullThenRestore();
  HelperOutcome cancelTopUp();
  // Puts every attribute back as it was found and forgets the persisted state.
  HelperOutcome resetAll();
  Result<std::vector<EnergyCounterValue>> readEnergyCounters() {
    return controls_.readEnergyCounters();
  }

  std::filesystem::path stateFile() const { return stateDirectory_ / kStateFileName; }

 private:
  HelperOutcome applyAndSave(const BatteryReading& reading);
  HelperOutcome apply(const BatteryReading& reading);
  HelperOutcome applyThresholds(const BatteryReading& reading);
  HelperOutcome applyBehaviour(const BatteryReading& reading);
  std::optional<ChargeThresholds> wantedThresholds() const;
  std::optional<ChargeBehaviour> wantedBehaviour(const BatteryReading& reading) const;
  void recordWrite(bool verified);
  void endDischarge(std::optional<std::string> abortReason);
  HelperOutcome save();
  bool nativeThresholds() const { return controls_.capabilities().nativeCharging; }
  bool canInhibit() const;

  BatteryControls& controls_;
  const Clock& clock_;
  std::filesystem::path stateDirectory_;
  std::string version_;
  HelperSettings settings_;
  // Something was asked of the helper (now or before a restart): until then it writes nothing.
  bool configured_ = false;
  bool keepAwake_ = false;
  // The last threshold write and what the firmware made of it, so that a rounded value is not
  // taken for drift.
  std::optional<std::pair<ChargeThresholds, ChargeThresholds>> lastThresholdWrite_;
  std::optional<ChargeThresholds> readBack_;
};

}  // namespace quorel
