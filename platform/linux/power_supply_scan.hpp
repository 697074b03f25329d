#pragma once
// The supplies the kernel's power-supply class lists, each classified once: is it this
// machine's battery, a peripheral's battery, or a source of external power? Shared by the
// providers and by the start-up choice between the real machine and the simulated one.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/sysfs_attributes.hpp"

namespace quorel {

enum class PowerSupplyType { battery, mains, usb, ups, wireless, unknown };

// The kernel's type text ("Battery", "Mains", "USB", "USB_PD", ...) classified.
PowerSupplyType parsePowerSupplyType(std::string_view text);

struct PowerSupplyEntry {
  std::string name;
  sysfs::SysfsDevice device;
  // Absent when neither the uevent nor the type attribute could be read.
  std::optional<PowerSupplyType> type;
  // Scope "Device": the supply powers a peripheral (a mouse, a pen), not this machine.
  bool deviceScope = false;

  bool isSystemBattery() const { return type == PowerSupplyType::battery && !deviceScope; }
  bool isPeripheralBattery() const { return type == PowerSupplyType::battery && deviceScope; }
  // Mains, USB and wireless chargers feed the machine; a UPS is treated as neither.
  bool isExternalSource() const;
  // "present" as reported; drivers that do not report it are taken as present.
  bool isPresent() const;
  // "online" as reported; absent when the driver does not say.
  std::optional<bool> isOnline() const;
};

struct PowerSupplyScan {
  std::vector<PowerSupplyEntry> supplies;  // in name order
  // Set when the class directory could not be listed; `supplies` is then empty.
  std::optional<std::string> error;
};

// Lists and classifies every supply under `powerSupplyRoot` (e.g. /sys/class/power_supply).
PowerSupplyScan scanPowerSupplies(const std::filesystem::path& powerSupplyRoot);

// Whether a battery that powers this machine is present under `powerSupplyRoot`.
bool hasSystemBattery(const std::filesystem::path& powerSupplyRoot);

// The start-up decision between this computer's power supply and the simulated machine.
struct PowerSourceChoice {
  bool useLinuxProvider = false;
  // One sentence for the log, saying what was found and what the agent does about it.
  std::string description;
};

PowerSourceChoice choosePowerSource(const std::filesystem::path& powerSupplyRoot,
                                    bool sandboxRequested);

}  // namespace quorel
