#include "platform/linux/linux_power_supply_provider.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>

#include "core/power_phase.hpp"
#include "platform/linux/sysfs_tree.hpp"

namespace quorel {

// Readable failure messages when two snapshots differ.
void PrintTo(const PowerSnapshot& s, std::ostream* os) {
  auto opt = [](const auto& v) { return v ? fmt::format("{}", *v) : std::string("none"); };
  *os << fmt::format(
      "{{V={}mV I={}mA avgI={}mA cap={}/{}/{}/{}mAh cycles={} temp={}cC charging={} external={} "
      "full={} installed={} remaining={} avgEmpty={} adapter={}W {}mA {}mV serial={} percent={}}}",
      s.voltage_mV, s.instantAmperage_mA, s.amperage_mA, s.currentCapacity_mAh, s.maxCapacity_mAh,
      s.nominalCapacity_mAh, s.designCapacity_mAh, s.cycleCount, s.temperature_cC, s.isCharging,
      s.externalConnected, s.fullyCharged, s.batteryInstalled, opt(s.timeRemaining_min),
      opt(s.avgTimeToEmpty_min), opt(s.adapterWatts), opt(s.adapterCurrent_mA),
      opt(s.adapterVoltage_mV), opt(s.batterySerial), opt(s.iopsPercent));
}

namespace {

using ::testing::ElementsAre;
using testing::fixturePath;
using ::testing::IsEmpty;
using testing::LogCapture;
using testing::SysfsTree;

class LinuxPowerSupplyProviderTest : public ::testing::Test {
 protected:
  PowerSupplyReading readFixture(const std::string& name) {
    LinuxPowerSupplyProvider provider(fixturePath(name) / "class/power_supply", clock);
    return provider.read();
  }

  PowerSnapshot battery() {
    PowerSnapshot s;
    s.timestamp = clock.now();
    s.batteryInstalled = true;
    return s;
  }

