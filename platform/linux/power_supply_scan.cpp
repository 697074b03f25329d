#include "platform/linux/power_supply_scan.hpp"

#include <fmt/format.h>

#include <cstring>

#include "core/enum_text.hpp"

namespace quorel {

namespace {
constexpr std::string_view kUeventPrefix = "POWER_SUPPLY_";

std::string joinNames(const std::vector<std::string>& names) {
  std::string out;
  for (const auto& n : names) {
    if (!out.empty()) out += ", ";
    out += n;
  }
  return out;
}
}  // namespace

PowerSupplyType parsePowerSupplyType(std::string_view text) {
  // A BrickID is the USB-like dock charger of some tablets.
  static constexpr EnumTextTable<PowerSupplyType, 6> kTypes{{{
      {PowerSupplyType::battery, "Battery"},
      {PowerSupplyType::mains, "Mains"},
      {PowerSupplyType::ups, "UPS"},
      {PowerSupplyType::wireless, "Wireless"},
      {PowerSupplyType::usb, "USB"},
      {PowerSupplyType::usb, "BrickID"},
  }}};
  text = sysfs::trim(text);
  if (auto type = kTypes.parse(text)) return *type;
  // Older kernels give each USB charger flavour its own type (USB_DCP, USB_C, USB_PD, ...).
  if (text.substr(0, 4) == "USB_") return PowerSupplyType::usb;
  return PowerSupplyType::unknown;
}

bool PowerSupplyEntry::isExternalSource() const {
  if (deviceScope || !type) return false;
  return *type == PowerSupplyType::mains || *type == PowerSupplyType::usb ||
         *type == PowerSupplyType::wireless;
}

bool PowerSupplyEntry::isPresent() const {
  auto present = device.integerProperty("present");
  return !present || *present != 0;
}

std::optional<bool> PowerSupplyEntry::isOnline() const {
  auto online = device.integerProperty("online");
  if (!online) return std::nullopt;
  return *online != 0;
}

PowerSupplyScan scanPowerSupplies(const std::filesystem::path& powerSupplyRoot) {
  PowerSupplyScan scan;
  int error = 0;
  auto names = sysfs::listDirectory(powerSupplyRoot, &error);
  if (!names) {
    scan.error = fmt::format("cannot list {} ({})", powerSupplyRoot.string(), std::strerror(error));
    return scan;
  }
  scan.supplies.reserve(names->size());
  for (auto& name : *names) {
    sysfs::SysfsDevice device(powerSupplyRoot / name, kUeventPrefix);
    std::optional<PowerSupplyType> type;
    if (auto text = device.attribute("type")) type = parsePowerSupplyType(*text);
    bool deviceScope = device.property("scope") == std::optional<std::string>("Device");
    scan.supplies.push_back(
        PowerSupplyEntry{std::move(name), std::move(device), type, deviceScope});
  }
  return scan;
}

bool hasSystemBattery(const std::filesystem::path& powerSupplyRoot) {
  for (const auto& supply : scanPowerSupplies(powerSupplyRoot).supplies) {
    if (supply.isSystemBattery() && supply.isPresent()) return true;
  }
  return false;
}

PowerSourceChoice choosePowerSource(const std::filesystem::path& powerSupplyRoot,
                                    bool sandboxRequested) {
  if (sandboxRequested) {
    return {false,
            "the simulated machine was asked for — its battery stands in for this computer's"};
  }
  auto scan = scanPowerSupplies(powerSupplyRoot);
  if (scan.error) {
    return {false, fmt::format("{} — no battery can be read here, so the simulated machine runs "
                               "instead",
                               *scan.error)};
  }
  std::vector<std::string> batteries;
  std::vector<std::string> peripherals;
  for (const auto& supply : scan.supplies) {
    if (supply.isSystemBattery() && supply.isPresent()) batteries.push_back(supply.name);
    if (supply.isPeripheralBattery()) peripherals.push_back(supply.name);
  }
  const std::string where = powerSupplyRoot.string();
  if (!batteries.empty()) {
    return {true, fmt::format("{} {} found in {} — reading this computer's {}",
                              batteries.size() == 1 ? "battery" : "batteries", joinNames(batteries),
                              where, batteries.size() == 1 ? "battery" : "batteries")};
  }
  if (!peripherals.empty()) {
    return {false,
            fmt::format("no battery of this computer in {} ({} {}) — running the "
                        "simulated machine instead",
                        where, joinNames(peripherals),
                        peripherals.size() == 1 ? "powers a peripheral" : "power peripherals")};
  }
  return {false,
          fmt::format("no battery found in {} — running the simulated machine instead", where)};
}

}  // namespace quorel
