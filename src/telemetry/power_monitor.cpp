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
// Below this a gauge that has just woken is taken to be reporting its idle current, not the
// machine's draw.
constexpr double kWakeNearZeroWatts = 0.5;
// A component figure older than this is not stored as fresh, whatever the cadence.
constexpr double kComponentFreshSeconds = 30;

std::optional<double> milliToUnit(const std::optional<std::int64_t>& v) {
  if (!v) return std::nullopt;
  return static_cast<double>(*v) / 1000.0;
}

// What the machine itself draws: input minus what goes into the pack, or on battery what comes
// out of it. Absent on external power without an input figure.
std::optional<double> consumptionWatts(const PowerSnapshot& snap, double rawWatts) {
  if (snap.systemPowerIn_mW) {
    return std::max(0.0, static_cast<double>(*snap.systemPowerIn_mW) / 1000.0 - rawWatts);
  }
  if (!snap.externalConnected) return std::max(0.0, -rawWatts);
  return std::nullopt;
}

bool sourceFlagsChanged(const PowerSnapshot& before, const PowerSnapshot& after) {
  return before.externalConnected != after.externalConnected ||
         before.isCharging != after.isCharging || before.fullyCharged != after.fullyCharged;
}

// The snapshot's own figures in the units the state publishes; the tick adds what it derives.
PowerState stateFrom(const PowerSnapshot& snap) {
  PowerState state;
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
  state.adapterWatts = snap.adapterWatts;
  if (snap.adapterCurrent_mA && snap.adapterVoltage_mV) {
    state.adapterActualWatts = static_cast<double>(*snap.adapterCurrent_mA) *
                               static_cast<double>(*snap.adapterVoltage_mV) / 1e6;
  }
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
  state.diagnostics = BatteryDiagnostics::from(snap);
  state.wallPowerEstimate_W = milliToUnit(snap.wallPowerEstimate_mW);
  return state;
}
}  // namespace

std::shared_ptr<PowerMonitor> PowerMonitor::create(Dependencies deps, const Clock& clock) {
  return std::shared_ptr<PowerMonitor>(new PowerMonitor(std::move(deps), clock));
}

PowerMonitor::PowerMonitor(Dependencies deps, const Clock& clock)
    : clock_(clock),
      pollQueue_(*deps.pollQueue),
      mainQueue_(*deps.mainQueue),
      recorder_(std::move(deps.recorder)),
      log_(logging::get("PowerMonitor")),
      sources_(std::make_shared<const PowerSources>(std::move(deps.sources))),
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
  for (const HistorySeedSample& s : recorder_->seedSamples(clock_.now())) histories_.seed(s);
}

// Energy counters report a difference; one early reading gives them a baseline, so that the
// first sampling after it already spans a stretch of time.
void PowerMonitor::seedComponentPowerBaseline() {
  const std::shared_ptr<ComponentPowerSampler> sampler = sources().componentSampler;
  if (!sampler || !sampler->isAvailable() || lastComponentPower_) return;
  if (auto sampled = sampler->sample()) lastComponentPower_ = sampled;
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
  lastComponentSampleTime_.reset();
  lastComponentPower_.reset();
  // A new scenario or a woken machine shows its rails at once, not a cadence later.
  lastRailSampleTime_.reset();
}

void PowerMonitor::clearInMemoryHistories() {
  std::weak_ptr<PowerMonitor> weak = weak_from_this();
  pollQueue_.async([weak] {
    auto self = weak.lock();
    if (!self) return;
    self->histories_.clear();
    self->lastSnapshot_.reset();
    self->lastHistoryTime_.reset();
    self->lastComponentSampleTime_.reset();
    self->lastComponentPower_.reset();
    self->lastRailSampleTime_.reset();
    self->lastSystemPowerRails_.reset();
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
        "both primary and fallback providers returned no reading ({} consecutive failures) — "
        "published data is stale",
        consecutiveFailures_);
  }
  if (wakeReanchorDeadline_) scheduleWakeReanchorRetry();
}

