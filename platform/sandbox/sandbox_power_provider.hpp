#pragma once
// The simulated machine's battery and adapter readings, derived from the current scenario. Never
// fails to read. Its component, rail and thermal sources are in sandbox_power_sources.hpp.

#include <optional>

#include "core/clock.hpp"
#include "platform/sandbox/sandbox_config.hpp"
#include "telemetry/power_data_provider.hpp"

namespace quorel {

class SandboxPowerProvider final : public PowerDataProvider {
 public:
  // Both must outlive the provider. The config is read afresh on every call, so a scenario
  // change shows on the next tick.
  SandboxPowerProvider(const SandboxConfig& config, const Clock& clock)
      : config_(config), clock_(clock) {}

  std::optional<PowerSnapshot> fetchSnapshot() override;

  // The pure core of fetchSnapshot, for one set of settings at one time.
  static PowerSnapshot snapshotFor(const SandboxSettings& settings, TimePoint now);

  // The simulated pack: 14.8 V nominal, 8693 mAh design capacity.
  static constexpr double kPackVoltage_V = 14.8;
  static constexpr std::int64_t kDesignCapacity_mAh = 8693;

 private:
  const SandboxConfig& config_;
  const Clock& clock_;
};

}  // namespace quorel
