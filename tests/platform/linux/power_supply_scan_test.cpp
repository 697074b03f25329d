#include "platform/linux/power_supply_scan.hpp"

#include <gtest/gtest.h>

#include "platform/linux/sysfs_tree.hpp"

namespace quorel {
namespace {

using testing::fixturePath;
using testing::SysfsTree;

std::filesystem::path supplies(const std::string& fixture) {
  return fixturePath(fixture) / "class/power_supply";
}

TEST(PowerSupplyScanTest, OldKernelsUsbFlavoursAreUsbAndNearMissesAreNot) {
  EXPECT_EQ(parsePowerSupplyType("Battery\n"), PowerSupplyType::battery);
  EXPECT_EQ(parsePowerSupplyType("USB_PD_DRP"), PowerSupplyType::usb);
  EXPECT_EQ(parsePowerSupplyType("USBX"), PowerSupplyType::unknown);
  EXPECT_EQ(parsePowerSupplyType(""), PowerSupplyType::unknown);
}

TEST(PowerSupplyScanTest, ScanFollowsClassSymlinksAndClassifiesEachSupply) {
  auto scan = scanPowerSupplies(supplies("positive-discharge"));
  ASSERT_FALSE(scan.error);
  ASSERT_EQ(scan.supplies.size(), 3u);
  EXPECT_EQ(scan.supplies[0].name, "ACAD");
  EXPECT_TRUE(scan.supplies[0].isExternalSource());
  EXPECT_EQ(scan.supplies[0].isOnline(), false);
  EXPECT_TRUE(scan.supplies[1].isSystemBattery());
  EXPECT_TRUE(scan.supplies[2].isPeripheralBattery());
  EXPECT_FALSE(scan.supplies[2].isSystemBattery());

  auto linked = scanPowerSupplies(supplies("energy-pack"));
  ASSERT_EQ(linked.supplies.size(), 2u);
  EXPECT_TRUE(linked.supplies[1].device.hasUevent());
  EXPECT_TRUE(linked.supplies[1].isSystemBattery());
}

TEST(PowerSupplyScanTest, SystemBatteryIsFoundOnlyWhereOneIsPresent) {
  for (const char* laptop : {"energy-pack", "charge-pack", "two-packs", "fuel-gauge",
                             "positive-discharge", "broken-values", "attributes-only"}) {
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
  auto where = supplies("two-packs");
  auto choice = choosePowerSource(where, false);
  EXPECT_TRUE(choice.useLinuxProvider);
  EXPECT_EQ(choice.description, "batteries BAT0, BAT1 found in " + where.string() +
                                    " — reading this computer's batteries");

  where = supplies("energy-pack");
  EXPECT_EQ(choosePowerSource(where, false).description,
            "battery BAT0 found in " + where.string() + " — reading this computer's battery");

  auto forced = choosePowerSource(where, true);
  EXPECT_FALSE(forced.useLinuxProvider);
  EXPECT_EQ(forced.description,
            "the simulated machine was asked for — its battery stands in for this computer's");

  where = supplies("desktop-mains");
  auto desktop = choosePowerSource(where, false);
  EXPECT_FALSE(desktop.useLinuxProvider);
  EXPECT_EQ(desktop.description,
            "no battery found in " + where.string() + " — running the simulated machine instead");

  SysfsTree tree;
  tree.writeSupply("hidpp_battery_0", {"TYPE=Battery", "SCOPE=Device"});
  EXPECT_EQ(choosePowerSource(tree.powerSupply(), false).description,
            "no battery of this computer in " + tree.powerSupply().string() +
                " (hidpp_battery_0 powers a peripheral) — running the simulated machine instead");

  auto missing = choosePowerSource(tree.root() / "absent", false);
  EXPECT_FALSE(missing.useLinuxProvider);
  EXPECT_EQ(missing.description, "cannot list " + (tree.root() / "absent").string() +
                                     " (No such file or directory) — no battery can be read "
                                     "here, so the simulated machine runs instead");
}

}  // namespace
}  // namespace quorel
