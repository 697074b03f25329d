#include "platform/sandbox/sandbox_power_sources.hpp"

#include <cmath>
#include <memory>

#include "platform/sandbox/sandbox_power_provider.hpp"

namespace quorel {

std::optional<ComponentPower> SandboxComponentPowerSampler::sample() {
  return componentPower(config_.values().systemLoad);
}

SystemPowerRails SandboxPowerRailReader::railsFor(const SandboxSettings& c) {
  const bool onBattery = c.powerSource == SandboxPowerSource::battery;
  SystemPowerRails rails;
  rails.systemTotalWatts = systemLoadWatts(c.systemLoad);
  rails.batteryWatts = std::fabs(c.effectiveWattage());
  if (!onBattery) rails.dcInWatts = static_cast<double>(c.adapterWatts);
  rails.thunderboltLeftWatts = onBattery ? 0.0 : 2.4;
  rails.thunderboltRightWatts = 0.0;
  rails.pdBrightnessWatts = 0.4;
  return rails;
}

std::optional<SystemPowerRails> SandboxPowerRailReader::sample() {
  return railsFor(config_.values());
}

ThermalState SandboxThermalStateSource::currentThermalState() const {
  return platformThermalState(config_.values().thermalState);
}

PowerSources sandboxPowerSources(const SandboxConfig& config, const Clock& clock) {
  PowerSources sources;
  sources.provider = std::make_shared<SandboxPowerProvider>(config, clock);
  sources.componentSampler = std::make_shared<SandboxComponentPowerSampler>(config);
  sources.railReader = std::make_shared<SandboxPowerRailReader>(config);
  sources.thermalSource = std::make_shared<SandboxThermalStateSource>(config);
  sources.recordHistory = false;
  return sources;
}

}  // namespace quorel
