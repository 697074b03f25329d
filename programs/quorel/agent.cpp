#include "agent.hpp"

#include <sys/resource.h>

#include <asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <iostream>

#include "core/logging.hpp"
#include "core/serial_queue.hpp"
#include "platform/sandbox/sandbox_config_file.hpp"
#include "platform/sandbox/sandbox_power_provider.hpp"
#include "telemetry/power_monitor.hpp"
#include "telemetry/power_state_json.hpp"
#include "telemetry/provider_switch.hpp"

namespace quorel {

namespace {

constexpr Seconds kWatchedPollingInterval{2};
constexpr Seconds kIdlePollingInterval{30};

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& tv) {
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Reads the scenario file into `settings`; on failure says why on standard error.
bool applyScenarioFile(const std::filesystem::path& file, SandboxSettings& settings) {
  auto loaded = readSandboxConfigFile(file, settings);
  if (!loaded.ok()) {
    std::cerr << "quorel: " << loaded.error << "\n";
    return false;
  }
  settings = *loaded.settings;
  return true;
}

class Agent {
 public:
  explicit Agent(const AgentOptions& options)
      : options_(options),
        log_(logging::get("AppDelegate")),
        signals_(mainQueue_.context(), SIGINT, SIGTERM, SIGHUP) {}

  int run(SandboxSettings scenario) {
    const auto startedAt = std::chrono::steady_clock::now();
    const double cpuAtStart = cpuSeconds();

    // This computer has no battery source Quorel can read yet, so the simulated machine stands
    // in for it; it writes nothing to the history store.
    scenario.enabled = true;
    sandbox_ = std::make_shared<SandboxConfig>(scenario);
    auto provider = std::make_shared<SandboxPowerProvider>(*sandbox_, clock_);
    log_->info("running on the simulated machine — no battery source is readable here");

    PowerMonitor::Dependencies deps;
    deps.provider = provider;
    deps.clock = &clock_;
    deps.pollQueue = &pollQueue_;
    deps.mainQueue = &mainQueue_;
    monitor_ = PowerMonitor::create(std::move(deps));
    monitor_->setSkipDatabaseRecording(true);
    monitor_->setPollingInterval(
        options_.interval.value_or(options_.json ? kWatchedPollingInterval : kIdlePollingInterval));
    monitor_->setOnStateUpdate(
        [this](const PowerState& state, const PowerMonitor::HistorySnapshot&) { publish(state); });
    sandboxObserver_ = sandbox_->addObserver([this](const SandboxConfig::Change& change) {
      if (change.parametersChanged()) simulationParametersChanged(*monitor_);
    });

    waitForSignal();
    pollQueue_.start();
    monitor_->start();
    mainQueue_.run();

    // The queue is stopped: finish the tick in flight and end the poll thread.
    sandbox_->removeObserver(sandboxObserver_);
    monitor_->stop();
    pollQueue_.shutdown();
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - startedAt).count();
    const double cpu = cpuSeconds() - cpuAtStart;
    log_->info("stopped after {:.1f} s — used {:.1f} ms of CPU ({:.3f} % of one core)", elapsed,
               cpu * 1000, elapsed > 0 ? cpu / elapsed * 100 : 0.0);
    return exitStatus_;
  }

 private:
  void publish(const PowerState& state) {
    if (options_.json) {
      const std::string line = toJson(state).dump() + "\n";
      if (std::fwrite(line.data(), 1, line.size(), stdout) != line.size() ||
          std::fflush(stdout) != 0) {
        // Whoever read our output has gone; there is nobody left to tell.
        log_->warn("standard output closed — stopping");
        quit();
      }
    }
    if (!lastPhase_ || *lastPhase_ != state.phase) {
      log_->info("phase is now {} — {:.1f} W, {} %", label(state.phase), state.smoothedWattage,
                 state.displayPercent());
      lastPhase_ = state.phase;
    }
  }

  void waitForSignal() {
    signals_.async_wait([this](const std::error_code& ec, int signal) {
      if (ec) return;
      if (signal == SIGHUP) {
        reloadScenario();
        waitForSignal();
        return;
      }
      log_->info("received {} — stopping", signal == SIGINT ? "SIGINT" : "SIGTERM");
      quit();
    });
  }

  // SIGHUP re-reads the scenario file, so a running agent can be moved to another scenario.
  void reloadScenario() {
    if (!options_.sandboxConfigFile) {
      log_->info("SIGHUP ignored — the agent was started without --sandbox-config");
      return;
    }
    SandboxSettings next{};
    if (!applyScenarioFile(*options_.sandboxConfigFile, next)) {
      log_->error("scenario file {} not applied — keeping the current scenario",
                  options_.sandboxConfigFile->string());
      return;
    }
    next.enabled = true;
    sandbox_->set(next);
    log_->info("scenario reloaded from {}", options_.sandboxConfigFile->string());
  }

  void quit() {
    signals_.cancel();
    mainQueue_.shutdown();
  }

  AgentOptions options_;
  std::shared_ptr<spdlog::logger> log_;
  SystemClock clock_;
  SerialQueue mainQueue_{"com.quorel.main"};
  SerialQueue pollQueue_{"com.quorel.poll"};
  asio::signal_set signals_;
  std::shared_ptr<SandboxConfig> sandbox_;
  std::shared_ptr<PowerMonitor> monitor_;
  SandboxConfig::ObserverId sandboxObserver_ = 0;
  std::optional<PowerPhase> lastPhase_;
  int exitStatus_ = 0;
};

}  // namespace

int runAgent(const AgentOptions& options) {
  logging::Options logOptions;
  logOptions.level = options.verbose ? spdlog::level::debug : spdlog::level::info;
  logging::configure(logOptions);
  // A reader closing our standard output is handled where the write fails, not by a signal.
  std::signal(SIGPIPE, SIG_IGN);

  SandboxSettings scenario{};
  if (options.sandboxConfigFile && !applyScenarioFile(*options.sandboxConfigFile, scenario)) {
    return 2;
  }
  Agent agent(options);
  return agent.run(scenario);
}

}  // namespace quorel
