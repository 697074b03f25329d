#pragma once
// The seams through which the monitor reads the machine. Real adapters live under platform/;
// the simulated machine and the tests' scripted sources implement the same contracts.

#include <memory>
#include <optional>

#include "core/clock.hpp"
#include "core/component_power.hpp"
#include "core/power_phase.hpp"
#include "core/power_snapshot.hpp"

namespace quorel {

// A source of battery and adapter readings. Called on the poll queue only; must not block for
// long.
class PowerDataProvider {
 public:
  virtual ~PowerDataProvider() = default;

  // Absent when nothing could be read on this tick; the monitor counts that as a failed tick.
  virtual std::optional<PowerSnapshot> fetchSnapshot() = 0;
};

// Per-component power from cumulative energy counters. Each call reads the counters once and
// never waits: the figure is the average between this reading and the previous call's.
class ComponentPowerSampler {
 public:
  virtual ~ComponentPowerSampler() = default;
  // Whether the counters can be read at all.
  virtual bool isAvailable() const = 0;
  // The average power since the previous call. Nothing on the first call, and nothing when the
  // pair of readings cannot be used (a counter failed to read, the machine slept in between).
  virtual std::optional<ComponentPower> sample() = 0;
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

// One machine's complete set of sources. The monitor swaps them as a whole, so that no tick mixes
// readings of the real machine with those of the simulated one, and no simulated tick is stored.
struct PowerSources {
  std::shared_ptr<PowerDataProvider> provider;
  // Asked from the third consecutive failed tick on; may be null.
  std::shared_ptr<PowerDataProvider> fallbackProvider;
  // Each optional: a machine without the source simply reports the figure as unavailable. The
  // sampler, the reader and the providers are called on the poll queue only.
  std::shared_ptr<ComponentPowerSampler> componentSampler;
  std::shared_ptr<PowerRailReader> railReader;
  std::shared_ptr<const ThermalStateSource> thermalSource;
  // False for the simulated machine, which must leave nothing behind in the history store.
  bool recordHistory = true;
};

}  // namespace quorel
