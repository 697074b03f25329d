#include "telemetry/power_monitor.hpp"

#include <spdlog/logger.h>

#include <algorithm>
#include <cmath>
#include <future>

#include "core/battery_diagnostics.hpp"
#include "core/logging.hpp"

namespace quorel {

namespace {
constexpr double kWakeReanchorWindowSeconds = 5.0;
constexpr double kWakeReanchorRetrySeconds = 1.0;
constexpr double kStopWaitSeconds = 2.0;
constexpr long kFallbackAfterFailures = 3;

std::optional<double> milliToUnit(const std::optional<std::int64_t>& v) {
  if (!v) return std::nullopt;
  return static_cast<double>(*v) / 1000.0;
}
}  // namespace

std::shared_ptr<PowerMonitor> PowerMonitor::create(Dependencies deps) {
  return std::shared_ptr<PowerMonitor>(new PowerMonitor(std::move(deps)));
}

PowerMonitor::PowerMonitor(Dependencies deps)
    : clock_(*deps.clock),
      pollQueue_(*deps.pollQueue),
      mainQueue_(*deps.mainQueue),
      fallbackProvider_(std::move(deps.fallbackProvider)),
      componentSampler_(std::move(deps.componentSampler)),
      railReader_(std::move(deps.railReader)),
      thermalSource_(std::move(deps.thermalSource)),
      recorder_(std::move(deps.recorder)),
      log_(logging::get("PowerMonitor")),
      provider_(std::move(deps.provider)),
      lastWakeTime_(clock_.now()) {}

PowerMonitor::~PowerMonitor() {
  TimerHandle timer;
  {
    std::lock_guard lock(stateLock_);
    timer = std::move(timer_);
  }
  timer.cancel();
  wakeReanchorRetryWork_.cancel();
}

void PowerMonitor::setOnStateUpdate(StateCallback callback) {
  onStateUpdate_ = std::move(callback);
}

void PowerMonitor::start() {
  std::weak_ptr<PowerMonitor> weak = weak_from_this();
  pollQueue_.async([weak] {
    auto self = weak.lock();
    if (!self || self->historySeeded_) return;
    self->historySeeded_ = true;
    self->seedHistoryFromDatabase();
    self->seedComponentPowerBaseline();
  });
  restartTimer();
}

void PowerMonitor::reseedHistoryFromDatabase() {
  std::weak_ptr<PowerMonitor> weak = weak_from_this();
  pollQueue_.async([weak] {
    if (auto self = weak.lock()) self->seedHistoryFromDatabase();
  });
}

void PowerMonitor::seedHistoryFromDatabase() {
  if (!recorder_) return;
  for (const HistorySeedSample& s : recorder_->seedSamples(clock_.now())) {
    history_.append(s.wattage, s.timestamp);
    const std::pair<const std::optional<double>*, PowerHistory*> rings[] = {
        {&s.powerInW, &systemPowerInHistory_},
        {&s.systemLoadW, &systemLoadHistory_},
        {&s.ecpuW, &ecpuHistory_},
        {&s.pcpuW, &pcpuHistory_},
        {&s.gpuW, &gpuHistory_},
        {&s.aneW, &aneHistory_},
        {&s.dramW, &dramHistory_},
    };
    for (const auto& [value, ring] : rings) {
      if (*value) ring->append(**value, s.timestamp);
    }
  }
}

// Energy counters report a difference; one early sample gives them a baseline so that the first
// real tick already has a figure.
void PowerMonitor::seedComponentPowerBaseline() {
  auto current = provider();
  if ((current && current->isSimulated()) || !componentSampler_ ||
      !componentSampler_->isAvailable() || lastComponentPower_) {
    return;
  }
  if (auto sampled = componentSampler_->sample(Seconds{0.05})) lastComponentPower_ = sampled;
}

void PowerMonitor::stop() {
  TimerHandle timer;
  {
    std::lock_guard lock(stateLock_);
    timer = std::move(timer_);
  }
  timer.cancel();

  auto clearWakeState = [this] {
    wakeReanchorRetryWork_.cancel();
    wakeReanchorDeadline_.reset();
  };
  if (pollQueue_.isCurrent()) {
    clearWakeState();
    return;
  }
  // Queued behind any tick in flight, so returning means that tick has finished.
  auto done = std::make_shared<std::promise<void>>();
  auto finished = done->get_future();
  std::weak_ptr<PowerMonitor> weak = weak_from_this();
  pollQueue_.async([weak, done] {
    if (auto self = weak.lock()) {
      self->wakeReanchorRetryWork_.cancel();
      self->wakeReanchorDeadline_.reset();
    }
    done->set_value();
  });
  finished.wait_for(Seconds{kStopWaitSeconds});
}

void PowerMonitor::resumeAfterWake() {
  std::weak_ptr<PowerMonitor> weak = weak_from_this();
  pollQueue_.async([weak] {
    auto self = weak.lock();
    if (!self) return;
    const TimePoint now = self->clock_.now();
    self->resetSmoothingOnPollQueue(now);
    self->wakeReanchorRetryWork_.cancel();
    self->wakeReanchorDeadline_ =
        now + std::chrono::duration_cast<TimePoint::duration>(Seconds{kWakeReanchorWindowSeconds});
    self->restartTimer();
  });
}

void PowerMonitor::resetSmoothing() {
  std::weak_ptr<PowerMonitor> weak = weak_from_this();
  pollQueue_.async([weak] {
    if (auto self = weak.lock()) self->resetSmoothingOnPollQueue(self->clock_.now());
  });
}

void PowerMonitor::resetSmoothingOnPollQueue(TimePoint at) {
  wattageEMA_.reset();
  timeEMA_.reset();
  lastWakeTime_ = at;
  lastIOReportTime_.reset();
  lastComponentPower_.reset();
}

void PowerMonitor::clearInMemoryHistories() {
  std::weak_ptr<PowerMonitor> weak = weak_from_this();
  pollQueue_.async([weak] {
    auto self = weak.lock();
    if (!self) return;
    for (PowerHistory* h : {&self->history_, &self->systemPowerInHistory_,
                            &self->systemLoadHistory_, &self->ecpuHistory_, &self->pcpuHistory_,
                            &self->gpuHistory_, &self->aneHistory_, &self->dramHistory_}) {
      *h = PowerHistory();
    }
    self->lastSnapshot_.reset();
    self->lastHistoryTime_.reset();
    self->lastIOReportTime_.reset();
    self->lastComponentPower_.reset();
    if (self->recorder_) self->recorder_->discardSession();
    self->wattageEMA_.reset();
    self->timeEMA_.reset();
  });
}

void PowerMonitor::powerSourceChanged() {
  std::weak_ptr<PowerMonitor> weak = weak_from_this();
  pollQueue_.async([weak] {
    if (auto self = weak.lock()) self->poll();
  });
}

void PowerMonitor::restartTimer() {
  std::weak_ptr<PowerMonitor> weak = weak_from_this();
  TimerHandle previous;
  {
    std::lock_guard lock(stateLock_);
    previous = std::move(timer_);
    previous.cancel();
    timer_ = pollQueue_.every(Seconds{0}, pollingInterval_, [weak] {
      if (auto self = weak.lock()) self->poll();
    });
  }
}

void PowerMonitor::scheduleWakeReanchorRetry() {
  if (wakeReanchorRetryWork_.pending()) return;
  std::weak_ptr<PowerMonitor> weak = weak_from_this();
  wakeReanchorRetryWork_ = pollQueue_.after(Seconds{kWakeReanchorRetrySeconds}, [weak] {
    auto self = weak.lock();
    if (!self) return;
    self->wakeReanchorRetryWork_ = TimerHandle();
    self->poll();
  });
}

void PowerMonitor::failedTick() {
  if (consecutiveFailures_ == 1 || consecutiveFailures_ % 10 == 0) {
    log_->error(
        "both primary and fallback providers returned nil ({} consecutive failures) — UI data "
        "is stale",
        consecutiveFailures_);
  }
  if (wakeReanchorDeadline_) scheduleWakeReanchorRetry();
}

void PowerMonitor::poll() {
  // 1. Copy the shared fields; no lock is held across any call below.
  std::shared_ptr<PowerDataProvider> provider;
  bool skipRecording = false;
  Seconds interval{30};
  {
    std::lock_guard lock(stateLock_);
    provider = provider_;
    skipRecording = skipDatabaseRecording_;
    interval = pollingInterval_;
  }

  // 2-5. Primary first on every tick, so recovery is automatic; the fallback from the third
  // consecutive failure on.
  std::optional<PowerSnapshot> snapshot = provider ? provider->fetchSnapshot() : std::nullopt;
  if (snapshot) {
    if (usingFallback_) {
      log_->info("primary provider recovered after {} failures — disengaging fallback",
                 consecutiveFailures_);
      usingFallback_ = false;
    }
    consecutiveFailures_ = 0;
  } else {
    ++consecutiveFailures_;
    if (consecutiveFailures_ >= kFallbackAfterFailures) {
      snapshot = fallbackProvider_ ? fallbackProvider_->fetchSnapshot() : std::nullopt;
      if (!usingFallback_) {
        log_->info("primary provider failed for {} ticks — engaging IOPS fallback",
                   consecutiveFailures_);
        usingFallback_ = true;
      }
    }
  }
  if (!snapshot) {
    failedTick();
    return;
  }
  const PowerSnapshot& snap = *snapshot;

  // 6.
  const double rawWatts =
      static_cast<double>(snap.voltage_mV) * static_cast<double>(snap.instantAmperage_mA) / 1e6;

  // 7-8. A gauge that has just woken reports near-zero current; anchoring on it would be wrong.
  const TimePoint tickTime = clock_.now();
  if (wakeReanchorDeadline_ && tickTime < *wakeReanchorDeadline_ && std::fabs(rawWatts) < 0.5) {
    scheduleWakeReanchorRetry();
    return;
  }
  wakeReanchorDeadline_.reset();
  wakeReanchorRetryWork_.cancel();

  // 9-10.
  if (lastSnapshot_ && (lastSnapshot_->externalConnected != snap.externalConnected ||
                        lastSnapshot_->isCharging != snap.isCharging ||
                        lastSnapshot_->fullyCharged != snap.fullyCharged)) {
    wattageEMA_.reset();
    timeEMA_.reset();
  }
  lastSnapshot_ = snap;

  // 11-12.
  const Seconds maxDt{std::max(2.5 * interval.count(), 60.0)};
  const double smoothedWattage = wattageEMA_.update(rawWatts, tickTime, maxDt);
  std::optional<std::int64_t> timeRemaining = snap.timeRemaining_min;
  if (snap.timeRemaining_min && *snap.timeRemaining_min >= 1) {
    timeRemaining = static_cast<std::int64_t>(
        std::trunc(timeEMA_.update(static_cast<double>(*snap.timeRemaining_min), tickTime, maxDt)));
  }

  // 13-14.
  const TimePoint now = clock_.now();
  bool cardVisible = false;
  {
    std::lock_guard lock(stateLock_);
    cardVisible = componentCardVisible_;
  }
  const double componentInterval =
      cardVisible ? kVisibleComponentSampleInterval : kHiddenComponentSampleInterval;
  std::optional<double> consumption;
  if (snap.systemPowerIn_mW) {
    consumption = std::max(0.0, static_cast<double>(*snap.systemPowerIn_mW) / 1000.0 - rawWatts);
  } else if (!snap.externalConnected) {
    consumption = std::max(0.0, -rawWatts);
  }

  // 15-16. Component sampling runs on its own cadence, decoupled from the tick.
  bool componentFresh = false;
  ComponentPowerValidation validation =
      ComponentPowerValidation::unavailable("IOReport component telemetry unavailable");
  const bool simulated = provider && provider->isSimulated();
  if (lastIOReportTime_ && secondsBetween(*lastIOReportTime_, now) < componentInterval) {
    componentFresh = secondsBetween(*lastIOReportTime_, now) < 30;
    validation = ComponentPowerValidator::validate(lastComponentPower_, consumption);
  } else {
    std::optional<std::optional<ComponentPower>> sampled;
    if (simulated) {
      sampled = provider->simulatedComponentPower();
    } else if (componentSampler_ && componentSampler_->isAvailable()) {
      sampled = componentSampler_->sample(Seconds{0.05});
    }
    if (sampled) {
      validation = ComponentPowerValidator::validate(*sampled, consumption);
      lastIOReportTime_ = now;
      componentFresh = true;
      lastComponentPower_ = validation.value;
    }
  }

  // 17. History runs on a 30-second cadence regardless of the timer.
  if (!lastHistoryTime_ || secondsBetween(*lastHistoryTime_, now) >= kHistoryTimeInterval) {
    lastHistoryTime_ = now;
    history_.append(smoothedWattage, now);
    if (auto w = milliToUnit(snap.systemPowerIn_mW)) systemPowerInHistory_.append(*w, now);
    if (auto w = milliToUnit(snap.systemLoad_mW)) systemLoadHistory_.append(*w, now);
    if (validation.value && componentFresh) {
      const ComponentPower& c = *validation.value;
      if (c.cpuAndMemoryAvailable) {
        ecpuHistory_.append(c.ecpuWatts, now);
        pcpuHistory_.append(c.pcpuWatts, now);
      }
      gpuHistory_.append(c.gpuWatts, now);
      aneHistory_.append(c.aneWatts, now);
      if (c.cpuAndMemoryAvailable) dramHistory_.append(c.dramWatts, now);
    }
  }

  // 18-21.
  BatteryDiagnostics diagnostics = BatteryDiagnostics::from(snap);
  ThermalState thermal = ThermalState::nominal;
  if (auto simulatedThermal = provider ? provider->simulatedThermalState() : std::nullopt) {
    thermal = *simulatedThermal;
  } else if (thermalSource_) {
    thermal = thermalSource_->currentThermalState();
  }
  const PowerPhase phase =
      phaseFrom(snap, smoothedWattage, {thermal, secondsBetween(lastWakeTime_, now)});
  const auto calculated = calculateTimeRemaining(snap, phase, smoothedWattage, history_.last(20));

  // 22.
  PowerState state;
  state.smoothedWattage = smoothedWattage;
  if (snap.maxCapacity_mAh >= 1) {
    state.batteryPercentage = static_cast<double>(snap.currentCapacity_mAh) /
                              static_cast<double>(snap.maxCapacity_mAh) * 100.0;
  } else if (snap.iopsPercent) {
    state.batteryPercentage = static_cast<double>(*snap.iopsPercent);
  }
  state.iopsPercent = snap.iopsPercent;
  if (snap.designCapacity_mAh >= 1) {
    state.batteryHealth = static_cast<double>(snap.nominalCapacity_mAh) /
                          static_cast<double>(snap.designCapacity_mAh) * 100.0;
  }
  state.cycleCount = snap.cycleCount;
  state.batterySerial = snap.batterySerial;
  state.temperature_C = static_cast<double>(snap.temperature_cC) / 100.0;
  state.isCharging = snap.isCharging;
  state.externalConnected = snap.externalConnected;
  state.fullyCharged = snap.fullyCharged;
  state.batteryInstalled = snap.batteryInstalled;
  state.timeRemaining_min = timeRemaining;
  state.adapterWatts = snap.adapterWatts;
  if (snap.adapterCurrent_mA && snap.adapterVoltage_mV) {
    state.adapterActualWatts = static_cast<double>(*snap.adapterCurrent_mA) *
                               static_cast<double>(*snap.adapterVoltage_mV) / 1e6;
  }
  state.phase = phase;
  state.timestamp = snap.timestamp;
  state.voltage_mV = snap.voltage_mV;
  state.instantAmperage_mA = snap.instantAmperage_mA;
  state.currentCapacity_mAh = snap.currentCapacity_mAh;
  state.maxCapacity_mAh = snap.maxCapacity_mAh;
  state.designCapacity_mAh = snap.designCapacity_mAh;
  state.adapterCurrent_mA = snap.adapterCurrent_mA;
  state.adapterVoltage_mV = snap.adapterVoltage_mV;
  state.systemPowerIn_W = milliToUnit(snap.systemPowerIn_mW);
  state.systemLoad_W = milliToUnit(snap.systemLoad_mW);
  state.systemCurrentIn_mA = snap.systemCurrentIn_mA;
  state.systemVoltageIn_mV = snap.systemVoltageIn_mV;
  state.connectionType = snap.connectionType;
  state.calculatedTimeRemaining_min = calculated;
  state.componentPower = validation.value;

  // 23. Rails follow the component cadence on real machines; the simulation is free to read.
  if (simulated) {
    lastSystemPowerRails_ = provider->simulatedSystemPowerRails();
  } else if (!lastRailSampleTime_ ||
             secondsBetween(*lastRailSampleTime_, now) >= componentInterval) {
    lastSystemPowerRails_ = railReader_ ? railReader_->sample() : std::nullopt;
    lastRailSampleTime_ = now;
  }
  state.systemPowerRails = lastSystemPowerRails_;

  // 24.
  state.diagnostics = std::move(diagnostics);
  state.thermalState = thermal;
  state.wallPowerEstimate_W = milliToUnit(snap.wallPowerEstimate_mW);

  // 25. Recording: nothing is persisted while the simulated machine is in charge.
  if (!skipRecording && recorder_) {
    bool forceDischarge = false;
    {
      std::lock_guard lock(stateLock_);
      forceDischarge = forceDischargeActive_;
    }
    recorder_->record(RecordingTick{snap, state, validation, componentFresh, now}, forceDischarge);
  }

  // 26. History copies are made only while somebody looks.
  bool watched = false;
  {
    std::lock_guard lock(stateLock_);
    watched = popoverOpen_;
  }
  HistorySnapshot histories = watched ? buildHistorySnapshot() : HistorySnapshot::empty();

  // 27.
  std::weak_ptr<PowerMonitor> weak = weak_from_this();
  mainQueue_.async([weak, state = std::move(state), histories = std::move(histories)] {
    auto self = weak.lock();
    if (self && self->onStateUpdate_) self->onStateUpdate_(state, histories);
  });
}

PowerMonitor::HistorySnapshot PowerMonitor::buildHistorySnapshot() const {
  HistorySnapshot h;
  history_.fillSamples(h.wattageValues, h.wattageTimestamps);
  systemPowerInHistory_.fillSamples(h.systemPowerInValues, h.systemPowerInTimestamps);
  systemLoadHistory_.fillSamples(h.systemLoadValues, h.systemLoadTimestamps);
  const std::pair<const char*, const PowerHistory*> components[] = {
      {"ECPU", &ecpuHistory_}, {"PCPU", &pcpuHistory_}, {"GPU", &gpuHistory_},
      {"ANE", &aneHistory_},   {"DRAM", &dramHistory_},
  };
  for (const auto& [key, ring] : components) {
    if (ring->empty()) continue;
    ring->fillSamples(h.componentData[key], h.componentTimestamps[key]);
  }
  return h;
}

std::optional<std::int64_t> PowerMonitor::calculateTimeRemaining(
    const PowerSnapshot& snap, PowerPhase phase, double smoothedWattage,
    const std::vector<double>& recent) {
  if (!snap.batteryInstalled) return std::nullopt;
  switch (phase) {
    case PowerPhase::full:
    case PowerPhase::onHold:
    case PowerPhase::chargeLimitHold:
    case PowerPhase::thermalHold:
    case PowerPhase::bootSurge:
    case PowerPhase::noBattery:
      return std::nullopt;
    default:
      break;
  }
  if (recent.size() < 3) return std::nullopt;
  const double volts = static_cast<double>(snap.voltage_mV) / 1000.0;
  if (volts <= 0) return std::nullopt;

  const bool discharging =
      phase == PowerPhase::draining || phase == PowerPhase::supplementing || smoothedWattage < -0.5;
  double sum = 0;
  std::size_t kept = 0;
  for (double w : recent) {
    if (discharging ? w < -0.3 : w > 0.3) {
      sum += w;
      ++kept;
    }
  }
  const double rate = kept >= 3 ? sum / static_cast<double>(kept) : smoothedWattage;

  auto minutesFor = [&](double mAh, double watts) -> std::optional<std::int64_t> {
    const auto minutes = static_cast<std::int64_t>(std::trunc(volts * mAh / 1000.0 / watts * 60.0));
    if (minutes < 1 || minutes >= 6000) return std::nullopt;
    return minutes;
  };
  if (rate < -0.5) {
    auto m = minutesFor(static_cast<double>(snap.currentCapacity_mAh), std::fabs(rate));
    if (!m) return std::nullopt;
    return -*m;
  }
  if (rate > 0.5) {
    const auto missing = snap.maxCapacity_mAh - snap.currentCapacity_mAh;
    if (missing < 1) return std::nullopt;
    return minutesFor(static_cast<double>(missing), rate);
  }
  return std::nullopt;
}

PowerMonitor::Diagnostics PowerMonitor::diagnosticsOnPollQueue() const {
  return {consecutiveFailures_, usingFallback_, wakeReanchorRetryWork_.pending(), history_.count()};
}

std::shared_ptr<PowerDataProvider> PowerMonitor::provider() const {
  std::lock_guard lock(stateLock_);
  return provider_;
}
void PowerMonitor::setProvider(std::shared_ptr<PowerDataProvider> provider) {
  std::lock_guard lock(stateLock_);
  provider_ = std::move(provider);
}
bool PowerMonitor::popoverOpen() const {
  std::lock_guard lock(stateLock_);
  return popoverOpen_;
}
void PowerMonitor::setPopoverOpen(bool open) {
  std::lock_guard lock(stateLock_);
  popoverOpen_ = open;
}
bool PowerMonitor::skipDatabaseRecording() const {
  std::lock_guard lock(stateLock_);
  return skipDatabaseRecording_;
}
void PowerMonitor::setSkipDatabaseRecording(bool skip) {
  std::lock_guard lock(stateLock_);
  skipDatabaseRecording_ = skip;
}
Seconds PowerMonitor::pollingInterval() const {
  std::lock_guard lock(stateLock_);
  return pollingInterval_;
}
void PowerMonitor::setPollingInterval(Seconds interval) {
  std::lock_guard lock(stateLock_);
  pollingInterval_ = interval;
}
bool PowerMonitor::componentCardVisible() const {
  std::lock_guard lock(stateLock_);
  return componentCardVisible_;
}
void PowerMonitor::setComponentCardVisible(bool visible) {
  std::lock_guard lock(stateLock_);
  componentCardVisible_ = visible;
}
bool PowerMonitor::forceDischargeActive() const {
  std::lock_guard lock(stateLock_);
  return forceDischargeActive_;
}
void PowerMonitor::setForceDischargeActive(bool active) {
  std::lock_guard lock(stateLock_);
  forceDischargeActive_ = active;
}

}  // namespace quorel
