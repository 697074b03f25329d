#include "devices/usb_device_service.hpp"

#include <gtest/gtest.h>

#include "devices/usb_pd_vendor_lookup.hpp"
#include "support/log_capture.hpp"

namespace quorel {
namespace {

USBDeviceProperties entry(std::int64_t vendor, std::int64_t product, std::int64_t classCode,
                          std::optional<std::string> name) {
  return {.vendorID = vendor, .productID = product, .deviceClass = classCode, .productName = name};
}

std::vector<std::string> names(const std::vector<USBDevice>& devices) {
  std::vector<std::string> out;
  for (const auto& d : devices) out.push_back(d.name);
  return out;
}

TEST(BuildUSBDeviceTest, LeavesOutWhatBelongsToTheMachine) {
  auto builtIn = entry(0x046D, 0xC52B, 0, "Receiver");
  builtIn.builtIn = true;
  const std::pair<USBDeviceProperties, bool> cases[] = {
      {entry(0x1D6B, 2, 9, "EHCI Root Hub"), false},
      {entry(0x05E3, 0x0610, 9, "USB2.1 Hub"), true},
      {entry(0, 0, 3, "Ghost"), false},
      {entry(0x046D, 0, 0, "Half Known"), true},
      {entry(0x05AC, 32776, 0, "Internal Keyboard"), false},
      {entry(0x05AC, 32778, 0, "Hub Controller"), true},
      {entry(0x05AC, 0x12A8, 0, std::nullopt), false},  // the machine's maker, unnamed
      {entry(0x0781, 0x5591, 0, std::nullopt), true},
      {builtIn, false},
  };
  for (const auto& [properties, listed] : cases) {
    EXPECT_EQ(buildUSBDevice(properties).has_value(), listed)
        << properties.productName.value_or("unnamed");
  }
}

TEST(BuildUSBDeviceTest, NamesIdsVersionsPowerAndType) {
  auto p = entry(0x1, 0xab, 0, std::nullopt);
  p.bcdUSB = 0x0320;
  p.bcdDevice = 0x10AB;  // the major part reads as a decimal number, the minor as hexadecimal
  p.busPowerUsed_mA = 500;
  p.extraPowerUsed_mA = 100;
  auto d = buildUSBDevice(p);
  EXPECT_EQ(std::tie(d->name, d->id, d->usbSpecVersion, d->deviceRevision, d->busPowerUsed_mA),
            std::tuple("USB Device 0001:00AB", "0001:00AB", "3.20", "16.AB", 600));
  p.locationID = 0x01120000;
  p.busPowerUsed_mA.reset();  // extra power alone is no figure
  d = buildUSBDevice(p);
  EXPECT_EQ(std::tie(d->id, d->busPowerUsed_mA), std::tuple("0x01120000", std::nullopt));

  // A class that says what the device is beats its name; class 0 says nothing.
  EXPECT_EQ(buildUSBDevice(entry(1, 1, 0, "USB Keyboard"))->deviceType, DeviceType::hid);
  EXPECT_EQ(buildUSBDevice(entry(1, 1, 8, "Keyboard Dock"))->deviceType, DeviceType::storage);
  EXPECT_EQ(buildUSBDevice(entry(1, 1, 255, "Webcam"))->deviceType, DeviceType::vendor);
}

TEST(SortUSBDevicesTest, HubsLastAndNamesIgnoringCase) {
  std::vector<USBDevice> devices;
  for (std::string name : {"zeta", "Alpha Hub", "beta", "alpha hub 2", "Alpha", "Beta"}) {
    devices.push_back({.name = name, .deviceType = deviceTypeFromName(name)});
  }
  sortUSBDevices(devices);
  // Names equal but for case keep the order they were found in.
  EXPECT_EQ(names(devices), (std::vector<std::string>{"Alpha", "beta", "Beta", "zeta", "Alpha Hub",
                                                      "alpha hub 2"}));
}

// A bus whose contents and health the test sets, counting the reads.
class ScriptedSource final : public USBDeviceSource {
 public:
  Result<USBDeviceScan> scan() override {
    ++scans;
    if (failure) return Error{*failure};
    return USBDeviceScan{devices};
  }
  int scans = 0;
  std::vector<USBDeviceProperties> devices;
  std::optional<std::string> failure;
};

TEST(USBDeviceServiceTest, ReadsAtMostEveryTwoSecondsAndLogsAFailureOnce) {
  testing::LogCapture logs;
  ManualClock clock;
  ScriptedSource source;
  source.devices = {entry(1, 1, 3, "Mouse"), entry(1, 2, 9, "Dock Hub"), entry(1, 3, 0, "Audio")};
  USBDeviceService service(source, clock);
  EXPECT_EQ(names(service.fetch()), (std::vector<std::string>{"Audio", "Mouse", "Dock Hub"}));

  source.devices.pop_back();
  clock.advance(Seconds{1.9});
  clock.set(clock.now() + std::chrono::hours{1});  // the wall clock does not age the list
  EXPECT_EQ(service.fetch().size(), 3u);
  clock.advance(Seconds{0.1});
  EXPECT_EQ(names(service.fetch()), (std::vector<std::string>{"Mouse", "Dock Hub"}));

  source.failure = "/sys/bus/usb/devices: Permission denied";
  clock.advance(USBDeviceService::kCacheLifetime);
  EXPECT_TRUE(service.fetch().empty());
  for (int i = 0; i < 3; ++i) {  // an empty answer is kept as long as any other
    clock.advance(Seconds{1});
    EXPECT_TRUE(service.fetch().empty()) << i;
  }
  source.failure.reset();
  clock.advance(Seconds{1});
  EXPECT_EQ(service.fetch().size(), 2u);
  EXPECT_EQ(source.scans, 5);
  EXPECT_EQ(
      logs.messages("USBDevices"),
      (std::vector<std::string>{"USB devices not listed: /sys/bus/usb/devices: Permission denied",
                                "USB devices listed again"}));
}

TEST(USBPDVendorLookupTest, SourceLabel) {
  const std::tuple<bool, std::optional<std::int64_t>, std::string_view> cases[] = {
      {true, 0x2B27, "Apple"},  // the adapter's own word beats its vendor id
      {false, 0x05AC, "Apple"},   {false, 0x2B27, "Belkin"},
      {false, 0x0D8C, "C-Media"}, {false, 0x1234, "Third-Party"},
      {false, 0, "Third-Party"},  {false, std::nullopt, "Third-Party"},
  };
  for (const auto& [apple, vendor, label] : cases) {
    EXPECT_EQ(sourceLabel(AdapterInfo{.isAppleSource = apple, .chargerVendorID = vendor}), label)
        << vendor.value_or(-1);
  }
}

}  // namespace
}  // namespace quorel
