#pragma once
// Whole-machine power rails on Linux: the platform ("psys") energy zone as the system's total,
// the battery's own power, and the adapter's input where its supply reports voltage and current.
// The kernel offers no per-port or backlight rails, so those fields stay absent.

#include <filesystem>
#include <memory>
#include <optional>

#include "platform/linux/powercap_energy_counters.hpp"
#include "telemetry/power_data_provider.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

// The raw figures of one sample, in watts, before the plausibility rules.
struct RawPowerRails {
  std::optional<double> systemTotalWatts;
  std::optional<double> batteryWatts;
  std::optional<double> dcInWatts;
};

// The rules every rail figure passes: non-finite or beyond 400 W either way is absent, the rest
// is rounded to hundredths; the battery's figure is a magnitude, the others are floored at 0.
// Nothing at all is absent, so that no rails can be told from rails reading 0.
std::optional<SystemPowerRails> plausibleRails(const RawPowerRails& raw);

class LinuxPowerRailReader final : public PowerRailReader {
 public:
  static constexpr double kMaxRailWatts = 400;

  // `sysfsRoot` is e.g. /sys: the powercap and power-supply classes are read under it.
  explicit LinuxPowerRailReader(const std::filesystem::path& sysfsRoot,
                                AttributeReader read = sysfsAttributeReader(),
                                KernelClockSource clocks = readKernelClocks);
  ~LinuxPowerRailReader() override;
  LinuxPowerRailReader(const LinuxPowerRailReader&) = delete;
  LinuxPowerRailReader& operator=(const LinuxPowerRailReader&) = delete;

  // The system total needs two readings of the psys counter, so it is absent on the first call
  // and after a sleep; the battery and adapter figures are instantaneous.
  std::optional<SystemPowerRails> sample() override;

 private:
  std::optional<double> systemTotal();

  std::filesystem::path powerSupplyRoot_;
  std::shared_ptr<spdlog::logger> log_;
  std::unique_ptr<EnergyCounterSet> psys_;
  bool psysUnreadableLogged_ = false;
};

}  // namespace quorel
