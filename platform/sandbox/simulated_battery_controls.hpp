#pragma once
// An in-memory battery for the helper's simulated machine and its tests. It charges while an
// adapter is connected and the firmware lets it (below the end threshold, not inhibited), and
// drains when the adapter is off or a discharge is forced; time is the injected clock's.
//
// Its firmware behaves like the kernel's drivers: a start threshold above the end is refused,
// and forgetFirmwareSettings() drops what was written, as some firmware does on resume.

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "control/battery_controls.hpp"
#include "core/clock.hpp"

namespace quorel {

struct SimulatedBatteryOptions {
  bool endThreshold = true;
  bool startThreshold = true;
  bool inhibitCharge = true;
  bool forceDischarge = true;
  double capacity_percent = 60;
  bool adapterConnected = true;
  double chargeRate_percentPerMinute = 1.0;
  double drainRate_percentPerMinute = 0.5;
  // What the firmware holds before anyone writes.
  std::int64_t end_percent = 100;
  std::int64_t start_percent = 0;
};

class SimulatedBatteryControls final : public BatteryControls {
 public:
  SimulatedBatteryControls(const Clock& clock, SimulatedBatteryOptions options = {});

  HelperCapabilities capabilities() const override;
  bool hasStartThreshold() const override { return options_.startThreshold; }
  BatteryReading read() override;
  Result<ChargeThresholds> writeThresholds(const ChargeThresholds& wanted) override;
  Result<ChargeBehaviour> writeBehaviour(ChargeBehaviour wanted) override;
  Result<bool> setKeepAwake(bool enable) override;
  Result<std::vector<EnergyCounterValue>> readEnergyCounters() override;

  // Knobs for tests and the simulated machine; thread-safe like the rest.
  void setAdapterConnected(bool connected);
  void setCapacity(double percent);
  void forgetFirmwareSettings();
  void failWrites(bool fail);
  // Every write, in order, as "end=80", "start=75" or "behaviour=inhibit-charge".
  std::vector<std::string> writes() const;
  bool keepingAwake() const;

 private:
  void advance();
  bool charging() const;

  const Clock& clock_;
  SimulatedBatteryOptions options_;
  mutable std::mutex mutex_;
  MonotonicTime lastAdvance_;
  double capacity_;
  std::int64_t end_;
  std::int64_t start_;
  // Hysteresis of threshold firmware: after stopping at the end, charging waits for the start.
  bool waitingForStart_ = false;
  ChargeBehaviour behaviour_ = ChargeBehaviour::automatic;
  bool keepAwake_ = false;
  bool failWrites_ = false;
  double energy_uJ_ = 0;
  std::vector<std::string> writes_;
};

}  // namespace quorel
