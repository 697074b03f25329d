#include "energy/top_processes_service.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace quorel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAreArray;

struct FakeProcess {
  std::optional<std::string> name;
  std::vector<std::string> arguments;
  std::uint64_t cpuTime_ns = 0;
  std::uint64_t startTicks = 1;
  bool kernelThread = false;
};

FakeProcess program(std::optional<std::string> name) {
  return {std::move(name), {}, 0, 1, false};
}

class FakeProcessTable final : public ProcessTable {
 public:
  std::map<ProcessId, FakeProcess> processes;
  mutable int listCalls = 0;

  void run(ProcessId pid, double cpuSeconds) {
    processes.at(pid).cpuTime_ns += static_cast<std::uint64_t>(cpuSeconds * 1e9);
  }
  std::vector<ProcessId> listPids() const override {
    ++listCalls;
    std::vector<ProcessId> pids;
    for (const auto& [pid, p] : processes) pids.push_back(pid);
    return pids;
  }
  std::optional<ProcessStat> readStat(ProcessId pid) const override {
    const auto it = processes.find(pid);
    if (it == processes.end()) return std::nullopt;
    const FakeProcess& p = it->second;
    return ProcessStat{pid, 1, p.cpuTime_ns, p.startTicks, std::nullopt, 'R', p.kernelThread};
  }
  std::optional<std::string> readName(ProcessId pid) const override {
    return processes.count(pid) ? processes.at(pid).name : std::nullopt;
  }
  std::optional<std::vector<std::string>> readArguments(ProcessId pid) const override {
    if (!processes.count(pid)) return std::nullopt;
    return processes.at(pid).arguments;
  }
  std::optional<std::filesystem::path> readExecutablePath(ProcessId) const override {
    return std::nullopt;
  }
};

class FakeClassifier final : public AIAgentClassifying {
 public:
  std::map<ProcessId, std::string> agents;
  std::vector<ProcessStat> asked;
  std::map<ProcessId, std::string> classify(const std::vector<ProcessStat>& processes) override {
    asked = processes;
    std::map<ProcessId, std::string> out;
    for (const ProcessStat& stat : processes) {
      if (agents.count(stat.pid)) out[stat.pid] = agents[stat.pid];
    }
    return out;
  }
};

// A listed process without its per-pass id, compared to within rounding.
struct Row {
  std::string name;
  double cpu = 0;
  std::optional<double> watts;
  bool operator==(const Row& o) const {
    const auto near = [](double a, double b) { return std::abs(a - b) < 1e-9; };
    return name == o.name && near(cpu, o.cpu) && watts.has_value() == o.watts.has_value() &&
           (!watts || near(*watts, *o.watts));
  }
  friend std::ostream& operator<<(std::ostream& os, const Row& r) {
    return os << r.name << " " << r.cpu << "% " << (r.watts ? std::to_string(*r.watts) : "-");
  }
};

std::vector<Row> rows(const std::vector<TopProcess>& top) {
  std::vector<Row> out;
  for (const TopProcess& p : top) out.push_back({p.name, p.cpuUsage, p.estimatedWatts});
  return out;
}

std::vector<Row> aiRows(const std::vector<AIAgentUsage>& ai) {
  std::vector<Row> out;
  for (const AIAgentUsage& a : ai) {
    out.push_back(
        {a.agentId + "*" + std::to_string(a.processCount), a.cpuPercent, a.estimatedWatts});
  }
  return out;
}

std::vector<std::string> names(const std::vector<TopProcess>& top) {
  std::vector<std::string> out;
  for (const TopProcess& p : top) out.push_back(p.name);
  return out;
}

class TopProcessesServiceTest : public ::testing::Test {
 protected:
  // One sampling pass, far enough after the last that the cache no longer serves.
  TopProcessesSnapshot passAfter(double seconds, int limit = 8) {
    clock.advance(Seconds{seconds});
    return service.snapshot(limit);
  }

  ManualClock clock;
  FakeProcessTable table;
  FakeClassifier classifier;
  TopProcessesService service{table, classifier, clock};
};

TEST_F(TopProcessesServiceTest, SharesPackageOverAllBusyProcessesButListsOnlyPrograms) {
  table.processes = {{10, program("editor")},
                     {11, program("builder")},
                     {12, program("indexer")},
                     {13, program("idle")},
                     {20, {"kworker/0:1", {}, 0, 1, true}},
                     {21, program("quorel-helper")},
                     {22, program(std::nullopt)}};
  classifier.agents = {{10, "coder"}, {11, "assistant"}, {12, "assistant"}};
  service.setCpuPackageWatts(30.0);
  const TopProcessesSnapshot first = passAfter(0, 2);
  EXPECT_THAT(first.top, IsEmpty());

  for (auto [pid, s] :
       std::map<ProcessId, double>{{20, 5}, {21, 4}, {10, 3}, {11, 2}, {12, 0.5}, {22, 0.5}}) {
    table.run(pid, s);
  }
  // 150% in all, so 0.2 W per percent; the busiest two are the kernel's and our helper's.
  const TopProcessesSnapshot second = passAfter(10, 2);
  EXPECT_THAT(rows(second.top), ElementsAre(Row{"editor", 30, 6.0}, Row{"builder", 20, 4.0}));
  EXPECT_THAT(aiRows(second.ai), ElementsAre(Row{"coder*1", 30, 6.0}, Row{"assistant*2", 25, 5.0}));
  // The classifier gets the records of this very pass, so it need not read them again.
  std::vector<ProcessStat> expectedStats;
  for (ProcessId pid : {20, 21, 10, 11, 12, 22}) expectedStats.push_back(*table.readStat(pid));
  EXPECT_THAT(classifier.asked, UnorderedElementsAreArray(expectedStats));
}

