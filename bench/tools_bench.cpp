// The read tools against a year of history: a sample every 30 seconds, a daily metric a day,
// three sessions a day, and eight processes' energy every five minutes. Each tool is timed
// through the registry, as a "tools/call" would run it, with the store's queue and the main queue
// run on the benchmark's thread, so the figure is the server's CPU for one call: the reads, the
// shaping and the JSON text. Beside the ranged history tools, the bare store reads they wrap.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "bench/tool_fixtures.hpp"
#include "bench/year_history.hpp"
#include "core/allocator_tuning.hpp"
#include "insights/carbon_footprint_service.hpp"
#include "mcp/mcp_tool_registry.hpp"
#include "mcp/quorel_snapshot_provider.hpp"
#include "store/quorel_database.hpp"
#include "telemetry/power_view_model.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;

constexpr double kEnd = 1'800'000'000;  // 2027-01-15T08:00:00Z
constexpr double kDay = 86400;
constexpr double kStart = kEnd - 365 * kDay;

// A running agent's reading side over the year: the store, the view model with a state, the
// provider and the registry, with both queues driven by hand.
struct Agent {
  Agent() {
    keepFreedMemoryForReuse();  // as the agent does at start
    char pattern[] = "/tmp/quorel-tools-bench-XXXXXX";
    if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp");
    dir = pattern;
    {
      QuorelDatabase made({.dataDirectory = dir,
                           .databasePathOverride = {},
                           .onCorruption = {},
                           .startQueue = false},
                          clock);
    }
    bench::generateYear(dir / "quorel.db", kStart, kEnd);
    db.emplace(QuorelDatabase::Options{.dataDirectory = dir,
                                       .databasePathOverride = {},
                                       .onCorruption = {},
                                       .startQueue = false},
               clock);
    carbon.emplace(*db);
    viewModel.emplace(main, nullptr, clock);
    viewModel->update(bench::chargingState(clock.now(), 18.5, 71), PowerHistorySnapshot::empty(),
                      {});
    QuorelSnapshotProvider::Sources sources;
    sources.viewModel = &*viewModel;
    sources.database = &*db;
    sources.carbon = &*carbon;
    provider.emplace(main, clock, std::move(sources));
    registry.emplace(*provider, commands);
    // The lifetime counter integrates only rows after its checkpoint; a running agent has long
    // since moved it to the present.
    (void)db->totalComponentEnergy_Wh();
  }
  ~Agent() {
    registry.reset();
    provider.reset();
    viewModel.reset();
    carbon.reset();
    db.reset();
    fs::remove_all(dir);
  }

  // The answer is written into one buffer kept from call to call, as the HTTP transport keeps
  // it.
  std::size_t call(const std::string& tool, const std::optional<JSONValue>& arguments) {
    std::size_t bytes = 0;
    registry->callTool(tool, arguments, JSONValue(1), [&](JSONRPCResponse r) {
      encoded.clear();
      if (r.encodeTo(encoded)) bytes = encoded.size();
    });
    db->queue().runPending();
    main.runPending();
    return bytes;
  }

  fs::path dir;
  ManualClock clock{fromUnixSeconds(kEnd)};
  SerialQueue main{"bench.main", clock};
  std::optional<QuorelDatabase> db;
  std::optional<CarbonFootprintService> carbon;
  std::optional<PowerViewModel> viewModel;
  std::optional<QuorelSnapshotProvider> provider;
  bench::NoCommands commands;
  std::optional<MCPToolRegistry> registry;
  std::string encoded;
};

Agent& agent() {
  static Agent a;
  return a;
}

void BM_Tool(benchmark::State& state, const std::string& tool, const char* arguments) {
  Agent& a = agent();
  std::optional<JSONValue> args;
  if (arguments) args = JSONValue::parse(arguments);
  // A running agent has answered before: the first call of a tool counts settled history
  // (the lifetime coverage) once, and later ones only what came since.
  std::size_t bytes = a.call(tool, args);
  for (auto _ : state) bytes = a.call(tool, args);
  state.counters["response_bytes"] = static_cast<double>(bytes);
}

// An assistant asking for the last hour every 30 seconds: each answer shares all its samples
// but the newest with the one before, and the text of those is copied, not written again.
void BM_PolledHistory(benchmark::State& state) {
  Agent& a = agent();
  a.clock.set(fromUnixSeconds(kEnd - 30 * kDay));
  for (auto _ : state) {
    a.clock.advance(Seconds(30));
    benchmark::DoNotOptimize(a.call("query_power_history", std::nullopt));
  }
  a.clock.set(fromUnixSeconds(kEnd));
}

