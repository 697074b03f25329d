#pragma once
// The recording stage of the tick: divides the machine's life into sessions and integrates
// their energy, persists a sample every 30 seconds, confirms battery serials before the store may
// open a new epoch, and keeps the capacity log. Runs on the poll queue only.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/clock.hpp"
#include "store/battery_epoch.hpp"
#include "store/history_records.hpp"
#include "telemetry/power_monitor.hpp"
#include "telemetry/session_energy_accumulator.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

class QuorelDatabase;

// What the recording stage needs of the history store. Writes are fire-and-forget; the epoch
// reconcile and the query block the poll queue on the store's queue.
class RecordingStore {
 public:
  virtual ~RecordingStore() = default;
  virtual void insertPowerSample(const PowerSample& sample) = 0;
  virtual void insertSession(const SessionRecord& session) = 0;
  virtual void insertCapacityLog(const CapacityLogEntry& entry) = 0;
  virtual std::optional<BatteryEpoch> reconcileBatteryEpoch(const std::string& serial,
                                                            std::int64_t cycleCount,
                                                            std::int64_t designCapacity,
                                                            std::int64_t nominalCapacity,
                                                            TimePoint at) = 0;
  virtual std::vector<PowerSample> queryPowerSamples(TimePoint from, TimePoint to,
                                                     int maxPoints) = 0;
};

// The store the agent records into.
class QuorelDatabaseRecordingStore final : public RecordingStore {
 public:
  explicit QuorelDatabaseRecordingStore(QuorelDatabase& database) : database_(database) {}
  void insertPowerSample(const PowerSample& sample) override;
  void insertSession(const SessionRecord& session) override;
  void insertCapacityLog(const CapacityLogEntry& entry) override;
  std::optional<BatteryEpoch> reconcileBatteryEpoch(const std::string& serial,
                                                    std::int64_t cycleCount,
                                                    std::int64_t designCapacity,
                                                    std::int64_t nominalCapacity,
                                                    TimePoint at) override;
  std::vector<PowerSample> queryPowerSamples(TimePoint from, TimePoint to, int maxPoints) override;

 private:
  QuorelDatabase& database_;
};

class PowerRecorder final : public PowerRecordingStage {
 public:
  static constexpr double kSampleInterval = 30;        // seconds between persisted samples
  static constexpr double kSessionGapLimit = 300;      // longer gaps are missing time
  static constexpr double kMinimumSessionLength = 60;  // shorter sessions are not kept
  static constexpr int kSerialConfirmationThreshold = 2;

  // `onBatteryReplaced` is called on the poll queue when the store opened an epoch for a new
  // battery; post from there to wherever the news is wanted.
  PowerRecorder(RecordingStore& store, const Clock& clock,
                std::function<void(const BatteryEpoch&)> onBatteryReplaced = {});

  void record(const RecordingTick& tick, bool forceDischargeActive) override;
  void discardSession() override;
  std::vector<HistorySeedSample> seedSamples(TimePoint now) override;

  // Poll-queue state, for tests.
  const std::optional<SessionRecord>& currentSession() const { return currentSession_; }
  const SessionEnergyAccumulator& sessionEnergy() const { return sessionEnergy_; }
  int pendingSerialCount() const { return pendingSerialCount_; }

  // The persisted form of one tick's state; pure.
  static PowerSample makeSample(const PowerState& state, const ComponentPowerValidation& validation,
                                std::optional<double> observedDurationS);

 private:
  void trackSession(const PowerState& state, PowerSessionMode mode);
  void startNewSession(const PowerState& state, PowerSessionMode mode);
  void endCurrentSession(const PowerState& state);
  void recordSample(const PowerState& state, const ComponentPowerValidation& validation);
  void reconcileBatteryEpoch(const PowerSnapshot& snap, TimePoint now);
  void considerCapacityLog(const PowerSnapshot& snap, TimePoint now);

  RecordingStore& store_;
  const Clock& clock_;
  std::function<void(const BatteryEpoch&)> onBatteryReplaced_;
  std::shared_ptr<spdlog::logger> log_;

  std::optional<SessionRecord> currentSession_;
  SessionEnergyAccumulator sessionEnergy_;
  std::optional<TimePoint> lastSampleTime_;
  std::optional<TimePoint> lastPersistedPowerSampleTimestamp_;
  double lastCapacityHealth_ = 0;
  std::optional<TimePoint> lastCapacityLogDate_;
  bool batteryEpochInitialized_ = false;
  std::optional<std::string> lastReconciledSerial_;
  std::optional<std::string> pendingSerial_;
  int pendingSerialCount_ = 0;
};

}  // namespace quorel
