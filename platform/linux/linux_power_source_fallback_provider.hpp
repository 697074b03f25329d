#pragma once
// The second source, asked by the monitor once the primary provider has failed for a few ticks.
// It reads the same power-supply class but takes from it only what survives a driver that has
// half broken: the percentage, the charging flag, external power and the driver's time
// estimates. Voltage, current, capacities, cycles and temperature stay 0, so the monitor shows a
// percentage and the power state and nothing it cannot vouch for.

#include <filesystem>
#include <optional>

#include "core/clock.hpp"
#include "telemetry/power_data_provider.hpp"

namespace quorel {

class LinuxPowerSourceFallbackProvider final : public PowerDataProvider {
 public:
  // `powerSupplyRoot` is the class directory (e.g. /sys/class/power_supply); `clock` must
  // outlive the provider.
  LinuxPowerSourceFallbackProvider(std::filesystem::path powerSupplyRoot, const Clock& clock);

  // Absent only when the class directory cannot be listed. Stateless; called on the poll queue.
  std::optional<PowerSnapshot> fetchSnapshot() override;

 private:
  std::filesystem::path root_;
  const Clock& clock_;
};

}  // namespace quorel
