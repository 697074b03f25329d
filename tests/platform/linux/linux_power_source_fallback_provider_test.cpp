#include "platform/linux/linux_power_source_fallback_provider.hpp"

#include <gtest/gtest.h>

#include "core/power_phase.hpp"
#include "platform/linux/sysfs_tree.hpp"

namespace quorel {
namespace {

using testing::fixturePath;
using testing::SysfsTree;

class LinuxPowerSourceFallbackProviderTest : public ::testing::Test {
 protected:
  std::optional<PowerSnapshot> fetch(const std::filesystem::path& root) {
    LinuxPowerSourceFallbackProvider provider(root, clock);
    return provider.fetchSnapshot();
  }
  std::optional<PowerSnapshot> fetchFixture(const std::string& name) {
    return fetch(fixturePath(name) / "class/power_supply");
  }
  // Only the flags, the percentage and the estimates may differ from an empty snapshot.
  PowerSnapshot bare() {
    PowerSnapshot s;
    s.timestamp = clock.now();
    return s;
  }

  ManualClock clock;
};

TEST_F(LinuxPowerSourceFallbackProviderTest, OffersOnlyPercentageFlagsAndEstimates) {
  auto expected = bare();
  expected.batteryInstalled = true;
  expected.iopsPercent = 74;
  EXPECT_EQ(fetchFixture("energy-pack"), expected);

  expected = bare();
  expected.batteryInstalled = true;
  expected.isCharging = true;
  expected.externalConnected = true;
  expected.iopsPercent = 71;
  EXPECT_EQ(fetchFixture("charge-pack"), expected);

  // The gauge's estimate of time to empty serves both estimates, as the fallback reads it.
  expected = bare();
  expected.batteryInstalled = true;
  expected.timeRemaining_min = 348;
  expected.avgTimeToEmpty_min = 348;
  expected.iopsPercent = 62;
  EXPECT_EQ(fetchFixture("fuel-gauge"), expected);
}

TEST_F(LinuxPowerSourceFallbackProviderTest, ABatteryThatCannotBeReadAtAllLeavesTheAdapter) {
  SysfsTree tree("charge-pack");
  for (const auto& entry : std::filesystem::directory_iterator(tree.powerSupply() / "BAT0")) {
    std::filesystem::permissions(entry.path(), std::filesystem::perms::none);
  }
  auto s = fetch(tree.powerSupply());
  ASSERT_TRUE(s);
  EXPECT_FALSE(s->batteryInstalled);
  EXPECT_TRUE(s->externalConnected);
  EXPECT_FALSE(s->iopsPercent);
}

TEST_F(LinuxPowerSourceFallbackProviderTest, PercentageComesFromChargeOrEnergyWithoutCapacity) {
  SysfsTree tree;
  tree.writeSupply(
      "BAT0", {"TYPE=Battery", "STATUS=Discharging", "CHARGE_NOW=1500000", "CHARGE_FULL=4000000"});
  EXPECT_EQ(fetch(tree.powerSupply())->iopsPercent, 38);
  tree.writeSupply("BAT0", {"TYPE=Battery", "STATUS=Discharging", "ENERGY_NOW=30000000",
                            "ENERGY_FULL=40000000", "CAPACITY=999"});
  EXPECT_EQ(fetch(tree.powerSupply())->iopsPercent, 75);
  // Nothing to take a percentage from: the battery is there but reports no capacity.
  tree.writeSupply("BAT0", {"TYPE=Battery", "STATUS=Discharging"});
  auto s = fetch(tree.powerSupply());
  EXPECT_FALSE(s->batteryInstalled);
  EXPECT_FALSE(s->iopsPercent);
}

TEST_F(LinuxPowerSourceFallbackProviderTest, FullIsTheDriversWordOrAFullGaugeOnAdapter) {
  SysfsTree tree;
  tree.writeSupply("AC", {"TYPE=Mains", "ONLINE=1"});
  tree.writeSupply("BAT0", {"TYPE=Battery", "STATUS=Full", "CAPACITY=97"});
  EXPECT_TRUE(fetch(tree.powerSupply())->fullyCharged);

  tree.setProperty("BAT0", "STATUS", "Not charging");
  EXPECT_FALSE(fetch(tree.powerSupply())->fullyCharged);
  tree.setProperty("BAT0", "CAPACITY", "100");
  EXPECT_TRUE(fetch(tree.powerSupply())->fullyCharged);

  // On battery a full gauge is not "charged": the adapter has to be there.
  tree.setProperty("AC", "ONLINE", "0");
  tree.setProperty("BAT0", "STATUS", "Discharging");
  EXPECT_FALSE(fetch(tree.powerSupply())->fullyCharged);
}

TEST_F(LinuxPowerSourceFallbackProviderTest, EstimatesFollowTheChargingFlagAndMustBePositive) {
  SysfsTree tree;
  tree.writeSupply("BAT0", {"TYPE=Battery", "STATUS=Charging", "CAPACITY=40",
                            "TIME_TO_FULL_NOW=3600", "TIME_TO_EMPTY_NOW=0"});
  auto s = fetch(tree.powerSupply());
  EXPECT_EQ(s->timeRemaining_min, 60);
  EXPECT_FALSE(s->avgTimeToEmpty_min);
  EXPECT_TRUE(s->isCharging);
  // No adapter is listed; a charging battery says there is one.
  EXPECT_TRUE(s->externalConnected);
}

TEST_F(LinuxPowerSourceFallbackProviderTest, WithoutASystemBatteryNothingIsInstalled) {
  auto desktop = fetchFixture("desktop-mains");
  ASSERT_TRUE(desktop);
  EXPECT_FALSE(desktop->batteryInstalled);
  EXPECT_TRUE(desktop->externalConnected);
  EXPECT_FALSE(desktop->iopsPercent);
  EXPECT_EQ(phaseFrom(*desktop, 0, {}), PowerPhase::noBattery);

  // A UPS and a mouse are passed over; the machine itself reads as battery-less.
  SysfsTree tree;
  tree.writeSupply("hidpp_battery_0", {"TYPE=Battery", "SCOPE=Device", "CAPACITY=90"});
  tree.writeSupply("ups0", {"TYPE=UPS", "CAPACITY=100", "STATUS=Full"});
  auto s = fetch(tree.powerSupply());
  ASSERT_TRUE(s);
  EXPECT_FALSE(s->batteryInstalled);
  EXPECT_FALSE(s->iopsPercent);
  EXPECT_FALSE(s->fullyCharged);

  tree.writeSupply("BAT0", {"TYPE=Battery", "PRESENT=0", "CAPACITY=0"});
  EXPECT_FALSE(fetch(tree.powerSupply())->batteryInstalled);

  // Without the class directory there is nothing to say at all.
  EXPECT_FALSE(fetchFixture("nowhere"));
}

}  // namespace
}  // namespace quorel
