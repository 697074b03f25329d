#include "platform/linux/linux_battery_controls.hpp"

#include <gtest/gtest.h>

#include "control/helper_controller.hpp"
#include "platform/linux/sysfs_attributes.hpp"
#include "platform/linux/sysfs_tree.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;
using Writes = std::vector<std::string>;
constexpr const char* kEnd = "charge_control_end_threshold";
constexpr const char* kStart = "charge_control_start_threshold";
constexpr const char* kBehaviour = "charge_behaviour";

// Stands in for the kernel behind the attribute files: refuses a start at or above the end and an
// end at or below the start, may round the end down, shows charge_behaviour as a bracketed list,
// and logs every write in order.
struct KernelAttributes {
  const testing::SysfsTree& tree;
  std::optional<int> endStep;
  Writes log;

  static std::int64_t value(const fs::path& p) {
    std::ifstream in(p);
    std::int64_t v = -1;
    in >> v;
    return v;
  }
  AttributeWriter writer() {
    const AttributeWriter real = sysfsAttributeWriter();
    return [this, real](const fs::path& path, std::string_view text) -> int {
      const std::string name = path.filename();
      const auto dir = path.parent_path();
      std::string written(text);
      if (name == kStart && fs::exists(dir / kEnd) && std::stoll(written) >= value(dir / kEnd)) {
        return EINVAL;
      }
      if (name == kEnd && fs::exists(dir / kStart) && std::stoll(written) <= value(dir / kStart)) {
        return EINVAL;
      }
      if (name == kEnd && endStep)
        written = std::to_string(std::stoll(written) / *endStep * *endStep);
      if (name == kBehaviour) {
        written.clear();
        for (std::string choice : {"auto", "inhibit-charge", "force-discharge"}) {
          written += (choice == text ? "[" + choice + "]" : choice) + " ";
        }
      }
      log.push_back(name + "=" + std::string(text));
      const int error = real(path, written);
      return error;
    };
  }
};

class LinuxBatteryControlsTest : public ::testing::Test {
 protected:
  LinuxBatteryControlsTest() {
    tree.writeSupply("AC", {"TYPE=Mains", "ONLINE=1"});
    tree.writeSupply("BAT0",
                     {"TYPE=Battery", "SCOPE=System", "CAPACITY=70", "STATUS=Charging",
                      "CHARGE_CONTROL_START_THRESHOLD=0", "CHARGE_CONTROL_END_THRESHOLD=100",
                      "CHARGE_BEHAVIOUR=[auto] inhibit-charge force-discharge"});
  }
  fs::path attribute(const std::string& name) const { return tree.powerSupply() / "BAT0" / name; }
  std::string read(const std::string& name) const {
    return std::string(sysfs::trim(sysfs::readFile(attribute(name)).value_or("")));
  }
  void make() {
    controller.reset();
    auto opened = LinuxBatteryControls::open(tree.root(), kernel.writer());
    ASSERT_TRUE(opened) << opened.error().message;
    controls = std::move(*opened);
    controller = std::make_unique<HelperController>(*controls, clock, state.root(), "2.0.7");
    controller->start();
  }
  void run(double minutes) {
    for (double t = 0; t < minutes * 60; t += HelperController::kTickPeriod.count()) {
      clock.advance(HelperController::kTickPeriod);
      controller->tick();
    }
  }

  testing::SysfsTree tree;
  testing::SysfsTree state;
  KernelAttributes kernel{tree, std::nullopt, {}};
  ManualClock clock;
  std::unique_ptr<LinuxBatteryControls> controls;
  std::unique_ptr<HelperController> controller;
};

TEST_F(LinuxBatteryControlsTest, CapabilitiesFollowWhatTheAttributesAllow) {
  make();
  EXPECT_EQ(controls->capabilities(), (HelperCapabilities{true, true, true, true, true}));
  EXPECT_TRUE(controls->hasStartThreshold());

  fs::permissions(attribute(kEnd), fs::perms::owner_read | fs::perms::group_read);
  tree.setProperty("BAT0", "CHARGE_BEHAVIOUR", "[auto] inhibit-charge");
  fs::remove(attribute(kStart));
  make();
  EXPECT_EQ(controls->capabilities(), (HelperCapabilities{true, true, false, false, false}));
  EXPECT_FALSE(controls->hasStartThreshold());

  tree.remove("class/power_supply/BAT0");
  EXPECT_FALSE(LinuxBatteryControls::open(tree.root(), kernel.writer()));
}

TEST_F(LinuxBatteryControlsTest, ThresholdsAreWrittenInTheOrderTheKernelAccepts) {
  struct Case {
    std::int64_t start, end, limit;
    Writes expected;
  };
  const Case cases[] = {
      {40, 50, 80, {"charge_control_end_threshold=80", "charge_control_start_threshold=75"}},
      {90, 95, 60, {"charge_control_start_threshold=55", "charge_control_end_threshold=60"}},
      {70, 75, 70, {"charge_control_start_threshold=65", "charge_control_end_threshold=70"}},
  };
  for (const auto& c : cases) {
    tree.setProperty("BAT0", "CHARGE_CONTROL_START_THRESHOLD", std::to_string(c.start));
    tree.setProperty("BAT0", "CHARGE_CONTROL_END_THRESHOLD", std::to_string(c.end));
    fs::remove_all(state.root() / HelperController::kStateFileName);
    kernel.log.clear();
    make();
    ASSERT_EQ(controller->setChargeLimit(c.limit), std::nullopt) << c.limit;
    EXPECT_EQ(kernel.log, c.expected) << c.limit;
    EXPECT_EQ(read(kEnd), std::to_string(c.limit));
    EXPECT_EQ(read(kStart), std::to_string(c.limit - 5));
  }
}

