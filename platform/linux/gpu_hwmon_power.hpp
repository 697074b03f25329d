#pragma once
// A GPU's own power reading, from the hwmon device its driver registers beside the card under
// the DRM class (normally /sys/class/drm): `cardN/device/hwmon/hwmonM/`. Drivers offer either a
// cumulative energy counter (`energy1_input`, microjoules) or a power figure (`power1_average`
// or `power1_input`, microwatts).

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/powercap_energy_counters.hpp"

namespace quorel {

enum class GpuReadingKind {
  energy,        // energy1_input: averaged between reads like the powercap counters
  averagePower,  // power1_average: the driver's own average
  instantPower,  // power1_input
};

struct GpuPowerSource {
  std::string card;  // "card1"
  std::filesystem::path device;
  std::filesystem::path file;
  GpuReadingKind kind = GpuReadingKind::energy;
  // The GPU shares the processor's die and its reading covers the whole package, processor
  // included; see isIntegratedGpu.
  bool integrated = false;
};

// The rule for telling an integrated GPU: its driver reports a dedicated memory size
// (`device/mem_info_vram_total`) of at most this. Such a small "dedicated" memory is the
// firmware's carve-out of system memory, not memory on a card of its own; discrete cards carry
// more. A GPU whose driver reports no size is taken for discrete: the drivers that give a power
// reading for an integrated GPU are the ones that report this size.
inline constexpr std::int64_t kMaxIntegratedGpuMemory_bytes = std::int64_t{2} << 30;

// `device` is the card's device directory.
bool isIntegratedGpu(const std::filesystem::path& device, const AttributeReader& read);

// The cards (`cardN`, not their connectors) with a power or energy reading, in name order. The
// energy counter is preferred, then the average, then the instant figure.
std::vector<GpuPowerSource> discoverGpuPowerSources(const std::filesystem::path& drmRoot,
                                                    const AttributeReader& read);

// The power of a fixed set of GPUs between consecutive reads. Not thread-safe.
class GpuPowerMeter {
 public:
  GpuPowerMeter(std::vector<GpuPowerSource> sources, AttributeReader read,
                KernelClockSource clocks);

  const std::vector<GpuPowerSource>& sources() const { return sources_; }

  // Watts per source, in the set's order. A power figure is taken as it stands; an energy
  // counter gives its average since the previous read. A card the kernel has put to sleep
  // (runtime power management) is 0 W and is not read: on some kernels a read wakes it.
  // Absent for a source that could not be read, on a counter's first read, when it went
  // backwards, and when the machine slept since the previous read.
  std::vector<std::optional<double>> read();
  // Forgets the counters' baselines.
  void reset();

 private:
  std::vector<GpuPowerSource> sources_;
  AttributeReader read_;
  KernelClockSource clocks_;
  std::optional<KernelClockReading> previousClocks_;
  std::vector<std::optional<std::uint64_t>> previousEnergy_uJ_;
};

}  // namespace quorel
