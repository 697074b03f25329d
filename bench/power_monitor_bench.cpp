// The cost of the spine: one tick on the simulated machine with recording skipped, and the
// history ring's append and copy-out.

#include <benchmark/benchmark.h>

#include "core/power_history.hpp"
#include "core/serial_queue.hpp"
#include "platform/sandbox/sandbox_power_sources.hpp"
#include "telemetry/power_monitor.hpp"

namespace quorel {
namespace {

void BM_PollSimulatedMachine(benchmark::State& st) {
  ManualClock clock;
  SerialQueue pollQueue("bench.poll", clock);
  SerialQueue mainQueue("bench.main", clock);
  auto config = std::make_shared<SandboxConfig>(SandboxSettings{});
  PowerMonitor::Dependencies deps;
  deps.sources = sandboxPowerSources(*config, clock);
  deps.pollQueue = &pollQueue;
  deps.mainQueue = &mainQueue;
  auto monitor = PowerMonitor::create(std::move(deps), clock);
  monitor->setPollingInterval(Seconds{2});
  monitor->setPopoverOpen(st.range(0) != 0);
  for (auto _ : st) {
    clock.advance(Seconds{2});
    monitor->poll();
    mainQueue.runPending();  // the hand-over to the main thread is part of a tick's cost
  }
  st.SetLabel(st.range(0) ? "watched (history copies)" : "unwatched");
}
BENCHMARK(BM_PollSimulatedMachine)->Arg(0)->Arg(1);

void BM_HistoryAppend(benchmark::State& st) {
  PowerHistory history;
  TimePoint t{};
  double v = 0;
  for (auto _ : st) {
    history.append(v, t);
    v += 0.5;
    t += std::chrono::seconds(30);
  }
  benchmark::DoNotOptimize(history.count());
}
BENCHMARK(BM_HistoryAppend);

void BM_HistoryFillFullRing(benchmark::State& st) {
  PowerHistory history;
  TimePoint t{};
  for (int i = 0; i < 1000; ++i) history.append(i, t += std::chrono::seconds(30));
  std::vector<double> values;
  std::vector<TimePoint> stamps;
  for (auto _ : st) {
    history.fillSamples(values, stamps);
    benchmark::DoNotOptimize(values.data());
  }
}
BENCHMARK(BM_HistoryFillFullRing);

}  // namespace
}  // namespace quorel

BENCHMARK_MAIN();
