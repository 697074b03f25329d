#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

#include "energy/ai_agent_energy_tracker.hpp"
#include "energy/process_energy_tracker.hpp"
#include "store/quorel_database.hpp"
#include "store/sqlite_test_support.hpp"
#include "support/log_capture.hpp"

namespace quorel {
namespace {

using Processes = std::vector<std::pair<std::string, std::optional<double>>>;

class FakeSource final : public EnergyUsageSource {
 public:
  std::vector<TopProcess> fetch(int limit) override {
    ++passes;
    EXPECT_EQ(limit, 8);
    std::vector<TopProcess> out;
    for (const auto& [name, watts] : processes) {
      out.push_back({"id", name, watts ? *watts * 10 : 5.0, watts});
    }
    return out;
  }
  std::vector<AIAgentUsage> agentUsage(int) override { return agents; }
  std::optional<double> cpuPackageWatts() override { return package; }

  Processes processes;
  std::vector<AIAgentUsage> agents;
  std::optional<double> package;
  std::atomic<int> passes = 0;
};

struct Row {
  std::string name;
  double energyWh = 0, observed_s = 0, coverage = 0, peak_W = 0, cpu = 0;
  std::string source = {};
};

// A tracker's world: a store on a scratch file, a utility queue that only turns when told, and
// time that only moves when told.
struct Harness {
  std::vector<Row> rows(const std::string& table, const std::string& key = "process_name") {
    database.queue().runPending();
    std::vector<Row> out;
    for (const auto& r : testing::SqlFile(file).rows(
             "SELECT " + key +
             ", energy_wh, observed_duration_s, IFNULL(coverage_ratio, 0), peak_watts, avg_cpu, "
             "source, quality FROM " +
             table + " ORDER BY " + key)) {
      EXPECT_EQ(r[7], "estimated");
      out.push_back({r[0], std::stod(r[1]), std::stod(r[2]), std::stod(r[3]), std::stod(r[4]),
                     std::stod(r[5]), r[6]});
    }
    return out;
  }
  void advance(double seconds) {
    clock.advance(Seconds{seconds});
    queue.runPending();
  }

  testing::ScratchDirectory scratch{"quorel-energy"};
  std::filesystem::path file = scratch.path() / "quorel.db";
  ManualClock clock;
  QuorelDatabase database{
      {.dataDirectory = {}, .databasePathOverride = file, .onCorruption = {}, .startQueue = false},
      clock};
  SerialQueue queue{"energy-test", clock};
  FakeSource source;
};

TEST(ProcessEnergyTrackerTest, IntegratesBatchesIntoRowsThatAddUpToThePackage) {
  // clang-format off
  struct Step { double after_s; Processes processes; std::optional<double> package; };
  // Rows by name, without cpu and source, which follow from the name and the energy.
  struct Case { const char* what; std::vector<Step> steps; std::vector<Row> rows;
                std::optional<double> packageWh; };
  const Processes eight = {{"A", 3.0}, {"A", 2.0}, {"B", 3.0}}, a4 = {{"A", 4.0}};
  const Processes twelve = {{"A", 6.0}, {"B", 6.0}}, unpriced = {{"A", std::nullopt}};
  constexpr double hr = 1 / 3600.0;  // hours per second
  const std::vector<Case> cases = {
      {"the first batch only starts the integral", {{0, a4, 10}}, {}, {}},
      {"the unlisted rest of the package is Other", {{0, eight, 10}, {60, eight, 10}},
       {{"A", 5 * 60 * hr, 60, 0.8, 5}, {"B", 3 * 60 * hr, 60, 0.8, 3},
        {"Other", 2 * 60 * hr, 60, 1, 2}}, 10 * 60 * hr},
      {"listed watts above the package leave no Other", {{0, twelve, 10}, {30, twelve, 10}},
       {{"A", 6 * 30 * hr, 30, 1, 6}, {"B", 6 * 30 * hr, 30, 1, 6}}, {}},
      {"without package power all fall to 0 over one interval", {{0, a4, 10}, {5, unpriced, {}}},
       {{"A", 2 * 5 * hr, 5, 0, 4}, {"Other", 3 * 5 * hr, 5, 1, 6}}, 5 * 5 * hr},
      {"300 s apart still integrates", {{0, a4, 4}, {300, a4, 4}},
       {{"A", 4 * 300 * hr, 300, 1, 4}}, 4 * 300 * hr},
      {"missing time alone writes no row", {{0, a4, 4}, {300.1, a4, 4}}, {}, {}},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Harness h;
    ProcessEnergyTracker tracker(h.source, h.queue, h.clock);
    tracker.start(3600, &h.database);
    for (const Step& step : c.steps) {
      h.clock.advance(Seconds{step.after_s});
      h.source.processes = step.processes;
      h.source.package = step.package;
      tracker.sampleOnBackground();
    }
    tracker.flush();
    const std::vector<Row> rows = h.rows("process_energy");
    ASSERT_EQ(rows.size(), c.rows.size());
    double total = 0;
    for (std::size_t i = 0; i < rows.size(); ++i) {
      const Row &got = rows[i], &want = c.rows[i];
      EXPECT_EQ(got.name, want.name);
      EXPECT_NEAR(got.energyWh, want.energyWh, 1e-12);
      EXPECT_NEAR(got.observed_s, want.observed_s, 1e-9);
      EXPECT_NEAR(got.coverage, want.coverage, 1e-12);
      EXPECT_DOUBLE_EQ(got.peak_W, want.peak_W);
      // Each process's CPU is 10 per watt, and Other has none.
      const bool other = got.name == "Other";
      EXPECT_NEAR(got.cpu, other ? 0 : 10 * got.energyWh * 3600 / got.observed_s, 1e-9);
      EXPECT_EQ(got.source, other ? "cpu_package_unattributed" : "cpu_package_apportionment");
      total += got.energyWh;
    }
    if (c.packageWh) {
      EXPECT_NEAR(total, *c.packageWh, 1e-9);
    }
  }
}

// The tracker flushes as soon as a gap ends, so only the integrator shows a gap's bookkeeping.
TEST(EnergyIntegratorTest, GapsAreMissingTimeAndTheRecentBufferKeepsElevenMinutes) {
  EnergyIntegrator integrator;
  const TimePoint t0 = fromUnixSeconds(1e9), t600 = t0 + std::chrono::seconds(600);
  integrator.add({{{"A", {2, 20, "s"}}, {"B", {1, 10, "s"}}}, 1}, t0);
  integrator.add({{{"A", {4, 40, "s"}}}, 1}, t600);
  integrator.add({{{"A", {4, 40, "s"}}}, 1}, t600 + std::chrono::seconds(61));
  // B saw only the gap, so it has no record.
  const auto records = EnergyIntegrator::makeRecords(integrator.takeAccumulators(), t0);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].missingDuration_s, 600);
  EXPECT_EQ(records[0].observedDuration_s, 61);
  EXPECT_NEAR(records[0].energyWh, 4 * 61 / 3600.0, 1e-12);
  EXPECT_EQ(records[0].sampleCount, 2);
  // Older than 660 s at the last prune: B's only point and A's first.
  EXPECT_FALSE(integrator.recentBuffer().contains("B"));
  ASSERT_EQ(integrator.recentBuffer().at("A").size(), 2u);
  EXPECT_EQ(integrator.recentBuffer().at("A").front(), std::pair(t600, 4.0));
}