void PowerMonitor::poll() {
  const TickSettings settings = tickSettings();
  const PowerSources& sources = *settings.sources;
  const std::optional<PowerSnapshot> snapshot = readSnapshot(sources);
  if (!snapshot) {
    failedTick();
    return;
  }
  const PowerSnapshot& snap = *snapshot;
  const double rawWatts =
      static_cast<double>(snap.voltage_mV) * static_cast<double>(snap.instantAmperage_mA) / 1e6;
  const TimePoint now = clock_.now();
  if (awaitingWakeReanchor(rawWatts, now)) return;

  const SmoothedReading smoothed = smooth(snap, rawWatts, settings.interval, now);
  const ComponentReading component =
      sampleComponents(sources.componentSampler.get(), consumptionWatts(snap, rawWatts),
                       settings.componentInterval, now);
  appendHistories(snap, smoothed.wattage, component, now);

  PowerState state = stateFrom(snap);
  state.smoothedWattage = smoothed.wattage;
  state.timeRemaining_min = smoothed.timeRemaining_min;
  state.componentPower = component.validation.value;
  classify(state, snap, sources.thermalSource.get(), now);
  state.systemPowerRails = sampleRails(sources.railReader.get(), settings.componentInterval, now);

  if (sources.recordHistory && recorder_) {
    recorder_->record(RecordingTick{snap, state, component.validation, component.fresh, now},
                      settings.forceDischargeActive);
  }
  publish(std::move(state), settings.watched);
}

PowerMonitor::TickSettings PowerMonitor::tickSettings() const {
  std::lock_guard lock(stateLock_);
  return {sources_, pollingInterval_,
          componentCardVisible_ ? kVisibleComponentSampleInterval : kHiddenComponentSampleInterval,
          forceDischargeActive_, popoverOpen_};
}

// The primary is asked first on every tick, so that recovery needs nothing; the fallback only
// from the third consecutive failure on.
std::optional<PowerSnapshot> PowerMonitor::readSnapshot(const PowerSources& sources) {
  std::optional<PowerSnapshot> snapshot =
      sources.provider ? sources.provider->fetchSnapshot() : std::nullopt;
  if (snapshot) {
    if (usingFallback_) {
      log_->info("primary provider recovered after {} failures — disengaging fallback",
                 consecutiveFailures_);
      usingFallback_ = false;
    }
    consecutiveFailures_ = 0;
    return snapshot;
  }
  ++consecutiveFailures_;
  if (consecutiveFailures_ < kFallbackAfterFailures) return std::nullopt;
  if (!usingFallback_) {
    log_->info("primary provider failed for {} ticks — engaging fallback provider",
               consecutiveFailures_);
    usingFallback_ = true;
  }
  return sources.fallbackProvider ? sources.fallbackProvider->fetchSnapshot() : std::nullopt;
}

// A gauge that has just woken reports near-zero current for a moment; anchoring the fresh
// averages on it would be wrong, so such a reading is retried until the window closes.
bool PowerMonitor::awaitingWakeReanchor(double rawWatts, TimePoint now) {
  if (wakeReanchorDeadline_ && now < *wakeReanchorDeadline_ &&
      std::fabs(rawWatts) < kWakeNearZeroWatts) {
    scheduleWakeReanchorRetry();
    return true;
  }
  wakeReanchorDeadline_.reset();
  wakeReanchorRetryWork_.cancel();
  return false;
}

PowerMonitor::SmoothedReading PowerMonitor::smooth(const PowerSnapshot& snap, double rawWatts,
                                                   Seconds interval, TimePoint now) {
  // Plugging in or out starts both averages afresh, so the new figure shows at once.
  if (lastSnapshot_ && sourceFlagsChanged(*lastSnapshot_, snap)) {
    wattageEMA_.reset();
    timeEMA_.reset();
  }
  lastSnapshot_ = snap;
  // An average older than a few intervals (a late timer, a machine that slept) restarts.
  const Seconds maxDt{std::max(2.5 * interval.count(), 60.0)};
  SmoothedReading reading{wattageEMA_.update(rawWatts, now, maxDt), snap.timeRemaining_min};
  // Below one minute the gauge states a condition (empty, full), not an estimate to average.
  if (snap.timeRemaining_min && *snap.timeRemaining_min >= 1) {
    reading.timeRemaining_min = static_cast<std::int64_t>(
        std::trunc(timeEMA_.update(static_cast<double>(*snap.timeRemaining_min), now, maxDt)));
  }
  return reading;
}

