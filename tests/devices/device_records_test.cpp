#include <gtest/gtest.h>

#include "devices/mac_model.hpp"
#include "devices/usb_device.hpp"

namespace quorel {
namespace {

TEST(USBSpeedTest, RegistryValuesAndLabels) {
  // The registry counts full speed (USB 1.1) as 0 and low speed (USB 1.0) as 1.
  const char* const labels[] = {"USB 1.1", "USB 1.0", "USB 2.0", "USB 3.0", "USB 3.1", "USB 3.2"};
  for (int raw = 0; raw < 6; ++raw) EXPECT_EQ(shortLabel(usbSpeedFromRaw(raw)), labels[raw]);
  // Values without a case, and a missing value, are unknown.
  for (std::optional<std::int64_t> raw : {std::optional<std::int64_t>{6}, {7}, {-1}, {}}) {
    EXPECT_EQ(usbSpeedFromRaw(raw), USBSpeed::unknown) << raw.value_or(999);
  }
  EXPECT_EQ(shortLabel(USBSpeed::unknown), "USB");
}

TEST(DeviceTypeTest, FromClassCode) {
  // Some types own two class codes; codes between them have no type.
  const std::pair<std::int64_t, DeviceType> table[] = {
      {2, DeviceType::network},  {10, DeviceType::network},  {6, DeviceType::camera},
      {14, DeviceType::camera},  {0, DeviceType::unknown},   {4, DeviceType::unknown},
      {12, DeviceType::unknown}, {254, DeviceType::unknown}, {255, DeviceType::vendor},
  };
  for (const auto& [code, type] : table) EXPECT_EQ(deviceTypeFromClass(code), type) << code;
}

TEST(DeviceTypeTest, FromNameFirstRuleWins) {
  EXPECT_EQ(deviceTypeFromName("USB Keyboard"), DeviceType::hid);
  EXPECT_EQ(deviceTypeFromName("FaceTime HD"), DeviceType::camera);
  EXPECT_EQ(deviceTypeFromName("USB Audio Headset"), DeviceType::audio);
  EXPECT_EQ(deviceTypeFromName("Portable SSD"), DeviceType::storage);
  EXPECT_EQ(deviceTypeFromName("USB3.0 Hub"), DeviceType::hub);
  EXPECT_EQ(deviceTypeFromName("Photo Scanner"), DeviceType::printer);
  EXPECT_EQ(deviceTypeFromName("Wi-Fi Dongle"), DeviceType::network);
  // A keyboard with a built-in hub is a keyboard: input devices are tested first.
  EXPECT_EQ(deviceTypeFromName("Keyboard Hub"), DeviceType::hid);
  // A webcam's microphone does not make it an audio device.
  EXPECT_EQ(deviceTypeFromName("Webcam with Microphone"), DeviceType::camera);
  EXPECT_EQ(deviceTypeFromName("Gadget"), DeviceType::unknown);
  EXPECT_EQ(deviceTypeFromName(""), DeviceType::unknown);
}

TEST(MacModelTest, AnUnrecognisedMachineIsNeitherADesktopNorGivenALoad) {
  // Assuming a desktop would hide a battery that is there.
  EXPECT_FALSE(isDesktop(MacModel::unknown));
  EXPECT_FALSE(isDesktop(static_cast<MacModel>(99)));
  EXPECT_EQ(maxLoadW(MacModel::unknown), std::nullopt);
  EXPECT_EQ(displayName(static_cast<MacModel>(99)), "Mac");
  EXPECT_TRUE(isDesktop(MacModel::macMini));
  // Stored texts are case names, never display names.
  EXPECT_EQ(macModelFromString(toString(MacModel::macMini)), MacModel::macMini);
  EXPECT_EQ(macModelFromString(displayName(MacModel::macBookPro)), std::nullopt);
}

}  // namespace
}  // namespace quorel
