#include "platform/linux/linux_power_rail_reader.hpp"

#include <spdlog/logger.h>

#include <cmath>

#include "core/logging.hpp"
#include "platform/linux/power_supply_scan.hpp"
#include "platform/linux/sysfs_attributes.hpp"

namespace quorel {

namespace {

// The kernel's power-supply units: µV, µA, µW.
constexpr double kMicro = 1e-6;

std::optional<double> railWatts(std::optional<double> value, bool magnitude) {
  if (!value || !std::isfinite(*value) || std::fabs(*value) > LinuxPowerRailReader::kMaxRailWatts) {
    return std::nullopt;
  }
  const double rounded = std::round(*value * 100) / 100;
  return magnitude ? std::fabs(rounded) : std::max(0.0, rounded);
}

std::optional<double> voltageTimesCurrent(const sysfs::SysfsDevice& device) {
  auto voltage = device.integerProperty("voltage_now");
  auto current = device.integerProperty("current_now");
  if (!voltage || !current) return std::nullopt;
  return static_cast<double>(*voltage) * kMicro * static_cast<double>(*current) * kMicro;
}

// What the pack itself delivers or takes, whichever way: drivers disagree on the sign.
std::optional<double> batteryPower(const PowerSupplyEntry& supply) {
  if (auto power = supply.device.integerProperty("power_now")) {
    return std::fabs(static_cast<double>(*power) * kMicro);
  }
  if (auto product = voltageTimesCurrent(supply.device)) return std::fabs(*product);
  return std::nullopt;
}

std::optional<double> addTo(std::optional<double> sum, std::optional<double> value) {
  if (!value) return sum;
  return sum.value_or(0) + *value;
}

}  // namespace

std::optional<SystemPowerRails> plausibleRails(const RawPowerRails& raw) {
  SystemPowerRails rails;
  rails.systemTotalWatts = railWatts(raw.systemTotalWatts, false);
  rails.batteryWatts = railWatts(raw.batteryWatts, true);
  rails.dcInWatts = railWatts(raw.dcInWatts, false);
  if (!rails.systemTotalWatts && !rails.batteryWatts && !rails.dcInWatts) return std::nullopt;
  return rails;
}

LinuxPowerRailReader::LinuxPowerRailReader(const std::filesystem::path& sysfsRoot,
                                           AttributeReader read, KernelClockSource clocks)
    : powerSupplyRoot_(sysfs::powerSupplyClassPath(sysfsRoot)), log_(logging::get("PowerRail")) {
  PowercapDiscovery discovery = discoverPowercapZones(sysfs::powercapClassPath(sysfsRoot), read);
  std::erase_if(discovery.zones,
                [](const PowercapZone& z) { return z.kind != PowercapZoneKind::psys; });
  log_->info("init: platform energy zone {}", discovery.zones.empty() ? "absent" : "present");
  if (!discovery.zones.empty()) {
    psys_ = std::make_unique<EnergyCounterSet>(std::move(discovery.zones), std::move(read),
                                               std::move(clocks));
  }
}

LinuxPowerRailReader::~LinuxPowerRailReader() = default;

std::optional<double> LinuxPowerRailReader::systemTotal() {
  if (!psys_) return std::nullopt;
  const EnergyCounterSet::Reading reading = psys_->read();
  switch (reading.outcome) {
    case EnergyCounterSet::Outcome::measured: {
      std::optional<double> total;
      for (const auto& watts : reading.watts) total = addTo(total, watts);
      return total;
    }
    case EnergyCounterSet::Outcome::denied:
    case EnergyCounterSet::Outcome::failed:
      if (!psysUnreadableLogged_) {
        psysUnreadableLogged_ = true;
        log_->info("sample: {} — system total unavailable", reading.failure);
      }
      return std::nullopt;
    default:
      return std::nullopt;
  }
}

std::optional<SystemPowerRails> LinuxPowerRailReader::sample() {
  RawPowerRails raw;
  raw.systemTotalWatts = systemTotal();
  const PowerSupplyScan scan = scanPowerSupplies(powerSupplyRoot_);
  for (const auto& supply : scan.supplies) {
    if (!supply.isPresent()) continue;
    if (supply.isSystemBattery()) {
      raw.batteryWatts = addTo(raw.batteryWatts, batteryPower(supply));
    } else if (supply.isExternalSource() && supply.isOnline() != false) {
      raw.dcInWatts = addTo(raw.dcInWatts, voltageTimesCurrent(supply.device));
    }
  }
  return plausibleRails(raw);
}

}  // namespace quorel