// Energy counters are read on a cadence of their own, decoupled from the tick; in between, the
// last figure is validated again against this tick's consumption.
PowerMonitor::ComponentReading PowerMonitor::sampleComponents(ComponentPowerSampler* sampler,
                                                              std::optional<double> consumptionW,
                                                              double cadence, TimePoint now) {
  if (lastComponentSampleTime_) {
    const double age = secondsBetween(*lastComponentSampleTime_, now);
    if (age < cadence) {
      return {ComponentPowerValidator::validate(lastComponentPower_, consumptionW),
              age < kComponentFreshSeconds};
    }
  }
  if (!sampler || !sampler->isAvailable()) {
    return {ComponentPowerValidator::validate(std::nullopt, consumptionW), false};
  }
  // A failed sample counts as sampled: it is retried a cadence later, not on every tick.
  ComponentReading reading{ComponentPowerValidator::validate(sampler->sample(), consumptionW),
                           true};
  lastComponentSampleTime_ = now;
  lastComponentPower_ = reading.validation.value;
  return reading;
}

// The histories keep a 30-second cadence whatever the timer's interval.
void PowerMonitor::appendHistories(const PowerSnapshot& snap, double smoothedWattage,
                                   const ComponentReading& component, TimePoint now) {
  if (lastHistoryTime_ && secondsBetween(*lastHistoryTime_, now) < kHistoryTimeInterval) return;
  lastHistoryTime_ = now;
  histories_.append(snap, smoothedWattage,
                    component.fresh ? component.validation.value : std::nullopt, now);
}

void PowerMonitor::classify(PowerState& state, const PowerSnapshot& snap,
                            const ThermalStateSource* thermal, TimePoint now) const {
  state.thermalState = thermal ? thermal->currentThermalState() : ThermalState::nominal;
  state.phase = phaseFrom(snap, state.smoothedWattage,
                          {state.thermalState, secondsBetween(lastWakeTime_, now)});
  state.calculatedTimeRemaining_min = calculateTimeRemaining(
      snap, state.phase, state.smoothedWattage, histories_.recentWattage(20));
}

// Rails follow the component cadence: reading them costs as much as reading the counters.
std::optional<SystemPowerRails> PowerMonitor::sampleRails(PowerRailReader* reader, double cadence,
                                                          TimePoint now) {
  if (!lastRailSampleTime_ || secondsBetween(*lastRailSampleTime_, now) >= cadence) {
    lastSystemPowerRails_ = reader ? reader->sample() : std::nullopt;
    lastRailSampleTime_ = now;
  }
  return lastSystemPowerRails_;
}

void PowerMonitor::publish(PowerState state, bool watched) {
  // History copies are made only while somebody looks.
  HistorySnapshot histories = watched ? histories_.snapshot() : HistorySnapshot::empty();
  std::weak_ptr<PowerMonitor> weak = weak_from_this();
  mainQueue_.async([weak, state = std::move(state), histories = std::move(histories)] {
    auto self = weak.lock();
    if (self && self->onStateUpdate_) self->onStateUpdate_(state, histories);
  });
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
  return {consecutiveFailures_, usingFallback_, wakeReanchorRetryWork_.pending(),
          histories_.wattageCount()};
}

PowerSources PowerMonitor::sources() const {
  std::lock_guard lock(stateLock_);
  return *sources_;
}
void PowerMonitor::setSources(PowerSources sources) {
  auto next = std::make_shared<const PowerSources>(std::move(sources));
  {
    std::lock_guard lock(stateLock_);
    std::swap(sources_, next);
  }
  // The previous set is released here, outside the lock.
}
bool PowerMonitor::popoverOpen() const {
  std::lock_guard lock(stateLock_);
  return popoverOpen_;
}
void PowerMonitor::setPopoverOpen(bool open) {
  std::lock_guard lock(stateLock_);
  popoverOpen_ = open;
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
