#include "platform/sandbox/sandbox_usb_device_source.hpp"

#include <gtest/gtest.h>

#include "devices/usb_device_service.hpp"

namespace quorel {
namespace {

TEST(SandboxUSBDeviceSourceTest, TheServiceListsTheTogglesInTheirOwnOrder) {
  SandboxConfig config;
  config.update([](SandboxSettings& s) { s.enabled = s.dock = s.keyboard = s.webcam = true; });
  ManualClock clock;
  SandboxUSBDeviceSource source(config);
  USBDeviceService service(source, clock);
  // The dock is a hub, yet it stays ahead of the keyboard: a declared list is not re-sorted.
  const auto devices = service.fetch();
  std::vector<std::string> ids;
  for (const auto& d : devices) ids.push_back(d.id);
  EXPECT_EQ(ids, (std::vector<std::string>{"sandbox-dock", "sandbox-keyboard", "sandbox-webcam"}));
  EXPECT_EQ(devices, config.simulatedUSBDevices());
}

}  // namespace
}  // namespace quorel
