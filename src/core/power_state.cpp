#include "core/power_state.hpp"

#include <algorithm>
#include <cmath>

namespace quorel {

std::int64_t PowerState::displayPercent() const {
  if (iopsPercent) return *iopsPercent;
  return static_cast<std::int64_t>(std::lround(batteryPercentage));
}

std::optional<double> PowerState::systemConsumption_W() const {
  if (systemPowerIn_W) return std::max(0.0, *systemPowerIn_W - smoothedWattage);
  if (!externalConnected) return smoothedWattage <= 0 ? -smoothedWattage : 0.0;
  return std::nullopt;
}

}  // namespace quorel
