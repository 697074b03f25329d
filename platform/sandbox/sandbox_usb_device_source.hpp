#pragma once
// The simulated machine's USB devices: one for each device toggle of the scenario, declared
// whole, so the list shows them in toggle order with the scenario's own names.

#include "devices/usb_device_source.hpp"
#include "platform/sandbox/sandbox_config.hpp"

namespace quorel {

class SandboxUSBDeviceSource final : public USBDeviceSource {
 public:
  // `config` must outlive the source.
  explicit SandboxUSBDeviceSource(const SandboxConfig& config) : config_(config) {}

  // Never fails: the scenario is always readable.
  Result<USBDeviceScan> scan() override { return USBDeviceScan{config_.simulatedUSBDevices()}; }

 private:
  const SandboxConfig& config_;
};

}  // namespace quorel
