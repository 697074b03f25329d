#pragma once
// Other charge-limit managers on this machine, each found from what it leaves behind: its
// configuration asking for thresholds together with the program or its unit being installed, or
// the power daemon saying its threshold is on. Nothing is reported from a guess: a leftover
// configuration of a removed program, an unreadable file or a bus that does not answer all count
// as absent.
//
// Every path is looked up beneath an injectable root ("/" on a real machine), so tests run on
// fixture trees. Blocking file reads and, through `UPowerChargeThresholds`, a bounded bus call:
// run it off the main queue. Not thread-safe.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "control/battery_charge_reading.hpp"
#include "control/charge_observation.hpp"

namespace quorel {

struct UPowerBatteryThreshold {
  std::string devicePath;  // e.g. /org/freedesktop/UPower/devices/battery_BAT0
  bool enabled = false;    // ChargeThresholdEnabled

  bool operator==(const UPowerBatteryThreshold&) const = default;
};

// The power daemon's charge-threshold switch of each battery device that has one.
class UPowerChargeThresholds {
 public:
  virtual ~UPowerChargeThresholds() = default;
  // Absent when the bus or the daemon could not be asked; a daemon too old to have the
  // property lists no device.
  virtual std::optional<std::vector<UPowerBatteryThreshold>> batteryThresholds() = 0;
};

// One KEY=VALUE of TLP's configuration that sets a charge threshold, where it was last set.
struct TlpThresholdSetting {
  std::string key;  // e.g. STOP_CHARGE_THRESH_BAT0
  std::string value;
  std::filesystem::path file;  // as seen on the machine, without the injected root

  bool operator==(const TlpThresholdSetting&) const = default;
};

struct TlpConfiguration {
  bool enabled = true;                          // TLP_ENABLE=0 turns all of TLP off
  std::vector<TlpThresholdSetting> thresholds;  // in key order; empty values dropped
};

// Reads /etc/tlp.d/*.conf in name order, then /etc/tlp.conf, the last setting of a key winning:
// the order TLP itself reads them in, so the main file overrides the drop-ins. Commented lines
// are skipped.
TlpConfiguration readTlpConfiguration(const std::filesystem::path& root);

struct SystemdUnitState {
  bool installed = false;  // a unit file in /etc, /usr/lib or /lib systemd/system
  bool enabled = false;    // linked in some /etc/systemd/system/*.wants directory
  bool masked = false;     // /etc/systemd/system/<unit> points at /dev/null
};
SystemdUnitState systemdUnitState(const std::filesystem::path& root, std::string_view unit);

class ChargeLimitConflictDetector {
 public:
  // `upower` may be null (no bus client wanted); it must outlive the detector otherwise.
  ChargeLimitConflictDetector(std::filesystem::path root, UPowerChargeThresholds* upower);

  // Looks again at every manager. `battery` is this machine's battery as last read, for the
  // managers that leave nothing but the threshold itself behind.
  ConflictReport reevaluate(const std::optional<BatteryChargeReading>& battery);

 private:
  std::optional<ChargeLimitConflict> detectTlp() const;
  std::optional<ChargeLimitConflict> detectUPower() const;
  std::optional<ChargeLimitConflict> detectDesktop(
      const std::optional<BatteryChargeReading>& battery) const;
  std::optional<ChargeLimitConflict> detectAsusd() const;
  std::optional<ChargeLimitConflict> detectAutoCpufreq() const;
  bool exists(const std::filesystem::path& absolute) const;

  std::filesystem::path root_;
  UPowerChargeThresholds* upower_;
};

}  // namespace quorel
