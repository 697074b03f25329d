// "tools/list" driven by 32 concurrent clients, one request per connection, against the MCP
// server and, in the same run, against a reference server that is nothing but a blocking loop
// answering a fixed body. Each server runs in a child process forked before any thread exists,
// so that its CPU time, resident memory and descriptors are its own and not the clients'.
//
// Targets: CPU per request at most 1.5x the reference's (the median of interleaved rounds), p99
// latency under 10 ms, resident memory under 10 MB, and the descriptor count back to its start
// after 100,000 requests. The summary printed after the benchmarks compares them.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/tool_fixtures.hpp"
#include "core/clock.hpp"
#include "core/logging.hpp"
#include "core/memory_preference_store.hpp"
#include "core/serial_queue.hpp"
#include "mcp/mcp_server.hpp"
#include "mcp/mcp_tool_registry.hpp"
#include "mcp/quorel_snapshot_provider.hpp"

namespace {

using namespace quorel;

constexpr int kClients = 32;
const SystemClock kClock;
const std::string kBody = R"({"jsonrpc":"2.0","id":1,"method":"tools/list"})";

// ------------------------------------------------------------------------------------------
// The servers, each in its own process.

struct Child {
  pid_t pid = -1;
  std::uint16_t port = 0;
};

// Commands of a server that reaches no battery.
struct RefusingCommands final : BatteryCommands {
  static MCPToolError refused() { return {kCommandRefused, "no battery here"}; }
  JSONValue state() const override { return nullptr; }
  JSONValue automation() const override { return nullptr; }
  void setChargeLimit(std::int64_t, BatteryCommandCompletion done) override { done(refused()); }
  void setForceDischarge(bool, BatteryCommandCompletion done) override { done(refused()); }
  void setTopUp(bool, BatteryCommandCompletion done) override { done(refused()); }
  BatteryCommandResult setSmartTopOffRules(std::vector<TopOffRule>) override { return refused(); }
  BatteryCommandResult setHeatProtection(std::int64_t, std::int64_t) override { return refused(); }
};

// Serves until the benchmark kills it.
[[noreturn]] void runQuorelServer(int reportFd, const std::filesystem::path& dataDirectory) {
  logging::configure({.level = spdlog::level::warn, .toStderr = true, .file = std::nullopt});
  MemoryPreferenceStore preferences;
  SerialQueue mainQueue("main", kClock);
  SerialQueue httpQueue(kMCPTransportQueueLabel, kClock);
  mainQueue.start();
  httpQueue.start();
  // Only "tools/list" is asked for, which reads neither the snapshot nor the commands.
  QuorelSnapshotProvider snapshot(mainQueue, kClock, {});
  RefusingCommands commands;
  MCPServer server(mainQueue, httpQueue, kClock, preferences, dataDirectory,
                   std::make_unique<MCPToolRegistry>(snapshot, commands));
  server.start(0);
  const std::uint16_t port = server.transport().boundPort().value_or(0);
  (void)!::write(reportFd, &port, sizeof port);
  ::close(reportFd);
  for (;;) ::pause();
}

// The reference: accept, read the head and the declared body, write a fixed answer, close.
[[noreturn]] void runReferenceServer(int reportFd) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int one = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a);
  ::listen(listener, SOMAXCONN);
  socklen_t length = sizeof a;
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&a), &length);
  const std::uint16_t port = ntohs(a.sin_port);
  (void)!::write(reportFd, &port, sizeof port);
  ::close(reportFd);

  // Our server's own answer, byte for byte, so that both send the same catalogue.
  const std::string body =
      *JSONRPCResponse::successText(JSONValue(1), MCPToolRegistry::toolsListText()).encode();
  const std::string answer =
      "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
      std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
  char buffer[65536];
  for (;;) {
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::string request;
    for (;;) {
      const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      request.append(buffer, static_cast<std::size_t>(n));
      const auto mark = request.find("\r\n\r\n");
      if (mark == std::string::npos) continue;
      const auto at = request.find("Content-Length: ");
      const std::size_t declared =
          at == std::string::npos ? 0 : std::strtoul(request.c_str() + at + 16, nullptr, 10);
      if (request.size() >= mark + 4 + declared) break;
    }
    (void)!::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
    ::close(fd);
  }
}