TEST_F(TopProcessesServiceTest, RateNeedsARecentEarlierSampleAndResumesOnePassLater) {
  table.processes = {{10, program("editor")}};
  struct Case {
    double gap_s;
    bool listed;
  };
  for (const Case c : {Case{10, true}, Case{119, true}, Case{120, false}, Case{-5, false}}) {
    SCOPED_TRACE(c.gap_s);
    TopProcessesService fresh{table, classifier, clock};
    fresh.snapshot(8);
    clock.advance(Seconds{c.gap_s});
    table.run(10, 1);
    const auto top = fresh.snapshot(8).top;
    if (c.listed) {
      EXPECT_THAT(rows(top), ElementsAre(Row{"editor", 100 / c.gap_s, std::nullopt}));
    } else {
      EXPECT_THAT(top, IsEmpty());
    }
    clock.advance(Seconds{10});
    table.run(10, 1);
    EXPECT_THAT(rows(fresh.snapshot(8).top), ElementsAre(Row{"editor", 10, std::nullopt}));
  }
}

TEST_F(TopProcessesServiceTest, ReusedPidIsDroppedOnceAndNamedAfterTheNewProcess) {
  table.processes = {{30, {"oldprog", {}, 50'000'000'000, 100}}};
  passAfter(0);
  const auto runAndName = [&](double s) {
    table.run(30, s);
    return names(passAfter(10).top);
  };
  EXPECT_THAT(runAndName(1), ElementsAre("oldprog"));
  table.processes[30].name = "renamed";  // same process: the name looked up before stands
  EXPECT_THAT(runAndName(1), ElementsAre("oldprog"));
  table.processes[30] = {"newprog", {}, 2'000'000'000, 200};
  EXPECT_THAT(runAndName(0), IsEmpty());
  EXPECT_THAT(runAndName(1), ElementsAre("newprog"));
}

TEST_F(TopProcessesServiceTest, CacheServesYoungerThanTTLAndForNoLargerLimit) {
  for (ProcessId pid = 40; pid < 52; ++pid)
    table.processes[pid] = program("p" + std::to_string(pid));
  passAfter(0);
  struct Step {
    double advance_s;
    int limit;
    bool refreshed;
    std::size_t size;
  };
  const std::vector<Step> steps = {
      {10, 0, true, 0},  // nothing returned, yet cached for 8
      {5, 5, false, 5},   {4.5, 8, false, 8}, {0, 9, true, 9},  // more than was cached
      {9.5, 3, false, 3}, {0.5, 3, true, 3},                    // ten seconds is too old
      {1, -4, false, 0},  {-2, 3, true, 0},  // wall clock set back: refreshed, and no rate across
                                             // it
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(s.advance_s);
    for (auto& [pid, p] : table.processes) table.run(pid, 0.01 * pid);
    clock.advance(Seconds{s.advance_s});
    const int before = table.listCalls;
    const auto top = service.fetch(s.limit);
    EXPECT_EQ(table.listCalls - before, s.refreshed ? 1 : 0);
    EXPECT_EQ(top.size(), s.size);
    EXPECT_TRUE(std::is_sorted(top.begin(), top.end(), [](const auto& a, const auto& b) {
      return a.cpuUsage > b.cpuUsage;
    }));
  }
}

TEST_F(TopProcessesServiceTest, KernelNameGivesWayToArgvBaseItDoesNotStartWith) {
  struct Case {
    std::string comm;
    std::vector<std::string> argv;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"gnome-shell-cal",
       {"/usr/libexec/gnome-shell-calendar-server", "-v"},
       "gnome-shell-calendar-server"},
      {"Xorg", {"/usr/lib/xorg/xorg"}, "Xorg"},
      {"MainThread", {"/usr/bin/python3", "app.py"}, "python3"},
      {"MainThread", {}, "MainThread"},
      {"node", {""}, "node"},
      // A title set by the program itself, "name: what it is doing", is not a path.
      {"sshd", {"sshd: alice@pts/0"}, "sshd"},
      {"nginx", {"nginx: worker process"}, "nginx"},
      {"postgres", {"/usr/lib/postgresql/15/bin/postgres: checkpointer"}, "postgres"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.comm);
    table.processes = {{60, {c.comm, c.argv}}};
    TopProcessesService fresh{table, classifier, clock};
    fresh.snapshot(8);
    clock.advance(Seconds{10});
    table.run(60, 1);
    EXPECT_THAT(names(fresh.snapshot(8).top), ElementsAre(c.expected));
  }
}

// The view model pushes package power from the main queue while the trackers sample from their
// own; under ThreadSanitizer this shows the two meet only under the service's locks.
TEST_F(TopProcessesServiceTest, PackagePowerPushedDuringPassesLandsWithoutARace) {
  table.processes = {{10, program("editor")}};
  std::thread pusher([this] {
    for (int i = 0; i <= 200; ++i)
      service.setCpuPackageWatts(i % 2 ? std::nullopt : std::optional(10.0));
  });
  for (int i = 0; i < 200; ++i) {
    table.run(10, 0.1);  // the fake table is only read inside a pass, which this thread runs
    clock.advance(Seconds{11});
    (void)service.fetch(3);
  }
  pusher.join();
  table.run(10, 1);
  EXPECT_THAT(rows(passAfter(11).top), ElementsAre(Row{"editor", 100.0 / 11, 10.0}));
}

}  // namespace
}  // namespace quorel
