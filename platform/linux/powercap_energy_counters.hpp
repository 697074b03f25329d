#pragma once
// The kernel's cumulative energy counters under the powercap class (normally
// /sys/class/powercap): which zones exist, and the average power of each between two readings.
// Shared by the component sampler and the whole-machine rail reader.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/clock.hpp"

namespace quorel {

// The two kernel clocks that together tell a suspend apart from elapsed time: both advance
// while the machine runs, only the boot-time clock advances while it sleeps.
struct KernelClockReading {
  Seconds monotonic{0};
  Seconds boottime{0};
};
using KernelClockSource = std::function<KernelClockReading()>;

// CLOCK_MONOTONIC and CLOCK_BOOTTIME, read one after the other.
KernelClockReading readKernelClocks();

// Reads a small attribute file; on failure absent, with errno in `error`. The seam through which
// tests stand in for a kernel that refuses an unprivileged reader.
using AttributeReader =
    std::function<std::optional<std::string>(const std::filesystem::path&, int* error)>;
AttributeReader sysfsAttributeReader();

enum class PowercapZoneKind { package, core, uncore, dram, psys, unknown };

struct PowercapZone {
  std::string id;       // the directory name, e.g. "intel-rapl:0:1"
  std::string groupId;  // the package zone it belongs to, e.g. "intel-rapl:0"; itself when top
  std::string name;     // as the `name` file says, e.g. "package-0", "uncore"
  PowercapZoneKind kind = PowercapZoneKind::unknown;
  std::filesystem::path dir;
  // Where the counter wraps; absent when the kernel does not say.
  std::optional<std::uint64_t> maxEnergyRange_uJ;
};

// "package-N", "core", "uncore", "dram", "psys"; anything else is unknown.
PowercapZoneKind powercapZoneKind(std::string_view name);

// Whether a powercap directory name is an energy zone, "<vendor>-rapl:N" or "<vendor>-rapl:N:M";
// the group id is the "<vendor>-rapl:N" part. The memory-mapped duplicates ("intel-rapl-mmio:N")
// and the control-type directories are not zones: counting them would count a package twice.
std::optional<std::string> powercapZoneGroup(std::string_view directoryName);

struct PowercapDiscovery {
  std::vector<PowercapZone> zones;   // in directory-name order
  std::optional<std::string> error;  // set when the class directory could not be listed
};

// Every energy zone under `powercapRoot` with a readable name. Only the world-readable
// attributes are read here; energy_uj is read by EnergyCounterSet.
PowercapDiscovery discoverPowercapZones(const std::filesystem::path& powercapRoot,
                                        const AttributeReader& read);

// The power of a fixed set of zones between consecutive readings.
class EnergyCounterSet {
 public:
  enum class Outcome {
    first,         // a baseline was taken; nothing to compare with yet
    measured,      // `watts` holds one figure per zone
    tooShort,      // too little time since the baseline; it is kept for the next reading
    sleptBetween,  // the machine slept between the readings; the new one is the baseline
    denied,        // the kernel refuses energy_uj to this user (EACCES, EPERM)
    failed,        // a counter could not be read; the baseline is dropped
  };
  struct Reading {
    Outcome outcome = Outcome::first;
    // Per zone, in the set's order; absent for a counter that went backwards without a known
    // wrap range.
    std::vector<std::optional<double>> watts;
    Seconds interval{0};
    Seconds slept{0};
    std::string failure;  // what failed, for the log
  };

  // Below this a pair says more about the counters' update granularity than about power.
  static constexpr Seconds kMinimumInterval{0.05};
  // The two kernel clocks are read one after the other, so their difference jitters by
  // microseconds; anything beyond this is time the machine spent suspended.
  static constexpr Seconds kSleepTolerance{0.1};

  EnergyCounterSet(std::vector<PowercapZone> zones, AttributeReader read, KernelClockSource clocks);

  const std::vector<PowercapZone>& zones() const { return zones_; }
  Reading read();
  // Forgets the baseline, so that the next reading starts afresh.
  void reset() { previous_.reset(); }

 private:
  struct Snapshot {
    KernelClockReading clocks;
    std::vector<std::uint64_t> energy_uJ;
  };

  std::vector<PowercapZone> zones_;
  AttributeReader read_;
  KernelClockSource clocks_;
  std::optional<Snapshot> previous_;
};

// Energy between two counter values in microjoules, through one wrap at `maxRange`. Absent when
// the counter went backwards and the range is unknown or smaller than the earlier value.
std::optional<std::uint64_t> energyDelta_uJ(std::uint64_t previous, std::uint64_t current,
                                            std::optional<std::uint64_t> maxRange);

}  // namespace quorel
