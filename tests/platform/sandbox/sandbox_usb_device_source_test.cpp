#include "platform/sandbox/sandbox_usb_device_source.hpp"

#include <gtest/gtest.h>

#include "devices/usb_device_service.hpp"

namespace quorel {
namespace {

std::vector<std::string> ids(const std::vector<USBDevice>& devices) {
  std::vector<std::string> out;
  for (const auto& d : devices) out.push_back(d.id);
  return out;
}

TEST(SandboxUSBDeviceSourceTest, TheServiceListsTheTogglesInTheirOwnOrder) {
  SandboxConfig config;
  config.update([](SandboxSettings& s) {
    s.enabled = true;
    s.dock = s.keyboard = s.webcam = true;
  });
  ManualClock clock;
  SandboxUSBDeviceSource source(config);
  USBDeviceService service(source, clock);
  // The dock is a hub, yet it stays ahead of the keyboard: a declared list is not re-sorted.
  const auto devices = service.fetch();
  EXPECT_EQ(ids(devices),
            (std::vector<std::string>{"sandbox-dock", "sandbox-keyboard", "sandbox-webcam"}));
  EXPECT_EQ(devices, config.simulatedUSBDevices());

  // A toggle shows once the list has aged, like a device plugged into a real machine.
  config.update([](SandboxSettings& s) {
    s.keyboard = false;
    s.externalMonitor = true;
  });
  EXPECT_EQ(service.fetch(), devices);
  clock.advance(USBDeviceService::kCacheLifetime);
  EXPECT_EQ(ids(service.fetch()),
            (std::vector<std::string>{"sandbox-monitor", "sandbox-dock", "sandbox-webcam"}));
}

}  // namespace
}  // namespace quorel
