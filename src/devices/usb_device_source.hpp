#pragma once
// Where USBDeviceService gets its devices: each machine reports what is on its buses, and the
// service alone decides which of them are listed and how they are named and ordered.

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "core/result.hpp"
#include "devices/usb_device.hpp"

namespace quorel {

// One device as its bus describes it. Everything the bus may fail to say is optional; power
// figures are in milliamperes, whatever unit the machine itself counts in.
struct USBDeviceProperties {
  std::optional<std::int64_t> vendorID;
  std::optional<std::int64_t> productID;
  std::optional<std::int64_t> deviceClass;
  std::optional<std::int64_t> deviceSubClass;
  std::optional<std::string> productName;
  std::optional<std::string> vendorName;
  std::optional<std::string> serialNumber;
  // Binary-coded decimal as the descriptor holds it: 0x0320 is USB 3.2.
  std::optional<std::int64_t> bcdUSB;
  std::optional<std::int64_t> bcdDevice;
  USBSpeed speed = USBSpeed::unknown;
  std::optional<std::int64_t> linkSpeed_bps;
  std::optional<std::int64_t> locationID;
  std::optional<std::int64_t> busAddress;
  std::optional<std::int64_t> busPowerAvailable_mA;
  std::optional<std::int64_t> busPowerUsed_mA;
  // Granted beyond the configuration's own figure; meaningless without that figure.
  std::optional<std::int64_t> extraPowerUsed_mA;
  // The machine knows the device as part of itself (a bus's root hub, a hard-wired port), so
  // nobody plugged it in.
  bool builtIn = false;

  bool operator==(const USBDeviceProperties&) const = default;
};

// What one look at the buses found: either the entries as the buses describe them, which the
// service builds, filters and orders; or the devices of a simulated machine, declared whole
// and listed exactly as given.
using USBDeviceScan = std::variant<std::vector<USBDeviceProperties>, std::vector<USBDevice>>;

class USBDeviceSource {
 public:
  virtual ~USBDeviceSource() = default;
  // An error when the buses could not be listed at all; a device that reads badly is still an
  // entry, with what could be read.
  virtual Result<USBDeviceScan> scan() = 0;
};

}  // namespace quorel
