#include "platform/linux/linux_power_supply_provider.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/power_phase.hpp"
#include "platform/linux/linux_power_source_fallback_provider.hpp"
#include "platform/linux/sysfs_tree.hpp"
#include "telemetry/power_monitor.hpp"

namespace quorel {

namespace {

using ::testing::ElementsAre;
using testing::fixturePath;
using testing::LogCapture;
using testing::SysfsTree;

std::string opposedSign(const char* pack) {
  return std::string(pack) +
         " reports its current with a sign that contradicts status \"Discharging\" — sign taken "
         "from the status";
}
const std::string energyNote = " reports energy, not charge — converted through voltage_min_design";
const std::string powerNote = " reports no current_now — current derived from power_now";
const std::string noCycles = "BAT0 reports no cycle count — cycles unknown, kept as 0";

class LinuxPowerSupplyProviderTest : public ::testing::Test {
 protected:
  PowerSupplyReading readFixture(const std::string& name) {
    LinuxPowerSupplyProvider provider(fixturePath(name) / "class/power_supply", clock);
    return provider.read();
  }
  PowerSupplyReading read(const SysfsTree& tree) {
    LinuxPowerSupplyProvider provider(tree.powerSupply(), clock);
    return provider.read();
  }
  PowerSnapshot stamped(PowerSnapshot s) {
    s.timestamp = clock.now();
    return s;
  }
  // The fallback, which reads no more than the percentage, the flags and the estimates.
  std::optional<PowerSnapshot> fetch(const std::filesystem::path& root) {
    LinuxPowerSourceFallbackProvider provider(root, clock);
    return provider.fetchSnapshot();
  }
  std::optional<PowerSnapshot> fetchFixture(const std::string& name) {
    return fetch(fixturePath(name) / "class/power_supply");
  }

