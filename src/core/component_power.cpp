#include "core/component_power.hpp"

#include <algorithm>
#include <array>
#include <cmath>

#include "core/enum_text.hpp"

namespace quorel {

namespace {
constexpr EnumTextTable<HistoricalValueQuality, 6> kQualityNames{{{
    {HistoricalValueQuality::measured, "measured"},
    {HistoricalValueQuality::estimated, "estimated"},
    {HistoricalValueQuality::inferred, "inferred"},
    {HistoricalValueQuality::legacy, "legacy"},
    {HistoricalValueQuality::rejected, "rejected"},
    {HistoricalValueQuality::unavailable, "unavailable"},
}}};
}  // namespace

std::string_view toString(HistoricalValueQuality q) {
  return kQualityNames.text(q, "unavailable");
}

std::optional<HistoricalValueQuality> historicalValueQualityFromString(std::string_view s) {
  return kQualityNames.parse(s);
}

ComponentPowerValidation ComponentPowerValidation::unavailable(std::string reason) {
  return {std::nullopt, HistoricalValueQuality::unavailable, std::move(reason)};
}

ComponentPowerValidation ComponentPowerValidator::validate(
    const std::optional<ComponentPower>& component, std::optional<double> systemConsumptionW) {
  if (!component) {
    return ComponentPowerValidation::unavailable("IOReport component telemetry unavailable");
  }
  const ComponentPower& c = *component;
  const std::array<double, 5> watts{c.ecpuWatts, c.pcpuWatts, c.gpuWatts, c.aneWatts, c.dramWatts};
  if (std::any_of(watts.begin(), watts.end(),
                  [](double w) { return !std::isfinite(w) || w < 0; })) {
    return {std::nullopt, HistoricalValueQuality::rejected,
            "non-finite or negative component rail"};
  }
  const double sum = c.total();
  if (c.ecpuWatts > 30 || c.pcpuWatts > 60 || c.gpuWatts > 90 || c.aneWatts > 20 ||
      c.dramWatts > 35 || sum > 150) {
    return {std::nullopt, HistoricalValueQuality::rejected,
            "component aggregate exceeds physical rail bounds"};
  }
  if (systemConsumptionW && std::isfinite(*systemConsumptionW) && *systemConsumptionW >= 1.0) {
    // The margin absorbs the timing gap between the component interval and the consumption
    // figure; the 10 W floor keeps this from misfiring at idle.
    const double allowance = std::max(10.0, 1.35 * *systemConsumptionW);
    if (sum > allowance) {
      return {std::nullopt, HistoricalValueQuality::rejected,
              "component aggregate exceeds whole-system consumption"};
    }
  }
  if (!c.cpuAndMemoryAvailable) {
    return {c, HistoricalValueQuality::unavailable, "CPU and DRAM energy counters stalled"};
  }
  return {c, HistoricalValueQuality::measured, std::nullopt};
}

}  // namespace quorel