// An assistant asking for hours ten days apart in turn: no sample of one answer is in the next,
// so every one is written.
void BM_UnsharedHistory(benchmark::State& state) {
  Agent& a = agent();
  const JSONValue windows[] = {
      *JSONValue::parse(R"({"to":"2027-01-15T08:00:00Z"})"),
      *JSONValue::parse(R"({"to":"2027-01-05T08:00:00Z"})"),
  };
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(a.call("query_power_history", windows[i++ % 2]));
}

// The store reads behind query_power_history: the default hour and a whole year, both ending
// at the year's end, and the windows of the two benchmarks above, 240 points.
enum class Windows { fixed, polled, unshared };

void BM_StorePowerHistory(benchmark::State& state, double window_s, Windows windows) {
  Agent& a = agent();
  double end = windows == Windows::polled ? kEnd - 30 * kDay : kEnd;
  std::size_t i = 0;
  for (auto _ : state) {
    if (windows == Windows::polled) end += 30;
    if (windows == Windows::unshared) end = i++ % 2 == 0 ? kEnd : kEnd - 10 * kDay;
    const TimePoint to = fromUnixSeconds(end);
    const TimePoint from = fromUnixSeconds(end - window_s);
    a.db->queue().async([&] {
      benchmark::DoNotOptimize(a.db->queryPowerSamples(from, to, 240));
      benchmark::DoNotOptimize(a.db->historicalCoverage(from, to));
    });
    a.db->queue().runPending();
  }
}

// The store reads behind top_energy_apps' default day and limit.
void BM_StoreEnergyRanking(benchmark::State& state) {
  Agent& a = agent();
  const TimePoint to = fromUnixSeconds(kEnd);
  const TimePoint from = fromUnixSeconds(kEnd - kDay);
  for (auto _ : state) {
    a.db->queue().async([&] {
      benchmark::DoNotOptimize(
          a.db->queryTrackedEnergySummaries("process_energy", "process_name", from, to, 8));
      benchmark::DoNotOptimize(a.db->queryProcessEnergy(from, to, 200, 8));
    });
    a.db->queue().runPending();
  }
}

constexpr const char* kYearRange = R"({"from":"2026-01-15T08:00:00Z"})";

BENCHMARK_CAPTURE(BM_Tool, get_current_power, "get_current_power", nullptr);
BENCHMARK_CAPTURE(BM_Tool, get_battery_status, "get_battery_status", nullptr);
BENCHMARK_CAPTURE(BM_Tool, get_adapter, "get_adapter", nullptr);
BENCHMARK_CAPTURE(BM_Tool, list_connected_devices, "list_connected_devices", nullptr);
BENCHMARK_CAPTURE(BM_Tool, get_system_components, "get_system_components", nullptr);
BENCHMARK_CAPTURE(BM_Tool, get_overview, "get_overview", nullptr);
BENCHMARK_CAPTURE(BM_Tool, get_battery_health, "get_battery_health", nullptr);
BENCHMARK_CAPTURE(BM_Tool, battery_health_trend, "battery_health_trend", nullptr);
BENCHMARK_CAPTURE(BM_Tool, list_sessions, "list_sessions", nullptr);
BENCHMARK_CAPTURE(BM_Tool, energy_totals, "energy_totals", nullptr);
BENCHMARK_CAPTURE(BM_Tool, query_power_history_hour, "query_power_history", nullptr);
BENCHMARK_CAPTURE(BM_StorePowerHistory, store_reads_hour, 3600.0, Windows::fixed);
BENCHMARK(BM_PolledHistory);
BENCHMARK_CAPTURE(BM_StorePowerHistory, store_reads_polled, 3600.0, Windows::polled);
BENCHMARK(BM_UnsharedHistory);
BENCHMARK_CAPTURE(BM_StorePowerHistory, store_reads_unshared, 3600.0, Windows::unshared);
BENCHMARK_CAPTURE(BM_Tool, query_power_history_year, "query_power_history", kYearRange);
BENCHMARK_CAPTURE(BM_StorePowerHistory, store_reads_year, 365 * kDay, Windows::fixed);
BENCHMARK_CAPTURE(BM_Tool, top_energy_apps_day, "top_energy_apps", nullptr);
BENCHMARK(BM_StoreEnergyRanking);

}  // namespace
}  // namespace quorel

BENCHMARK_MAIN();
