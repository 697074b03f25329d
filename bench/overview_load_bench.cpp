// Thirty-two assistants calling "get_overview" in a loop against the real server, registry and
// snapshot provider over a year of history, while a monitor tick runs on the main queue at its
// period. The agent must keep its tick on time and its memory small under that load.
//
// The server runs in a child process forked before any thread exists, so that its memory is its
// own and not the clients'. The child's main queue runs the tick, which feeds the view model a
// new state as the power monitor does; each tick notes how long after its due time it ran, into
// memory shared with this process.
//
// Targets: no tick later than its period plus 50 ms, peak resident memory under 20 MB, and
// resident memory that does not keep growing from the first half of the load to the second.

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "bench/tool_fixtures.hpp"
#include "bench/year_history.hpp"
#include "core/allocator_tuning.hpp"
#include "core/logging.hpp"
#include "core/memory_preference_store.hpp"
#include "core/serial_queue.hpp"
#include "insights/carbon_footprint_service.hpp"
#include "mcp/mcp_server.hpp"
#include "mcp/mcp_tool_registry.hpp"
#include "mcp/quorel_snapshot_provider.hpp"
#include "store/quorel_database.hpp"
#include "telemetry/power_view_model.hpp"

namespace {

using namespace quorel;
namespace fs = std::filesystem;

constexpr int kClients = 32;
constexpr std::chrono::milliseconds kTickPeriod{1000};
constexpr double kAllowedLateness_ms = 50;
constexpr double kMemoryLimit_MB = 20;
constexpr double kLoadSeconds = 20;
const SystemClock kClock;
const std::string kBody =
    R"({"jsonrpc":"2.0","id":7,"method":"tools/call","params":{"name":"get_overview"}})";

// Written by the server's tick, read by the benchmark: shared memory, so lock-free atomics.
struct TickRecord {
  std::atomic<std::int64_t> ticks{0};
  std::atomic<std::int64_t> worstLateness_us{0};
  std::atomic<bool> measuring{false};
};

// The reading changes every tick, so each one publishes a new display.
PowerState stateAt(TimePoint now, int tick) {
  return bench::chargingState(now, 18.5 + tick % 7, 40 + tick % 50);
}

// The agent's reading side and its server, with a tick that reschedules itself from its own due
// time, as a fixed-rate monitor timer does.
[[noreturn]] void runAgent(int reportFd, const fs::path& dataDirectory, TickRecord* record) {
  logging::configure({.level = spdlog::level::warn, .toStderr = true, .file = std::nullopt});
  MemoryPreferenceStore preferences;
  SerialQueue mainQueue("com.quorel.main", kClock);
  SerialQueue httpQueue(kMCPTransportQueueLabel, kClock);
  QuorelDatabase db({.dataDirectory = dataDirectory,
                     .databasePathOverride = {},
                     .onCorruption = {},
                     .startQueue = true},
                    kClock);
  CarbonFootprintService carbon(db);
  PowerViewModel viewModel(mainQueue, nullptr, kClock);
  viewModel.update(stateAt(kClock.now(), 0), PowerHistorySnapshot::empty(), {});
  QuorelSnapshotProvider::Sources sources;
  sources.viewModel = &viewModel;
  sources.database = &db;
  sources.carbon = &carbon;
  QuorelSnapshotProvider provider(mainQueue, kClock, std::move(sources));
  bench::NoCommands commands;
  mainQueue.start();
  httpQueue.start();
  MCPServer server(mainQueue, httpQueue, kClock, preferences, dataDirectory,
                   std::make_unique<MCPToolRegistry>(provider, commands));
  server.start(0);

  int tick = 0;
  MonotonicTime due = kClock.monotonicNow() + kTickPeriod;
  std::function<void()> onTick = [&] {
    const MonotonicTime ranAt = kClock.monotonicNow();
    if (record->measuring.load()) {
      const auto late_us = std::chrono::duration_cast<std::chrono::microseconds>(ranAt - due);
      std::int64_t worst = record->worstLateness_us.load();
      while (late_us.count() > worst &&
             !record->worstLateness_us.compare_exchange_weak(worst, late_us.count())) {
      }
      ++record->ticks;
    }
    viewModel.update(stateAt(kClock.now(), ++tick), PowerHistorySnapshot::empty(), {});
    due += kTickPeriod;
    mainQueue.asyncAfter(std::max(Seconds(due - kClock.monotonicNow()), Seconds(0)), onTick);
  };
  mainQueue.asyncAfter(Seconds(kTickPeriod), onTick);

  const std::uint16_t port = server.transport().boundPort().value_or(0);
  (void)!::write(reportFd, &port, sizeof port);
  ::close(reportFd);
  for (;;) ::pause();
}

double statusMB(pid_t pid, const char* field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(field, 0) == 0) return std::stod(line.substr(std::strlen(field))) / 1024.0;
  }
  return 0;
}

