#include "platform/linux/linux_power_source_fallback_provider.hpp"

#include <cmath>

#include "platform/linux/power_supply_scan.hpp"

namespace quorel {

namespace {

std::optional<std::int64_t> positiveMinutes(const sysfs::SysfsDevice& d, std::string_view name) {
  auto seconds = d.integerProperty(name);
  if (!seconds || *seconds <= 0) return std::nullopt;
  auto minutes = static_cast<std::int64_t>(std::llround(static_cast<double>(*seconds) / 60.0));
  if (minutes <= 0) return std::nullopt;
  return minutes;
}

// The percentage as the driver states it, or, failing that, from what it holds over what it
// holds when full, in whichever of charge or energy it reports.
std::optional<std::int64_t> currentPercent(const sysfs::SysfsDevice& d) {
  if (auto capacity = d.integerProperty("capacity");
      capacity && *capacity >= 0 && *capacity <= 100) {
    return capacity;
  }
  for (auto [nowName, fullName] :
       {std::pair{"charge_now", "charge_full"}, std::pair{"energy_now", "energy_full"}}) {
    auto now = d.integerProperty(nowName);
    auto full = d.integerProperty(fullName);
    if (now && full && *now >= 0 && *full > 0) {
      return std::min<std::int64_t>(
          100, std::llround(static_cast<double>(*now) * 100.0 / static_cast<double>(*full)));
    }
  }
  return std::nullopt;
}

}  // namespace

LinuxPowerSourceFallbackProvider::LinuxPowerSourceFallbackProvider(
    std::filesystem::path powerSupplyRoot, const Clock& clock)
    : root_(std::move(powerSupplyRoot)), clock_(clock) {}

std::optional<PowerSnapshot> LinuxPowerSourceFallbackProvider::fetchSnapshot() {
  auto scan = scanPowerSupplies(root_);
  if (scan.error) return std::nullopt;

  // The first battery of this machine; failing that, the first supply at all. A UPS and a
  // peripheral's battery are passed over, as is a supply that cannot be read.
  const PowerSupplyEntry* chosen = nullptr;
  for (const auto& supply : scan.supplies) {
    if (supply.isSystemBattery()) {
      chosen = &supply;
      break;
    }
  }
  if (chosen == nullptr) {
    for (const auto& supply : scan.supplies) {
      if (supply.type && *supply.type != PowerSupplyType::ups && !supply.isPeripheralBattery()) {
        chosen = &supply;
        break;
      }
    }
  }

  bool anyExternalListed = false;
  bool externalConnected = false;
  for (const auto& supply : scan.supplies) {
    if (!supply.isExternalSource()) continue;
    anyExternalListed = true;
    if (supply.isOnline() == true) externalConnected = true;
  }

  PowerSnapshot s;
  s.timestamp = clock_.now();
  if (chosen == nullptr) {
    s.externalConnected = externalConnected;
    return s;
  }

  const auto& d = chosen->device;
  const bool isBattery = chosen->isSystemBattery();
  const auto status = isBattery ? d.property("status") : std::nullopt;
  const bool charging = status == std::optional<std::string>("Charging");
  if (!anyExternalListed && status) {
    externalConnected = *status == "Charging" || *status == "Full" || *status == "Not charging";
  }

  std::optional<std::int64_t> current;
  std::optional<std::int64_t> maximum;
  if (isBattery && chosen->isPresent()) {
    current = currentPercent(d);
    // Linux states a percentage, not a pair of capacities; 100 is the maximum it is taken of.
    if (current) maximum = 100;
  }
  const auto timeToEmpty =
      isBattery ? positiveMinutes(d, "time_to_empty_now") : std::optional<std::int64_t>{};
  const auto timeToFull =
      isBattery ? positiveMinutes(d, "time_to_full_now") : std::optional<std::int64_t>{};

  s.isCharging = charging;
  s.externalConnected = externalConnected;
  s.batteryInstalled = isBattery && maximum.has_value();
  if (status == std::optional<std::string>("Full")) {
    s.fullyCharged = true;
  } else if (externalConnected && !charging) {
    s.fullyCharged = maximum ? current.value_or(0) >= *maximum : !current.has_value();
  }
  s.timeRemaining_min = charging ? timeToFull : timeToEmpty;
  s.avgTimeToEmpty_min = timeToEmpty;
  if (maximum && *maximum > 0 && current) {
    s.iopsPercent =
        std::llround(static_cast<double>(*current) * 100.0 / static_cast<double>(*maximum));
  }
  return s;
}

}  // namespace quorel
