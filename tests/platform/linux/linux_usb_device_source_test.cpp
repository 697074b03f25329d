#include "platform/linux/linux_usb_device_source.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <map>

#include "devices/usb_device_service.hpp"
#include "sysfs_tree.hpp"

namespace quorel {
namespace {

using testing::SysfsTree;

std::vector<USBDevice> listed(const std::filesystem::path& root) {
  ManualClock clock;
  LinuxUSBDeviceSource source(root);
  return USBDeviceService(source, clock).fetch();
}

// Every field on one line, "-" for an absent one.
std::string render(const USBDevice& d) {
  auto o = [](const auto& value) { return value ? fmt::format("{}", *value) : std::string("-"); };
  return fmt::format(
      "{} {} ({}) {:04X}:{:04X} {} {}bps class {}/{} USB {} rev {} serial {} "
      "{}/{} mA at {:08X} #{} {}",
      d.id, d.name, o(d.vendorName), d.vendorID, d.productID, shortLabel(d.speed),
      o(d.linkSpeed_bps), o(d.deviceClass), o(d.deviceSubClass), o(d.usbSpecVersion),
      o(d.deviceRevision), o(d.serialNumber), o(d.busPowerUsed_mA), o(d.busPowerAvailable_mA),
      d.locationID.value_or(0), o(d.busAddress), toString(d.deviceType));
}

// A USB 2 bus with a bus-powered hub carrying a keyboard and a device whose attributes are
// garbage or missing, a hard-wired camera and an entry without ids; a USB 3 bus with an SSD on
// a root port. Both root hubs and every interface directory are there as the kernel has them.
TEST(LinuxUSBDeviceSourceTest, ListsWhatIsPluggedInFromACapturedTree) {
  std::vector<std::string> rendered;
  for (const auto& d : listed(testing::fixturePath("usb-desk"))) rendered.push_back(render(d));
  EXPECT_EQ(rendered,
            (std::vector<std::string>{
                "0x02100000 Extreme Portable SSD (SanDisk) 0781:5591 USB 3.0 5000000000bps class "
                "0/0 USB 3.20 rev 16.12 serial 3232303031433436 896/900 mA at 02100000 #2 storage",
                "0x01130000 USB Device 0000:C52B (-) 0000:C52B USB -bps class -/- USB - rev - "
                "serial - -/100 mA at 01130000 #- unknown",
                "0x01120000 USB Keyboard (CHICONY) 04F2:0403 USB 1.0 1500000bps class 0/0 USB "
                "1.10 rev 1.10 serial - 100/100 mA at 01120000 #5 hid",
                "0x01100000 USB2.1 Hub (GenesysLogic) 05E3:0610 USB 2.0 480000000bps class 9/0 "
                "USB 2.10 rev 6.56 serial - 100/500 mA at 01100000 #4 hub",
            }));
}

TEST(LinuxUSBDeviceSourceTest, APortGivesWhatItsHubCanSupply) {
  const std::tuple<const char*, std::optional<const char*>, std::optional<std::int64_t>> cases[] = {
      {"480", "e0", 500},
      {"5000", "c0", 900},
      {"480", "a0", 100},
      {"5000", "80", 150},
      {"480", std::nullopt, std::nullopt},
      {"fast", "e0", std::nullopt},
  };
  for (const auto& [speed, attributes, available_mA] : cases) {
    SysfsTree tree("usb-desk");
    tree.write("bus/usb/devices/1-1/speed", std::string(speed) + "\n");
    tree.remove("bus/usb/devices/1-1/bmAttributes");
    if (attributes) tree.write("bus/usb/devices/1-1/bmAttributes", std::string(*attributes));
    const auto devices = listed(tree.root());
    EXPECT_EQ(devices.at(2).busPowerAvailable_mA, available_mA) << speed << attributes.value_or("");
  }
}

TEST(LinuxUSBDeviceSourceTest, RootHubsByTheKernelsSignsAndLocationsWithinTheirLimits) {
  SysfsTree tree;
  EXPECT_FALSE(LinuxUSBDeviceSource(tree.root()).scan().ok()) << "no bus/usb/devices at all";
  auto device = [&](const std::string& name, const std::map<std::string, std::string>& values) {
    for (const auto& [key, value] : values)
      tree.write("bus/usb/devices/" + name + "/" + key, value);
  };
  // The kernel's vendor id on a hub is a root hub, whatever the name; on a gadget it is not.
  device("3-1", {{"idVendor", "1d6b"}, {"idProduct", "0003"}, {"bDeviceClass", "09"}});
  device("3-2", {{"idVendor", "1d6b"}, {"idProduct", "0104"}, {"product", "Gadget"}});
  device("usb4", {{"idVendor", "8086"}, {"idProduct", "0001"}});
  int product = 0x10;
  for (const char* devpath : {"1.2.3.4.5.6", "1.2.3.4.5.6.7", "16", "0.1"}) {
    device(std::string("3-") + devpath, {{"idVendor", "0bda"},
                                         {"idProduct", fmt::format("{:04x}", product++)},
                                         {"busnum", "3"},
                                         {"devpath", devpath}});
  }
  std::vector<std::string> ids;
  for (const auto& d : listed(tree.root())) ids.push_back(d.id);
  EXPECT_EQ(ids, (std::vector<std::string>{"1D6B:0104", "0x03123456", "0BDA:0011", "0BDA:0012",
                                           "0BDA:0013"}));
}

}  // namespace
}  // namespace quorel
