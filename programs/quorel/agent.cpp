#include "agent.hpp"

#include <sys/resource.h>
#include <unistd.h>

#include <asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "agent_calendar.hpp"
#include "agent_helper_link.hpp"
#include "agent_low_power.hpp"
#include "agent_notices.hpp"
#include "agent_top_off.hpp"
#include "app/app_delegate.hpp"
#include "app/battery_command_socket.hpp"
#include "app/battery_control_settings.hpp"
#include "app/settings_manager.hpp"
#include "app/single_instance_lock.hpp"
#include "core/allocator_tuning.hpp"
#include "core/file_preference_store.hpp"
#include "core/logging.hpp"
#include "core/paths.hpp"
#include "core/serial_queue.hpp"
#include "core/version.hpp"
#include "devices/usb_device_service.hpp"
#include "devices/usb_pd_vendor_lookup.hpp"
#include "energy/ai_agent_classifier.hpp"
#include "energy/ai_agent_energy_tracker.hpp"
#include "energy/energy_usage_source.hpp"
#include "energy/process_energy_tracker.hpp"
#include "energy/top_processes_service.hpp"
#include "insights/insights_refresher.hpp"
#include "mcp/mcp_server.hpp"
#include "mcp/mcp_server_switch.hpp"
#include "mcp/mcp_tool_registry.hpp"
#include "mcp/quorel_snapshot_provider.hpp"
#include "platform/linux/battery_control_probes.hpp"
#include "platform/linux/geoclue_location_monitor.hpp"
#include "platform/linux/helper_energy_counters.hpp"
#include "platform/linux/linux_power_rail_reader.hpp"
#include "platform/linux/linux_power_source_fallback_provider.hpp"
#include "platform/linux/linux_power_supply_provider.hpp"
#include "platform/linux/linux_powercap_component_sampler.hpp"
#include "platform/linux/linux_procfs_process_table.hpp"
#include "platform/linux/linux_thermal_monitor.hpp"
#include "platform/linux/linux_usb_device_source.hpp"
#include "platform/linux/logind_sleep_monitor.hpp"
#include "platform/linux/power_supply_scan.hpp"
#include "platform/linux/sysfs_attributes.hpp"
#include "platform/sandbox/sandbox_config_file.hpp"
#include "platform/sandbox/sandbox_power_sources.hpp"
#include "platform/sandbox/sandbox_usb_device_source.hpp"
#include "status_state.hpp"
#include "store/corruption_report.hpp"
#include "store/quorel_database.hpp"
#include "telemetry/power_monitor.hpp"
#include "telemetry/power_recorder.hpp"
#include "telemetry/power_state_json.hpp"
#include "telemetry/power_view_model.hpp"
#include "telemetry/provider_switch.hpp"

