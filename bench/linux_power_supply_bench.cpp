// Cost of one reading of the power-supply class, the work every poll tick does. The trees are
// the test fixtures: laptop layouts with their uevent files, one behind class symlinks.

#include <benchmark/benchmark.h>

#include <filesystem>

#include "core/clock.hpp"
#include "core/logging.hpp"
#include "platform/linux/linux_power_source_fallback_provider.hpp"
#include "platform/linux/linux_power_supply_provider.hpp"
#include "platform/linux/linux_thermal_monitor.hpp"

namespace {

std::filesystem::path fixture(const char* name) {
  return std::filesystem::path(__FILE__).parent_path().parent_path() / "tests" / "platform" /
         "linux" / "fixtures" / name;
}

void quietLogs() {
  quorel::logging::Options options;
  options.level = spdlog::level::err;
  quorel::logging::configure(options);
}

void snapshot(benchmark::State& state, const char* tree) {
  quietLogs();
  quorel::SystemClock clock;
  quorel::LinuxPowerSupplyProvider provider(fixture(tree) / "class" / "power_supply", clock);
  if (!provider.fetchSnapshot()) {
    state.SkipWithError("the fixture tree gave no snapshot");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(provider.fetchSnapshot());
  state.SetLabel("per snapshot");
}

void BM_LinuxPowerSupplySnapshot_EnergyPack(benchmark::State& state) {
  snapshot(state, "energy-pack");
}
void BM_LinuxPowerSupplySnapshot_ChargePackWithUsbC(benchmark::State& state) {
  snapshot(state, "charge-pack");
}
void BM_LinuxPowerSupplySnapshot_TwoPacks(benchmark::State& state) {
  snapshot(state, "two-packs");
}

void BM_LinuxPowerSourceFallbackSnapshot(benchmark::State& state) {
  quorel::SystemClock clock;
  quorel::LinuxPowerSourceFallbackProvider provider(
      fixture("energy-pack") / "class" / "power_supply", clock);
  for (auto _ : state) benchmark::DoNotOptimize(provider.fetchSnapshot());
}

void BM_LinuxThermalSample(benchmark::State& state) {
  quietLogs();
  quorel::LinuxThermalMonitor monitor(fixture("energy-pack") / "class" / "thermal");
  for (auto _ : state) benchmark::DoNotOptimize(monitor.sample());
}

}  // namespace

BENCHMARK(BM_LinuxPowerSupplySnapshot_EnergyPack)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LinuxPowerSupplySnapshot_ChargePackWithUsbC)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LinuxPowerSupplySnapshot_TwoPacks)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LinuxPowerSourceFallbackSnapshot)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LinuxThermalSample)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
