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
  USBDeviceService service(source, clock);
  return service.fetch();
}

void writeDevice(const SysfsTree& tree, const std::string& name,
                 const std::map<std::string, std::string>& attributes) {
  for (const auto& [attribute, value] : attributes) {
    tree.write(std::filesystem::path("bus/usb/devices") / name / attribute, value + "\n");
  }
}

// Two buses as the kernel shows them: a USB 2 bus with a bus-powered hub carrying a keyboard
// and a device whose attributes are garbage, a hard-wired camera and an entry without ids; a
// USB 3 bus with a portable SSD on a root port. Both root hubs and every interface are there too.
TEST(LinuxUSBDeviceSourceTest, ListsWhatIsPluggedInFromACapturedTree) {
  const auto devices = listed(testing::fixturePath("usb-desk"));

  USBDevice ssd{.id = "0x02100000",
                .name = "Extreme Portable SSD",
                .vendorName = "SanDisk",
                .vendorID = 0x0781,
                .productID = 0x5591,
                .speed = USBSpeed::superSpeed,
                .busPowerAvailable_mA = 900,
                .busPowerUsed_mA = 896,
                .serialNumber = "3232303031433436",
                .deviceClass = 0,
                .deviceSubClass = 0,
                .usbSpecVersion = "3.20",
                .deviceRevision = "16.12",
                .locationID = 0x02100000,
                .busAddress = 2,
                .deviceType = DeviceType::storage,
                .linkSpeed_bps = 5'000'000'000};
  USBDevice garbage{.id = "0x01130000",
                    .name = "USB Device 0000:C52B",
                    .productID = 0xC52B,
                    .busPowerAvailable_mA = 100,
                    .locationID = 0x01130000};
  USBDevice keyboard{.id = "0x01120000",
                     .name = "USB Keyboard",
                     .vendorName = "CHICONY",
                     .vendorID = 0x04F2,
                     .productID = 0x0403,
                     .speed = USBSpeed::low,
                     .busPowerAvailable_mA = 100,
                     .busPowerUsed_mA = 100,
                     .deviceClass = 0,
                     .deviceSubClass = 0,
                     .usbSpecVersion = "1.10",
                     .deviceRevision = "1.10",
                     .locationID = 0x01120000,
                     .busAddress = 5,
                     .deviceType = DeviceType::hid,
                     .linkSpeed_bps = 1'500'000};
  USBDevice hub{.id = "0x01100000",
                .name = "USB2.1 Hub",
                .vendorName = "GenesysLogic",
                .vendorID = 0x05E3,
                .productID = 0x0610,
                .speed = USBSpeed::high,
                .busPowerAvailable_mA = 500,
                .busPowerUsed_mA = 100,
                .deviceClass = 9,
                .deviceSubClass = 0,
                .usbSpecVersion = "2.10",
                .deviceRevision = "6.56",
                .locationID = 0x01100000,
                .busAddress = 4,
                .deviceType = DeviceType::hub,
                .linkSpeed_bps = 480'000'000};
  ASSERT_EQ(devices.size(), 4u);
  EXPECT_EQ(devices[0], ssd);
  EXPECT_EQ(devices[1], garbage);
  EXPECT_EQ(devices[2], keyboard);
  EXPECT_EQ(devices[3], hub);
}

TEST(LinuxUSBDeviceSourceTest, APortGivesWhatItsHubCanSupply) {
  const struct {
    std::string hubSpeed;
    std::optional<std::string> hubAttributes;
    std::optional<std::int64_t> available_mA;
  } cases[] = {
      {"480", "e0", 500},   // self-powered
      {"5000", "c0", 900},  // self-powered SuperSpeed
      {"480", "a0", 100},   // on its parent's power
      {"5000", "80", 150},  // SuperSpeed, on its parent's power
      {"480", std::nullopt, std::nullopt},
      {"480", "junk", std::nullopt},
      {"fast", "e0", std::nullopt},
  };
  for (const auto& c : cases) {
    SysfsTree tree("usb-desk");
    tree.write("bus/usb/devices/1-1/speed", c.hubSpeed + "\n");
    if (c.hubAttributes) {
      tree.write("bus/usb/devices/1-1/bmAttributes", *c.hubAttributes + "\n");
    } else {
      tree.remove("bus/usb/devices/1-1/bmAttributes");
    }
    std::optional<std::int64_t> keyboard_mA;
    for (const auto& d : listed(tree.root())) {
      if (d.name == "USB Keyboard") keyboard_mA = d.busPowerAvailable_mA;
    }
    EXPECT_EQ(keyboard_mA, c.available_mA) << c.hubSpeed << " " << c.hubAttributes.value_or("-");
  }
}

TEST(LinuxUSBDeviceSourceTest, RootHubsByTheKernelsSignsAndLocationsWithinTheirLimits) {
  SysfsTree tree;
  // The kernel's own vendor id on a hub is a root hub, whatever the directory is called; on
  // anything else it is a gadget someone plugged in.
  writeDevice(tree, "3-1", {{"idVendor", "1d6b"}, {"idProduct", "0003"}, {"bDeviceClass", "09"}});
  writeDevice(tree, "3-2",
              {{"idVendor", "1d6b"},
               {"idProduct", "0104"},
               {"bDeviceClass", "ef"},
               {"product", "Multifunction Composite Gadget"}});
  writeDevice(tree, "usb4", {{"idVendor", "8086"}, {"idProduct", "0001"}});
  const std::pair<std::string, std::optional<std::int64_t>> paths[] = {
      {"1.2.3.4.5.6", 0x03123456},
      {"1.2.3.4.5.6.7", std::nullopt},
      {"16", std::nullopt},
      {"0.1", std::nullopt},
  };
  std::int64_t product = 0x10;
  for (const auto& [devpath, location] : paths) {
    writeDevice(tree, "3-" + devpath,
                {{"idVendor", "0bda"},
                 {"idProduct", fmt::format("{:04x}", product++)},
                 {"busnum", "3"},
                 {"devpath", devpath}});
  }

  std::map<std::string, std::string> idsByName;
  for (const auto& d : listed(tree.root())) idsByName[d.name] = d.id;
  EXPECT_EQ(idsByName, (std::map<std::string, std::string>{
                           {"Multifunction Composite Gadget", "1D6B:0104"},
                           {"USB Device 0BDA:0010", "0x03123456"},
                           {"USB Device 0BDA:0011", "0BDA:0011"},
                           {"USB Device 0BDA:0012", "0BDA:0012"},
                           {"USB Device 0BDA:0013", "0BDA:0013"},
                       }));
}

TEST(LinuxUSBDeviceSourceTest, AMachineWithoutUSBSaysWhy) {
  SysfsTree tree;
  LinuxUSBDeviceSource source(tree.root());
  auto scanned = source.scan();
  ASSERT_FALSE(scanned.ok());
  EXPECT_EQ(scanned.error().message,
            (tree.root() / "bus/usb/devices").string() + ": No such file or directory");

  // An empty bus directory is a machine with nothing plugged in, which is no failure.
  tree.write("bus/usb/devices/.keep", "");
  tree.remove("bus/usb/devices/.keep");
  EXPECT_TRUE(source.scan().ok());
}

}  // namespace
}  // namespace quorel