template <class Run>
Child spawn(Run run) {
  int fds[2];
  if (::pipe(fds) != 0) std::abort();
  Child child;
  const pid_t parent = ::getpid();
  child.pid = ::fork();
  if (child.pid == 0) {
    // A parent killed or crashed takes its servers with it; one already gone before this line
    // is noticed by the check after it.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) std::_Exit(1);
    ::close(fds[0]);
    run(fds[1]);
  }
  ::close(fds[1]);
  if (::read(fds[0], &child.port, sizeof child.port) != sizeof child.port) child.port = 0;
  ::close(fds[0]);
  return child;
}

// ------------------------------------------------------------------------------------------
// What the clients see and what the servers spend.

double processCPUSeconds(pid_t pid) {
  // The sum over threads of time on a CPU, in nanoseconds.
  double total = 0;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& entry : std::filesystem::directory_iterator(tasks)) {
    std::ifstream in(entry.path() / "schedstat");
    double ns = 0;
    if (in >> ns) total += ns;
  }
  return total / 1e9;
}

double residentMB(pid_t pid, const char* field = "VmRSS:") {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(field, 0) == 0) return std::stod(line.substr(std::strlen(field))) / 1024.0;
  }
  return 0;
}

int openDescriptors(pid_t pid) {
  int n = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    (void)entry;
    ++n;
  }
  return n;
}

std::string readToken(const std::filesystem::path& dataDirectory) {
  std::ifstream in(mcpTokenFile(dataDirectory));
  std::string token;
  in >> token;
  return token;
}

// One request on one connection; the latency in seconds, or a negative value on failure.
double oneRequest(std::uint16_t port, const std::string& request) {
  const MonotonicTime begin = kClock.monotonicNow();
  bool ok = false;
  const int fd = bench::sendOnLoopback(port, request, ok);
  char buffer[4096];
  std::size_t received = 0;
  bool sawOK = false;
  while (ok) {
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    if (received == 0) sawOK = n >= 12 && std::memcmp(buffer, "HTTP/1.1 200", 12) == 0;
    received += static_cast<std::size_t>(n);
  }
  ::close(fd);
  const double seconds = Seconds(kClock.monotonicNow() - begin).count();
  return ok && sawOK ? seconds : -1;
}

struct Load {
  std::vector<double> latencies;
  std::size_t failures = 0;
};

Load drive(std::uint16_t port, const std::string& request, int requestsPerClient) {
  std::vector<std::vector<double>> perClient(kClients);
  std::atomic<std::size_t> failures{0};
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      perClient[c].reserve(static_cast<std::size_t>(requestsPerClient));
      for (int i = 0; i < requestsPerClient; ++i) {
        const double s = oneRequest(port, request);
        if (s < 0) {
          ++failures;
        } else {
          perClient[c].push_back(s);
        }
      }
    });
  }
  for (auto& t : clients) t.join();
  Load load;
  load.failures = failures;
  for (auto& v : perClient) load.latencies.insert(load.latencies.end(), v.begin(), v.end());
  std::sort(load.latencies.begin(), load.latencies.end());
  return load;
}

double percentile(const std::vector<double>& sorted, double p) {
  if (sorted.empty()) return 0;
  const auto at = static_cast<std::size_t>(p * static_cast<double>(sorted.size() - 1));
  return sorted[at];
}

struct Figures {
  double cpuPerRequest_us = 0;
  double p50_ms = 0;
  double p99_ms = 0;
  double rss_MB = 0;
  double peakRSS_MB = 0;
  std::size_t requests = 0;
  std::size_t failures = 0;
  int descriptorsBefore = 0;
  int descriptorsAfter = 0;
};

