#include "app/app_delegate.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>

#include "app/single_instance_lock.hpp"
#include "core/memory_preference_store.hpp"
#include "energy/energy_usage_source.hpp"
#include "energy/process_energy_tracker.hpp"
#include "store/quorel_database.hpp"
#include "store/sqlite_test_support.hpp"
#include "support/wait_until.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class SteadyProvider : public PowerDataProvider {
 public:
  explicit SteadyProvider(const Clock& clock) : clock_(clock) {}
  std::optional<PowerSnapshot> fetchSnapshot() override {
    PowerSnapshot s;
    s.voltage_mV = 12000;
    s.instantAmperage_mA = -1000;
    s.batteryInstalled = true;
    s.timestamp = clock_.now();
    return s;
  }

 private:
  const Clock& clock_;
};

class FakeSleepWake : public SleepWakeSource {
 public:
  bool start(Handlers h) override {
    handlers = std::move(h);
    return true;
  }
  void stop() override {}
  std::string sourceName() const override { return "test sleep source"; }
  Handlers handlers;
};

// One busy program taking 4 W of a 10 W package; the rest is the trackers' "Other".
class SteadyUsage : public EnergyUsageSource {
 public:
  std::vector<TopProcess> fetch(int) override { return {{"1", "cargo", 50, 4.0}}; }
  std::vector<AIAgentUsage> agentUsage(int) override { return {}; }
  std::optional<double> cpuPackageWatts() override { return 10.0; }
};

class AppDelegateTest : public ::testing::Test {
 protected:
  AppDelegateTest() {
    QuorelDatabase::Options options;
    options.dataDirectory = dir_.path();
    options.databasePathOverride = dir_.path() / "quorel.db";
    database = std::make_unique<QuorelDatabase>(std::move(options), clock);
    settings = std::make_unique<SettingsManager>(preferences, mainQueue, clock);
    provider = std::make_shared<SteadyProvider>(clock);
    PowerMonitor::Dependencies md;
    md.sources.provider = provider;
    md.pollQueue = &pollQueue;
    md.mainQueue = &mainQueue;
    monitor = PowerMonitor::create(std::move(md), clock);
    pollQueue.start();
  }
  ~AppDelegateTest() override {
    delegate.reset();
    monitor->stop();
    pollQueue.shutdown();
    database.reset();
  }

  void launch(AppDelegate::Options options = {}) {
    options.wakeSettleDelay = Seconds{0.01};
    AppDelegate::Dependencies d;
    d.mainQueue = &mainQueue;
    d.settings = settings.get();
    d.monitor = monitor;
    d.database = database.get();
    d.sleepWake = &sleepWake;
    d.energyTrackers = energyTrackers;
    d.wakeObservers = wakeObservers;
    delegate = std::make_unique<AppDelegate>(std::move(d), clock, options);
    delegate->launch();
  }

  std::vector<std::vector<std::string>> rows(const std::string& sql) {
    database->queue().sync([] {});  // writes are posted; let them land
    testing::SqlFile look(dir_.path() / "quorel.db");
    return look.rows(sql);
  }

