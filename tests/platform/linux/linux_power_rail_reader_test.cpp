// Whole-machine rails from the platform energy zone and the power-supply class.

#include "platform/linux/linux_power_rail_reader.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "sysfs_tree.hpp"

namespace quorel {
namespace {

using testing::SysfsTree;

TEST(PlausibleRailsTest, RoundsClampsAndBoundsEachFigure) {
  constexpr double nan = std::numeric_limits<double>::quiet_NaN();
  constexpr double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(plausibleRails({400.0, -12.345, -12.345}), (SystemPowerRails{400.0, 12.35, 0.0}))
      << "the bound is plausible, a battery is rounded then a magnitude, an input floored";
  EXPECT_EQ(plausibleRails({400.01, 12.344, -401.0}),
            (SystemPowerRails{std::nullopt, 12.34, std::nullopt}));
  EXPECT_EQ(plausibleRails({nan, 0.0, std::nullopt}), (SystemPowerRails{std::nullopt, 0.0}))
      << "rails reading 0 are still rails";
  EXPECT_EQ(plausibleRails({std::nullopt, std::nullopt, std::nullopt}), std::nullopt);
  EXPECT_EQ(plausibleRails({inf, 900.0, std::nullopt}), std::nullopt)
      << "nothing plausible is no rails at all";
}

struct RailFixture : ::testing::Test {
  SysfsTree tree;
  KernelClockReading clocks{Seconds{50}, Seconds{50}};

  void psys(std::uint64_t energy_uJ) {
    tree.write("class/powercap/intel-rapl:1/name", "psys\n");
    tree.write("class/powercap/intel-rapl:1/max_energy_range_uj", "262143328850\n");
    tree.write("class/powercap/intel-rapl:1/energy_uj", std::to_string(energy_uJ) + "\n");
  }
  LinuxPowerRailReader reader() {
    return LinuxPowerRailReader(tree.root(), sysfsAttributeReader(), [this] { return clocks; });
  }
};

TEST_F(RailFixture, PlatformZoneBatteryAndAdapterFillTheirRails) {
  psys(1'000'000);
  tree.write("class/powercap/intel-rapl:0/name", "package-0\n");
  tree.write("class/powercap/intel-rapl:0/energy_uj", "5000000\n");
  tree.writeSupply("BAT0", {"TYPE=Battery", "PRESENT=1", "STATUS=Charging", "VOLTAGE_NOW=12000000",
                            "CURRENT_NOW=1500000"});
  tree.writeSupply("ucsi-source-psy-USBC000:001",
                   {"TYPE=USB", "ONLINE=1", "VOLTAGE_NOW=20000000", "CURRENT_NOW=3250000"});
  tree.writeSupply("hidpp_battery_0", {"TYPE=Battery", "SCOPE=Device", "POWER_NOW=9000000"});
  auto rails = reader();

  // One reading of the counter is no power; the mouse's battery is not the machine's.
  EXPECT_EQ(rails.sample(), (SystemPowerRails{std::nullopt, 18.0, 65.0}));

  clocks.monotonic += Seconds{5};
  clocks.boottime += Seconds{5};
  psys(1'000'000 + 123'456'789);  // 24.69 W, rounded to hundredths
  tree.setProperty("BAT0", "STATUS", "Discharging");
  tree.setProperty("BAT0", "CURRENT_NOW", "-2000000");
  tree.setProperty("ucsi-source-psy-USBC000:001", "ONLINE", "0");
  // The package zone is no part of the total, a discharging pack is a magnitude too, and an
  // offline port delivers nothing.
  EXPECT_EQ(rails.sample(), (SystemPowerRails{24.69, 24.0, std::nullopt}));
}

TEST_F(RailFixture, BatteryPowerIsPreferredEmptyBaysAreSkippedAndMainsWithoutCurrentGivesNoInput) {
  tree.writeSupply(
      "BAT1", {"TYPE=Battery", "POWER_NOW=-7126000", "VOLTAGE_NOW=11000000", "CURRENT_NOW=100000"});
  tree.writeSupply("BAT0", {"TYPE=Battery", "PRESENT=0", "POWER_NOW=5000000"});  // empty bay
  tree.writeSupply("AC", {"TYPE=Mains", "ONLINE=1"});
  EXPECT_EQ(reader().sample(), (SystemPowerRails{std::nullopt, 7.13}));
}

TEST_F(RailFixture, APlatformCounterAcrossASleepGivesNoTotal) {
  psys(0);
  auto rails = reader();
  rails.sample();
  clocks.monotonic += Seconds{30};
  clocks.boottime += Seconds{3630};
  psys(50'000'000);
  EXPECT_EQ(rails.sample(), std::nullopt) << "nothing else to report: no rails";
  clocks.monotonic += Seconds{20};
  clocks.boottime += Seconds{20};
  psys(250'000'000);
  auto awake = rails.sample();
  ASSERT_TRUE(awake);
  EXPECT_EQ(awake->systemTotalWatts, 10.0);
}

}  // namespace
}  // namespace quorel
