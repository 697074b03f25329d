// Cost of telling which AI agent each of 1,000 processes works for, read from a generated procfs
// through the real table: the first pass, which walks names, arguments and ancestry, and a later
// pass over the same processes, which should make no table call at all. The counter to watch is
// `table_calls_per_process`; the times show what the calls cost beside the bookkeeping.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bench/generated_proc_tree.hpp"
#include "energy/ai_agent_classifier.hpp"
#include "platform/linux/linux_procfs_process_table.hpp"

namespace {

using quorel::AIAgentClassifier;
using quorel::ProcessId;
using quorel::ProcessStat;
using quorel::bench::GeneratedProcess;

constexpr int kProcesses = 1000;

// Desktop programs, interpreters running agents and servers, agents' build jobs, local model
// runtimes, and long shell chains, repeated until the tree holds `kProcesses`.
std::vector<GeneratedProcess> workstationProcesses() {
  std::vector<GeneratedProcess> out = {{1, 0, "systemd", {"/sbin/init"}},
                                       {2, 0, "kthreadd", {}, true}};
  ProcessId next = 100;
  const auto add = [&](ProcessId ppid, std::string name, std::vector<std::string> argv) {
    out.push_back({next, ppid, std::move(name), std::move(argv)});
    return next++;
  };
  for (int group = 0; out.size() < kProcesses; ++group) {
    out.push_back({next++, 2, "kworker/" + std::to_string(group) + ":1", {}, true});
    const ProcessId login = add(1, "bash", {"-bash"});
    switch (group % 6) {
      case 0: {  // a coding agent on node, building
        const ProcessId agent = add(login, "node", {"node", "/usr/local/bin/claude"});
        const ProcessId shell = add(agent, "bash", {"/bin/bash", "-c", "make -j4"});
        const ProcessId make = add(shell, "make", {"make", "-j4"});
        for (int i = 0; i < 3; ++i) add(make, "cc1plus", {"/usr/lib/gcc/cc1plus", "-quiet"});
        break;
      }
      case 1: {  // a browser and its content processes
        const ProcessId browser = add(1, "firefox", {"/usr/lib/firefox/firefox"});
        for (int i = 0; i < 4; ++i) add(browser, "Web Content", {"/usr/lib/firefox/firefox"});
        break;
      }
      case 2:  // interpreters running no agent
        add(login, "node", {"node", "--max-old-space-size=4096", "server.js"});
        add(login, "python3", {"/usr/bin/python3", "-m", "http.server"});
        add(1, "gnome-shell", {"/usr/bin/gnome-shell"});
        break;
      case 3: {  // a model runtime and the server it starts
        const ProcessId runtime = add(1, "ollama", {"/usr/local/bin/ollama", "serve"});
        add(runtime, "llama-server", {"/usr/lib/ollama/llama-server", "--port", "0"});
        add(login, "python3.12", {"python3.12", "-m", "mlx_lm.server"});
        break;
      }
      case 4: {  // a deep chain of shells below an agent
        ProcessId parent = add(login, "codex", {"codex"});
        for (int depth = 0; depth < 20; ++depth) parent = add(parent, "sh", {"sh", "-c", "x"});
        break;
      }
      case 5:  // an agent on python, and an editor
        add(login, "python3", {"/usr/bin/python3", "/home/u/.local/bin/aider"});
        add(login, "vim", {"vim", "main.cpp"});
        break;
    }
  }
  out.resize(kProcesses);
  return out;
}

const quorel::bench::GeneratedProcTree& generatedTree() {
  static const quorel::bench::GeneratedProcTree tree("classifier-bench", workstationProcesses());
  return tree;
}

// The real table, counting what is asked of it.
class CountingTable final : public quorel::ProcessTable {
 public:
  explicit CountingTable(const std::filesystem::path& root) : table_(root) {}
  mutable long calls = 0;

  std::vector<ProcessId> listPids() const override {
    ++calls;
    return table_.listPids();
  }
  std::optional<ProcessStat> readStat(ProcessId pid) const override {
    ++calls;
    return table_.readStat(pid);
  }
  std::optional<std::string> readName(ProcessId pid) const override {
    ++calls;
    return table_.readName(pid);
  }
  std::optional<std::vector<std::string>> readArguments(ProcessId pid) const override {
    ++calls;
    return table_.readArguments(pid);
  }
  std::optional<std::filesystem::path> readExecutablePath(ProcessId pid) const override {
    ++calls;
    return table_.readExecutablePath(pid);
  }

 private:
  quorel::LinuxProcfsProcessTable table_;
};

// Every process's record, as a sampling pass in which all of them were busy hands them over.
std::vector<ProcessStat> allStats(const CountingTable& table) {
  std::vector<ProcessStat> stats;
  for (ProcessId pid : table.listPids()) {
    if (auto stat = table.readStat(pid)) stats.push_back(*stat);
  }
  table.calls = 0;
  return stats;
}

void report(benchmark::State& state, const CountingTable& table, std::size_t processes,
            std::size_t attributed) {
  const auto passes = static_cast<double>(state.iterations());
  state.counters["processes"] = static_cast<double>(processes);
  state.counters["attributed"] = static_cast<double>(attributed);
  state.counters["table_calls_per_process"] =
      static_cast<double>(table.calls) / passes / static_cast<double>(processes);
}

void BM_ClassifyFirstPass_Generated1000(benchmark::State& state) {
  const CountingTable table(generatedTree().root());
  const std::vector<ProcessStat> stats = allStats(table);
  std::size_t attributed = 0;
  for (auto _ : state) {
    AIAgentClassifier classifier(table);
    attributed = classifier.classify(stats).size();
  }
  report(state, table, stats.size(), attributed);
}

void BM_ClassifyWarm_Generated1000(benchmark::State& state) {
  const CountingTable table(generatedTree().root());
  const std::vector<ProcessStat> stats = allStats(table);
  AIAgentClassifier classifier(table);
  classifier.classify(stats);
  table.calls = 0;
  std::size_t attributed = 0;
  for (auto _ : state) attributed = classifier.classify(stats).size();
  report(state, table, stats.size(), attributed);
}

}  // namespace

BENCHMARK(BM_ClassifyFirstPass_Generated1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ClassifyWarm_Generated1000)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