  testing::ScratchDirectory dir_{"quorel-delegate"};
  ManualClock clock{fromUnixSeconds(1'800'000'000)};
  SerialQueue mainQueue{"test.main", clock};
  SerialQueue pollQueue{"test.poll", clock};
  MemoryPreferenceStore preferences;
  std::unique_ptr<QuorelDatabase> database;
  std::unique_ptr<SettingsManager> settings;
  std::shared_ptr<SteadyProvider> provider;
  std::shared_ptr<PowerMonitor> monitor;
  FakeSleepWake sleepWake;
  std::vector<EnergyTracker*> energyTrackers;
  std::vector<std::function<void()>> wakeObservers;
  std::unique_ptr<AppDelegate> delegate;
};

TEST_F(AppDelegateTest, LaunchPrunesOnceADayAndStartsTheLoopAtTheIdleIntervalUntilWatched) {
  launch();
  const auto first = clock.now();
  EXPECT_EQ(delegate->lastPruneDate(), first);
  EXPECT_TRUE(delegate->maintenanceScheduled());
  clock.advance(23h);
  delegate->runDailyDatabaseMaintenanceIfNeeded(clock.now());
  EXPECT_EQ(delegate->lastPruneDate(), first);
  clock.advance(1h);
  delegate->runDailyDatabaseMaintenanceIfNeeded(clock.now());
  EXPECT_EQ(delegate->lastPruneDate(), clock.now());
  EXPECT_EQ(monitor->pollingInterval(), Seconds{30});
  delegate->setWatched(true);
  EXPECT_EQ(monitor->pollingInterval(), Seconds{2});
  delegate->setWatched(false);
  EXPECT_EQ(monitor->pollingInterval(), Seconds{30});
  delegate->terminate();
  EXPECT_FALSE(delegate->maintenanceScheduled());
}

TEST_F(AppDelegateTest, IntervalOverrideAndSettingsChangesApply) {
  launch({.intervalOverride = Seconds{5}});
  EXPECT_EQ(monitor->pollingInterval(), Seconds{5});
  delegate.reset();

  launch();
  settings->update([](QuorelSettings& s) { s.idlePollingInterval = 45; });
  EXPECT_TRUE(testing::waitUntil([&] { return monitor->pollingInterval() == Seconds{45}; },
                                 [&] { mainQueue.runPending(); }));
}

TEST_F(AppDelegateTest, SleepIsRecordedAsAnIntervalAndASecondWakeReplacesTheFirst) {
  launch();
  const TimePoint slept = clock.now();
  sleepWake.handlers.willSleep({});
  clock.advance(1h);
  sleepWake.handlers.didWake();
  EXPECT_TRUE(delegate->wakeWorkPending());
  // A second wake within the 10 ms settle delay starts the delay again.
  clock.advance(Seconds{0.005});
  sleepWake.handlers.didWake();
  clock.advance(Seconds{0.007});
  mainQueue.runPending();
  EXPECT_EQ(delegate->wakeResumeCount(), 0);
  clock.advance(Seconds{0.003});
  mainQueue.runPending();
  EXPECT_EQ(delegate->wakeResumeCount(), 1);
  EXPECT_FALSE(delegate->wakeWorkPending());
  clock.advance(Seconds{1});
  mainQueue.runPending();
  EXPECT_EQ(delegate->wakeResumeCount(), 1);
  EXPECT_EQ(rows("SELECT start_time = " + std::to_string(toUnixSeconds(slept)) +
                 ", end_time - start_time, status, reason FROM collection_intervals"),
            (std::vector<std::vector<std::string>>{{"1", "3600.0", "sleep", "test sleep source"}}));
}

TEST_F(AppDelegateTest, NoIntervalForAWakeWithoutSleepOrWithTheClockSetBack) {
  launch();
  sleepWake.handlers.didWake();
  sleepWake.handlers.willSleep({});
  clock.advance(-1h);
  sleepWake.handlers.didWake();
  EXPECT_EQ(rows("SELECT count(*) FROM collection_intervals"),
            (std::vector<std::vector<std::string>>{{"0"}}));
}

TEST_F(AppDelegateTest, WakeObserversHearEveryWakeAtOnceAndNothingOfSleep) {
  std::vector<std::string> heard;
  wakeObservers = {[&] { heard.push_back(mainQueue.isCurrent() ? "first" : "first off queue"); },
                   [&] { heard.push_back("second"); }};
  launch();
  sleepWake.handlers.willSleep({});
  EXPECT_TRUE(heard.empty());
  // The settle delay is for the monitor; the catch-up runs at the wake itself, every time.
  for (int wake = 0; wake < 2; ++wake) mainQueue.async([&] { sleepWake.handlers.didWake(); });
  mainQueue.runPending();
  EXPECT_EQ(heard, (std::vector<std::string>{"first", "second", "first", "second"}));
}

TEST(SingleInstanceLockTest, SecondInstanceNamesTheFirstAndTheLockFreesOnExit) {
  const testing::ScratchDirectory dir("quorel-lock");
  const fs::path file = dir.path() / "run" / "quorel.lock";
  {
    SingleInstanceLock first(file);
    ASSERT_TRUE(first.acquired()) << first.error();
    SingleInstanceLock second(file);
    EXPECT_FALSE(second.acquired());
    EXPECT_EQ(second.holder(), ::getpid());
    EXPECT_EQ((fs::status(file).permissions() & fs::perms::all),
              fs::perms::owner_read | fs::perms::owner_write);
  }
  SingleInstanceLock third(file);
  EXPECT_TRUE(third.acquired());
}

TEST_F(AppDelegateTest, EnergyFollowsTheSamplingSettingAndIsStoredBeforeSleepAndAtQuit) {
  SteadyUsage usage;
  SerialQueue energyQueue{"test.energy", clock};
  ProcessEnergyTracker tracker(usage, energyQueue, clock);
  energyTrackers = {&tracker};
  launch();
  auto tick = [&](Seconds step) {
    clock.advance(step);
    energyQueue.runPending();
  };
  // The default 5 s: the first batch at 5 s starts the integration, the second adds 5 s.
  tick(5s);
  tick(5s);
  settings->update([](QuorelSettings& s) { s.processEnergySamplingInterval = 2; });
  mainQueue.runPending();
  tick(2s);  // only a tracker that followed the setting samples here

  // The store's thread lets go of the permit.
  std::atomic<bool> released{false};
  sleepWake.handlers.willSleep(SleepPermit([&] { released = true; }));
  ASSERT_TRUE(testing::waitUntil([&] { return released.load(); }));
  // Read without waiting for the store: the permit went only once the rows were written.
  testing::SqlFile look(dir_.path() / "quorel.db");
  EXPECT_EQ(
      look.rows("SELECT process_name, observed_duration_s, round(energy_wh * 3600, 6) "
                "FROM process_energy ORDER BY process_name"),
      (std::vector<std::vector<std::string>>{{"Other", "7.0", "42.0"}, {"cargo", "7.0", "28.0"}}));

  tick(2s);
  delegate->terminate();
  EXPECT_EQ(rows("SELECT count(*), sum(observed_duration_s) FROM process_energy")[0],
            (std::vector<std::string>{"4", "18.0"}));
}

}  // namespace
}  // namespace quorel