  ManualClock clock;
};
using LinuxPowerSourceFallbackProviderTest = LinuxPowerSupplyProviderTest;

TEST_F(LinuxPowerSupplyProviderTest, FixtureTreesReadIntoTheSnapshotsUnitsAndSigns) {
  struct Case {
    const char* fixture;
    PowerSnapshot expected;
    std::vector<std::string> notes;
  };
  // clang-format off
  const Case cases[] = {
      // 7.368 W at 16.502 V while discharging; µWh over the 15.44 V minimum design voltage.
      {"energy-pack",
       {.voltage_mV = 16502, .instantAmperage_mA = -446, .amperage_mA = -446,
        .currentCapacity_mAh = 2479, .maxCapacity_mAh = 3327, .nominalCapacity_mAh = 3327,
        .designCapacity_mAh = 3692, .cycleCount = 123, .batteryInstalled = true,
        .batterySerial = "4711", .iopsPercent = 74},
       {"BAT0" + energyNote, "BAT0" + powerNote, opposedSign("BAT0")}},
      // 20 V at up to 3.25 A negotiated, 1.1 A drawn now; the offline port contributes nothing.
      {"charge-pack",
       {.voltage_mV = 12600, .instantAmperage_mA = 1500, .amperage_mA = 1500,
        .currentCapacity_mAh = 3000, .maxCapacity_mAh = 4200, .nominalCapacity_mAh = 4200,
        .designCapacity_mAh = 4500, .isCharging = true, .externalConnected = true,
        .batteryInstalled = true, .adapterWatts = 65, .adapterCurrent_mA = 1100,
        .adapterVoltage_mV = 20000, .batterySerial = "8BBA", .iopsPercent = 71},
       {noCycles}},
      // BAT1 carries the load, so its voltage stands for the pair; cycles of the more worn
      // pack; 95 % of the small pack and 33 % of the large one, weighed by their full charge.
      {"two-packs",
       {.voltage_mV = 11870, .instantAmperage_mA = -773, .amperage_mA = -773,
        .currentCapacity_mAh = 3705, .maxCapacity_mAh = 7872, .nominalCapacity_mAh = 7872,
        .designCapacity_mAh = 8494, .cycleCount = 310, .batteryInstalled = true,
        .batterySerial = "2831+560", .iopsPercent = 47},
       {"BAT0" + energyNote, "BAT0" + powerNote, "BAT1" + energyNote, "BAT1" + powerNote,
        opposedSign("BAT1")}},
      {"fuel-gauge",
       {.voltage_mV = 7912, .instantAmperage_mA = -843, .amperage_mA = -901,
        .currentCapacity_mAh = 3620, .maxCapacity_mAh = 5840, .nominalCapacity_mAh = 5840,
        .designCapacity_mAh = 6200, .cycleCount = 57, .temperature_cC = 3120,
        .batteryInstalled = true, .timeRemaining_min = 348, .avgTimeToEmpty_min = 331,
        .batterySerial = "0x1c2f", .iopsPercent = 62},
       {}},
      // The mouse is charging over its cable; this machine is not.
      {"positive-discharge",
       {.voltage_mV = 7604, .instantAmperage_mA = -1250, .amperage_mA = -1250,
        .currentCapacity_mAh = 2304, .maxCapacity_mAh = 5120, .nominalCapacity_mAh = 5120,
        .designCapacity_mAh = 5800, .cycleCount = 212, .batteryInstalled = true,
        .batterySerial = "SerialNumber", .iopsPercent = 45},
       {opposedSign("BAT1"), "hidpp_battery_0 powers a peripheral — ignored"}},
      {"desktop-mains", {.externalConnected = true}, {}},
      // current_now "12abc" is missing, so power_now (5 W) gives the current; charge_full "n/a"
      // is missing and energy_full goes through voltage_now. A negative design charge, capacity
      // 250, cycle_count -1, an absurd temperature, a blank serial, a huge estimate: all absent.
      {"broken-values",
       {.voltage_mV = 11800, .instantAmperage_mA = -424, .amperage_mA = -424,
        .currentCapacity_mAh = 2100, .maxCapacity_mAh = 3729, .nominalCapacity_mAh = 3729,
        .externalConnected = true, .batteryInstalled = true},
       {"BAT0 reports energy, not charge, and no design voltage — converted through voltage_now",
        "BAT0" + powerNote, opposedSign("BAT0"),
        noCycles}},
      // No uevent at all: the attribute files serve.
      {"attributes-only",
       {.voltage_mV = 12900, .currentCapacity_mAh = 3800, .maxCapacity_mAh = 3800,
        .nominalCapacity_mAh = 3800, .designCapacity_mAh = 4000, .cycleCount = 9,
        .externalConnected = true, .fullyCharged = true, .batteryInstalled = true,
        .iopsPercent = 100},
       {}},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fixture);
    auto reading = readFixture(c.fixture);
    ASSERT_TRUE(reading.snapshot) << reading.failure.value_or("");
    EXPECT_EQ(*reading.snapshot, stamped(c.expected));
    EXPECT_EQ(reading.diagnostics.notes(), c.notes);
  }
}

TEST_F(LinuxPowerSupplyProviderTest, StatusDecidesTheSignAndExternalPowerWithoutAnAdapter) {
  SysfsTree tree;
  tree.writeSupply("BAT0", {"TYPE=Battery", "STATUS=Charging", "PRESENT=1", "VOLTAGE_NOW=12000000",
                            "CURRENT_NOW=-2000000"});
  EXPECT_EQ(read(tree).snapshot->instantAmperage_mA, 2000);
  for (const char* status : {"Discharging", "Not charging", "Full", "Unknown"}) {
    tree.setProperty("BAT0", "STATUS", status);
    tree.setProperty("BAT0", "CURRENT_NOW", "2000000");
    EXPECT_EQ(read(tree).snapshot->instantAmperage_mA, -2000) << status;
  }

  // Without any adapter listed the status tells whether there is external power.
  tree.setProperty("BAT0", "STATUS", "Not charging");
  auto reading = read(tree);
  EXPECT_TRUE(reading.snapshot->externalConnected);
  EXPECT_TRUE(reading.diagnostics.externalPowerInferredFromStatus);
  tree.setProperty("BAT0", "STATUS", "Discharging");
  reading = read(tree);
  EXPECT_FALSE(reading.snapshot->externalConnected);
  EXPECT_FALSE(reading.diagnostics.externalPowerInferredFromStatus);

  // Once an adapter is listed, its own word counts, even against the battery's status.
  tree.setProperty("BAT0", "STATUS", "Not charging");
  tree.writeSupply("AC", {"TYPE=Mains", "ONLINE=0"});
  EXPECT_FALSE(read(tree).snapshot->externalConnected);
}

TEST_F(LinuxPowerSupplyProviderTest,
       TwoPacksChargeWhenEitherDoesAreFullTogetherAndAbsentOneIsLeftOut) {
  SysfsTree tree("two-packs");
  tree.setProperty("AC", "ONLINE", "1");
  tree.setProperty("BAT0", "STATUS", "Full");
  tree.setProperty("BAT1", "STATUS", "Charging");
  auto s = read(tree).snapshot;
  ASSERT_TRUE(s);
  EXPECT_TRUE(s->isCharging);
  EXPECT_FALSE(s->fullyCharged);
  EXPECT_EQ(s->instantAmperage_mA, 773);
  tree.setProperty("BAT1", "STATUS", "Full");
  s = read(tree).snapshot;
  EXPECT_FALSE(s->isCharging);
  EXPECT_TRUE(s->fullyCharged);

  // An absent pack is left out.
  tree.setProperty("BAT0", "PRESENT", "0");
  auto reading = read(tree);
  ASSERT_TRUE(reading.snapshot);
  EXPECT_EQ(reading.snapshot->maxCapacity_mAh, 6072);
  EXPECT_EQ(reading.snapshot->iopsPercent, 33);
  EXPECT_EQ(reading.snapshot->batterySerial, "560");
  EXPECT_THAT(reading.diagnostics.absentPacks, ElementsAre("BAT0"));
}

TEST_F(LinuxPowerSupplyProviderTest, ReadsThatCannotBeTrustedGiveNothing) {
  const char* noVoltage = "battery BAT0 gives no usable voltage_now";
  const char* unreadable = "power supply BAT0 cannot be read";
  // clang-format off
  const std::pair<void (*)(const SysfsTree&), const char*> cases[] = {
      {[](const SysfsTree& t) { t.setProperty("BAT0", "PRESENT", "0"); },
       "battery BAT0 reports it is not present"},
      {[](const SysfsTree& t) { t.setProperty("BAT0", "VOLTAGE_NOW", "unknown"); }, noVoltage},
      {[](const SysfsTree& t) { t.setProperty("BAT0", "VOLTAGE_NOW", "-12000000"); }, noVoltage},
      {[](const SysfsTree& t) {
         t.makeUnreadable("class/power_supply/BAT0/uevent");
         t.makeUnreadable("class/power_supply/BAT0/type");
       }, unreadable},
      {[](const SysfsTree& t) { t.makeSupplyUnreadable("BAT0"); }, unreadable},
      // The device directory gone behind the class link.
      {[](const SysfsTree& t) {
         t.remove("devices/LNXSYSTM:00/LNXSYBUS:00/PNP0C0A:00/power_supply/BAT0");
       }, unreadable},
  };
  // clang-format on
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SysfsTree tree("energy-pack");
    cases[i].first(tree);
    auto reading = read(tree);
    EXPECT_FALSE(reading.snapshot) << "case " << i;
    EXPECT_EQ(reading.failure, cases[i].second) << "case " << i;
  }
  SysfsTree empty;
  EXPECT_EQ(read(empty).failure,
            "cannot list " + empty.powerSupply().string() + " (No such file or directory)");
}

