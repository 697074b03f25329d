#include "core/power_phase.hpp"

#include <cstdint>

#include "core/enum_text.hpp"

namespace quorel {

namespace {
constexpr EnumTextTable<ThermalState, 4> kThermalStateNames{{{
    {ThermalState::nominal, "nominal"},
    {ThermalState::fair, "fair"},
    {ThermalState::serious, "serious"},
    {ThermalState::critical, "critical"},
}}};

constexpr EnumTextTable<PowerPhase, 10> kPhaseNames{{{
    {PowerPhase::draining, "draining"},
    {PowerPhase::charging, "charging"},
    {PowerPhase::trickleCharge, "trickleCharge"},
    {PowerPhase::full, "full"},
    {PowerPhase::onHold, "onHold"},
    {PowerPhase::chargeLimitHold, "chargeLimitHold"},
    {PowerPhase::thermalHold, "thermalHold"},
    {PowerPhase::supplementing, "supplementing"},
    {PowerPhase::bootSurge, "bootSurge"},
    {PowerPhase::noBattery, "noBattery"},
}}};

constexpr EnumTextTable<PowerPhase, 10> kPhaseLabels{{{
    {PowerPhase::draining, "On Battery"},
    {PowerPhase::charging, "Charging"},
    {PowerPhase::trickleCharge, "Plugged In"},
    {PowerPhase::full, "Fully Charged"},
    {PowerPhase::onHold, "On Hold"},
    {PowerPhase::chargeLimitHold, "Charge Limit"},
    {PowerPhase::thermalHold, "Thermal Hold"},
    {PowerPhase::supplementing, "Supplementing"},
    {PowerPhase::bootSurge, "Boot Surge"},
    {PowerPhase::noBattery, "No Battery"},
}}};

constexpr EnumTextTable<PowerSessionMode, 6> kModeNames{{{
    {PowerSessionMode::battery, "battery"},
    {PowerSessionMode::charging, "charging"},
    {PowerSessionMode::holding, "holding"},
    {PowerSessionMode::supplementing, "supplementing"},
    {PowerSessionMode::forceDischarge, "force_discharge"},
    {PowerSessionMode::legacy, "legacy"},
}}};

constexpr std::int64_t kThermalReasonBit = 0x2;
constexpr std::int64_t kChargeLimitMask = 0x80000000000001;
}  // namespace

std::string_view toString(ThermalState t) {
  return kThermalStateNames.text(t, "nominal");
}

std::string_view label(PowerPhase phase) {
  return kPhaseLabels.text(phase);
}

std::string_view toString(PowerPhase phase) {
  return kPhaseNames.text(phase);
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
  return kModeNames.text(mode, "legacy");
}

std::optional<PowerSessionMode> powerSessionModeFromString(std::string_view s) {
  return kModeNames.parse(s);
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