TEST(ProcessEnergyTrackerTest, TimerSamplesFlushesEachMinuteAndFollowsItsInterval) {
  Harness h;
  testing::LogCapture logs;
  auto tracker = std::make_unique<ProcessEnergyTracker>(h.source, h.queue, h.clock);
  h.source.processes = {{"A", 8.0}};
  h.source.package = 10;
  tracker->start(5, nullptr);
  for (int i = 0; i < 2; ++i) h.advance(5);
  EXPECT_FALSE(tracker->flush());  // with no database the first 5 s are lost
  tracker->start(5, &h.database);
  for (int i = 0; i < 12; ++i) h.advance(5);
  EXPECT_EQ(h.source.passes, 14);
  // Flushed by the tick a minute after the last flush.
  std::vector<Row> rows = h.rows("process_energy");
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_NEAR(rows[0].energyWh + rows[1].energyWh, 10 * 60 / 3600.0, 1e-9);

  h.advance(3);
  tracker->start(5, &h.database);  // the same interval keeps the schedule
  h.advance(2);
  EXPECT_EQ(h.source.passes, 15);
  EXPECT_EQ(h.rows("process_energy").size(), 2u);  // the next flush is a minute away
  tracker->updateInterval(std::nan(""));
  tracker->updateInterval(0);
  EXPECT_EQ(logs.messages("ProcessEnergyTracker").size(), 2u);
  h.advance(5);
  EXPECT_EQ(h.source.passes, 16);
  tracker->updateInterval(20);
  h.advance(15);
  EXPECT_EQ(h.source.passes, 16);
  h.advance(5);
  EXPECT_EQ(h.source.passes, 17);
  tracker.reset();  // a destroyed tracker leaves no timer behind
  h.advance(20);
  EXPECT_EQ(h.source.passes, 17);
}

TEST(ProcessEnergyTrackerTest, FlushFromAnotherThreadNeitherLosesNorRepeatsEnergy) {
  Harness h;
  ProcessEnergyTracker tracker(h.source, h.queue, h.clock);
  tracker.start(3600, &h.database);
  h.source.processes = {{"A", 3.0}};
  h.source.package = 4;
  std::thread sampler([&] {
    for (int i = 0; i <= 500; ++i) {
      tracker.sampleOnBackground();
      h.clock.advance(Seconds{1});
    }
  });
  for (int i = 0; i < 200; ++i) tracker.flush();
  sampler.join();
  tracker.flush();
  double total = 0;
  for (const Row& row : h.rows("process_energy")) total += row.energyWh;
  EXPECT_NEAR(total, 4 * 500 / 3600.0, 1e-9);
}

TEST(AIAgentEnergyTrackerTest, AgentsShareCoverageAndRiseFromZero) {
  Harness h;
  AIAgentEnergyTracker tracker(h.source, h.queue, h.clock);
  h.source.package = 10;
  tracker.start(10, &h.database);
  h.advance(10);
  h.source.agents = {{"coder", 20, 2.0, 2}, {"runtime", 30, 3.0, 1}, {"unpriced", 5, {}, 1}};
  h.advance(10);
  EXPECT_TRUE(tracker.flush());
  const std::vector<Row> rows = h.rows("ai_agent_energy", "agent_id");
  ASSERT_EQ(rows.size(), 2u);
  for (const auto& [row, watts] : {std::pair{rows[0], 2.0}, std::pair{rows[1], 3.0}}) {
    EXPECT_NEAR(row.energyWh, watts / 2 * 10 / 3600, 1e-12) << row.name;
    EXPECT_DOUBLE_EQ(row.coverage, 0.5) << row.name;
    EXPECT_EQ(row.source, "cpu_package_ai_apportionment");
  }

  h.source.agents.clear();
  h.advance(10);  // the agents fall to 0 over this interval...
  h.advance(10);  // ...and there is nothing left for this one
  tracker.flush();
  EXPECT_EQ(h.rows("ai_agent_energy", "agent_id").size(), 4u);
}

}  // namespace
}  // namespace quorel
