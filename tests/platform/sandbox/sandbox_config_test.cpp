#include "platform/sandbox/sandbox_config.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace quorel {
namespace {

// The other sources are pinned at the default load by the provider's tests.
TEST(SandboxSettingsTest, AnAdapterStrongerThanTheLoadSupplementsNothingAndCharges) {
  SandboxSettings s;
  s.systemLoad = SandboxLoadPreset::light;  // 8 W
  s.adapterWatts = 60;
  for (auto source : {SandboxPowerSource::acCharging, SandboxPowerSource::acSupplementing}) {
    s.powerSource = source;
    EXPECT_DOUBLE_EQ(s.effectiveWattage(), 52) << toString(source);
  }
}

TEST(SandboxSettingsTest, DevicesInToggleOrderWithTheScenariosNames) {
  SandboxSettings s;
  s.networkAdapter = s.webcam = s.externalDrive = s.mouse = s.keyboard = s.dock =
      s.externalMonitor = true;
  s.monitorName = "Desk Display";
  s.dockName = "Travel Dock";
  const auto devices = s.simulatedUSBDevices();
  std::vector<std::string> ids;
  for (const auto& d : devices) ids.push_back(d.id);
  EXPECT_EQ(ids, (std::vector<std::string>{"sandbox-monitor", "sandbox-dock", "sandbox-keyboard",
                                           "sandbox-mouse", "sandbox-drive", "sandbox-webcam",
                                           "sandbox-ethernet"}));
  EXPECT_EQ(devices[0].name, "Desk Display");
  EXPECT_EQ(devices[1].name, "Travel Dock");

  SandboxSettings some;
  some.webcam = some.keyboard = true;
  const auto two = some.simulatedUSBDevices();
  ASSERT_EQ(two.size(), 2u);
  EXPECT_EQ(two[0].name, "Magic Keyboard");
  EXPECT_EQ(two[1].name, "Logitech C920");
}

TEST(SandboxConfigTest, ObserversHearRealChangesOnlyWithTheNewValuesInPlace) {
  SandboxConfig config;
  std::vector<SandboxConfig::Change> seen;
  double wattageWhenCalled = 0;
  const auto id = config.addObserver([&](const SandboxConfig::Change& c) {
    seen.push_back(c);
    wattageWhenCalled = config.effectiveWattage();  // re-entering must not deadlock
  });
  int other = 0;
  config.addObserver([&](const SandboxConfig::Change&) { ++other; });

  config.update([](SandboxSettings& s) { s.adapterWatts = 96; });  // already so
  EXPECT_TRUE(seen.empty());

  config.update([](SandboxSettings& s) { s.enabled = true; });
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_TRUE(seen[0].enabledChanged());
  EXPECT_FALSE(seen[0].parametersChanged());
  EXPECT_TRUE(config.enabled());

  config.update([](SandboxSettings& s) { s.systemLoad = SandboxLoadPreset::heavy; });
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_FALSE(seen[1].enabledChanged());
  EXPECT_TRUE(seen[1].parametersChanged());
  EXPECT_EQ(seen[1].before.systemLoad, SandboxLoadPreset::medium);
  EXPECT_EQ(seen[1].after.systemLoad, SandboxLoadPreset::heavy);

  config.update([](SandboxSettings& s) { s.wattageOverride = 7; });
  EXPECT_EQ(wattageWhenCalled, 7);

  config.removeObserver(id);
  config.removeObserver(id);  // twice is harmless
  config.update([](SandboxSettings& s) { s.dock = true; });
  EXPECT_EQ(seen.size(), 3u);
  EXPECT_EQ(other, 4);
}

TEST(SandboxConfigTest, ChangeMadeByAnObserverIsDeliveredAfterTheCurrentOne) {
  SandboxConfig config;
  std::vector<std::string> log;
  // The first observer reacts to entering the sandbox by switching to a scenario of its own.
  config.addObserver([&](const SandboxConfig::Change& c) {
    log.push_back("first:" + std::string(toString(c.after.powerSource)));
    if (c.enabledChanged() && c.after.enabled) {
      config.update([](SandboxSettings& s) { s.powerSource = SandboxPowerSource::acFull; });
    }
  });
  config.addObserver([&](const SandboxConfig::Change& c) {
    log.push_back("second:" + std::string(toString(c.after.powerSource)));
  });
  config.update([](SandboxSettings& s) { s.enabled = true; });
  EXPECT_EQ(log, (std::vector<std::string>{"first:battery", "second:battery", "first:acFull",
                                           "second:acFull"}));
}

TEST(SandboxConfigTest, ThrowingObserverDoesNotSilenceLaterChanges) {
  SandboxConfig config;
  bool fail = true;
  int heard = 0;
  config.addObserver([&](const SandboxConfig::Change&) {
    ++heard;
    if (fail) throw std::runtime_error("observer failed");
  });
  EXPECT_THROW(config.update([](SandboxSettings& s) { s.mouse = true; }), std::runtime_error);
  fail = false;
  config.update([](SandboxSettings& s) { s.mouse = false; });
  EXPECT_EQ(heard, 2);
}

TEST(SandboxConfigTest, ReadersNeverSeeAHalfAppliedScenario) {
  // Two scenarios that differ in every number; a reader must always get one or the other.
  SandboxSettings a;
  SandboxSettings b;
  b.adapterWatts = 30;
  b.batteryPercentage = 10;
  b.cycleCount = 900;
  b.monitorName = "A much longer monitor name that will not fit in place";
  SandboxConfig config(a);
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) config.set(i % 2 ? a : b);
    done = true;
  });
  long torn = 0;
  long reads = 0;
  while (!done) {
    const auto v = config.values();
    ++reads;
    if (v != a && v != b) ++torn;
  }
  writer.join();
  EXPECT_EQ(torn, 0) << "of " << reads << " reads";
}

}  // namespace
}  // namespace quorel
