#include "core/power_phase.hpp"

#include <array>
#include <cstdint>

namespace quorel {

std::string_view toString(ThermalState t) {
  switch (t) {
    case ThermalState::nominal:
      return "nominal";
    case ThermalState::fair:
      return "fair";
    case ThermalState::serious:
      return "serious";
    case ThermalState::critical:
      return "critical";
  }
  return "nominal";
}

namespace {
struct PhaseNames {
  PowerPhase phase;
  std::string_view name;
  std::string_view label;
};
constexpr std::array<PhaseNames, 10> kPhases{{
    {PowerPhase::draining, "draining", "On Battery"},
    {PowerPhase::charging, "charging", "Charging"},
    {PowerPhase::trickleCharge, "trickleCharge", "Plugged In"},
    {PowerPhase::full, "full", "Fully Charged"},
    {PowerPhase::onHold, "onHold", "On Hold"},
    {PowerPhase::chargeLimitHold, "chargeLimitHold", "Charge Limit"},
    {PowerPhase::thermalHold, "thermalHold", "Thermal Hold"},
    {PowerPhase::supplementing, "supplementing", "Supplementing"},
    {PowerPhase::bootSurge, "bootSurge", "Boot Surge"},
    {PowerPhase::noBattery, "noBattery", "No Battery"},
}};

constexpr std::array<std::pair<PowerSessionMode, std::string_view>, 6> kModes{{
    {PowerSessionMode::battery, "battery"},
    {PowerSessionMode::charging, "charging"},
    {PowerSessionMode::holding, "holding"},
    {PowerSessionMode::supplementing, "supplementing"},
    {PowerSessionMode::forceDischarge, "force_discharge"},
    {PowerSessionMode::legacy, "legacy"},
}};

constexpr std::int64_t kThermalReasonBit = 0x2;
constexpr std::int64_t kChargeLimitMask = 0x80000000000001;
}  // namespace

std::string_view label(PowerPhase phase) {
  return kPhases[static_cast<std::size_t>(phase)].label;
}

std::string_view toString(PowerPhase phase) {
  return kPhases[static_cast<std::size_t>(phase)].name;
}

PowerPhase phaseFrom(const PowerSnapshot& snapshot, double smoothedWattage,
                     const PowerPhaseDetectionContext& context) {
  if (!snapshot.batteryInstalled) return PowerPhase::noBattery;
  if (!snapshot.externalConnected) return PowerPhase::draining;
  if (snapshot.fullyCharged) {
    // Right after wake a full pack can briefly feed the system before the adapter takes over.
    if (smoothedWattage < -0.5 && context.secondsSinceWake < 15) return PowerPhase::bootSurge;
    return PowerPhase::full;
  }
  if (snapshot.isCharging || smoothedWattage >= 5.0) {
    if (smoothedWattage < -0.5) return PowerPhase::supplementing;
    if (smoothedWattage < 5.0) return PowerPhase::trickleCharge;
    return PowerPhase::charging;
  }
  const std::int64_t reasons = snapshot.notChargingReason.value_or(0);
  if (reasons & kThermalReasonBit) return PowerPhase::thermalHold;
  if (context.thermalState == ThermalState::serious ||
      context.thermalState == ThermalState::critical) {
    return PowerPhase::thermalHold;
  }
  if (reasons & kChargeLimitMask) return PowerPhase::chargeLimitHold;
  // Bit 3 (optimised charging) is a reason of its own but still reads as a plain hold.
  return PowerPhase::onHold;
}

std::string_view toString(PowerSessionMode mode) {
  for (const auto& [m, name] : kModes) {
    if (m == mode) return name;
  }
  return "legacy";
}

std::optional<PowerSessionMode> powerSessionModeFromString(std::string_view s) {
  for (const auto& [m, name] : kModes) {
    if (name == s) return m;
  }
  return std::nullopt;
}

PowerSessionMode classifySessionMode(PowerPhase phase, bool forceDischargeActive) {
  if (forceDischargeActive) return PowerSessionMode::forceDischarge;
  switch (phase) {
    case PowerPhase::draining:
      return PowerSessionMode::battery;
    case PowerPhase::charging:
    case PowerPhase::trickleCharge:
      return PowerSessionMode::charging;
    case PowerPhase::full:
    case PowerPhase::onHold:
    case PowerPhase::chargeLimitHold:
    case PowerPhase::thermalHold:
      return PowerSessionMode::holding;
    case PowerPhase::supplementing:
    case PowerPhase::bootSurge:
      return PowerSessionMode::supplementing;
    case PowerPhase::noBattery:
      return PowerSessionMode::legacy;
  }
  return PowerSessionMode::legacy;
}

}  // namespace quorel
