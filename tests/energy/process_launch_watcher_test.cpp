#include "energy/process_launch_watcher.hpp"

#include <gtest/gtest.h>

#include <map>

namespace quorel {
namespace {

struct Process {
  std::string exe;  // empty: not ours to inspect
  std::uint64_t startTicks = 1;
  std::optional<TimePoint> startTime = std::nullopt;
  bool kernelThread = false;
};

class FakeTable final : public ProcessTable, public AIAgentClassifying, public ApplicationCatalog {
 public:
  std::map<ProcessId, Process> processes;
  mutable int exeReads = 0;
  std::vector<ProcessId> listPids() const override {
    std::vector<ProcessId> pids;
    for (const auto& [pid, p] : processes) pids.push_back(pid);
    return pids;
  }
  std::optional<ProcessStat> readStat(ProcessId pid) const override {
    const Process& p = processes.at(pid);
    return ProcessStat{pid, 1, 0, p.startTicks, p.startTime, 'S', p.kernelThread};
  }
  std::optional<std::string> readName(ProcessId) const override { return "x"; }
  std::optional<std::vector<std::string>> readArguments(ProcessId) const override { return {}; }
  std::optional<std::filesystem::path> readExecutablePath(ProcessId pid) const override {
    ++exeReads;
    const std::string& exe = processes.at(pid).exe;
    return exe.empty() ? std::nullopt : std::optional<std::filesystem::path>(exe);
  }
  std::map<ProcessId, std::string> classify(const std::vector<ProcessStat>&) override { return {}; }
  std::optional<ApplicationInfo> applicationFor(const std::filesystem::path& exe) const override {
    if (exe != "/usr/lib/video/player") return std::nullopt;
    return ApplicationInfo{"org.example.Video", "Video Player", std::nullopt};
  }
};

TEST(ProcessLaunchWatcherTest, ReportsProgramsNewSinceTheLastSamplerPass) {
  ManualClock clock;
  FakeTable table;
  TopProcessesService sampler(table, table, clock);
  std::vector<std::vector<ProcessLaunch>> reports;
  ProcessLaunchWatcher watcher(table, &table, clock, [&](auto l) { reports.push_back(l); });
  sampler.setArrivalObserver(&watcher);
  auto pass = [&] {
    clock.advance(Seconds{TopProcessesService::kCacheTTL_s});
    sampler.snapshot(8);
  };

  table.processes = {{1, {"/sbin/init"}}, {40, {"/usr/bin/editor"}}};
  pass();  // what already runs when the agent starts is no launch
  EXPECT_EQ(table.exeReads, 0);

  const TimePoint now = clock.now();
  table.processes[50] = {"/usr/lib/video/player", 1, now};
  table.processes[51] = {"/usr/lib/video/player", 1, now};  // same program: one report
  table.processes[52] = {"/usr/bin/web"};
  table.processes[53] = {"", 1, now};
  table.processes[54] = {"", 1, now, true};
  table.processes[55] = {"/usr/bin/old", 1, now - std::chrono::hours(1)};
  pass();
  pass();  // nothing new: no report, no reads
  EXPECT_EQ(reports, (std::vector<std::vector<ProcessLaunch>>{
                         {{50, "/usr/lib/video/player", "org.example.Video", "Video Player"},
                          {52, "/usr/bin/web", std::nullopt, "web"}}}));
  EXPECT_EQ(table.exeReads, 4);  // neither the kernel thread nor the old process

  table.processes[40] = {"/usr/bin/editor", 99, clock.now()};  // a later process on a reused pid
  pass();
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[1].at(0).displayName, "editor");

  sampler.setArrivalObserver(nullptr);
  table.processes[60] = {"/usr/bin/web"};
  pass();
  EXPECT_EQ(reports.size(), 2u);
}

}  // namespace
}  // namespace quorel
