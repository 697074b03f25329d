// The Linux providers behind the real monitor loop, over a tree that changes between ticks:
// what a user sees when the charger goes in and when the battery's files stop answering.

#include <gtest/gtest.h>

#include "platform/linux/linux_power_source_fallback_provider.hpp"
#include "platform/linux/linux_power_supply_provider.hpp"
#include "platform/linux/sysfs_tree.hpp"
#include "telemetry/power_monitor.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;
using testing::SysfsTree;

class LinuxProvidersWithMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    PowerMonitor::Dependencies deps;
    deps.sources.provider = std::make_shared<LinuxPowerSupplyProvider>(tree.powerSupply(), clock);
    deps.sources.fallbackProvider =
        std::make_shared<LinuxPowerSourceFallbackProvider>(tree.powerSupply(), clock);
    deps.pollQueue = &pollQueue;
    deps.mainQueue = &mainQueue;
    monitor = PowerMonitor::create(std::move(deps), clock);
    monitor->setOnStateUpdate(
        [this](const PowerState& s, const PowerMonitor::HistorySnapshot&) { states.push_back(s); });
  }

  void tick() {
    clock.advance(2s);
    monitor->poll();
    mainQueue.runPending();
  }

  SysfsTree tree{"energy-pack"};
  ManualClock clock;
  SerialQueue pollQueue{"test.poll", clock};
  SerialQueue mainQueue{"test.main", clock};
  std::shared_ptr<PowerMonitor> monitor;
  std::vector<PowerState> states;
};

TEST_F(LinuxProvidersWithMonitorTest, PluggingInShowsChargingWithPositiveWatts) {
  tick();
  ASSERT_EQ(states.size(), 1u);
  EXPECT_EQ(states.back().phase, PowerPhase::draining);
  EXPECT_LT(states.back().smoothedWattage, 0);
  EXPECT_EQ(states.back().displayPercent(), 74);

  tree.setProperty("AC", "ONLINE", "1");
  tree.setProperty("BAT0", "STATUS", "Charging");
  tree.setProperty("BAT0", "POWER_NOW", "30000000");
  for (int i = 0; i < 10; ++i) tick();
  EXPECT_EQ(states.back().phase, PowerPhase::charging);
  EXPECT_GT(states.back().smoothedWattage, 5.0);
}

TEST_F(LinuxProvidersWithMonitorTest, UnreadableBatteryEngagesTheFallbackUntilItReturns) {
  tick();
  tree.makeUnreadable("class/power_supply/BAT0/uevent");
  tree.makeUnreadable("class/power_supply/BAT0/voltage_now");
  tick();
  tick();
  EXPECT_FALSE(monitor->diagnosticsOnPollQueue().usingFallback);
  EXPECT_EQ(states.size(), 1u);
  tick();
  EXPECT_TRUE(monitor->diagnosticsOnPollQueue().usingFallback);
  ASSERT_EQ(states.size(), 2u);
  // What the fallback can vouch for: the percentage and the flags, no watts.
  EXPECT_EQ(states.back().displayPercent(), 74);
  EXPECT_EQ(states.back().voltage_mV, 0);
  EXPECT_EQ(states.back().phase, PowerPhase::draining);

  tree.remove("class/power_supply/BAT0/uevent");
  tree.remove("class/power_supply/BAT0/voltage_now");
  tree.write("class/power_supply/BAT0/voltage_now", "16502000\n");
  tick();
  EXPECT_FALSE(monitor->diagnosticsOnPollQueue().usingFallback);
  EXPECT_EQ(states.back().voltage_mV, 16502);
}

}  // namespace
}  // namespace quorel
