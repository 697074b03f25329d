#pragma once
// The simulated machine's component counters, power rails and thermal state, read from the
// current scenario, and the whole simulated set as the monitor takes it.

#include "core/clock.hpp"
#include "platform/sandbox/sandbox_config.hpp"
#include "telemetry/power_data_provider.hpp"

namespace quorel {

// The load preset's component row; the simulated counters never stall.
class SandboxComponentPowerSampler final : public ComponentPowerSampler {
 public:
  explicit SandboxComponentPowerSampler(const SandboxConfig& config) : config_(config) {}
  bool isAvailable() const override { return true; }
  // The preset's figure on every call, the first included: the simulated counters need no
  // baseline.
  std::optional<ComponentPower> sample() override;

 private:
  const SandboxConfig& config_;
};

class SandboxPowerRailReader final : public PowerRailReader {
 public:
  explicit SandboxPowerRailReader(const SandboxConfig& config) : config_(config) {}
  std::optional<SystemPowerRails> sample() override;

  // The pure core of sample().
  static SystemPowerRails railsFor(const SandboxSettings& settings);

 private:
  const SandboxConfig& config_;
};

class SandboxThermalStateSource final : public ThermalStateSource {
 public:
  explicit SandboxThermalStateSource(const SandboxConfig& config) : config_(config) {}
  ThermalState currentThermalState() const override;

 private:
  const SandboxConfig& config_;
};

// Provider, counters, rails and thermal state of the simulated machine; no fallback, since it
// never fails to read, and nothing recorded. `config` and `clock` must outlive the sources.
PowerSources sandboxPowerSources(const SandboxConfig& config, const Clock& clock);

}  // namespace quorel
