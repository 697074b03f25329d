#pragma once
// Per-component power, whole-machine rails, and the rule that decides whether a component
// reading is believed, kept with a caveat, or rejected, so stored history can say how good
// each figure is.

#include <optional>
#include <string>
#include <string_view>

namespace quorel {

// How a stored figure was obtained. Stored as lower-case text.
enum class HistoricalValueQuality { measured, estimated, inferred, legacy, rejected, unavailable };

std::string_view toString(HistoricalValueQuality q);
std::optional<HistoricalValueQuality> historicalValueQualityFromString(std::string_view s);

struct ComponentPower {
  double ecpuWatts = 0;
  double pcpuWatts = 0;
  double gpuWatts = 0;
  double aneWatts = 0;
  double dramWatts = 0;
  // False when the CPU and memory counters stalled: those three figures are not to be believed.
  bool cpuAndMemoryAvailable = true;

  double total() const { return ecpuWatts + pcpuWatts + gpuWatts + aneWatts + dramWatts; }
  bool operator==(const ComponentPower&) const = default;
};

struct SystemPowerRails {
  std::optional<double> systemTotalWatts;
  std::optional<double> batteryWatts;
  std::optional<double> dcInWatts;
  std::optional<double> thunderboltLeftWatts;
  std::optional<double> thunderboltRightWatts;
  std::optional<double> pdBrightnessWatts;
  bool operator==(const SystemPowerRails&) const = default;
};

struct ComponentPowerValidation {
  std::optional<ComponentPower> value;
  HistoricalValueQuality quality = HistoricalValueQuality::unavailable;
  std::optional<std::string> rejectionReason;
  bool operator==(const ComponentPowerValidation&) const = default;

  // No component was read at all.
  static ComponentPowerValidation unavailable(std::string reason);
};

struct ComponentPowerValidator {
  // Pure. `systemConsumptionW` is what the whole machine draws, when known.
  static ComponentPowerValidation validate(const std::optional<ComponentPower>& component,
                                           std::optional<double> systemConsumptionW);
};

}  // namespace quorel