namespace quorel {

namespace {

// How often the lifetime total is brought up to date; it reads only the rows since the last time.
constexpr Seconds kLifetimeEnergyRefresh{300};
// The component sampler waits this long on the poll queue for the helper's energy counters.
constexpr Seconds kHelperEnergyCounterWait{0.25};

std::optional<CarbonRegionIntensity> carbonRegion(const QuorelSettings& settings) {
  return carbonRegionNamed(kCarbonRegionTexts.text(settings.carbonRegion));
}

DisplayPreferences displayPreferences(const QuorelSettings& settings) {
  return DisplayPreferences{.fahrenheit = settings.temperatureUnit == TemperatureUnit::fahrenheit,
                            .showCarbonFootprint = settings.showCarbonFootprint,
                            .minimalMenuBar = settings.menuBarMode == MenuBarMode::minimal};
}

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& tv) {
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Reads the scenario file over `settings`; on failure says why on standard error.
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
  Agent(const AgentOptions& options, QuorelPaths paths)
      : options_(options),
        paths_(std::move(paths)),
        log_(logging::get("AppDelegate")),
        signals_(mainQueue_.context(), SIGINT, SIGTERM, SIGHUP) {}

  int run(SandboxSettings scenario) {
    const MonotonicTime startedAt = clock_.monotonicNow();
    const double cpuAtStart = cpuSeconds();

    // The preference domain is shared with the command line; watching it lets a setting
    // written by `quorel` in another terminal take effect here without a restart.
    preferences_ = std::make_unique<FilePreferenceStore>(paths_.preferencesFile());
    preferences_->watchOn(mainQueue_);
    settings_ = std::make_unique<SettingsManager>(*preferences_, mainQueue_, clock_);
    // The poster and the power-saver offer for every engine that tells the person something.
    const char* desktop = std::getenv("XDG_CURRENT_DESKTOP");
    notices_ = std::make_unique<AgentNotices>(
        mainQueue_, *settings_, clock_,
        AgentNotices::Options{.programRoot = "/", .currentDesktop = desktop ? desktop : ""});

    QuorelDatabase::Options storeOptions;
    storeOptions.dataDirectory = paths_.dataDirectory;
    storeOptions.onCorruption = [dir = paths_.dataDirectory] {
      reportCorruptionHeadless(dir, std::cerr);
    };
    database_ = std::make_unique<QuorelDatabase>(std::move(storeOptions), clock_);
    // Made here, on the thread that runs the main queue, which is the only one that touches it.
    viewModel_ = std::make_unique<PowerViewModel>(mainQueue_, database_.get(), clock_);
    viewModel_->setPreferences(displayPreferences(settings_->settings()));
    carbon_ = std::make_unique<CarbonFootprintService>(*database_);
    habits_ = std::make_unique<HabitScoringService>(*database_, clock_);
    gradeHistory_ = std::make_unique<HabitGradeHistoryStore>(*preferences_);
    insights_ = std::make_unique<InsightsRefresher>(*carbon_, *habits_, *gradeHistory_, mainQueue_,
                                                    insightsQueue_, clock_);
    insights_->setRegion(carbonRegion(settings_->settings()));
    settingsSubscription_ = settings_->subscribe([this](const QuorelSettings& settings) {
      viewModel_->setPreferences(displayPreferences(settings));
      insights_->setRegion(carbonRegion(settings));
      publishStatus();
    });
    // `quorel status` reads what the view model shows from this file, rewritten only when the
    // view model publishes a new display: the command never wakes the agent.
    statusFile_ = std::make_unique<StateFilePublisher>(stateFile(paths_));
    viewModel_->subscribe([this](PowerViewModel::Published what) {
      if (what != PowerViewModel::Published::displayState) return;
      displayPublished_ = true;
      publishStatus();
    });

    const auto powerSupplyRoot = sysfs::powerSupplyClassPath(options_.sysfsRoot);
    const PowerSourceChoice choice = choosePowerSource(powerSupplyRoot, options_.sandbox);
    log_->info("{}", choice.description);

    PowerMonitor::Dependencies deps;
    deps.pollQueue = &pollQueue_;
    deps.mainQueue = &mainQueue_;
    if (choice.useLinuxProvider) {
      deps.sources.provider = std::make_shared<LinuxPowerSupplyProvider>(powerSupplyRoot, clock_);
      deps.sources.fallbackProvider =
          std::make_shared<LinuxPowerSourceFallbackProvider>(powerSupplyRoot, clock_);
      thermal_ = std::make_shared<LinuxThermalMonitor>(sysfs::thermalClassPath(options_.sysfsRoot));
      deps.sources.thermalSource = thermal_;
      // Where the kernel keeps the energy counters from this user, the helper reads them.
      deps.sources.componentSampler = std::make_shared<LinuxPowercapComponentSampler>(
          sysfs::powercapClassPath(options_.sysfsRoot),
          withHelperEnergyCounters(
              sysfsAttributeReader(),
              helperEnergyCounterFetch(options_.helperSocket, kHelperEnergyCounterWait, clock_)));
      deps.sources.railReader = std::make_shared<LinuxPowerRailReader>(options_.sysfsRoot);
      recordingStore_ = std::make_unique<QuorelDatabaseRecordingStore>(*database_);
      deps.recorder =
          std::make_shared<PowerRecorder>(*recordingStore_, clock_, [this](const BatteryEpoch&) {
            mainQueue_.async([this] { viewModel_->markBatteryReplaced(); });
          });
      startEnergyAttribution();
      usbSource_ = std::make_unique<LinuxUSBDeviceSource>(options_.sysfsRoot);
    } else {
      scenario.enabled = true;
      sandbox_ = std::make_unique<SandboxConfig>(scenario);
      deps.sources = sandboxPowerSources(*sandbox_, clock_);
      usbSource_ = std::make_unique<SandboxUSBDeviceSource>(*sandbox_);
    }
    usbDevices_ = std::make_unique<USBDeviceService>(*usbSource_, clock_);
    monitor_ = PowerMonitor::create(std::move(deps), clock_);
    monitor_->setOnStateUpdate(
        [this](const PowerState& state, const PowerMonitor::HistorySnapshot& history) {
          publish(state, history);
        });
    if (sandbox_) {
      sandboxObserver_ = sandbox_->addObserver([this](const SandboxConfig::Change& change) {
        if (change.parametersChanged()) simulationParametersChanged(*monitor_);
      });
    }

    calendar_ = std::make_unique<AgentCalendar>(CalendarRoots::fromEnvironment(ProcessEnvironment),
                                                *preferences_, mainQueue_, clock_);
    httpQueue_.start();
    startHelperLink();
    startBatteryControl(helperLink_->manager());
    startLowPower();
    startToolServer();
    mcpSwitch_ = std::make_unique<MCPServerSwitch>(*mcpServer_, *preferences_, mainQueue_);
    sleepWake_ = std::make_unique<LogindSleepMonitor>(mainQueue_);

    AppDelegate::Dependencies core;
    core.mainQueue = &mainQueue_;
    core.settings = settings_.get();
    core.monitor = monitor_;
    core.database = database_.get();
    core.sleepWake = sleepWake_.get();
    core.mcpServer = mcpServer_.get();
    core.mcpSwitch = mcpSwitch_.get();
    if (processEnergy_) core.energyTrackers = {processEnergy_.get(), agentEnergy_.get()};
    core.wakeObservers = {[this] {
      if (topOff_) topOff_->systemDidWake();
    }};
    AppDelegate::Options coreOptions;
    coreOptions.intervalOverride = options_.interval;
    delegate_ = std::make_unique<AppDelegate>(std::move(core), clock_, coreOptions);
    // A client reading --json is watching, so it gets the focused interval.
    delegate_->setWatched(options_.json);

    waitForSignal();
    if (thermal_) thermal_->start(mainQueue_);
    pollQueue_.start();
    insightsQueue_.start();
    calendar_->start();
    mainQueue_.async([this] {
      delegate_->launch();
      insights_->start();
      viewModel_->preloadHistoricalData();
      viewModel_->loadBatteryEpoch();
      helperLink_->connect();
    });
    mainQueue_.run();

    // The main queue has stopped: finish the tick in flight and end the other threads. The
    // server goes while its queue still runs, since it stops its listener there.
    delegate_.reset();
    topOff_.reset();
    // The tools read the view model and the settings, so the server goes first; it stops its
    // listener on its own queue, which still runs.
    mcpSwitch_.reset();
    mcpServer_.reset();
    commandSocket_.reset();
    batteryCommands_.reset();
    calendar_.reset();
    snapshot_.reset();
    lowPower_.reset();
    helperLink_->closeManager();
    helperIoQueue_.shutdown();
    notices_.reset();
    settings_->unsubscribe(settingsSubscription_);
    statusFile_.reset();
    viewModel_.reset();
    insights_.reset();
    insightsQueue_.shutdown();
    processEnergy_.reset();
    agentEnergy_.reset();
    energyQueue_.shutdown();
    sleepWake_.reset();
    location_.reset();
    httpQueue_.shutdown();
    if (sandbox_) sandbox_->removeObserver(sandboxObserver_);
    if (thermal_) thermal_->stop();
    monitor_->stop();
    pollQueue_.shutdown();
    const double elapsed = std::chrono::duration<double>(clock_.monotonicNow() - startedAt).count();
    const double cpu = cpuSeconds() - cpuAtStart;
    log_->info("stopped after {:.1f} s — used {:.1f} ms of CPU ({:.3f} % of one core)", elapsed,
               cpu * 1000, elapsed > 0 ? cpu / elapsed * 100 : 0.0);
    return 0;
  }

 private:
  // Where the power goes, per process and per AI agent. Only a real machine's processes are
  // sampled: the simulated machine has none of its own, and records nothing.
  void startEnergyAttribution() {
    processTable_ = std::make_unique<LinuxProcfsProcessTable>(options_.procRoot);
    classifier_ = std::make_unique<AIAgentClassifier>(*processTable_);
    topProcesses_ = std::make_unique<TopProcessesService>(*processTable_, *classifier_, clock_);
    usageSource_ = std::make_unique<TopProcessesUsageSource>(*topProcesses_);
    processEnergy_ = std::make_unique<ProcessEnergyTracker>(*usageSource_, energyQueue_, clock_);
    agentEnergy_ = std::make_unique<AIAgentEnergyTracker>(*usageSource_, energyQueue_, clock_);
    energyQueue_.start();
  }

  // The rules post through the desktop's notices; heat protection comes with them.
  void startLowPower() {
    lowPower_ = std::make_unique<AgentLowPower>(AgentLowPower::Inputs{
        *settings_, *preferences_, *notices_,
        [this] { return notices_->powerSaverOffer().available(); }, mainQueue_, clock_});
    if (topProcesses_) lowPower_->watchLaunches(*topProcesses_, *processTable_);
  }

  // The battery command service over `helper`, and the command socket through which
  // `quorel battery` reaches it. Runs on the main queue, like the view model it reads.
  void startBatteryControl(HelperLink& helper) {
    batterySettings_ = std::make_unique<SettingsBatteryControlAccess>(*settings_);
    location_ = std::make_unique<GeoClueLocationMonitor>(clock_);
    lidProbe_ = std::make_unique<LogindLidProbe>();
    BatteryControlEnvironment environment{
        .availability = [this] { return helperLink_->availability(); },
        .powerState = [this] { return viewModel_->currentState(); },
        .isClamshellClosed = [this] { return lidProbe_->isLidClosed(); },
        .hasExternalDisplay =
            [drm = drmClassPath(options_.sysfsRoot)] { return hasExternalDisplay(drm); },
        .calendarAuthorization = [this] { return calendar_->authorization(); },
        .locationAuthorization = [this] { return location_->authorization(); },
    };
    batteryCommands_ = std::make_unique<BatteryControlCommandService>(
        helper, mainQueue_, *batterySettings_, std::move(environment));
    commandSocket_ =
        std::make_unique<BatteryCommandSocket>(mainQueue_, *batteryCommands_, ::getuid());
    const auto path = batteryCommandSocketPath(paths_);
    if (auto listening = commandSocket_->listen(path); !listening) {
      log_->warn("command socket not opened — `quorel battery` cannot reach this agent: {}",
                 listening.error().message);
    }
  }

  // Smart top-off over the calendar files and the desktop's notices, on the main queue. It starts
  // once the helper link has settled: its first poll may fire at once (an agent started during
  // the meeting), and a firing before the link is up would spend the rule's six-hour rest on a
  // top-off that never happened.
  void startSmartTopOff() {
    if (topOff_) return;
    topOff_ = std::make_unique<AgentTopOff>(
        AgentTopOff::Services{*settings_, calendar_->topOffCalendar(), *location_, *preferences_,
                              helperLink_->manager(), *notices_},
        clock_, mainQueue_);
    topOff_->start();
  }

  // The assistants' endpoint: the read tools over the view model and the store, the battery
  // commands through the same service as `quorel battery`.
  void startToolServer() {
    QuorelSnapshotProvider::Sources sources;
    sources.viewModel = viewModel_.get();
    sources.database = database_.get();
    sources.carbon = carbon_.get();
    sources.carbonRegion = [this] {
      return carbonRegion(settings_->settings()).value_or(kCarbonRegions.front());
    };
    sources.chargerVendorNames = [](std::int64_t vendorID) -> std::optional<std::string> {
      const auto name = USBPDVendorLookup::vendorName(vendorID);
      return name ? std::optional<std::string>(*name) : std::nullopt;
    };
    snapshot_ = std::make_unique<QuorelSnapshotProvider>(mainQueue_, clock_, std::move(sources));
    mcpServer_ = std::make_unique<MCPServer>(
        mainQueue_, httpQueue_, clock_, *preferences_, paths_.dataDirectory,
        std::make_unique<MCPToolRegistry>(*snapshot_, *batteryCommands_),
        MCPServerOptions{.version = std::string(kQuorelVersion), .transport = {}});
  }

  // The link to the privileged helper and what the system does with the battery. Once its
  // first connection attempt ends, the link goes to the low-power rules and smart top-off starts.
  void startHelperLink() {
    helperIoQueue_.start();
    helperLink_ = std::make_unique<AgentHelperLink>(AgentHelperLink::Inputs{
        .mainQueue = mainQueue_,
        .pollQueue = pollQueue_,
        .ioQueue = helperIoQueue_,
        .clock = clock_,
        .log = log_,
        .options = options_,
        .simulated = sandbox_ != nullptr,
        .limitObserved =
            [this](std::optional<std::int64_t> limit) { notices_->chargeLimitObserved(limit); },
        .settled =
            [this](HelperManager& link) {
              if (lowPower_) lowPower_->setHelperLink(&link);
              startSmartTopOff();
            },
    });
  }

  void publish(const PowerState& state, const PowerMonitor::HistorySnapshot& history) {
    const MonotonicTime now = clock_.monotonicNow();
    if (!lastLifetimeRefresh_ || now - *lastLifetimeRefresh_ >= kLifetimeEnergyRefresh) {
      lastLifetimeRefresh_ = now;
      viewModel_->loadLifetimeComponentEnergy();
    }
    // The monitor hands out its histories only while someone is watching, so taking them costs
    // nothing otherwise. Sessions have no source here yet; the device list is read at most
    // every two seconds however often the monitor ticks.
    ViewModelInputs inputs;
    inputs.populateHistory = true;
    inputs.usbDevices = usbDevices_->fetch();
    inputs.carbonGrams = insights_->carbonGrams();
    inputs.habitScore = insights_->habitScore();
    inputs.habitHistory = insights_->habitHistory();
    inputs.calendarPrediction =
        calendar_->prediction(state, settings_->settings().calendarPredictionEnabled);
    viewModel_->update(state, history, inputs);
    if (monitor_->componentCardVisible()) viewModel_->appendLiveSample(state, state.componentPower);

    helperLink_->refreshChargeObservation();
    if (lowPower_) lowPower_->evaluate(state);
    notices_->powerStateChanged(state);
    if (topProcesses_)
      topProcesses_->setCpuPackageWatts(TopProcessesService::cpuPackageWatts(state.componentPower));
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

  void publishStatus() {
    // The loading state says nothing a reader could use; the file appears with the first tick.
    if (!displayPublished_ || !statusFile_) return;
    const QuorelSettings& settings = settings_->settings();
    const StatusSnapshot snapshot{
        .display = viewModel_->displayState(),
        .effectiveMode =
            effectiveMenuBarMode(settings.menuBarMode, preferences_->boolValue(kDeveloperModeKey)),
        .colorEnabled = settings.menuBarColorEnabled};
    if (!statusFile_->publish(snapshot) && !statusFile_->lastError().empty() &&
        statusFile_->lastError() != lastStatusError_) {
      log_->warn("status file not written: {}", statusFile_->lastError());
    }
    lastStatusError_ = statusFile_->lastError();
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

  // SIGHUP re-reads the scenario file, so a running simulated machine can change scenario.
  void reloadScenario() {
    if (!sandbox_ || !options_.sandboxConfigFile) {
      log_->info("SIGHUP ignored — no scenario file to reload");
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
    if (delegate_) delegate_->terminate();
    signals_.cancel();
    mainQueue_.shutdown();
  }

  AgentOptions options_;
  QuorelPaths paths_;
  std::shared_ptr<spdlog::logger> log_;
  SystemClock clock_;
  SerialQueue mainQueue_{"com.quorel.main", clock_};
  SerialQueue pollQueue_{"com.quorel.poll", clock_};
  SerialQueue httpQueue_{kMCPTransportQueueLabel, clock_};
  SerialQueue energyQueue_{"com.quorel.energy", clock_};
  // Carbon and habit reads wait on the store's queue, so they need a thread of their own.
  SerialQueue insightsQueue_{"com.quorel.insights", clock_};
  // The helper's socket: reads and writes here, answers on the main queue.
  SerialQueue helperIoQueue_{"com.quorel.helper", clock_};
  asio::signal_set signals_;
  std::unique_ptr<FilePreferenceStore> preferences_;
  std::unique_ptr<SettingsManager> settings_;
  std::unique_ptr<AgentNotices> notices_;
  std::unique_ptr<QuorelDatabase> database_;
  std::unique_ptr<QuorelDatabaseRecordingStore> recordingStore_;
  std::unique_ptr<PowerViewModel> viewModel_;
  std::unique_ptr<CarbonFootprintService> carbon_;
  std::unique_ptr<HabitScoringService> habits_;
  std::unique_ptr<HabitGradeHistoryStore> gradeHistory_;
  std::unique_ptr<InsightsRefresher> insights_;
  // The calendar prediction, and the calendar the battery commands' automation reports.
  std::unique_ptr<AgentCalendar> calendar_;
  std::uint64_t settingsSubscription_ = 0;
  std::unique_ptr<StateFilePublisher> statusFile_;
  bool displayPublished_ = false;
  std::string lastStatusError_;
  std::optional<MonotonicTime> lastLifetimeRefresh_;
  std::unique_ptr<SandboxConfig> sandbox_;
  // What is plugged in by USB, on the machine the power readings come from; `fetch()` gives
  // the list. Declared after the scenario, which the simulated machine's source reads.
  std::unique_ptr<USBDeviceSource> usbSource_;
  std::unique_ptr<USBDeviceService> usbDevices_;
  std::unique_ptr<LinuxProcfsProcessTable> processTable_;
  std::unique_ptr<AIAgentClassifier> classifier_;
  std::unique_ptr<TopProcessesService> topProcesses_;
  std::unique_ptr<TopProcessesUsageSource> usageSource_;
  std::unique_ptr<ProcessEnergyTracker> processEnergy_;
  std::unique_ptr<AIAgentEnergyTracker> agentEnergy_;
  std::shared_ptr<LinuxThermalMonitor> thermal_;
  std::shared_ptr<PowerMonitor> monitor_;
  std::unique_ptr<QuorelSnapshotProvider> snapshot_;
  std::unique_ptr<MCPServer> mcpServer_;
  std::unique_ptr<MCPServerSwitch> mcpSwitch_;
  std::unique_ptr<LogindSleepMonitor> sleepWake_;
  std::unique_ptr<AppDelegate> delegate_;
  std::unique_ptr<SettingsBatteryControlAccess> batterySettings_;
  std::unique_ptr<LogindLidProbe> lidProbe_;
  std::unique_ptr<BatteryControlCommandService> batteryCommands_;
  std::unique_ptr<BatteryCommandSocket> commandSocket_;
  std::unique_ptr<GeoClueLocationMonitor> location_;
  std::unique_ptr<AgentTopOff> topOff_;
  std::unique_ptr<AgentHelperLink> helperLink_;
  std::unique_ptr<AgentLowPower> lowPower_;
  SandboxConfig::ObserverId sandboxObserver_ = 0;
  std::optional<PowerPhase> lastPhase_;
};

}  // namespace

int runAgent(const AgentOptions& options) {
  keepFreedMemoryForReuse();
  std::optional<QuorelPaths> paths;
  try {
    paths = QuorelPaths::resolve(ProcessEnvironment, options.dataDirectory);
  } catch (const std::exception& e) {
    std::cerr << "quorel: " << e.what() << "\n";
    return 2;
  }
  // One agent per user. The lock lives with the session's runtime files when there are any.
  SingleInstanceLock instance(instanceLockFile(*paths));
  if (!instance.acquired()) {
    if (!instance.error().empty()) {
      std::cerr << "quorel: " << instance.error() << "\n";
      return 2;
    }
    std::cerr << SingleInstanceLock::alreadyRunningMessage(instance.holder()) << "\n";
    return 1;
  }

  logging::Options logOptions;
  logOptions.level = options.verbose ? spdlog::level::debug : spdlog::level::info;
  logOptions.file = paths->logFile();
  logging::configure(logOptions);
  // A reader closing our standard output is handled where the write fails, not by a signal.
  std::signal(SIGPIPE, SIG_IGN);

  SandboxSettings scenario{};
  if (options.sandboxConfigFile && !applyScenarioFile(*options.sandboxConfigFile, scenario)) {
    return 2;
  }
  Agent agent(options, std::move(*paths));
  return agent.run(scenario);
}

}  // namespace quorel
