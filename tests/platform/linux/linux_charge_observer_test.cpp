// The observation read from scratch power_supply trees laid out as the kernel shows them.

#include "platform/linux/linux_charge_observer.hpp"

#include <gtest/gtest.h>

#include "platform/linux/sysfs_tree.hpp"

namespace quorel {
namespace {

using testing::SysfsTree;

struct Supply {
  std::string status;
  std::string capacity;
  std::optional<std::string> behaviour;  // charge_behaviour as listed
  std::optional<std::string> end;        // charge_control_end_threshold
  std::optional<std::string> start;
  std::optional<std::string> online;  // the AC supply; absent: no adapter listed
};

// BAT0 with its properties in uevent, and the charge-control attributes only as files, as
// platform drivers add them.
void writeTree(const SysfsTree& tree, const Supply& s) {
  tree.writeSupply("BAT0",
                   {"TYPE=Battery", "PRESENT=1", "STATUS=" + s.status, "CAPACITY=" + s.capacity,
                    "ENERGY_FULL=45000000", "ENERGY_FULL_DESIGN=50000000"});
  const std::filesystem::path bat = "class/power_supply/BAT0";
  if (s.behaviour) tree.write(bat / "charge_behaviour", *s.behaviour + "\n");
  if (s.end) tree.write(bat / "charge_control_end_threshold", *s.end + "\n");
  if (s.start) tree.write(bat / "charge_control_start_threshold", *s.start + "\n");
  if (s.online) tree.writeSupply("AC", {"TYPE=Mains", "ONLINE=" + *s.online});
}

TEST(LinuxChargeObserverTest, ReadsGateLimitAndReasonFromEachTree) {
  struct Case {
    const char* what;
    Supply supply;
    ChargeGateState gate;
    InferredLimit limit;
    std::optional<std::string> reason;
  };
  const auto auto_ = std::optional<std::string>("[auto] inhibit-charge force-discharge");
  const Case cases[] = {
      {"charging below the threshold",
       {"Charging", "50", auto_, "80", "75", "1"},
       ChargeGateState::charging,
       {80, ChargeLimitSource::threshold},
       std::nullopt},
      {"held at the threshold",
       {"Not charging", "80", auto_, "80", "75", "1"},
       ChargeGateState::paused,
       {80, ChargeLimitSource::threshold},
       "Battery at charge limit"},
      {"sailing between thresholds",
       {"Not charging", "77", std::nullopt, "80", "75", "1"},
       ChargeGateState::paused,
       {80, ChargeLimitSource::threshold},
       "Charging resumes below 75 %"},
      {"inhibited on the adapter",
       {"Not charging", "40", "auto [inhibit-charge] force-discharge", "100", std::nullopt, "1"},
       ChargeGateState::paused,
       {},
       "Charging inhibited (inhibit-charge)"},
      {"off the adapter, kernel says auto",
       {"Discharging", "40", auto_, "100", "95", "0"},
       ChargeGateState::charging,
       {},
       std::nullopt},
      {"held with no adapter listed",
       {"Not charging", "60", std::nullopt, std::nullopt, std::nullopt, std::nullopt},
       ChargeGateState::paused,
       {},
       "Charging paused"},
  };
  for (const auto& c : cases) {
    SysfsTree tree;
    writeTree(tree, c.supply);
    ManualClock clock;
    LinuxChargeObserver observer({.sysfsRoot = tree.root(), .configRoot = tree.root()}, nullptr,
                                 clock);
    const auto o = observer.observe();
    EXPECT_EQ(o.gate, c.gate) << c.what;
    EXPECT_EQ(o.limit, c.limit) << c.what;
    EXPECT_EQ(o.notChargingReason, c.reason) << c.what;
    EXPECT_EQ(o.systemHealth_percent, 90) << c.what;
    EXPECT_EQ(o.observedAt, clock.now()) << c.what;
  }
  // A single-valued attribute may hold a space.
  SysfsTree tree;
  writeTree(tree, {"Charging", "50", auto_, std::nullopt, std::nullopt, "1"});
  tree.write("class/power_supply/BAT0/charge_type", "Long Life\n");
  ManualClock clock;
  LinuxChargeObserver observer({.sysfsRoot = tree.root(), .configRoot = tree.root()}, nullptr,
                               clock);
  EXPECT_EQ(observer.observe().slowChargingReason, "Long-life charging");
}

TEST(LinuxChargeObserverTest, LearnsAPlateauFromSuccessiveReadings) {
  SysfsTree tree;
  // No threshold anywhere: a limit set in the firmware's setup screen shows only as a plateau.
  writeTree(tree, {"Not charging", "80", std::nullopt, std::nullopt, std::nullopt, "1"});
  ManualClock clock;
  LinuxChargeObserver observer({.sysfsRoot = tree.root(), .configRoot = tree.root()}, nullptr,
                               clock);
  for (const char* percent : {"80", "80", "79", "80", "80"}) {
    tree.setProperty("BAT0", "CAPACITY", percent);
    clock.advance(Seconds(10));
    EXPECT_EQ(observer.observe().limit, InferredLimit{}) << "too soon at " << percent;
  }
  tree.setProperty("BAT0", "CAPACITY", "80");
  EXPECT_EQ(observer.observe().limit, (InferredLimit{80, ChargeLimitSource::plateau}));
  // Unplugged: the firmware no longer holds anything, and the plateau is forgotten.
  tree.setProperty("BAT0", "STATUS", "Discharging");
  tree.setProperty("AC", "ONLINE", "0");
  EXPECT_EQ(observer.observe().limit, InferredLimit{});
}

TEST(LinuxChargeObserverTest, LooksForOtherManagersOnlyOnceAMinute) {
  SysfsTree tree;
  writeTree(tree, {"Charging", "50", std::nullopt, "80", std::nullopt, "1"});
  ManualClock clock;
  LinuxChargeObserver observer({.sysfsRoot = tree.root(), .configRoot = tree.root()}, nullptr,
                               clock);
  EXPECT_FALSE(observer.observe().conflicts.anyDetected());
  tree.write("etc/tlp.conf", "STOP_CHARGE_THRESH_BAT0=80\n");
  tree.write("usr/sbin/tlp", "");
  clock.advance(Seconds(59));
  EXPECT_FALSE(observer.observe().conflicts.anyDetected());
  clock.advance(Seconds(1));
  const auto o = observer.observe();
  ASSERT_TRUE(o.conflicts.anyDetected());
  EXPECT_EQ(o.conflicts.conflicts[0].manager, ChargeLimitManager::tlp);
}

TEST(LinuxChargeObserverTest, AvailabilityFollowsWhatRootCouldWrite) {
  namespace fs = std::filesystem;
  SysfsTree tree;
  EXPECT_EQ(probeBatteryControlAvailability(tree.powerSupply()),
            BatteryControlAvailability::noBattery);
  writeTree(tree, {"Charging", "50", "[auto]", "80", std::nullopt, "1"});
  const fs::path bat = tree.powerSupply() / "BAT0";
  fs::permissions(bat / "charge_control_end_threshold", fs::perms::owner_read);
  fs::permissions(bat / "charge_behaviour", fs::perms::owner_read | fs::perms::owner_write);
  // A read-only threshold and a behaviour offering nothing but auto control nothing.
  EXPECT_EQ(probeBatteryControlAvailability(tree.powerSupply()),
            BatteryControlAvailability::noChargeControl);
  tree.write("class/power_supply/BAT0/charge_behaviour", "[auto] force-discharge\n");
  EXPECT_EQ(probeBatteryControlAvailability(tree.powerSupply()),
            BatteryControlAvailability::available);
  fs::permissions(bat / "charge_behaviour", fs::perms::owner_read);
  fs::permissions(bat / "charge_control_end_threshold", fs::perms::owner_write,
                  fs::perm_options::add);
  EXPECT_EQ(probeBatteryControlAvailability(tree.powerSupply()),
            BatteryControlAvailability::available);
}

TEST(LinuxChargeObserverTest, APeripheralBatteryIsNoBatteryOfThisMachine) {
  SysfsTree tree;
  tree.writeSupply("hidpp_battery_0",
                   {"TYPE=Battery", "SCOPE=Device", "STATUS=Discharging", "CAPACITY=40"});
  ManualClock clock;
  LinuxChargeObserver observer({.sysfsRoot = tree.root(), .configRoot = tree.root()}, nullptr,
                               clock);
  const auto o = observer.observe();
  EXPECT_EQ(o.gate, ChargeGateState::unsupported);
  EXPECT_EQ(o.availability, BatteryControlAvailability::noBattery);
  EXPECT_FALSE(o.notChargingReason || o.systemHealth_percent || o.limit.percent);
}

}  // namespace
}  // namespace quorel