// One call on one connection, read to its end; false unless the answer was 200 with a result.
bool oneCall(std::uint16_t port, const std::string& request, std::string& buffer) {
  bool ok = false;
  const int fd = bench::sendOnLoopback(port, request, ok);
  buffer.clear();
  char chunk[8192];
  while (ok) {
    const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n <= 0) break;
    buffer.append(chunk, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return ok && buffer.rfind("HTTP/1.1 200", 0) == 0 &&
         buffer.find("device_count") != std::string::npos;
}

struct Agent {
  pid_t pid = -1;
  std::uint16_t port = 0;
  fs::path dataDirectory;
  TickRecord* record = nullptr;

  ~Agent() {
    if (pid > 0) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
    std::error_code ec;
    if (!dataDirectory.empty()) fs::remove_all(dataDirectory, ec);
    if (record) ::munmap(record, sizeof(TickRecord));
  }
};

Agent gAgent;

void BM_OverviewUnder32Assistants(benchmark::State& state) {
  std::string token;
  std::ifstream(mcpTokenFile(gAgent.dataDirectory)) >> token;
  const std::string request =
      "POST /mcp HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n"
      "Authorization: Bearer " +
      token + "\r\nContent-Length: " + std::to_string(kBody.size()) + "\r\n\r\n" + kBody;
  for (auto _ : state) {
    const double startRSS = statusMB(gAgent.pid, "VmRSS:");
    std::atomic<bool> stop{false};
    std::atomic<std::int64_t> calls{0}, failures{0};
    gAgent.record->measuring = true;
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
      clients.emplace_back([&] {
        std::string buffer;
        while (!stop.load()) {
          if (oneCall(gAgent.port, request, buffer)) {
            ++calls;
          } else {
            ++failures;
          }
        }
      });
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(kLoadSeconds / 2));
    const double halfwayRSS = statusMB(gAgent.pid, "VmRSS:");
    std::this_thread::sleep_for(std::chrono::duration<double>(kLoadSeconds / 2));
    const double endRSS = statusMB(gAgent.pid, "VmRSS:");
    stop = true;
    for (auto& t : clients) t.join();
    gAgent.record->measuring = false;

    const double worst_ms = static_cast<double>(gAgent.record->worstLateness_us.load()) / 1e3;
    const double peak = statusMB(gAgent.pid, "VmHWM:");
    state.counters["calls"] = static_cast<double>(calls.load());
    state.counters["failures"] = static_cast<double>(failures.load());
    state.counters["ticks"] = static_cast<double>(gAgent.record->ticks.load());
    state.counters["worst_tick_late_ms"] = worst_ms;
    state.counters["peak_rss_MB"] = peak;
    state.counters["rss_start_MB"] = startRSS;
    state.counters["rss_growth_2nd_half_MB"] = endRSS - halfwayRSS;
    const auto verdict = [](bool ok) { return ok ? "met" : "MISSED"; };
    std::printf(
        "\n%d assistants, get_overview for %.0f s: %lld calls, %lld failed, %lld ticks\n"
        "  worst tick lateness %.1f ms (target < %.0f ms: %s)\n"
        "  resident memory %.1f MB at start, %.1f MB halfway, %.1f MB at the end, %.1f MB peak"
        " (target < %.0f MB: %s; growth in the second half %.2f MB)\n",
        kClients, kLoadSeconds, static_cast<long long>(calls.load()),
        static_cast<long long>(failures.load()),
        static_cast<long long>(gAgent.record->ticks.load()), worst_ms, kAllowedLateness_ms,
        verdict(worst_ms < kAllowedLateness_ms), startRSS, halfwayRSS, endRSS, peak,
        kMemoryLimit_MB, verdict(peak < kMemoryLimit_MB), endRSS - halfwayRSS);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  keepFreedMemoryForReuse();  // as the agent does at start

  gAgent.dataDirectory =
      fs::temp_directory_path() / ("quorel-overview-" + std::to_string(::getpid()));
  fs::create_directories(gAgent.dataDirectory);
  const double end = toUnixSeconds(kClock.now());
  {
    // The schema first, through the store, then a year of rows behind it in plain SQL.
    QuorelDatabase made({.dataDirectory = gAgent.dataDirectory,
                         .databasePathOverride = {},
                         .onCorruption = {},
                         .startQueue = false},
                        kClock);
  }
  quorel::bench::generateYear(gAgent.dataDirectory / "quorel.db", end - 365 * 86400.0, end);

  void* shared = ::mmap(nullptr, sizeof(TickRecord), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) return 1;
  gAgent.record = new (shared) TickRecord();
  int fds[2];
  if (::pipe(fds) != 0) return 1;
  const pid_t parent = ::getpid();
  gAgent.pid = ::fork();
  if (gAgent.pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) std::_Exit(1);
    ::close(fds[0]);
    runAgent(fds[1], gAgent.dataDirectory, gAgent.record);
  }
  ::close(fds[1]);
  if (::read(fds[0], &gAgent.port, sizeof gAgent.port) != sizeof gAgent.port) gAgent.port = 0;
  ::close(fds[0]);
  if (gAgent.port == 0) {
    std::fprintf(stderr, "the agent did not start — nothing to measure\n");
    return 1;
  }

  benchmark::RegisterBenchmark("BM_OverviewUnder32Assistants", BM_OverviewUnder32Assistants)
      ->Iterations(1)
      ->UseRealTime()
      ->Unit(benchmark::kSecond);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
