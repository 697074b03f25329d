// The powercap sampler and rail reader behind the real monitor loop: the counters are read on
// the component cadence, each figure covering the time since the previous reading.

#include <gtest/gtest.h>

#include <map>

#include "platform/linux/linux_power_rail_reader.hpp"
#include "platform/linux/linux_power_supply_provider.hpp"
#include "platform/linux/linux_powercap_component_sampler.hpp"
#include "platform/linux/sysfs_attributes.hpp"
#include "platform/linux/sysfs_tree.hpp"
#include "telemetry/power_monitor.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;
using testing::SysfsTree;

class PowercapWithMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zone("intel-rapl:0", "package-0");
    zone("intel-rapl:0:0", "core");
    zone("intel-rapl:0:1", "uncore");
    zone("intel-rapl:1", "psys");
    // The kernel's clocks follow the test's clock, plus whatever time the machine slept.
    KernelClockSource clocks = [this] {
      const Seconds running = clock.monotonicNow().time_since_epoch();
      return KernelClockReading{running, running + suspended};
    };
    PowerMonitor::Dependencies deps;
    deps.sources.provider = std::make_shared<LinuxPowerSupplyProvider>(tree.powerSupply(), clock);
    deps.sources.componentSampler = std::make_shared<LinuxPowercapComponentSampler>(
        sysfs::powercapClassPath(tree.root()), sysfsAttributeReader(), clocks);
    deps.sources.railReader =
        std::make_shared<LinuxPowerRailReader>(tree.root(), sysfsAttributeReader(), clocks);
    deps.pollQueue = &pollQueue;
    deps.mainQueue = &mainQueue;
    monitor = PowerMonitor::create(std::move(deps), clock);
    monitor->setOnStateUpdate(
        [this](const PowerState& s, const PowerMonitor::HistorySnapshot&) { states.push_back(s); });
  }

  void zone(const std::string& id, const std::string& name) {
    tree.write("class/powercap/" + id + "/name", name + "\n");
    tree.write("class/powercap/" + id + "/max_energy_range_uj", "262143328850\n");
    energy[id] = 0;
    tree.write("class/powercap/" + id + "/energy_uj", "0\n");
  }

  // Two seconds of a machine whose cores draw 6 W, graphics 1 W and the whole 15 W.
  void tick() {
    clock.advance(2s);
    for (auto [id, watts] : {std::pair{"intel-rapl:0:0", 6},
                             {"intel-rapl:0:1", 1},
                             {"intel-rapl:0", 7},
                             {"intel-rapl:1", 15}}) {
      energy[id] += static_cast<std::uint64_t>(watts) * 2'000'000;
      tree.write(std::string("class/powercap/") + id + "/energy_uj",
                 std::to_string(energy[id]) + "\n");
    }
    monitor->poll();
    mainQueue.runPending();
  }

  SysfsTree tree{"energy-pack"};
  std::map<std::string, std::uint64_t> energy;
  Seconds suspended{0};
  ManualClock clock;
  SerialQueue pollQueue{"test.poll", clock};
  SerialQueue mainQueue{"test.main", clock};
  std::shared_ptr<PowerMonitor> monitor;
  std::vector<PowerState> states;
};

TEST_F(PowercapWithMonitorTest, FiguresArriveOnTheCadenceAndSkipASleep) {
  tick();
  ASSERT_EQ(states.size(), 1u);
  EXPECT_EQ(states.back().componentPower, std::nullopt) << "the first reading is the baseline";
  ASSERT_TRUE(states.back().systemPowerRails);
  EXPECT_EQ(states.back().systemPowerRails->systemTotalWatts, std::nullopt);

  for (int i = 0; i < 10; ++i) tick();  // 20 seconds on: the hidden cadence comes round
  ASSERT_TRUE(states.back().componentPower);
  EXPECT_NEAR(states.back().componentPower->pcpuWatts, 6.0, 1e-9);
  EXPECT_NEAR(states.back().componentPower->gpuWatts, 1.0, 1e-9);
  EXPECT_EQ(states.back().systemPowerRails->systemTotalWatts, 15.0);

  // A night asleep, the package still drawing a little: at wake the pair spanning it is
  // dropped, not taken for two seconds of enormous power.
  tick();
  suspended += Seconds{8 * 3600};
  energy["intel-rapl:0:0"] += 3'600'000'000;
  tree.write("class/powercap/intel-rapl:0:0/energy_uj",
             std::to_string(energy["intel-rapl:0:0"]) + "\n");
  monitor->resumeAfterWake();
  pollQueue.runPending();
  mainQueue.runPending();
  tick();
  EXPECT_EQ(states.back().componentPower, std::nullopt);
  for (int i = 0; i < 10; ++i) tick();
  ASSERT_TRUE(states.back().componentPower);
  EXPECT_NEAR(states.back().componentPower->pcpuWatts, 6.0, 1e-9);
}

}  // namespace
}  // namespace quorel