TEST_F(LinuxPowerSupplyProviderTest, FailuresAreCountedAndLoggedOncePerChangeAsAreNewNotes) {
  LogCapture log;
  SysfsTree tree("energy-pack");
  tree.setProperty("BAT0", "STATUS", "Charging");
  LinuxPowerSupplyProvider provider(tree.powerSupply(), clock);
  auto charging = provider.fetchSnapshot();
  ASSERT_TRUE(charging);
  EXPECT_EQ(charging->instantAmperage_mA, 446);  // 7.368 W into the pack at 16.502 V

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
  tree.setProperty("BAT0", "STATUS", "Discharging");
  EXPECT_TRUE(provider.fetchSnapshot());

  EXPECT_THAT(log.messages("PowerSupply"),
              ElementsAre("BAT0" + energyNote, "BAT0" + powerNote,
                          "battery BAT0 gives no usable voltage_now — no reading this tick",
                          "battery BAT0 reports it is not present — no reading this tick",
                          "power supply readable again after 4 failed reads", opposedSign("BAT0")));
}

TEST_F(LinuxPowerSupplyProviderTest, ChargeThresholdsAreReadBesideTheUeventWhenInRange) {
  LinuxPowerSupplyProvider provider(fixturePath("energy-pack") / "class/power_supply", clock);
  EXPECT_THAT(provider.readChargeControl(),
              ElementsAre(ChargeControlReading{
                  "BAT0", 40, 80, "auto", {"auto", "inhibit-charge", "force-discharge"}}));

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

TEST_F(LinuxPowerSourceFallbackProviderTest, PercentageFullAndEstimatesFromWhatTheDriverGives) {
  struct Case {
    const char* what;
    const char* adapterOnline;  // no adapter listed when null
    std::vector<std::string> battery;
    PowerSnapshot expected;
  };
  // clang-format off
  const Case cases[] = {
      {"charge counters", nullptr,
       {"STATUS=Discharging", "CHARGE_NOW=1500000", "CHARGE_FULL=4000000"},
       {.batteryInstalled = true, .iopsPercent = 38}},
      {"nothing to take a percentage from", nullptr, {"STATUS=Discharging"}, {}},
      {"full by the driver's word", "1", {"STATUS=Full", "CAPACITY=97"},
       {.externalConnected = true, .fullyCharged = true, .batteryInstalled = true,
        .iopsPercent = 97}},
      {"held short of full", "1", {"STATUS=Not charging", "CAPACITY=97"},
       {.externalConnected = true, .batteryInstalled = true, .iopsPercent = 97}},
      {"a full gauge on battery is not charged", "0", {"STATUS=Discharging", "CAPACITY=100"},
       {.batteryInstalled = true, .iopsPercent = 100}},
      // A charging battery says there is an adapter; a zero estimate is no estimate.
      {"charging", nullptr,
       {"STATUS=Charging", "CAPACITY=40", "TIME_TO_FULL_NOW=3600", "TIME_TO_EMPTY_NOW=0"},
       {.isCharging = true, .externalConnected = true, .batteryInstalled = true,
        .timeRemaining_min = 60, .iopsPercent = 40}},
      {"absent", nullptr, {"PRESENT=0", "CAPACITY=0"}, {}},
  };
  // clang-format on
  for (const auto& c : cases) {
    SysfsTree tree;
    if (c.adapterOnline)
      tree.writeSupply("AC", {"TYPE=Mains", std::string("ONLINE=") + c.adapterOnline});
    auto battery = c.battery;
    battery.insert(battery.begin(), "TYPE=Battery");
    tree.writeSupply("BAT0", battery);
    EXPECT_EQ(fetch(tree.powerSupply()), stamped(c.expected)) << c.what;
  }
}

TEST_F(LinuxPowerSourceFallbackProviderTest, WithoutAReadableSystemBatteryOnlyTheAdapterIsLeft) {
  SysfsTree unreadable("charge-pack");
  unreadable.makeSupplyUnreadable("BAT0");
  for (const auto& s : {fetchFixture("desktop-mains"), fetch(unreadable.powerSupply())}) {
    ASSERT_TRUE(s);
    EXPECT_FALSE(s->batteryInstalled);
    EXPECT_TRUE(s->externalConnected);
    EXPECT_FALSE(s->iopsPercent);
  }
  // A UPS and a mouse are passed over; the machine itself reads as battery-less.
  SysfsTree tree;
  tree.writeSupply("hidpp_battery_0", {"TYPE=Battery", "SCOPE=Device", "CAPACITY=90"});
  tree.writeSupply("ups0", {"TYPE=UPS", "CAPACITY=100", "STATUS=Full"});
  EXPECT_EQ(fetch(tree.powerSupply()), stamped({}));
  EXPECT_FALSE(fetchFixture("nowhere")) << "no class directory, nothing to say";
}

}  // namespace
}  // namespace quorel