TEST_F(LinuxBatteryControlsTest, ARoundedLimitIsReportedAsReadAndIsNotTakenForDrift) {
  kernel.endStep = 10;
  make();
  ASSERT_EQ(controller->setChargeLimit(83), std::nullopt);
  EXPECT_EQ(read(kEnd), "80");
  EXPECT_EQ(controller->state().chargeLimit, 80);
  EXPECT_FALSE(controller->state().lastWriteVerified);
  const auto writes = kernel.log.size();
  run(5);
  EXPECT_EQ(kernel.log.size(), writes);
}

TEST_F(LinuxBatteryControlsTest, PersistsAcrossARestartAndRepairsATreeResetBehindItsBack) {
  make();
  run(3);
  EXPECT_EQ(kernel.log, Writes{}) << "a fresh helper writes nothing until asked";
  ASSERT_EQ(controller->setChargeLimit(60), std::nullopt);
  EXPECT_EQ(controller->state().lastWriteAt, clock.now());
  // The firmware forgets while the helper is down, and again while it runs.
  for (bool restart : {true, false}) {
    tree.setProperty("BAT0", "CHARGE_CONTROL_START_THRESHOLD", "0");
    tree.setProperty("BAT0", "CHARGE_CONTROL_END_THRESHOLD", "100");
    if (restart) make();
    run(restart ? 0 : 1);
    EXPECT_EQ(read(kEnd), "60") << restart;
    EXPECT_EQ(read(kStart), "55") << restart;
    EXPECT_EQ(controller->state().chargeLimit, 60);
  }
  const auto writes = kernel.log.size();
  run(2);
  EXPECT_EQ(kernel.log.size(), writes) << "a tree that holds the limit is left alone";
}

TEST_F(LinuxBatteryControlsTest, DischargeAndTopUpEndByThemselvesAsTheBatteryMoves) {
  tree.setProperty("BAT0", "CAPACITY", "90");
  make();
  ASSERT_EQ(controller->setChargeLimit(80), std::nullopt);
  ASSERT_EQ(controller->forceDischarge(true), std::nullopt);
  EXPECT_EQ(read(kBehaviour), "auto inhibit-charge [force-discharge]");
  run(1);
  EXPECT_TRUE(controller->state().forceDischargeActive);
  tree.setProperty("BAT0", "CAPACITY", "80");
  run(0.25);
  EXPECT_FALSE(controller->state().forceDischargeActive);
  EXPECT_EQ(read(kBehaviour), "[auto] inhibit-charge force-discharge");

  ASSERT_EQ(controller->releaseLimitUntilFullThenRestore(), std::nullopt);
  EXPECT_EQ(read(kEnd), "100");
  tree.setProperty("BAT0", "CAPACITY", "99");
  run(1);
  EXPECT_TRUE(controller->state().topUpActive);
  tree.setProperty("BAT0", "STATUS", "Full");
  run(0.25);
  EXPECT_FALSE(controller->state().topUpActive);
  EXPECT_EQ(read(kEnd), "80");
}

TEST_F(LinuxBatteryControlsTest, WithoutThresholdsTheGateRunsOnChargeBehaviour) {
  fs::remove(attribute(kEnd));
  fs::remove(attribute(kStart));
  tree.setProperty("BAT0", "CAPACITY", "85");
  make();
  ASSERT_EQ(controller->setChargeLimit(80), std::nullopt);
  EXPECT_EQ(read(kBehaviour), "auto [inhibit-charge] force-discharge");
  tree.setProperty("BAT0", "CAPACITY", "77");
  run(1);
  EXPECT_EQ(read(kBehaviour), "auto [inhibit-charge] force-discharge");
  tree.setProperty("BAT0", "CAPACITY", "74");
  run(0.25);
  EXPECT_EQ(read(kBehaviour), "[auto] inhibit-charge force-discharge");
  tree.setProperty("AC", "ONLINE", "0");
  tree.setProperty("BAT0", "CAPACITY", "95");
  run(1);
  EXPECT_EQ(read(kBehaviour), "[auto] inhibit-charge force-discharge")
      << "never flipped on battery power";
}

TEST_F(LinuxBatteryControlsTest, AnAttributeTurnedIntoASymlinkIsNotFollowed) {
  make();
  const fs::path outside = state.root() / "outside";
  std::ofstream(outside) << "untouched\n";
  fs::remove(attribute(kEnd));
  fs::create_symlink(outside, attribute(kEnd));
  auto error = controller->setChargeLimit(80);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, QuorelHelperErrorCode::codeSMCWriteFailed);
  EXPECT_EQ(std::string(sysfs::trim(*sysfs::readFile(outside))), "untouched");
}

TEST_F(LinuxBatteryControlsTest, EnergyCountersAreReadByZoneName) {
  tree.write("class/powercap/intel-rapl:0/name", "package-0\n");
  tree.write("class/powercap/intel-rapl:0/energy_uj", "123456789\n");
  tree.write("class/powercap/intel-rapl:0:0/name", "core\n");
  tree.write("class/powercap/intel-rapl:0:0/energy_uj", "42\n");
  tree.write("class/powercap/intel-rapl-mmio:0/name", "package-0\n");
  tree.write("class/powercap/intel-rapl-mmio:0/energy_uj", "1\n");
  make();
  auto counters = controls->readEnergyCounters();
  ASSERT_TRUE(counters);
  EXPECT_EQ(*counters, (std::vector<EnergyCounterValue>{{"intel-rapl:0", "package-0", 123456789},
                                                        {"intel-rapl:0:0", "core", 42}}));
}

}  // namespace
}  // namespace quorel
