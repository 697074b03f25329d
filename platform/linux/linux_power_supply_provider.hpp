#pragma once
// The primary power data provider on Linux: the kernel's power-supply class (normally
// /sys/class/power_supply) read into one PowerSnapshot per call. Like the registry provider it
// stands in for, it keeps no reading between calls; the only state it holds is what it has
// already logged, so that a reason is logged once per change rather than on every tick.

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/clock.hpp"
#include "telemetry/power_data_provider.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

// How a pack's stored charge became the snapshot's milliampere-hours. Drivers that report
// energy (µWh) are converted through a voltage, the design one when the pack states it.
enum class CapacityConversion {
  none,                 // the pack reports neither charge nor energy
  reportsCharge,        // charge_* in µAh, no conversion
  viaVoltageMinDesign,  // energy_* over voltage_min_design
  viaVoltageMaxDesign,  // energy_* over voltage_max_design
  viaVoltageNow,        // energy_* over voltage_now, the pack stating no design voltage
};
std::string_view toString(CapacityConversion conversion);

// Where a pack's current came from.
enum class CurrentSource { currentNow, powerNow, none };
std::string_view toString(CurrentSource source);

struct PowerSupplyPackDiagnostics {
  std::string name;
  std::string status;  // as the driver reports it, "Unknown" when it does not
  CapacityConversion capacityConversion = CapacityConversion::none;
  CurrentSource currentSource = CurrentSource::none;
  // The driver's sign disagreed with its status (a positive current while discharging).
  bool currentSignCorrected = false;
  // False when cycle_count is missing or 0: the snapshot then carries 0, meaning unknown.
  bool cycleCountKnown = false;
  bool operator==(const PowerSupplyPackDiagnostics&) const = default;
};

// What a reading had to assume or leave out, for the log and a diagnostics report.
struct PowerSupplyDiagnostics {
  std::vector<PowerSupplyPackDiagnostics> packs;
  std::vector<std::string> ignoredPeripherals;  // batteries of scope "Device"
  std::vector<std::string> absentPacks;         // system batteries reporting present 0
  std::optional<std::string> adapterSupply;     // the online supply the adapter figures are from
  // No mains or USB supply is listed, so external power was told from the battery's status.
  bool externalPowerInferredFromStatus = false;

  // One lower-case sentence per assumption, e.g. "BAT0 reports energy, not charge — converted
  // through voltage_min_design".
  std::vector<std::string> notes() const;
  bool operator==(const PowerSupplyDiagnostics&) const = default;
};

struct PowerSupplyReading {
  std::optional<PowerSnapshot> snapshot;
  PowerSupplyDiagnostics diagnostics;
  // Why there is no snapshot, e.g. "battery BAT0 gives no usable voltage_now".
  std::optional<std::string> failure;
};

// A battery's charge thresholds, for the charge-limit observation. Each part is absent when
// the driver does not offer it or the value is malformed.
struct ChargeControlReading {
  std::string supply;
  std::optional<std::int64_t> startThreshold_percent;  // charge_control_start_threshold
  std::optional<std::int64_t> endThreshold_percent;    // charge_control_end_threshold
  std::optional<std::string> behaviour;                // the selected charge_behaviour, e.g. "auto"
  std::vector<std::string> availableBehaviours;        // every charge_behaviour offered
  bool operator==(const ChargeControlReading&) const = default;
};

class LinuxPowerSupplyProvider final : public PowerDataProvider {
 public:
  static constexpr std::string_view kDefaultRoot = "/sys/class/power_supply";

  // `powerSupplyRoot` is the class directory itself (e.g. /sys/class/power_supply); `clock`
  // stamps the snapshots and must outlive the provider.
  LinuxPowerSupplyProvider(std::filesystem::path powerSupplyRoot, const Clock& clock);
  ~LinuxPowerSupplyProvider() override;
  LinuxPowerSupplyProvider(const LinuxPowerSupplyProvider&) = delete;
  LinuxPowerSupplyProvider& operator=(const LinuxPowerSupplyProvider&) = delete;

  // read(), with failures counted and reasons logged (category "PowerSupply") once per change.
  // Called on the poll queue only.
  std::optional<PowerSnapshot> fetchSnapshot() override;

  // One reading of the tree with its diagnostics; no logging, no counting. Thread-safe.
  PowerSupplyReading read() const;

  // The charge thresholds of every system battery that offers any. Thread-safe.
  std::vector<ChargeControlReading> readChargeControl() const;

  // Calls of fetchSnapshot that returned nothing, since construction. Thread-safe.
  std::uint64_t failedReadCount() const { return failedReads_.load(); }

  const std::filesystem::path& root() const { return root_; }

 private:
  std::filesystem::path root_;
  const Clock& clock_;
  std::shared_ptr<spdlog::logger> log_;
  std::atomic<std::uint64_t> failedReads_{0};
  // Touched by fetchSnapshot only, which runs on one queue.
  std::uint64_t consecutiveFailures_ = 0;
  std::optional<std::string> loggedFailure_;
  std::vector<std::string> loggedNotes_;
};

}  // namespace quorel
