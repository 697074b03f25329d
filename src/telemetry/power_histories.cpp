#include "telemetry/power_histories.hpp"

#include <utility>

namespace quorel {

namespace {
std::optional<double> milliToUnit(const std::optional<std::int64_t>& v) {
  if (!v) return std::nullopt;
  return static_cast<double>(*v) / 1000.0;
}
}  // namespace

void PowerHistories::seed(const HistorySeedSample& s) {
  wattage_.append(s.wattage, s.timestamp);
  const std::pair<const std::optional<double>*, PowerHistory*> rings[] = {
      {&s.powerInW, &systemPowerIn_},
      {&s.systemLoadW, &systemLoad_},
      {&s.ecpuW, &ecpu_},
      {&s.pcpuW, &pcpu_},
      {&s.gpuW, &gpu_},
      {&s.aneW, &ane_},
      {&s.dramW, &dram_},
  };
  for (const auto& [value, ring] : rings) {
    if (*value) ring->append(**value, s.timestamp);
  }
}

void PowerHistories::append(const PowerSnapshot& snap, double smoothedWattage,
                            const std::optional<ComponentPower>& component, TimePoint at) {
  wattage_.append(smoothedWattage, at);
  if (auto w = milliToUnit(snap.systemPowerIn_mW)) systemPowerIn_.append(*w, at);
  if (auto w = milliToUnit(snap.systemLoad_mW)) systemLoad_.append(*w, at);
  if (!component) return;
  const ComponentPower& c = *component;
  if (c.cpuAndMemoryAvailable) {
    ecpu_.append(c.ecpuWatts, at);
    pcpu_.append(c.pcpuWatts, at);
  }
  gpu_.append(c.gpuWatts, at);
  ane_.append(c.aneWatts, at);
  if (c.cpuAndMemoryAvailable) dram_.append(c.dramWatts, at);
}

void PowerHistories::clear() {
  *this = PowerHistories();
}

PowerHistorySnapshot PowerHistories::snapshot() const {
  PowerHistorySnapshot h;
  wattage_.fillSamples(h.wattageValues, h.wattageTimestamps);
  systemPowerIn_.fillSamples(h.systemPowerInValues, h.systemPowerInTimestamps);
  systemLoad_.fillSamples(h.systemLoadValues, h.systemLoadTimestamps);
  const std::pair<const char*, const PowerHistory*> components[] = {
      {"ECPU", &ecpu_}, {"PCPU", &pcpu_}, {"GPU", &gpu_}, {"ANE", &ane_}, {"DRAM", &dram_},
  };
  for (const auto& [key, ring] : components) {
    if (ring->empty()) continue;
    ring->fillSamples(h.componentData[key], h.componentTimestamps[key]);
  }
  return h;
}

}  // namespace quorel
