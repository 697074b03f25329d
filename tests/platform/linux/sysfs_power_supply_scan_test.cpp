#include <gtest/gtest.h>

#include <cerrno>

#include "platform/linux/power_supply_scan.hpp"
#include "platform/linux/sysfs_attributes.hpp"
#include "platform/linux/sysfs_tree.hpp"

namespace quorel {
namespace {

using testing::fixturePath;
using testing::SysfsTree;
using namespace sysfs;

std::filesystem::path supplies(const std::string& fixture) {
  return fixturePath(fixture) / "class/power_supply";
}

TEST(PowerSupplyScanTest, OldKernelsUsbFlavoursAreUsbAndNearMissesAreNot) {
  EXPECT_EQ(parsePowerSupplyType("Battery\n"), PowerSupplyType::battery);
  EXPECT_EQ(parsePowerSupplyType("USB_PD_DRP"), PowerSupplyType::usb);
  EXPECT_EQ(parsePowerSupplyType("USBX"), PowerSupplyType::unknown);
  EXPECT_EQ(parsePowerSupplyType(""), PowerSupplyType::unknown);
}

TEST(PowerSupplyScanTest, SystemBatteryIsFoundOnlyWhereOneIsPresent) {
  for (const char* laptop : {"energy-pack", "two-packs", "attributes-only"}) {
    EXPECT_TRUE(hasSystemBattery(supplies(laptop))) << laptop;
  }
  EXPECT_FALSE(hasSystemBattery(supplies("desktop-mains")));
  EXPECT_FALSE(hasSystemBattery(fixturePath("nowhere")));

  SysfsTree tree;
  tree.writeSupply("hidpp_battery_0", {"TYPE=Battery", "SCOPE=Device", "CAPACITY=60"});
  EXPECT_FALSE(hasSystemBattery(tree.powerSupply()));
  tree.writeSupply("BAT0", {"TYPE=Battery", "PRESENT=0"});
  EXPECT_FALSE(hasSystemBattery(tree.powerSupply()));
  // Drivers that do not report "present" are taken at their word that the battery exists.
  tree.writeSupply("BAT1", {"TYPE=Battery", "CAPACITY=50"});
  EXPECT_TRUE(hasSystemBattery(tree.powerSupply()));
}

TEST(PowerSupplyScanTest, ChoiceIsOneSentenceSayingWhatWasFoundAndWhatHappens) {
  auto expect = [](const std::filesystem::path& where, bool forced, bool linux,
                   const std::string& description) {
    const auto choice = choosePowerSource(where, forced);
    EXPECT_EQ(choice.useLinuxProvider, linux) << description;
    EXPECT_EQ(choice.description, description);
  };
  expect(supplies("two-packs"), false, true,
         "batteries BAT0, BAT1 found in " + supplies("two-packs").string() +
             " — reading this computer's batteries");
  const auto pack = supplies("energy-pack");
  expect(pack, false, true,
         "battery BAT0 found in " + pack.string() + " — reading this computer's battery");
  expect(pack, true, false,
         "the simulated machine was asked for — its battery stands in for this computer's");
  const auto desktop = supplies("desktop-mains");
  expect(desktop, false, false,
         "no battery found in " + desktop.string() + " — running the simulated machine instead");
  SysfsTree tree;
  tree.writeSupply("hidpp_battery_0", {"TYPE=Battery", "SCOPE=Device"});
  expect(tree.powerSupply(), false, false,
         "no battery of this computer in " + tree.powerSupply().string() +
             " (hidpp_battery_0 powers a peripheral) — running the simulated machine instead");
  expect(tree.root() / "absent", false, false,
         "cannot list " + (tree.root() / "absent").string() +
             " (No such file or directory) — no battery can be read here, so the simulated "
             "machine runs instead");
}

TEST(SysfsParseTest, IntegersAreWholeOrAbsent) {
  EXPECT_EQ(parseInteger("16502000\n"), 16502000);
  EXPECT_EQ(parseInteger("  -843000 "), -843000);
  EXPECT_EQ(parseInteger("0"), 0);
  EXPECT_EQ(parseInteger("9223372036854775807"), INT64_MAX);
  for (const char* bad :
       {"", "\n", "12abc", "abc", "4.5", "+5", "1 2", "0x10", "99999999999999999999"}) {
    EXPECT_FALSE(parseInteger(bad)) << '"' << bad << '"';
  }
}

TEST(SysfsParseTest, UeventKeepsPrefixedKeysLowerCasedWithValuesVerbatim) {
  auto props = UeventProperties::parse(
      "DEVTYPE=power_supply\r\n"
      "POWER_SUPPLY_NAME=ucsi-source-psy-USBC000:001\r\n"
      "POWER_SUPPLY_USB_TYPE=C [PD] PD_PPS\n"
      "no equals sign here\n"
      "POWER_SUPPLY_=bare prefix\n"
      "POWER_SUPPLY_MODEL_NAME=a=b\n"
      "POWER_SUPPLY_SERIAL_NUMBER=\n"
      "POWER_SUPPLY_ONLINE=1",
      "POWER_SUPPLY_");
  EXPECT_EQ(props.size(), 5u);
  EXPECT_EQ(props.find("name"), "ucsi-source-psy-USBC000:001");
  EXPECT_EQ(props.find("usb_type"), "C [PD] PD_PPS");
  EXPECT_EQ(props.find("model_name"), "a=b");
  EXPECT_EQ(props.find("serial_number"), "");
  EXPECT_EQ(props.find("online"), "1");  // last line without a newline
  EXPECT_FALSE(props.find("devtype"));
  EXPECT_FALSE(props.find("ONLINE"));
}

TEST(SysfsFileTest, ReadsReportWhyTheyFailed) {
  SysfsTree tree;
  tree.write("a/value", "42\n");
  tree.makeUnreadable("a/dir");
  int error = 0;
  EXPECT_EQ(readFile(tree.root() / "a/value"), "42\n");
  EXPECT_FALSE(readFile(tree.root() / "a/missing", &error));
  EXPECT_EQ(error, ENOENT);
  EXPECT_FALSE(readFile(tree.root() / "a/dir", &error));
  EXPECT_EQ(error, EISDIR);

  // Without a read bit the file is unreadable, also when the tests run as root.
  tree.write("a/private", "7\n");
  std::filesystem::permissions(tree.root() / "a/private", std::filesystem::perms::owner_write);
  EXPECT_FALSE(readFile(tree.root() / "a/private", &error));
  EXPECT_EQ(error, EACCES);

  tree.write("a/b", "");
  EXPECT_EQ(listDirectory(tree.root() / "a"),
            (std::vector<std::string>{"b", "dir", "private", "value"}));
  EXPECT_FALSE(listDirectory(tree.root() / "a/value", &error));
  EXPECT_EQ(error, ENOTDIR);
}

TEST(SysfsDeviceTest, UeventIsTrustedForPropertiesAndWithoutOneTheFilesAnswer) {
  SysfsTree tree;
  tree.write("BAT0/uevent", "POWER_SUPPLY_STATUS=Charging\nPOWER_SUPPLY_CAPACITY= 71 \n");
  tree.write("BAT0/status", "Discharging\n");
  tree.write("BAT0/voltage_now", "12000000\n");
  tree.write("BAT0/charge_control_end_threshold", "80\n");
  SysfsDevice device(tree.root() / "BAT0", "POWER_SUPPLY_");
  EXPECT_TRUE(device.hasUevent());
  EXPECT_EQ(device.property("status"), "Charging");
  EXPECT_EQ(device.integerProperty("capacity"), 71);
  // The uevent lists every property the driver has; a file beside it is not one of them.
  EXPECT_FALSE(device.property("voltage_now"));
  EXPECT_EQ(device.integerAttribute("charge_control_end_threshold"), 80);
  EXPECT_EQ(device.attribute("status"), "Charging");

  // Without a usable uevent the files answer.
  tree.write("AC/uevent", "DEVTYPE=power_supply\n");
  tree.write("AC/online", "1\n");
  SysfsDevice ac(tree.root() / "AC", "POWER_SUPPLY_");
  EXPECT_FALSE(ac.hasUevent());
  EXPECT_EQ(ac.integerProperty("online"), 1);
  EXPECT_FALSE(ac.property("type"));

  tree.write("AC/online", "yes\n");
  EXPECT_FALSE(ac.integerProperty("online"));
}

}  // namespace
}  // namespace quorel
