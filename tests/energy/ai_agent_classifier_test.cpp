#include "energy/ai_agent_classifier.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "energy/ai_agent_registry.hpp"

namespace quorel {
namespace {

using Agents = std::map<ProcessId, std::string>;

struct FakeProcess {
  ProcessId ppid = 1;
  std::string comm;
  std::vector<std::string> argv;
  std::uint64_t startTicks = 1;
};

// Counts every call, since the classifier's cost is what it asks of the table.
class CountingTable final : public ProcessTable {
 public:
  std::map<ProcessId, FakeProcess> processes;
  mutable std::atomic<int> calls{0};

  // The record a sampling pass would hand over; not counted.
  ProcessStat statOf(ProcessId pid) const {
    const FakeProcess& p = processes.at(pid);
    return ProcessStat{pid, p.ppid, 0, p.startTicks, std::nullopt, 'S', false};
  }
  std::vector<ProcessStat> statsOf(const std::vector<ProcessId>& pids) const {
    std::vector<ProcessStat> out;
    for (ProcessId pid : pids) out.push_back(statOf(pid));
    return out;
  }

  std::vector<ProcessId> listPids() const override {
    ++calls;
    return {};
  }
  std::optional<ProcessStat> readStat(ProcessId pid) const override {
    ++calls;
    if (!processes.contains(pid)) return std::nullopt;
    return statOf(pid);
  }
  std::optional<std::string> readName(ProcessId pid) const override {
    ++calls;
    if (!processes.contains(pid)) return std::nullopt;
    return processes.at(pid).comm;
  }
  std::optional<std::vector<std::string>> readArguments(ProcessId pid) const override {
    ++calls;
    if (!processes.contains(pid)) return std::nullopt;
    return processes.at(pid).argv;
  }
  std::optional<std::filesystem::path> readExecutablePath(ProcessId) const override {
    ++calls;
    return std::nullopt;
  }
};

TEST(AIAgentClassifierMatchTest, NamesNeedASeparatorAfterTheKnownNameAndScriptsSkipOptions) {
  // Gemini's agent ships only as a script, so its name is no process name.
  const std::map<std::string, std::optional<std::string>> names = {
      {"claude.exe", "claude-code"}, {"claudette", std::nullopt}, {"lms", "lm-studio"},
      {"lm studio", "lm-studio"},    {"llama", std::nullopt},     {"ampere", std::nullopt},
      {"amp_daemon", "amp"},         {"gemini", std::nullopt},    {"", std::nullopt}};
  for (const auto& [name, expected] : names) {
    EXPECT_EQ(AIAgentClassifier::matchName(name), expected) << name;
  }
  const std::vector<std::pair<std::vector<std::string>, std::optional<std::string>>> argvs = {
      {{"python3", "-m", "mlx_lm.server", "--port", "8080"}, "mlx"},
      {{"node", "--no-warnings", "/usr/lib/gemini/Gemini"}, "gemini-cli"},
      {{"node", "server.js", "claude"}, std::nullopt},  // only the script itself counts
      {{"node", "--inspect", "-v"}, std::nullopt},
      {{"node"}, std::nullopt},
      {{"/usr/bin/claude", "--resume"}, std::nullopt},  // argv[0] is no script
  };
  for (const auto& [argv, expected] : argvs) {
    EXPECT_EQ(AIAgentClassifier::matchArgv(argv), expected) << argv.back();
  }
}

TEST(AIAgentRegistryTest, DisplayKeyedKeepsTheFirstOfIdentifiersSharingADisplayName) {
  const auto summary = [](double energyWh) {
    TrackedEnergySummary s;
    s.energyWh = energyWh;
    return s;
  };
  // An identifier the table does not know goes by itself, and "Amp" sorts before "amp".
  const auto keyed = AIAgentRegistry::displayKeyed(
      {{"amp", summary(1)}, {"Amp", summary(2)}, {"mlx", summary(3)}, {"x-agent", summary(4)}});
  EXPECT_EQ(keyed, (std::map<std::string, TrackedEnergySummary>{
                       {"Amp", summary(2)}, {"MLX", summary(3)}, {"x-agent", summary(4)}}));
}

class AIAgentClassifierTest : public ::testing::Test {
 protected:
  AIAgentClassifierTest() {
    table.processes = {
        {1, {0, "claude", {}}},  // the init process says nothing, whatever its name
        // A build tool under a shell under a claude script run by node, under a login shell.
        {100, {1, "bash", {"-bash"}}},
        {101, {100, "node", {"node", "--no-warnings", "/usr/local/bin/claude"}}},
        {102, {101, "bash", {"/bin/bash", "-c", "make"}}},
        {103, {102, "make", {"make"}}},
        {104, {103, "cc1", {"/usr/lib/gcc/cc1", "x.c"}}},
        // A plain node server matches nothing itself and belongs to what started it.
        {210, {1, "codex", {"codex"}}},
        {211, {210, "node", {"node", "server.js"}}},
        {300, {1, "python3.12", {"python3.12", "-m", "mlx_lm.server"}}},
        // What interprets is told by the kernel's name or by argv[0], whichever says so.
        {310, {1, "MainThread", {"/usr/bin/bun", "/opt/gemini/bin/gemini"}}},
        {311, {1, "uv", {"uvx", "--from", "aider-chat", "aider"}}},
        {400, {1, "ollama", {"/usr/bin/ollama", "serve"}}},
        {401, {400, "llama-server", {"llama-server"}}},
        {410, {100, "llama-server", {"llama-server"}}},
        {420, {101, "llama-server", {"llama-server"}}},  // no owner of its own: it stays itself
        {430, {101, "aider", {"aider"}}},                // an own match outranks the ancestor
        {500, {9999, "worker", {"worker"}}},             // its parent is unknown
        {600, {1, "claude-helper", {}}},
        {601, {1, "claudette", {"claudette"}}},
        // A process may rename itself; argv[0] still names the program.
        {602, {1, "MainThread", {"/opt/LM Studio/LM Studio", "--type=gpu"}}},
        {800, {801, "a", {"a"}}},  // a parent cycle
        {801, {800, "b", {"b"}}},
    };
  }
  Agents classify(const std::vector<ProcessId>& pids) {
    return classifier.classify(table.statsOf(pids));
  }