Child gOurs, gReference;

// Ends the servers and removes their data directory on every way out of main: a return, or
// exit() from inside the benchmark library. The children inherit it but never run it: they
// leave by _Exit or by a signal.
struct ServerCleanup {
  std::filesystem::path dataDirectory;
  ~ServerCleanup() {
    for (Child* child : {&gOurs, &gReference}) {
      if (child->pid <= 0) continue;
      ::kill(child->pid, SIGKILL);
      ::waitpid(child->pid, nullptr, 0);
      child->pid = -1;
    }
    std::error_code ec;
    if (!dataDirectory.empty()) std::filesystem::remove_all(dataDirectory, ec);
  }
};
std::string gOursRequest, gReferenceRequest;
std::map<std::string, Figures> gFigures;
// CPU per request of each server in each round, and their ratio in that round.
std::vector<double> gRoundRatios;

double median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// The two servers take turns, one round each per iteration, so that whatever else the machine
// does at the time weighs on both alike; a ratio per round then compares like with like.
void BM_ToolsList_OursAndReference(benchmark::State& state) {
  constexpr int kPerClient = 100;
  struct Side {
    const Child* server;
    const std::string* request;
    Figures* figures;
    std::vector<double> latencies;
    std::vector<double> cpuPerRequest;
  };
  Side sides[] = {{&gOurs, &gOursRequest, &gFigures["quorel"], {}, {}},
                  {&gReference, &gReferenceRequest, &gFigures["reference"], {}, {}}};
  for (auto _ : state) {
    for (Side& side : sides) {
      const double before = processCPUSeconds(side.server->pid);
      Load load = drive(side.server->port, *side.request, kPerClient);
      const double cpu = processCPUSeconds(side.server->pid) - before;
      side.figures->failures += load.failures;
      side.cpuPerRequest.push_back(
          load.latencies.empty() ? 0 : cpu / static_cast<double>(load.latencies.size()) * 1e6);
      side.latencies.insert(side.latencies.end(), load.latencies.begin(), load.latencies.end());
    }
    const double reference = sides[1].cpuPerRequest.back();
    gRoundRatios.push_back(reference > 0 ? sides[0].cpuPerRequest.back() / reference : 0);
  }
  for (Side& side : sides) {
    std::sort(side.latencies.begin(), side.latencies.end());
    Figures& f = *side.figures;
    f.requests = side.latencies.size();
    f.cpuPerRequest_us = median(side.cpuPerRequest);
    f.p50_ms = percentile(side.latencies, 0.50) * 1e3;
    f.p99_ms = percentile(side.latencies, 0.99) * 1e3;
    f.rss_MB = residentMB(side.server->pid);
    f.peakRSS_MB = residentMB(side.server->pid, "VmHWM:");
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(sides[0].figures->requests));
  state.counters["ours_cpu_us_per_req"] = sides[0].figures->cpuPerRequest_us;
  state.counters["reference_cpu_us_per_req"] = sides[1].figures->cpuPerRequest_us;
  state.counters["median_round_ratio"] = median(gRoundRatios);
  state.counters["ours_p99_ms"] = sides[0].figures->p99_ms;
  state.counters["failures"] =
      static_cast<double>(sides[0].figures->failures + sides[1].figures->failures);
}

void BM_DescriptorsAfter100k_Quorel(benchmark::State& state) {
  constexpr int kTotal = 100'000;
  Figures& f = gFigures["quorel-100k"];
  for (auto _ : state) {
    f.descriptorsBefore = openDescriptors(gOurs.pid);
    Load load = drive(gOurs.port, gOursRequest, kTotal / kClients);
    f.requests = load.latencies.size();
    f.failures = load.failures;
    f.p99_ms = percentile(load.latencies, 0.99) * 1e3;
    // Every client has read to the end of its stream, so the server has closed its side.
    f.descriptorsAfter = openDescriptors(gOurs.pid);
  }
  f.rss_MB = residentMB(gOurs.pid);
  f.peakRSS_MB = residentMB(gOurs.pid, "VmHWM:");
  state.counters["fds_before"] = f.descriptorsBefore;
  state.counters["fds_after"] = f.descriptorsAfter;
  state.counters["server_rss_MB"] = f.rss_MB;
  state.counters["server_peak_rss_MB"] = f.peakRSS_MB;
  state.counters["p99_ms"] = f.p99_ms;
  state.counters["failures"] = static_cast<double>(f.failures);
  state.SetItemsProcessed(static_cast<std::int64_t>(f.requests));
}

