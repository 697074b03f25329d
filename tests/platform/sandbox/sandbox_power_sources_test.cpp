#include "platform/sandbox/sandbox_power_sources.hpp"

#include <gtest/gtest.h>

#include "telemetry/power_monitor.hpp"
#include "telemetry/provider_switch.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;

class NoRecording : public PowerRecordingStage {
 public:
  void record(const RecordingTick&, bool) override { ++records; }
  void discardSession() override {}
  std::vector<HistorySeedSample> seedSamples(TimePoint) override { return {}; }
  int records = 0;
};

// The simulated machine behind the real monitor loop, as the agent runs it.
class SandboxSourcesWithMonitorTest : public ::testing::Test {
 protected:
  SandboxSourcesWithMonitorTest() {
    PowerMonitor::Dependencies deps;
    deps.sources = sandboxPowerSources(config, clock);
    deps.pollQueue = &pollQueue;
    deps.mainQueue = &mainQueue;
    deps.recorder = recorder;
    monitor = PowerMonitor::create(std::move(deps), clock);
    monitor->setOnStateUpdate(
        [this](const PowerState& s, const PowerMonitor::HistorySnapshot&) { states.push_back(s); });
  }
  void tick() {
    clock.advance(2s);
    monitor->poll();
    mainQueue.runPending();
  }
  void scenario(const std::function<void(SandboxSettings&)>& edit) {
    config.update(edit);
    simulationParametersChanged(*monitor);
    pollQueue.runPending();
    mainQueue.runPending();
  }

  SandboxConfig config;
  ManualClock clock;
  SerialQueue pollQueue{"test.poll", clock};
  SerialQueue mainQueue{"test.main", clock};
  std::shared_ptr<NoRecording> recorder = std::make_shared<NoRecording>();
  std::shared_ptr<PowerMonitor> monitor;
  std::vector<PowerState> states;
};

TEST_F(SandboxSourcesWithMonitorTest, ShowsTheScenarioAtOnceAndRecordsNothing) {
  tick();
  ASSERT_EQ(states.size(), 1u);
  EXPECT_EQ(states.back().componentPower, componentPower(SandboxLoadPreset::medium));
  EXPECT_EQ(states.back().systemPowerRails,
            (SystemPowerRails{18.0, 18.0, std::nullopt, 0.0, 0.0, 0.4}));
  EXPECT_EQ(states.back().thermalState, ThermalState::nominal);

  scenario([](SandboxSettings& c) {
    c.powerSource = SandboxPowerSource::acSupplementing;
    c.adapterWatts = 30;
    c.systemLoad = SandboxLoadPreset::extreme;
    c.thermalState = SandboxThermalState::critical;
  });
  const PowerState& s = states.back();
  EXPECT_EQ(s.componentPower, (ComponentPower{5.0, 18.0, 28.0, 3.0, 11.0, true}));
  // 65 W of load, 35 W of it from the pack (a magnitude), 30 W from the adapter.
  EXPECT_EQ(s.systemPowerRails, (SystemPowerRails{65.0, 35.0, 30.0, 2.4, 0.0, 0.4}));
  EXPECT_EQ(s.thermalState, ThermalState::critical);
  EXPECT_EQ(s.phase, PowerPhase::thermalHold);
  EXPECT_NEAR(s.smoothedWattage, -35.0, 0.02) << "the raw figure, not an average";

  for (int i = 0; i < 20; ++i) tick();
  EXPECT_EQ(recorder->records, 0) << "the simulated machine wrote to the history store";
}

TEST(SandboxLoadPresetTest, EveryRowPassesTheComponentValidator) {
  // The simulated machine must never produce readings its own pipeline would reject.
  for (auto preset : {SandboxLoadPreset::idle, SandboxLoadPreset::light, SandboxLoadPreset::medium,
                      SandboxLoadPreset::heavy, SandboxLoadPreset::extreme}) {
    const auto v =
        ComponentPowerValidator::validate(componentPower(preset), systemLoadWatts(preset));
    EXPECT_EQ(v.quality, HistoricalValueQuality::measured) << toString(preset);
  }
}

}  // namespace
}  // namespace quorel
