#pragma once
// What the monitor publishes on every tick.

#include <cstdint>
#include <optional>
#include <string>

#include "core/battery_diagnostics.hpp"
#include "core/clock.hpp"
#include "core/component_power.hpp"
#include "core/power_phase.hpp"
#include "core/power_snapshot.hpp"

namespace quorel {

struct PowerState {
  double smoothedWattage = 0;    // W, signed, positive while charging
  double batteryPercentage = 0;  // capacity-derived
  std::optional<std::int64_t> iopsPercent;
  double batteryHealth = 0;  // percent, nominal over design
  std::int64_t cycleCount = 0;
  std::optional<std::string> batterySerial;
  double temperature_C = 0;
  bool isCharging = false;
  bool externalConnected = false;
  bool fullyCharged = false;
  bool batteryInstalled = false;
  std::optional<std::int64_t> timeRemaining_min;
  std::optional<std::int64_t> adapterWatts;
  std::optional<double> adapterActualWatts;
  PowerPhase phase = PowerPhase::noBattery;
  TimePoint timestamp{};
  std::int64_t voltage_mV = 0;
  std::int64_t instantAmperage_mA = 0;
  std::int64_t currentCapacity_mAh = 0;
  std::int64_t maxCapacity_mAh = 0;
  std::int64_t designCapacity_mAh = 0;
  std::optional<std::int64_t> adapterCurrent_mA;
  std::optional<std::int64_t> adapterVoltage_mV;
  std::optional<double> systemPowerIn_W;
  std::optional<double> systemLoad_W;
  std::optional<std::int64_t> systemCurrentIn_mA;
  std::optional<std::int64_t> systemVoltageIn_mV;
  std::optional<ConnectionType> connectionType;
  // Negative is time to empty, positive time to full.
  std::optional<std::int64_t> calculatedTimeRemaining_min;
  std::optional<ComponentPower> componentPower;
  std::optional<SystemPowerRails> systemPowerRails;
  std::optional<BatteryDiagnostics> diagnostics;
  ThermalState thermalState = ThermalState::nominal;
  std::optional<double> wallPowerEstimate_W;
  std::optional<double> adapterEfficiency;  // reserved for consumers; the monitor leaves it absent

  // The percentage a person sees: the operating system's own figure when there is one, so that
  // the two never disagree.
  std::int64_t displayPercent() const;
  // What the machine itself draws, when it can be told.
  std::optional<double> systemConsumption_W() const;

  bool operator==(const PowerState&) const = default;
};

}  // namespace quorel