std::string postOf(const std::string& token) {
  return "POST /mcp HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n"
         "Authorization: Bearer " +
         token + "\r\nContent-Length: " + std::to_string(kBody.size()) + "\r\n\r\n" + kBody;
}

void printSummary() {
  const Figures& ours = gFigures["quorel"];
  const Figures& ref = gFigures["reference"];
  const Figures& big = gFigures["quorel-100k"];
  const double ratio = median(gRoundRatios);
  const auto verdict = [](bool ok) { return ok ? "met" : "MISSED"; };
  std::printf("\nMCP server against the reference, %d concurrent clients, tools/list:\n", kClients);
  std::printf(
      "  CPU per request   %.1f us vs %.1f us, medians of %zu interleaved rounds\n"
      "                    (median of the rounds' ratios %.2f, lowest %.2f, highest %.2f; "
      "target <= 1.5: %s)\n",
      ours.cpuPerRequest_us, ref.cpuPerRequest_us, gRoundRatios.size(), ratio,
      gRoundRatios.empty() ? 0 : *std::min_element(gRoundRatios.begin(), gRoundRatios.end()),
      gRoundRatios.empty() ? 0 : *std::max_element(gRoundRatios.begin(), gRoundRatios.end()),
      verdict(ratio > 0 && ratio <= 1.5));
  std::printf("  p50 / p99 latency %.3f / %.3f ms vs %.3f / %.3f ms  (target p99 < 10 ms: %s)\n",
              ours.p50_ms, ours.p99_ms, ref.p50_ms, ref.p99_ms, verdict(ours.p99_ms < 10.0));
  if (big.requests > 0) {
    std::printf("  resident memory   %.1f MB now, %.1f MB peak  (target < 10 MB: %s)\n", big.rss_MB,
                big.peakRSS_MB, verdict(big.peakRSS_MB < 10.0));
    std::printf("  descriptors       %d before, %d after %zu requests (%zu failed): %s\n",
                big.descriptorsBefore, big.descriptorsAfter, big.requests, big.failures,
                verdict(big.descriptorsBefore == big.descriptorsAfter && big.failures == 0));
  }
}

}  // namespace

int main(int argc, char** argv) {
  // The flags first: --help and a flag that is not known end here, before any server exists.
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  static ServerCleanup cleanup;
  cleanup.dataDirectory =
      std::filesystem::temp_directory_path() / ("quorel-mcp-bench-" + std::to_string(::getpid()));
  std::filesystem::create_directories(cleanup.dataDirectory);
  // Fork the servers while this process still has one thread.
  gOurs = spawn([&](int fd) { runQuorelServer(fd, cleanup.dataDirectory); });
  gReference = spawn([](int fd) { runReferenceServer(fd); });
  if (gOurs.port == 0 || gReference.port == 0) {
    std::fprintf(stderr, "a server did not start — nothing to measure\n");
    return 1;
  }
  gOursRequest = postOf(readToken(cleanup.dataDirectory));
  gReferenceRequest = postOf("unused");

  benchmark::RegisterBenchmark("BM_ToolsList_OursAndReference", BM_ToolsList_OursAndReference)
      ->Iterations(20)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("BM_DescriptorsAfter100k_Quorel", BM_DescriptorsAfter100k_Quorel)
      ->Iterations(1)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  printSummary();
  return 0;
}
