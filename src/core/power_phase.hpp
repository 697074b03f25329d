#pragma once
// What the machine is doing with its battery right now, derived from one snapshot.

#include <optional>
#include <string_view>

#include "core/power_snapshot.hpp"

namespace quorel {

// The platform's four-level thermal state.
enum class ThermalState { nominal = 0, fair = 1, serious = 2, critical = 3 };
std::string_view toString(ThermalState t);

enum class PowerPhase {
  draining,
  charging,
  trickleCharge,
  full,
  onHold,
  chargeLimitHold,
  thermalHold,
  supplementing,
  bootSurge,
  noBattery,
};

// The user-facing label ("On Battery", "Charging", ...).
std::string_view label(PowerPhase phase);
// The case name ("draining", "trickleCharge", ...).
std::string_view toString(PowerPhase phase);

struct PowerPhaseDetectionContext {
  ThermalState thermalState = ThermalState::nominal;
  double secondsSinceWake = 0;
};

// The first rule that fires decides. A thermal hold is told from the gauge's own reason bit or
// the system thermal state, and either outranks a charge-limit hold.
PowerPhase phaseFrom(const PowerSnapshot& snapshot, double smoothedWattage,
                     const PowerPhaseDetectionContext& context);

// Classification of a phase for session accounting.
enum class PowerSessionMode { battery, charging, holding, supplementing, forceDischarge, legacy };
std::string_view toString(PowerSessionMode mode);  // "battery", ..., "force_discharge", "legacy"
std::optional<PowerSessionMode> powerSessionModeFromString(std::string_view s);
PowerSessionMode classifySessionMode(PowerPhase phase, bool forceDischargeActive);

}  // namespace quorel
