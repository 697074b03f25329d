// Cost of one sampling pass over the process table: list the pids and read every process's
// stat. Beside it, in the same run, the floor a pass could reach: every stat file kept open and
// only read again from its start, with none of the table's bookkeeping (which descriptor is
// whose, pids that left, a pid given to a new process). The table's pass should stay within 1.3
// times it. Measured twice: over a generated tree of 1,000 processes, plain files on which the
// table keeps its descriptors only because it is told to, and over this machine's own procfs,
// where it keeps them by itself; there also the pass that reopens every file, for comparison.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "bench/generated_proc_tree.hpp"
#include "core/clock.hpp"
#include "platform/linux/linux_procfs_process_table.hpp"

namespace {

using quorel::LinuxProcfsProcessTable;
using quorel::ProcessId;
using quorel::StatDescriptors;
using namespace std::string_literals;

constexpr int kProcesses = 1000;

// `kProcesses` processes with a mix of names (spaces and parentheses among them) and kernel
// threads.
std::vector<quorel::bench::GeneratedProcess> mixedProcesses() {
  const char* names[] = {"bash",
                         "node",
                         "Web Content",
                         "my prog) (x",
                         "kworker/3:2-events",
                         "python3",
                         "systemd-journal",
                         "gnome-shell"};
  std::vector<quorel::bench::GeneratedProcess> processes;
  for (int i = 0; i < kProcesses; ++i) {
    const int pid = i == 0 ? 1 : i == 1 ? 2 : 100 + i * 7;
    const bool kernel = i % 5 == 1;
    const std::string name = i == 1 ? "kthreadd" : names[i % 8];
    const int ppid = i < 2 ? 0 : kernel ? 2 : 1;
    processes.push_back({pid, ppid, name,
                         kernel ? std::vector<std::string>{} : std::vector{name, "--flag"s},
                         kernel});
  }
  return processes;
}

const quorel::bench::GeneratedProcTree& generatedTree() {
  static const quorel::bench::GeneratedProcTree tree("proc-bench", mixedProcesses());
  return tree;
}

// The table's pass: what the process sampler does every interval.
std::uint64_t tablePass(const LinuxProcfsProcessTable& table) {
  std::uint64_t total = 0;
  for (ProcessId pid : table.listPids()) {
    if (const auto stat = table.readStat(pid)) total += stat->cpuTime_ns;
  }
  return total;
}

// The floor: the same listing and parsing, but every stat file opened once and kept, so a pass
// pays only a pread per process.
class KeptOpenReference {
 public:
  explicit KeptOpenReference(const LinuxProcfsProcessTable& table, std::filesystem::path root)
      : table_(table), root_(std::move(root)) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
      limit.rlim_cur = limit.rlim_max;
      ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    for (ProcessId pid : table.listPids()) {
      const int fd = ::open((root_ / std::to_string(pid) / "stat").c_str(), O_RDONLY | O_CLOEXEC);
      if (fd >= 0) open_.push_back({pid, fd});
    }
    context_ = {table.ticksPerSecond(), table.bootTime_s(), true};
  }
  ~KeptOpenReference() {
    for (const auto& file : open_) ::close(file.fd);
  }
  KeptOpenReference(const KeptOpenReference&) = delete;
  KeptOpenReference& operator=(const KeptOpenReference&) = delete;

  std::size_t size() const { return open_.size(); }

  std::uint64_t pass() const {
    // The listing stays: a sampler that keeps files open still has to find new processes.
    benchmark::DoNotOptimize(table_.listPids());
    std::uint64_t total = 0;
    char buffer[4096];
    for (const auto& file : open_) {
      const ssize_t n = ::pread(file.fd, buffer, sizeof buffer, 0);
      if (n <= 0) continue;
      const auto stat =
          quorel::procfs::parseStat({buffer, static_cast<std::size_t>(n)}, file.pid, context_);
      if (stat) total += stat->cpuTime_ns;
    }
    return total;
  }

