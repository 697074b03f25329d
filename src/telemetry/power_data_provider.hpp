#pragma once
// The seams through which the monitor reads the machine. Real adapters live under platform/;
// the simulated machine and the tests' scripted sources implement the same contracts.

#include <optional>

#include "core/clock.hpp"
#include "core/component_power.hpp"
#include "core/power_phase.hpp"
#include "core/power_snapshot.hpp"

namespace quorel {

// A source of battery and adapter readings. Called on the poll queue only; must not block for
// long. A real provider implements fetchSnapshot alone.
class PowerDataProvider {
 public:
  virtual ~PowerDataProvider() = default;

  // Absent when nothing could be read on this tick; the monitor counts that as a failed tick.
  virtual std::optional<PowerSnapshot> fetchSnapshot() = 0;

  virtual bool isSimulated() const { return false; }
  virtual std::optional<ComponentPower> simulatedComponentPower() const { return std::nullopt; }
  virtual std::optional<ThermalState> simulatedThermalState() const { return std::nullopt; }
  virtual std::optional<SystemPowerRails> simulatedSystemPowerRails() const { return std::nullopt; }
};

// Per-component power measured across an interval (energy counters).
class ComponentPowerSampler {
 public:
  virtual ~ComponentPowerSampler() = default;
  // Whether the counters could be subscribed to at all.
  virtual bool isAvailable() const = 0;
  // Measures across `interval` and returns the average power, or nothing on failure.
  virtual std::optional<ComponentPower> sample(Seconds interval) = 0;
};

// Whole-machine power rails.
class PowerRailReader {
 public:
  virtual ~PowerRailReader() = default;
  virtual std::optional<SystemPowerRails> sample() = 0;
};

// The system's thermal state, as last observed. Thread-safe: the sampler updates it on its own
// schedule and the monitor reads it on the poll queue.
class ThermalStateSource {
 public:
  virtual ~ThermalStateSource() = default;
  virtual ThermalState currentThermalState() const = 0;
};

}  // namespace quorel
