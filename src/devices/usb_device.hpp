#pragma once
// The record of one device attached by USB, with the small classifications it carries.
// Bus power figures are in milliamperes, already doubled from the registry's 2 mA units.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorel {

// Raw values are the registry's "Device Speed".
enum class USBSpeed {
  full = 0,
  low = 1,
  high = 2,
  superSpeed = 3,
  superSpeedPlus = 4,
  superSpeedPlusGen2x2 = 5,
  unknown = 6,
};

// "USB 1.1", "USB 2.0", ...; "USB" for unknown.
std::string_view shortLabel(USBSpeed speed);
// A value without a case, or none at all, is unknown.
USBSpeed usbSpeedFromRaw(std::optional<std::int64_t> raw);

enum class DeviceType {
  hub,
  storage,
  audio,
  hid,
  camera,
  printer,
  network,
  smartCard,
  wireless,
  vendor,
  unknown,
};

// The raw value, equal to the case name.
std::string_view toString(DeviceType type);
std::optional<DeviceType> deviceTypeFromString(std::string_view raw);
// From the USB device class code; classes that say nothing about the device give unknown.
DeviceType deviceTypeFromClass(std::int64_t classCode);
// From words in the product name, for devices whose class says nothing.
DeviceType deviceTypeFromName(std::string_view name);

struct USBDevice {
  std::string id;
  std::string name;
  std::optional<std::string> vendorName;
  std::int64_t vendorID = 0;
  std::int64_t productID = 0;
  USBSpeed speed = USBSpeed::unknown;
  std::optional<std::int64_t> busPowerAvailable_mA;
  std::optional<std::int64_t> busPowerUsed_mA;
  std::optional<std::string> serialNumber;
  std::optional<std::int64_t> deviceClass;
  std::optional<std::int64_t> deviceSubClass;
  std::optional<std::string> usbSpecVersion;
  std::optional<std::string> deviceRevision;
  std::optional<std::int64_t> locationID;
  std::optional<std::int64_t> busAddress;
  DeviceType deviceType = DeviceType::unknown;
  std::optional<std::int64_t> linkSpeed_bps;
  std::optional<std::int64_t> portCurrentLimit_mA;
  std::optional<std::int64_t> powerSinkAllocation_mA;
  std::optional<std::int64_t> powerSinkCapability_mA;

  bool operator==(const USBDevice&) const = default;
};

}  // namespace quorel