  CountingTable table;
  AIAgentClassifier classifier{table};
};

TEST_F(AIAgentClassifierTest, FindsAgentsThroughAncestryInterpretersAndOwnNames) {
  table.processes[0] = {0, "claude", {}};
  std::vector<ProcessId> all;
  for (const auto& [pid, p] : table.processes) all.push_back(pid);
  const Agents expected = {
      {101, "claude-code"}, {102, "claude-code"}, {103, "claude-code"}, {104, "claude-code"},
      {210, "codex"},       {211, "codex"},       {300, "mlx"},         {310, "gemini-cli"},
      {311, "aider"},       {400, "ollama"},      {401, "ollama"},      {410, "llama-cpp"},
      {420, "llama-cpp"},   {430, "aider"},       {600, "claude-code"}, {602, "lm-studio"}};
  EXPECT_EQ(classify(all), expected);
}

TEST_F(AIAgentClassifierTest, AncestryIsFollowedFifteenLevelsUp) {
  table.processes[900] = {1, "claude", {}};
  for (ProcessId pid = 901; pid <= 916; ++pid) table.processes[pid] = {pid - 1, "sh", {"sh"}};
  EXPECT_EQ(classify({916}), Agents{});
  table.calls = 0;
  EXPECT_EQ(classify({916}), Agents{});
  EXPECT_EQ(table.calls, 0);
  // The walk from 916 stopped short of the agent; that says nothing about those it passed.
  EXPECT_EQ(classify({915}), (Agents{{915, "claude-code"}}));
}

TEST_F(AIAgentClassifierTest, KnownProcessesCostNoTableCallAndNewOnesStopAtAKnownAncestor) {
  const std::vector<ProcessId> busy = {104, 211, 401, 500, 800};
  const Agents expected = {{104, "claude-code"}, {211, "codex"}, {401, "ollama"}};
  EXPECT_EQ(classify(busy), expected);
  EXPECT_GT(table.calls, 0);

  table.calls = 0;
  EXPECT_EQ(classify(busy), expected);
  EXPECT_EQ(table.calls, 0);

  // A new compiler below the shell met during the first walk: its own name and arguments, the
  // shell's record to tell it is the same shell, and nothing further up.
  table.processes[105] = {102, "cc1plus", {"cc1plus"}, 7};
  EXPECT_EQ(classify({105}), (Agents{{105, "claude-code"}}));
  EXPECT_EQ(table.calls, 3);
}

TEST_F(AIAgentClassifierTest, AnswerLastsForTheProcessLifeAndNoLonger) {
  EXPECT_EQ(classify({104, 102}), (Agents{{104, "claude-code"}, {102, "claude-code"}}));

  // The agent ends, its children are taken over by init, and its pid goes to another program.
  table.processes[101] = {1, "vim", {"vim"}, 50};
  table.processes[102].ppid = 1;
  table.processes[103].ppid = 1;
  table.calls = 0;
  EXPECT_EQ(classify({104}), (Agents{{104, "claude-code"}}));  // idle for a call in between
  EXPECT_EQ(classify({102}), (Agents{{102, "claude-code"}}));
  EXPECT_EQ(table.calls, 0);

  // Another program on the same pid within the same tick cannot be told apart; a later one can.
  table.processes[104] = {1, "cat", {"cat"}, 1};
  EXPECT_EQ(classify({104}), (Agents{{104, "claude-code"}}));
  table.processes[104].startTicks = 2;
  EXPECT_EQ(classify({104}), Agents{});

  // Passing through a process keeps it; one nobody asks about or passes through for long enough
  // is forgotten and looked at afresh.
  for (ProcessId pid = 2000; pid <= 2000 + int{AIAgentClassifier::kRetainedCalls}; ++pid) {
    table.processes[pid] = {102, "cc1", {"cc1"}};
    classify({pid});
  }
  EXPECT_EQ(classify({102, 103}), (Agents{{102, "claude-code"}}));
}

// Two callers at once both work from the cache as it was; under ThreadSanitizer this shows the
// cache is only shared through its lock.
TEST_F(AIAgentClassifierTest, ConcurrentCallsAgree) {
  const Agents expected = {{104, "claude-code"}, {401, "ollama"}};
  std::vector<std::thread> callers;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 2; ++t) {
    callers.emplace_back([&] {
      const std::vector<ProcessStat> stats = table.statsOf({104, 401, 500});
      for (int i = 0; i < 100; ++i) wrong += classifier.classify(stats) != expected;
    });
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace quorel
