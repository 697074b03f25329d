#pragma once
// The USB devices of a Linux machine, from the kernel's device directories under
// bus/usb/devices of a sysfs root. Each bus's root hub and every device on a hard-wired port
// are part of the machine and are reported as built in; interface directories ("1-1:1.0") are
// facets of a device and are not reported at all.

#include <filesystem>

#include "devices/usb_device_source.hpp"

namespace quorel {

class LinuxUSBDeviceSource final : public USBDeviceSource {
 public:
  // `sysfsRoot` is "/sys" on a real machine, a captured tree in tests.
  explicit LinuxUSBDeviceSource(const std::filesystem::path& sysfsRoot);

  // Every scan reads the tree afresh; nothing is kept between scans.
  Result<USBDeviceScan> scan() override;

 private:
  std::filesystem::path devicesDir_;
};

}  // namespace quorel
