#include "telemetry/power_recorder.hpp"

#include <spdlog/logger.h>

#include <algorithm>
#include <cmath>

#include "core/local_time.hpp"
#include "core/logging.hpp"
#include "core/uuid.hpp"

namespace quorel {

namespace {
constexpr double kSeedWindowSeconds = 600;
constexpr int kSeedMaxPoints = 200;

TimePoint plusSeconds(TimePoint t, double seconds) {
  return t + std::chrono::round<TimePoint::duration>(Seconds{seconds});
}
}  // namespace

PowerRecorder::PowerRecorder(RecordingStore& store, const Clock& clock,
                             std::function<void(const BatteryEpoch&)> onBatteryReplaced)
    : store_(store),
      clock_(clock),
      onBatteryReplaced_(std::move(onBatteryReplaced)),
      log_(logging::get("PowerMonitor")) {}

void PowerRecorder::record(const RecordingTick& tick, bool forceDischargeActive) {
  const PowerState& state = tick.state;
  trackSession(state, classifySessionMode(state.phase, forceDischargeActive));

  if (!lastSampleTime_ || secondsBetween(*lastSampleTime_, tick.now) >= kSampleInterval) {
    lastSampleTime_ = tick.now;
    // A component value reused beyond its freshness would claim a moment it was not read in.
    recordSample(state, tick.componentFresh
                            ? tick.componentValidation
                            : ComponentPowerValidation::unavailable("component sample not fresh"));
  }

  if (tick.snapshot.designCapacity_mAh >= 1 && tick.snapshot.batteryInstalled) {
    reconcileBatteryEpoch(tick.snapshot, tick.now);
    considerCapacityLog(tick.snapshot, tick.now);
  }
}

void PowerRecorder::discardSession() {
  currentSession_.reset();
  sessionEnergy_ = SessionEnergyAccumulator{};
}

void PowerRecorder::trackSession(const PowerState& state, PowerSessionMode mode) {
  // Without a battery there is nothing to account; an open session waits for it to return.
  if (!state.batteryInstalled) return;
  if (!currentSession_) {
    startNewSession(state, mode);
  } else if (currentSession_->mode == mode) {
    sessionEnergy_.append(state.timestamp, state.smoothedWattage, Seconds{kSessionGapLimit});
  } else {
    endCurrentSession(state);
    startNewSession(state, mode);
  }
}

void PowerRecorder::startNewSession(const PowerState& state, PowerSessionMode mode) {
  if (!state.batteryInstalled) return;
  SessionRecord s;
  s.id = makeUuid();
  s.startTime = state.timestamp;
  s.endTime = state.timestamp;
  s.startPct = state.batteryPercentage;
  s.endPct = state.batteryPercentage;
  s.isCharging = mode == PowerSessionMode::charging;
  s.mode = mode;
  s.quality = HistoricalValueQuality::measured;
  currentSession_ = s;
  sessionEnergy_ = SessionEnergyAccumulator{};
  sessionEnergy_.append(state.timestamp, state.smoothedWattage, Seconds{kSessionGapLimit});
}

void PowerRecorder::endCurrentSession(const PowerState& state) {
  SessionRecord s = *currentSession_;
  s.endTime = state.timestamp;
  s.endPct = state.batteryPercentage;
  const auto& e = sessionEnergy_;
  s.avgWattage = e.collectedSeconds > 0 ? e.wattHours * 3600.0 / e.collectedSeconds : 0.0;
  s.totalWh = e.wattHours;
  s.collectedDuration_s = e.collectedSeconds;
  s.missingDuration_s = e.missingSeconds;
  const double observed = e.collectedSeconds + e.missingSeconds;
  s.confidence = observed > 0 ? e.collectedSeconds / observed : 0.0;
  s.quality = e.collectedSeconds > 0 ? HistoricalValueQuality::measured
                                     : HistoricalValueQuality::unavailable;
  if (secondsBetween(s.startTime, s.endTime) > kMinimumSessionLength) store_.insertSession(s);
  discardSession();
}

PowerSample PowerRecorder::makeSample(const PowerState& state,
                                      const ComponentPowerValidation& validation,
                                      std::optional<double> observedDurationS) {
  PowerSample p;
  p.timestamp = state.timestamp;
  p.wattage = state.smoothedWattage;
  p.batteryPct = state.batteryPercentage;
  if (validation.value) {
    const ComponentPower& c = *validation.value;
    if (c.cpuAndMemoryAvailable) {
      p.ecpuW = c.ecpuWatts;
      p.pcpuW = c.pcpuWatts;
      p.dramW = c.dramWatts;
    }
    p.gpuW = c.gpuWatts;
    p.aneW = c.aneWatts;
  }
  p.systemLoadW = state.systemLoad_W;
  p.powerInW = state.systemPowerIn_W;
  p.wallPowerW = state.wallPowerEstimate_W;
  p.thermalState = static_cast<std::int32_t>(state.thermalState);
  if (p.thermalState < 0 || p.thermalState > 3) p.thermalState = 0;
  p.isCharging = state.isCharging;
  p.externalConnected = state.externalConnected;
  if (state.temperature_C > 0) p.temperatureC = state.temperature_C;
  p.observedDurationS = observedDurationS;
  p.componentQuality = validation.quality;
  p.componentRejectionReason = validation.rejectionReason;

  const auto& rails = state.systemPowerRails;
  if (rails && rails->systemTotalWatts) {
    p.systemPowerQuality = HistoricalValueQuality::measured;
  } else if (state.systemConsumption_W()) {
    p.systemPowerQuality = HistoricalValueQuality::inferred;
  } else {
    p.systemPowerQuality = HistoricalValueQuality::unavailable;
  }

  // The wall estimate is kept with its lowest honest label; one that claims less than is
  // demonstrably being drawn is marked rejected.
  if (!state.wallPowerEstimate_W) {
    p.wallEstimateQuality = HistoricalValueQuality::unavailable;
  } else {
    const double components = validation.value ? validation.value->total() : 0.0;
    const double floor = std::max(components, state.systemPowerIn_W.value_or(0.0));
    const double wall = *state.wallPowerEstimate_W;
    p.wallEstimateQuality = std::isfinite(wall) && wall >= floor ? HistoricalValueQuality::legacy
                                                                 : HistoricalValueQuality::rejected;
  }

  if (rails) {
    p.systemTotalW = rails->systemTotalWatts;
    p.batteryRailW = rails->batteryWatts;
    p.dcInW = rails->dcInWatts;
    p.thunderboltLeftW = rails->thunderboltLeftWatts;
    p.thunderboltRightW = rails->thunderboltRightWatts;
    p.pdBrightnessW = rails->pdBrightnessWatts;
  }
  p.precededByGap = false;
  return p;
}

void PowerRecorder::recordSample(const PowerState& state,
                                 const ComponentPowerValidation& validation) {
  std::optional<double> observed;
  if (lastPersistedPowerSampleTimestamp_) {
    const double dt = secondsBetween(*lastPersistedPowerSampleTimestamp_, state.timestamp);
    observed = (dt <= 0 || dt > kSessionGapLimit) ? 0.0 : dt;
  }
  lastPersistedPowerSampleTimestamp_ = state.timestamp;
  store_.insertPowerSample(makeSample(state, validation, observed));
}

void PowerRecorder::reconcileBatteryEpoch(const PowerSnapshot& snap, TimePoint now) {
  // Serial numbers flicker on some gauges: a change counts only when seen on two polls running.
  if (!snap.batterySerial || snap.batterySerial->empty()) return;
  const std::string& serial = *snap.batterySerial;
  if (batteryEpochInitialized_ && lastReconciledSerial_ == serial) {
    pendingSerial_.reset();
    pendingSerialCount_ = 0;
    return;
  }
  if (pendingSerial_ != serial) {
    pendingSerial_ = serial;
    pendingSerialCount_ = 1;
    return;
  }
  if (++pendingSerialCount_ < kSerialConfirmationThreshold) return;

  batteryEpochInitialized_ = true;
  lastReconciledSerial_ = serial;
  pendingSerial_.reset();
  pendingSerialCount_ = 0;
  const auto epoch = store_.reconcileBatteryEpoch(serial, snap.cycleCount, snap.designCapacity_mAh,
                                                  snap.nominalCapacity_mAh, now);
  if (epoch) {
    log_->info("battery replacement detected — serial changed, opened epoch {}", epoch->id);
    if (onBatteryReplaced_) onBatteryReplaced_(*epoch);
  }
}

void PowerRecorder::considerCapacityLog(const PowerSnapshot& snap, TimePoint now) {
  const double health = static_cast<double>(snap.nominalCapacity_mAh) /
                        static_cast<double>(snap.designCapacity_mAh) * 100.0;
  const bool newDay =
      !lastCapacityLogDate_ || dayIdentity(*lastCapacityLogDate_).key != dayIdentity(now).key;
  if (std::fabs(health - lastCapacityHealth_) < 0.5 && lastCapacityHealth_ != 0 && !newDay) {
    return;
  }
  lastCapacityHealth_ = health;
  lastCapacityLogDate_ = now;
  CapacityLogEntry entry;
  entry.timestamp = now;
  entry.nominalCapacity_mAh = static_cast<std::int32_t>(snap.nominalCapacity_mAh);
  entry.designCapacity_mAh = static_cast<std::int32_t>(snap.designCapacity_mAh);
  entry.cycleCount = static_cast<std::int32_t>(snap.cycleCount);
  entry.healthPct = health;
  entry.maxTemperature_C = snap.maxTemperature ? static_cast<double>(*snap.maxTemperature)
                                               : static_cast<double>(snap.temperature_cC) / 100.0;
  store_.insertCapacityLog(entry);
}

std::vector<HistorySeedSample> PowerRecorder::seedSamples(TimePoint now) {
  std::vector<HistorySeedSample> seed;
  for (const PowerSample& p :
       store_.queryPowerSamples(plusSeconds(now, -kSeedWindowSeconds), now, kSeedMaxPoints)) {
    HistorySeedSample s;
    s.timestamp = p.timestamp;
    s.wattage = p.wattage;
    s.powerInW = p.powerInW;
    s.systemLoadW = p.systemLoadW;
    s.ecpuW = p.ecpuW;
    s.pcpuW = p.pcpuW;
    s.gpuW = p.gpuW;
    s.aneW = p.aneW;
    s.dramW = p.dramW;
    seed.push_back(s);
  }
  return seed;
}

}  // namespace quorel
