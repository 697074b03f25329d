#include "devices/usb_device_service.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "devices/usb_pd_vendor_lookup.hpp"
#include "support/log_capture.hpp"

namespace quorel {
namespace {

USBDeviceProperties entry(std::int64_t vendor, std::int64_t product, std::int64_t classCode,
                          std::optional<std::string> name) {
  USBDeviceProperties p;
  p.vendorID = vendor;
  p.productID = product;
  p.deviceClass = classCode;
  p.productName = std::move(name);
  return p;
}

TEST(BuildUSBDeviceTest, LeavesOutWhatBelongsToTheMachine) {
  auto builtIn = entry(0x046D, 0xC52B, 0, "Receiver");
  builtIn.builtIn = true;
  const struct {
    const char* what;
    USBDeviceProperties properties;
    bool listed;
  } cases[] = {
      {"root hub", entry(0x1D6B, 2, 9, "EHCI Root Hub"), false},
      {"hub by another name", entry(0x05E3, 0x0610, 9, "USB2.1 Hub"), true},
      {"no ids", entry(0, 0, 3, "Ghost"), false},
      {"vendor id alone", entry(0x046D, 0, 0, "Half Known"), true},
      {"built-in keyboard controller", entry(0x05AC, 32776, 0, "Internal Keyboard"), false},
      {"built-in product neighbour", entry(0x05AC, 32778, 0, "Hub Controller"), true},
      {"unnamed device of the machine's maker", entry(0x05AC, 0x12A8, 0, std::nullopt), false},
      {"unnamed device of another maker", entry(0x0781, 0x5591, 0, std::nullopt), true},
      {"marked built in by its machine", builtIn, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(buildUSBDevice(c.properties).has_value(), c.listed) << c.what;
  }
}

TEST(BuildUSBDeviceTest, NamesIdsVersionsAndPower) {
  auto p = entry(0x0781, 0x5591, 0, std::nullopt);
  p.bcdUSB = 0x0320;
  p.bcdDevice = 0x10AB;
  p.busPowerUsed_mA = 500;
  p.extraPowerUsed_mA = 100;
  auto d = buildUSBDevice(p);
  ASSERT_TRUE(d);
  EXPECT_EQ(d->name, "USB Device 0781:5591");
  EXPECT_EQ(d->id, "0781:5591");
  EXPECT_EQ(d->usbSpecVersion, "3.20");
  // The major part is printed as a decimal number, the minor byte as hexadecimal.
  EXPECT_EQ(d->deviceRevision, "16.AB");
  EXPECT_EQ(d->busPowerUsed_mA, 600);
  EXPECT_EQ(d->deviceClass, 0);

  // Short ids are padded to four upper-case digits; a location makes the id instead.
  p = entry(0x1, 0xab, 0, std::nullopt);
  EXPECT_EQ(buildUSBDevice(p)->name, "USB Device 0001:00AB");
  p.locationID = 0x01120000;
  EXPECT_EQ(buildUSBDevice(p)->id, "0x01120000");

  // Extra power is only ever added to a figure the bus gave.
  p.extraPowerUsed_mA = 100;
  EXPECT_EQ(buildUSBDevice(p)->busPowerUsed_mA, std::nullopt);
}

TEST(BuildUSBDeviceTest, TypeFromTheClassThenFromTheName) {
  EXPECT_EQ(buildUSBDevice(entry(1, 1, 0, "USB Keyboard"))->deviceType, DeviceType::hid);
  // A class that says what the device is beats its name.
  EXPECT_EQ(buildUSBDevice(entry(1, 1, 8, "Keyboard Dock"))->deviceType, DeviceType::storage);
  // A vendor-specific class says something too, so the name is not consulted.
  EXPECT_EQ(buildUSBDevice(entry(1, 1, 255, "Webcam"))->deviceType, DeviceType::vendor);
  auto noClass = entry(1, 1, 0, "Portable SSD");
  noClass.deviceClass.reset();
  EXPECT_EQ(buildUSBDevice(noClass)->deviceType, DeviceType::storage);
  EXPECT_EQ(buildUSBDevice(noClass)->deviceClass, std::nullopt);
}

TEST(SortUSBDevicesTest, HubsLastAndNamesIgnoringCase) {
  auto named = [](std::string name, DeviceType type) {
    USBDevice d;
    d.name = std::move(name);
    d.deviceType = type;
    return d;
  };
  std::vector<USBDevice> devices{
      named("zeta", DeviceType::hid),       named("Alpha Hub", DeviceType::hub),
      named("beta", DeviceType::storage),   named("Alpha", DeviceType::audio),
      named("alpha dock", DeviceType::hub), named("Beta", DeviceType::unknown),
  };
  sortUSBDevices(devices);
  std::vector<std::string> order;
  for (const auto& d : devices) order.push_back(d.name);
  // Names equal but for case keep the order they were found in.
  EXPECT_EQ(order,
            (std::vector<std::string>{"Alpha", "beta", "Beta", "zeta", "alpha dock", "Alpha Hub"}));
}

// A bus whose contents and health the test sets, counting the reads.
class ScriptedSource final : public USBDeviceSource {
 public:
  Result<USBDeviceScan> scan() override {
    ++scans;
    std::lock_guard lock(mutex);
    if (failure) return Error{*failure};
    return scanResult;
  }
  void set(USBDeviceScan next) {
    std::lock_guard lock(mutex);
    scanResult = std::move(next);
  }

  std::atomic<int> scans{0};
  std::mutex mutex;
  USBDeviceScan scanResult = std::vector<USBDeviceProperties>{};
  std::optional<std::string> failure;
};

std::vector<std::string> names(const std::vector<USBDevice>& devices) {
  std::vector<std::string> out;
  for (const auto& d : devices) out.push_back(d.name);
  return out;
}

TEST(USBDeviceServiceTest, ReadsAtMostEveryTwoSeconds) {
  ManualClock clock;
  ScriptedSource source;
  source.set(std::vector{entry(1, 1, 3, "Mouse"), entry(1, 2, 9, "Dock Hub"),
                         entry(1, 3, 0, "Audio Interface")});
  USBDeviceService service(source, clock);

  EXPECT_EQ(names(service.fetch()),
            (std::vector<std::string>{"Audio Interface", "Mouse", "Dock Hub"}));
  source.set(std::vector{entry(1, 1, 3, "Mouse")});
  clock.advance(Seconds{1.9});
  EXPECT_EQ(service.fetch().size(), 3u);
  // Setting the wall clock ahead does not age the list.
  clock.set(clock.now() + std::chrono::hours{1});
  EXPECT_EQ(service.fetch().size(), 3u);
  EXPECT_EQ(source.scans, 1);

  clock.advance(Seconds{0.1});
  EXPECT_EQ(names(service.fetch()), (std::vector<std::string>{"Mouse"}));
  EXPECT_EQ(source.scans, 2);
}

TEST(USBDeviceServiceTest, AFailedReadListsNothingForTwoSecondsAndIsLoggedOnce) {
  testing::LogCapture logs;
  ManualClock clock;
  ScriptedSource source;
  source.set(std::vector{entry(1, 1, 3, "Mouse")});
  USBDeviceService service(source, clock);
  EXPECT_EQ(service.fetch().size(), 1u);

  source.failure = "/sys/bus/usb/devices: Permission denied";
  for (int i = 0; i < 3; ++i) {
    clock.advance(USBDeviceService::kCacheLifetime);
    EXPECT_TRUE(service.fetch().empty());
    clock.advance(Seconds{1});
    EXPECT_TRUE(service.fetch().empty());
  }
  EXPECT_EQ(source.scans, 4);
  source.failure.reset();
  clock.advance(USBDeviceService::kCacheLifetime);
  EXPECT_EQ(service.fetch().size(), 1u);
  EXPECT_EQ(
      logs.messages("USBDevices"),
      (std::vector<std::string>{"USB devices not listed: /sys/bus/usb/devices: Permission denied",
                                "USB devices listed again"}));
}

TEST(USBDeviceServiceTest, ADeclaredListIsKeptAsGiven) {
  ManualClock clock;
  ScriptedSource source;
  USBDevice hub;
  hub.id = "sim-hub";
  hub.name = "Dock";
  hub.deviceType = DeviceType::hub;
  USBDevice nameless;
  nameless.id = "sim-gadget";
  nameless.vendorID = 0x05AC;
  nameless.productID = 32776;
  source.set(std::vector{hub, nameless});
  USBDeviceService service(source, clock);
  EXPECT_EQ(service.fetch(), (std::vector{hub, nameless}));
}

TEST(USBDeviceServiceTest, CallersOnSeveralThreadsShareTheList) {
  ManualClock clock;
  ScriptedSource source;
  source.set(std::vector{entry(1, 1, 3, "Mouse"), entry(1, 2, 8, "Drive")});
  USBDeviceService service(source, clock);
  std::atomic<bool> wrong{false};
  std::vector<std::thread> callers;
  for (int t = 0; t < 4; ++t) {
    callers.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        if (service.fetch().size() != 2) wrong = true;
        clock.advance(Seconds{0.5});
      }
    });
  }
  for (auto& c : callers) c.join();
  EXPECT_FALSE(wrong);
  // Reads overlap and the later one stays; none may leave the cache torn or stale.
  source.set(std::vector{entry(1, 3, 7, "Printer")});
  clock.advance(USBDeviceService::kCacheLifetime);
  EXPECT_EQ(names(service.fetch()), (std::vector<std::string>{"Printer"}));
}

TEST(USBPDVendorLookupTest, SourceLabel) {
  const struct {
    bool apple;
    std::optional<std::int64_t> vendor;
    std::string_view label;
  } cases[] = {
      {true, 0x2B27, "Apple"},   // the adapter's own word wins over its vendor id
      {false, 0x05AC, "Apple"},  // known by id alone
      {false, 0x2B27, "Belkin"},  {false, 0x2A2F, "Anker"},
      {false, 0x0D8C, "C-Media"}, {false, 0x1234, "Third-Party"},
      {false, 0, "Third-Party"},  {false, std::nullopt, "Third-Party"},
  };
  for (const auto& c : cases) {
    AdapterInfo adapter;
    adapter.isAppleSource = c.apple;
    adapter.chargerVendorID = c.vendor;
    EXPECT_EQ(sourceLabel(adapter), c.label) << c.vendor.value_or(-1);
  }
  EXPECT_EQ(USBPDVendorLookup::vendorName(0x1D6B), "Linux Foundation");
  EXPECT_EQ(USBPDVendorLookup::vendorName(-1), std::nullopt);
}

}  // namespace
}  // namespace quorel
