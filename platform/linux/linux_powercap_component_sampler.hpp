#pragma once
// Per-component power on Linux, from the RAPL energy counters under the powercap class. The
// cores are the "core" zone (or, where a package has none, the package less its uncore and
// memory), memory the "dram" zone. Graphics is the discrete GPUs' own hwmon readings, added up,
// where any has one, and the "uncore" zone (integrated graphics) otherwise; an integrated GPU's
// reading already holds the processor's power and is never used. The kernel has no counter for
// efficiency cores or neural units, so those stay 0. Several packages add up.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "platform/linux/gpu_hwmon_power.hpp"
#include "platform/linux/powercap_energy_counters.hpp"
#include "telemetry/power_data_provider.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

class LinuxPowercapComponentSampler final : public ComponentPowerSampler {
 public:
  // Above this one zone's (or one GPU's) figure is a counter glitch, not power, and contributes 0.
  static constexpr double kMaxZoneWatts = 100;
  // After this many failed samples in a row the zones are discovered afresh.
  static constexpr long kRediscoverAfterFailures = 3;

  // `powercapRoot` is e.g. /sys/class/powercap; the GPUs are looked for in the DRM class beside
  // it (/sys/class/drm). Discovers the zones and checks that their counters may be read; `read`
  // and `clocks` are the seams for tests.
  explicit LinuxPowercapComponentSampler(std::filesystem::path powercapRoot,
                                         AttributeReader read = sysfsAttributeReader(),
                                         KernelClockSource clocks = readKernelClocks);
  ~LinuxPowercapComponentSampler() override;
  LinuxPowercapComponentSampler(const LinuxPowercapComponentSampler&) = delete;
  LinuxPowercapComponentSampler& operator=(const LinuxPowercapComponentSampler&) = delete;

  bool isAvailable() const override { return available_; }
  std::optional<ComponentPower> sample() override;

 private:
  void discover();
  void discoverGpus();
  std::optional<ComponentPower> recordFailure(const std::string& what);
  void reportDenied();
  ComponentPower combine(const EnergyCounterSet::Reading& reading);

  std::filesystem::path root_;
  AttributeReader read_;
  KernelClockSource clocks_;
  std::shared_ptr<spdlog::logger> log_;
  std::unique_ptr<EnergyCounterSet> counters_;
  std::unique_ptr<GpuPowerMeter> gpus_;  // the discrete GPUs with a reading
  bool available_ = false;
  bool deniedLogged_ = false;
  long consecutiveFailures_ = 0;
  std::set<std::string> loggedUnknownZones_;
};

}  // namespace quorel
