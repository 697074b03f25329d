#pragma once
// The monitor's live histories: battery wattage, system input and load, and the five component
// figures, each a ring of samples. Owned by the monitor and touched on its poll queue only.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/clock.hpp"
#include "core/component_power.hpp"
#include "core/power_history.hpp"
#include "core/power_snapshot.hpp"

namespace quorel {

// One stored sample, as far as the live histories need it at start.
struct HistorySeedSample {
  TimePoint timestamp;
  double wattage = 0;
  std::optional<double> powerInW, systemLoadW, ecpuW, pcpuW, gpuW, aneW, dramW;
};

// A copy of the live histories, handed out only while somebody is looking.
struct PowerHistorySnapshot {
  std::vector<double> wattageValues;
  std::vector<TimePoint> wattageTimestamps;
  std::vector<double> systemPowerInValues;
  std::vector<TimePoint> systemPowerInTimestamps;
  std::vector<double> systemLoadValues;
  std::vector<TimePoint> systemLoadTimestamps;
  // Keys "ECPU", "PCPU", "GPU", "ANE", "DRAM", each present only when it holds samples.
  std::map<std::string, std::vector<double>> componentData;
  std::map<std::string, std::vector<TimePoint>> componentTimestamps;

  static PowerHistorySnapshot empty() { return {}; }
  bool operator==(const PowerHistorySnapshot&) const = default;
};

class PowerHistories {
 public:
  void seed(const HistorySeedSample& sample);
  // `component` only when it was sampled recently; CPU and DRAM figures only while their
  // counters move.
  void append(const PowerSnapshot& snap, double smoothedWattage,
              const std::optional<ComponentPower>& component, TimePoint at);
  void clear();

  PowerHistorySnapshot snapshot() const;
  std::size_t wattageCount() const { return wattage_.count(); }
  // The newest `n` smoothed wattages, oldest first.
  std::vector<double> recentWattage(std::ptrdiff_t n) const { return wattage_.last(n); }

 private:
  PowerHistory wattage_, systemPowerIn_, systemLoad_;
  PowerHistory ecpu_, pcpu_, gpu_, ane_, dram_;
};

}  // namespace quorel