  ManualClock clock;
};

// ---- Fixture trees: every field in the snapshot's units and signs -------------------------

TEST_F(LinuxPowerSupplyProviderTest, EnergyPackIsConvertedThroughItsDesignVoltage) {
  auto reading = readFixture("energy-pack");
  ASSERT_TRUE(reading.snapshot) << reading.failure.value_or("");
  auto expected = battery();
  expected.voltage_mV = 16502;
  // 7.368 W at 16.502 V, reported as a positive magnitude while discharging.
  expected.instantAmperage_mA = -446;
  expected.amperage_mA = -446;
  // µWh over the 15.44 V minimum design voltage.
  expected.currentCapacity_mAh = 2479;
  expected.maxCapacity_mAh = 3327;
  expected.nominalCapacity_mAh = 3327;
  expected.designCapacity_mAh = 3692;
  expected.cycleCount = 123;
  expected.batterySerial = "4711";
  expected.iopsPercent = 74;
  EXPECT_EQ(*reading.snapshot, expected);

  EXPECT_THAT(reading.diagnostics.notes(),
              ElementsAre("BAT0 reports energy, not charge — converted through voltage_min_design",
                          "BAT0 reports no current_now — current derived from power_now",
                          "BAT0 reports its current with a sign that contradicts status "
                          "\"Discharging\" — sign taken from the status"));
}

TEST_F(LinuxPowerSupplyProviderTest, ChargePackOnUsbCReportsTheNegotiatedAdapter) {
  auto reading = readFixture("charge-pack");
  ASSERT_TRUE(reading.snapshot) << reading.failure.value_or("");
  auto expected = battery();
  expected.voltage_mV = 12600;
  expected.instantAmperage_mA = 1500;
  expected.amperage_mA = 1500;
  expected.currentCapacity_mAh = 3000;
  expected.maxCapacity_mAh = 4200;
  expected.nominalCapacity_mAh = 4200;
  expected.designCapacity_mAh = 4500;
  expected.cycleCount = 0;
  expected.isCharging = true;
  expected.externalConnected = true;
  // 20 V at up to 3.25 A negotiated, 1.1 A drawn now; the offline port contributes nothing.
  expected.adapterWatts = 65;
  expected.adapterVoltage_mV = 20000;
  expected.adapterCurrent_mA = 1100;
  expected.batterySerial = "8BBA";
  expected.iopsPercent = 71;
  EXPECT_EQ(*reading.snapshot, expected);
  EXPECT_EQ(reading.diagnostics.adapterSupply, "ucsi-source-psy-USBC000:001");
  EXPECT_THAT(reading.diagnostics.notes(),
              ElementsAre("BAT0 reports no cycle count — cycles unknown, kept as 0"));
}

TEST_F(LinuxPowerSupplyProviderTest, TwoPacksFoldIntoOneReading) {
  auto reading = readFixture("two-packs");
  ASSERT_TRUE(reading.snapshot) << reading.failure.value_or("");
  auto expected = battery();
  // BAT1 carries the load, so its voltage stands for the pair; BAT0 rests at 0 W.
  expected.voltage_mV = 11870;
  expected.instantAmperage_mA = -773;
  expected.amperage_mA = -773;
  expected.currentCapacity_mAh = 3705;
  expected.maxCapacity_mAh = 7872;
  expected.nominalCapacity_mAh = 7872;
  expected.designCapacity_mAh = 8494;
  expected.cycleCount = 310;  // the more worn pack
  expected.batterySerial = "2831+560";
  // 95 % of the small pack and 33 % of the large one, weighed by what each holds when full.
  expected.iopsPercent = 47;
  EXPECT_EQ(*reading.snapshot, expected);
  EXPECT_EQ(reading.diagnostics.packs.size(), 2u);
}

TEST_F(LinuxPowerSupplyProviderTest, FuelGaugeKeepsItsSignTemperatureAndEstimates) {
  auto reading = readFixture("fuel-gauge");
  ASSERT_TRUE(reading.snapshot) << reading.failure.value_or("");
  auto expected = battery();
  expected.voltage_mV = 7912;
  expected.instantAmperage_mA = -843;
  expected.amperage_mA = -901;
  expected.currentCapacity_mAh = 3620;
  expected.maxCapacity_mAh = 5840;
  expected.nominalCapacity_mAh = 5840;
  expected.designCapacity_mAh = 6200;
  expected.cycleCount = 57;
  expected.temperature_cC = 3120;
  expected.timeRemaining_min = 348;
  expected.avgTimeToEmpty_min = 331;
  expected.batterySerial = "0x1c2f";
  expected.iopsPercent = 62;
  EXPECT_EQ(*reading.snapshot, expected);
  EXPECT_THAT(reading.diagnostics.notes(), IsEmpty());
}

TEST_F(LinuxPowerSupplyProviderTest, PositiveCurrentWhileDischargingIsNegatedAndMouseIgnored) {
  auto reading = readFixture("positive-discharge");
  ASSERT_TRUE(reading.snapshot) << reading.failure.value_or("");
  auto expected = battery();
  expected.voltage_mV = 7604;
  expected.instantAmperage_mA = -1250;
  expected.amperage_mA = -1250;
  expected.currentCapacity_mAh = 2304;
  expected.maxCapacity_mAh = 5120;
  expected.nominalCapacity_mAh = 5120;
  expected.designCapacity_mAh = 5800;
  expected.cycleCount = 212;
  expected.batterySerial = "SerialNumber";
  expected.iopsPercent = 45;
  // The mouse is charging over its cable; this machine is not.
  EXPECT_EQ(*reading.snapshot, expected);
  EXPECT_THAT(reading.diagnostics.ignoredPeripherals, ElementsAre("hidpp_battery_0"));
  EXPECT_TRUE(reading.diagnostics.packs.at(0).currentSignCorrected);
}

TEST_F(LinuxPowerSupplyProviderTest, DesktopWithOnlyMainsHasNoBatteryButExternalPower) {
  auto reading = readFixture("desktop-mains");
  ASSERT_TRUE(reading.snapshot) << reading.failure.value_or("");
  PowerSnapshot expected;
  expected.timestamp = clock.now();
  expected.externalConnected = true;
  EXPECT_EQ(*reading.snapshot, expected);
  EXPECT_EQ(phaseFrom(*reading.snapshot, 0, {}), PowerPhase::noBattery);
}

TEST_F(LinuxPowerSupplyProviderTest, MalformedValuesAreMissingNeverZeroOrFatal) {
  auto reading = readFixture("broken-values");
  ASSERT_TRUE(reading.snapshot) << reading.failure.value_or("");
  auto expected = battery();
  expected.voltage_mV = 11800;
  // current_now "12abc" is missing, so power_now (5 W) gives the current.
  expected.instantAmperage_mA = -424;
  expected.amperage_mA = -424;
  expected.currentCapacity_mAh = 2100;
  // charge_full "n/a" is missing; energy_full stands in, and with a design voltage of 0 it is
  // converted through voltage_now.
  expected.maxCapacity_mAh = 3729;
  expected.nominalCapacity_mAh = 3729;
  expected.externalConnected = true;
  // A negative design charge, capacity 250, cycle_count -1, an absurd temperature, a blank
  // serial and an overflowing time estimate are all absent.
  EXPECT_EQ(*reading.snapshot, expected);
  EXPECT_EQ(reading.diagnostics.packs.at(0).capacityConversion, CapacityConversion::viaVoltageNow);
}

TEST_F(LinuxPowerSupplyProviderTest, AttributeFilesServeWhenThereIsNoUevent) {
  auto reading = readFixture("attributes-only");
  ASSERT_TRUE(reading.snapshot) << reading.failure.value_or("");
  auto expected = battery();
  expected.voltage_mV = 12900;
  expected.currentCapacity_mAh = 3800;
  expected.maxCapacity_mAh = 3800;
  expected.nominalCapacity_mAh = 3800;
  expected.designCapacity_mAh = 4000;
  expected.cycleCount = 9;
  expected.externalConnected = true;
  expected.fullyCharged = true;
  expected.iopsPercent = 100;
  EXPECT_EQ(*reading.snapshot, expected);
}

// ---- A tree that changes under the provider ----------------------------------------------

TEST_F(LinuxPowerSupplyProviderTest, PluggingInTurnsTheNextReadingIntoCharging) {
  SysfsTree tree("energy-pack");
  LinuxPowerSupplyProvider provider(tree.powerSupply(), clock);
  ASSERT_TRUE(provider.fetchSnapshot());

  tree.setProperty("AC", "ONLINE", "1");
  tree.setProperty("BAT0", "STATUS", "Charging");
  tree.setProperty("BAT0", "POWER_NOW", "24000000");
  clock.advance(Seconds{2});
  auto after = provider.fetchSnapshot();
  ASSERT_TRUE(after);
  EXPECT_TRUE(after->isCharging);
  EXPECT_TRUE(after->externalConnected);
  EXPECT_EQ(after->instantAmperage_mA, 1454);  // 24 W at 16.502 V, into the battery
  EXPECT_EQ(after->timestamp, clock.now());
}

TEST_F(LinuxPowerSupplyProviderTest, StatusDecidesTheSignWhicheverWayTheDriverReports) {
  SysfsTree tree;
  tree.writeSupply("BAT0", {"TYPE=Battery", "STATUS=Charging", "PRESENT=1", "VOLTAGE_NOW=12000000",
                            "CURRENT_NOW=-2000000"});
  LinuxPowerSupplyProvider provider(tree.powerSupply(), clock);
  EXPECT_EQ(provider.read().snapshot->instantAmperage_mA, 2000);
  for (const char* status : {"Discharging", "Not charging", "Full", "Unknown"}) {
    tree.setProperty("BAT0", "STATUS", status);
    tree.setProperty("BAT0", "CURRENT_NOW", "2000000");
    EXPECT_EQ(provider.read().snapshot->instantAmperage_mA, -2000) << status;
  }
}

TEST_F(LinuxPowerSupplyProviderTest, WithoutAnyAdapterListedTheStatusTellsExternalPower) {
  SysfsTree tree;
  tree.writeSupply("BAT0",
                   {"TYPE=Battery", "STATUS=Not charging", "VOLTAGE_NOW=8000000", "CAPACITY=80"});
  LinuxPowerSupplyProvider provider(tree.powerSupply(), clock);
  auto reading = provider.read();
  EXPECT_TRUE(reading.snapshot->externalConnected);
  EXPECT_TRUE(reading.diagnostics.externalPowerInferredFromStatus);

  tree.setProperty("BAT0", "STATUS", "Discharging");
  reading = provider.read();
  EXPECT_FALSE(reading.snapshot->externalConnected);
  EXPECT_FALSE(reading.diagnostics.externalPowerInferredFromStatus);

  // Once an adapter is listed, its own word counts, even against the battery's status.
  tree.setProperty("BAT0", "STATUS", "Not charging");
  tree.writeSupply("AC", {"TYPE=Mains", "ONLINE=0"});
  EXPECT_FALSE(provider.read().snapshot->externalConnected);
}

TEST_F(LinuxPowerSupplyProviderTest, TwoPacksChargeWhenEitherDoesAndAreFullOnlyTogether) {
  SysfsTree tree("two-packs");
  tree.setProperty("AC", "ONLINE", "1");
  tree.setProperty("BAT0", "STATUS", "Full");
  tree.setProperty("BAT1", "STATUS", "Charging");
  LinuxPowerSupplyProvider provider(tree.powerSupply(), clock);
  auto s = provider.read().snapshot;
  ASSERT_TRUE(s);
  EXPECT_TRUE(s->isCharging);
  EXPECT_FALSE(s->fullyCharged);
  EXPECT_EQ(s->instantAmperage_mA, 773);

  tree.setProperty("BAT1", "STATUS", "Full");
  s = provider.read().snapshot;
  EXPECT_FALSE(s->isCharging);
  EXPECT_TRUE(s->fullyCharged);
}

TEST_F(LinuxPowerSupplyProviderTest, AnAbsentSecondPackIsLeftOut) {
  SysfsTree tree("two-packs");
  tree.setProperty("BAT0", "PRESENT", "0");
  LinuxPowerSupplyProvider provider(tree.powerSupply(), clock);
  auto reading = provider.read();
  ASSERT_TRUE(reading.snapshot);
  EXPECT_EQ(reading.snapshot->maxCapacity_mAh, 6072);
  EXPECT_EQ(reading.snapshot->iopsPercent, 33);
  EXPECT_EQ(reading.snapshot->batterySerial, "560");
  EXPECT_THAT(reading.diagnostics.absentPacks, ElementsAre("BAT0"));
}

// ---- Failures: nothing this tick, a counted and logged reason ----------------------------

TEST_F(LinuxPowerSupplyProviderTest, ReadsThatCannotBeTrustedGiveNothing) {
  struct Case {
    const char* what;
    void (*breakTree)(const SysfsTree&);
    const char* failure;
  };
  const Case cases[] = {
      {"battery not present", [](const SysfsTree& t) { t.setProperty("BAT0", "PRESENT", "0"); },
       "battery BAT0 reports it is not present"},
      {"voltage is text",
       [](const SysfsTree& t) { t.setProperty("BAT0", "VOLTAGE_NOW", "unknown"); },
       "battery BAT0 gives no usable voltage_now"},
      {"voltage is impossible",
       [](const SysfsTree& t) { t.setProperty("BAT0", "VOLTAGE_NOW", "-12000000"); },
       "battery BAT0 gives no usable voltage_now"},
      {"uevent and type unreadable",
       [](const SysfsTree& t) {
         t.makeUnreadable("class/power_supply/BAT0/uevent");
         t.makeUnreadable("class/power_supply/BAT0/type");
       },
       "power supply BAT0 cannot be read"},
      {"every file of the battery made unreadable",
       [](const SysfsTree& t) {
         for (const auto& entry : std::filesystem::directory_iterator(t.powerSupply() / "BAT0")) {
           std::filesystem::permissions(entry.path(), std::filesystem::perms::none);
         }
       },
       "power supply BAT0 cannot be read"},
      {"device directory gone behind its link",
       [](const SysfsTree& t) {
         t.remove("devices/LNXSYSTM:00/LNXSYBUS:00/PNP0C0A:00/power_supply/BAT0");
       },
       "power supply BAT0 cannot be read"},
  };
  for (const auto& c : cases) {
    SysfsTree tree("energy-pack");
    c.breakTree(tree);
    LinuxPowerSupplyProvider provider(tree.powerSupply(), clock);
    auto reading = provider.read();
    EXPECT_FALSE(reading.snapshot) << c.what;
    EXPECT_EQ(reading.failure, c.failure) << c.what;
  }
}

TEST_F(LinuxPowerSupplyProviderTest, AnUnreadableUeventFallsBackToTheAttributeFiles) {
  SysfsTree tree("energy-pack");
  tree.makeUnreadable("class/power_supply/BAT0/uevent");
  LinuxPowerSupplyProvider provider(tree.powerSupply(), clock);
  auto fromFiles = provider.read().snapshot;
  ASSERT_TRUE(fromFiles);
  auto fromUevent = readFixture("energy-pack").snapshot;
  EXPECT_EQ(*fromFiles, *fromUevent);
}

TEST_F(LinuxPowerSupplyProviderTest, MissingClassDirectoryIsAFailureThatNamesThePath) {
  SysfsTree tree;
  LinuxPowerSupplyProvider provider(tree.powerSupply(), clock);
  auto reading = provider.read();
  EXPECT_FALSE(reading.snapshot);
  EXPECT_EQ(reading.failure,
            "cannot list " + tree.powerSupply().string() + " (No such file or directory)");
}

TEST_F(LinuxPowerSupplyProviderTest, FailuresAreCountedEachTickAndLoggedOncePerChange) {
  LogCapture log;
  SysfsTree tree("energy-pack");
  LinuxPowerSupplyProvider provider(tree.powerSupply(), clock);
  ASSERT_TRUE(provider.fetchSnapshot());

  tree.setProperty("BAT0", "VOLTAGE_NOW", "garbage");
  for (int tick = 0; tick < 3; ++tick) EXPECT_FALSE(provider.fetchSnapshot());
  tree.setProperty("BAT0", "PRESENT", "0");
  EXPECT_FALSE(provider.fetchSnapshot());
  EXPECT_EQ(provider.failedReadCount(), 4u);

  tree.setProperty("BAT0", "PRESENT", "1");
  tree.setProperty("BAT0", "VOLTAGE_NOW", "16502000");
  EXPECT_TRUE(provider.fetchSnapshot());
  EXPECT_TRUE(provider.fetchSnapshot());
  EXPECT_EQ(provider.failedReadCount(), 4u);

  EXPECT_THAT(
      log.messages("PowerSupply"),
      ElementsAre("BAT0 reports energy, not charge — converted through voltage_min_design",
                  "BAT0 reports no current_now — current derived from power_now",
                  "BAT0 reports its current with a sign that contradicts status \"Discharging\" "
                  "— sign taken from the status",
                  "battery BAT0 gives no usable voltage_now — no reading this tick",
                  "battery BAT0 reports it is not present — no reading this tick",
                  "power supply readable again after 4 failed reads"));
}

TEST_F(LinuxPowerSupplyProviderTest, ANewAssumptionIsLoggedWhenItAppears) {
  LogCapture log;
  SysfsTree tree("charge-pack");
  LinuxPowerSupplyProvider provider(tree.powerSupply(), clock);
  ASSERT_TRUE(provider.fetchSnapshot());
  ASSERT_TRUE(provider.fetchSnapshot());
  tree.setProperty("BAT0", "STATUS", "Discharging");
  ASSERT_TRUE(provider.fetchSnapshot());
  EXPECT_THAT(log.messages("PowerSupply"),
              ElementsAre("BAT0 reports no cycle count — cycles unknown, kept as 0",
                          "BAT0 reports its current with a sign that contradicts status "
                          "\"Discharging\" — sign taken from the status"));
}

// ---- Charge thresholds -------------------------------------------------------------------

TEST_F(LinuxPowerSupplyProviderTest, ChargeThresholdsAreReadBesideTheUeventWhenInRange) {
  LinuxPowerSupplyProvider provider(fixturePath("energy-pack") / "class/power_supply", clock);
  EXPECT_THAT(provider.readChargeControl(),
              ElementsAre(ChargeControlReading{
                  "BAT0", 40, 80, "auto", {"auto", "inhibit-charge", "force-discharge"}}));

  LinuxPowerSupplyProvider without(fixturePath("charge-pack") / "class/power_supply", clock);
  EXPECT_THAT(without.readChargeControl(), IsEmpty());

  // Out of range is absent; a peripheral's thresholds are not the machine's.
  SysfsTree tree;
  tree.writeSupply("BAT0",
                   {"TYPE=Battery", "VOLTAGE_NOW=12000000", "CHARGE_CONTROL_END_THRESHOLD=60",
                    "CHARGE_BEHAVIOUR=auto [force-discharge]"});
  tree.write("class/power_supply/BAT0/charge_control_start_threshold", "140\n");
  tree.writeSupply("hidpp_battery_0",
                   {"TYPE=Battery", "SCOPE=Device", "CHARGE_CONTROL_END_THRESHOLD=90"});
  LinuxPowerSupplyProvider made(tree.powerSupply(), clock);
  EXPECT_THAT(made.readChargeControl(),
              ElementsAre(ChargeControlReading{
                  "BAT0", std::nullopt, 60, "force-discharge", {"auto", "force-discharge"}}));
}

}  // namespace
}  // namespace quorel