 private:
  struct OpenStat {
    ProcessId pid;
    int fd;
  };
  const LinuxProcfsProcessTable& table_;
  std::filesystem::path root_;
  std::vector<OpenStat> open_;
  quorel::procfs::StatContext context_;
};

void tablePassOver(benchmark::State& state, const std::filesystem::path& root,
                   StatDescriptors descriptors) {
  const LinuxProcfsProcessTable table(root, std::nullopt, descriptors);
  for (auto _ : state) benchmark::DoNotOptimize(tablePass(table));
  state.counters["processes"] = static_cast<double>(table.listPids().size());
}

void keptOpenPassOver(benchmark::State& state, const std::filesystem::path& root) {
  const LinuxProcfsProcessTable table(root, std::nullopt, StatDescriptors::reopen);
  const KeptOpenReference reference(table, root);
  for (auto _ : state) benchmark::DoNotOptimize(reference.pass());
  state.counters["processes"] = static_cast<double>(reference.size());
}

void BM_TablePass_Generated1000(benchmark::State& state) {
  tablePassOver(state, generatedTree().root(), StatDescriptors::keepOpen);
}
void BM_TableReopeningPass_Generated1000(benchmark::State& state) {
  tablePassOver(state, generatedTree().root(), StatDescriptors::reopen);
}
void BM_KeptOpenPass_Generated1000(benchmark::State& state) {
  keptOpenPassOver(state, generatedTree().root());
}

// Both passes taken in turn inside one loop, so that load from other work on the machine falls
// on both alike; the ratio is the figure to watch.
void tableOverKeptOpen(benchmark::State& state, const std::filesystem::path& root,
                       StatDescriptors descriptors) {
  const LinuxProcfsProcessTable table(root, std::nullopt, descriptors);
  const KeptOpenReference reference(table, root);
  const quorel::SystemClock clock;
  double tableSeconds = 0;
  double referenceSeconds = 0;
  for (auto _ : state) {
    const auto start = clock.monotonicNow();
    benchmark::DoNotOptimize(tablePass(table));
    const auto middle = clock.monotonicNow();
    benchmark::DoNotOptimize(reference.pass());
    const auto end = clock.monotonicNow();
    tableSeconds += std::chrono::duration<double>(middle - start).count();
    referenceSeconds += std::chrono::duration<double>(end - middle).count();
  }
  const auto passes = static_cast<double>(state.iterations());
  state.counters["table_us"] = tableSeconds / passes * 1e6;
  state.counters["kept_open_us"] = referenceSeconds / passes * 1e6;
  state.counters["ratio"] = referenceSeconds > 0 ? tableSeconds / referenceSeconds : 0;
}

void BM_TableOverKeptOpen_Generated1000(benchmark::State& state) {
  tableOverKeptOpen(state, generatedTree().root(), StatDescriptors::keepOpen);
}

// The same over this machine's own procfs, where the kernel formats each line on every read.
void BM_TablePass_ThisMachine(benchmark::State& state) {
  tablePassOver(state, "/proc", StatDescriptors::automatic);
}
void BM_TableReopeningPass_ThisMachine(benchmark::State& state) {
  tablePassOver(state, "/proc", StatDescriptors::reopen);
}
void BM_TableOverKeptOpen_ThisMachine(benchmark::State& state) {
  tableOverKeptOpen(state, "/proc", StatDescriptors::automatic);
}
void BM_TableReopeningOverKeptOpen_ThisMachine(benchmark::State& state) {
  tableOverKeptOpen(state, "/proc", StatDescriptors::reopen);
}
void BM_KeptOpenPass_ThisMachine(benchmark::State& state) {
  keptOpenPassOver(state, "/proc");
}

}  // namespace

BENCHMARK(BM_TablePass_Generated1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TableReopeningPass_Generated1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KeptOpenPass_Generated1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TableOverKeptOpen_Generated1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TablePass_ThisMachine)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TableReopeningPass_ThisMachine)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KeptOpenPass_ThisMachine)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TableOverKeptOpen_ThisMachine)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TableReopeningOverKeptOpen_ThisMachine)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
