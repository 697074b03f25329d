// The view model's cost on a tick whose display does not change: deriving every text, comparing
// with what is shown, and publishing nothing, nor fitting a forecast again. With full live
// histories (someone is watching) and a year of habit grades, their copies are part of that cost.

#include <benchmark/benchmark.h>

#include "core/serial_queue.hpp"
#include "telemetry/power_view_model.hpp"

namespace quorel {
namespace {

PowerHistorySnapshot fullHistories(TimePoint end) {
  PowerHistorySnapshot history;
  for (int i = 0; i < 600; ++i) {
    const TimePoint t = end - std::chrono::seconds(30 * (600 - i));
    history.wattageValues.push_back(-8 - i % 7 * 0.1);
    history.wattageTimestamps.push_back(t);
    history.systemPowerInValues.push_back(0);
    history.systemPowerInTimestamps.push_back(t);
    history.systemLoadValues.push_back(9 + i % 5 * 0.2);
    history.systemLoadTimestamps.push_back(t);
    for (const char* key : {"ECPU", "PCPU", "GPU", "ANE", "DRAM"}) {
      history.componentData[key].push_back(0.5 + i % 3 * 0.1);
      history.componentTimestamps[key].push_back(t);
    }
  }
  return history;
}

void BM_UnchangedTick(benchmark::State& st) {
  ManualClock clock;
  SerialQueue mainQueue("bench.main", clock);
  PowerViewModel vm(mainQueue, nullptr, clock);
  int publishes = 0;
  vm.subscribe([&publishes](PowerViewModel::Published what) {
    if (what == PowerViewModel::Published::displayState) ++publishes;
  });

  PowerState state;
  state.phase = PowerPhase::draining;
  state.smoothedWattage = -8.37;
  state.batteryPercentage = 64.2;
  state.batteryHealth = 91.6;
  state.cycleCount = 312;
  state.temperature_C = 31.4;
  state.batteryInstalled = true;
  state.timeRemaining_min = 215;
  state.calculatedTimeRemaining_min = -220;
  state.systemLoad_W = 9.1;
  state.connectionType = ConnectionType::usbCPD;
  state.componentPower = ComponentPower{1.2, 2.3, 0.8, 0, 0.4, true};
  state.diagnostics = BatteryDiagnostics{};
  state.diagnostics->designCycleCount = 1000;
  state.diagnostics->dailyMinSoc = 41;
  state.diagnostics->dailyMaxSoc = 88;
  state.timestamp = clock.now();
  const PowerHistorySnapshot history =
      st.range(0) ? fullHistories(clock.now()) : PowerHistorySnapshot::empty();
  ViewModelInputs inputs;
  inputs.populateHistory = true;
  inputs.carbonGrams = 14.2;
  if (st.range(0)) {
    // A year of daily grades, as the habit history keeps at most.
    for (int day = 0; day < 365; ++day) {
      inputs.habitHistory.push_back(
          {clock.now() - std::chrono::hours(24 * (365 - day)), day % 3 ? "B" : "A-", {}});
    }
  }

  vm.update(state, history, inputs);  // the first tick is shown
  publishes = 0;
  const auto fitsBefore = vm.forecastFits();
  for (auto _ : st) {
    vm.update(state, history, inputs);
  }
  if (publishes != 0) st.SkipWithError("an unchanged tick was published");
  st.counters["publishes"] = publishes;
  st.counters["forecast_fits"] = static_cast<double>(vm.forecastFits() - fitsBefore);
  st.SetLabel(st.range(0) ? "full live histories and a year of grades" : "no histories");
}
BENCHMARK(BM_UnchangedTick)->Arg(0)->Arg(1);

}  // namespace
}  // namespace quorel

BENCHMARK_MAIN();
