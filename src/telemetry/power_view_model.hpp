#pragma once
// The one observable object between the monitor and every presentation: it turns each
// PowerState into a DisplayState, keeps the chart caches per time scale, integrates the live
// component energy, and holds the lifetime energy and the battery epoch read from the store.
//
// Threading: main queue only. Store reads are posted to the database's queue and their results
// come back on the main queue; in-flight sets keep a second request from starting a duplicate.
// Observers are called on the main queue, and only when what they observe changed.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/clock.hpp"
#include "core/history_time_scale.hpp"
#include "core/power_state.hpp"
#include "core/serial_queue.hpp"
#include "insights/forecast_engine.hpp"
#include "insights/habit_scoring_service.hpp"
#include "store/battery_epoch.hpp"
#include "store/history_read_records.hpp"
#include "store/history_records.hpp"
#include "telemetry/display_state.hpp"
#include "telemetry/display_text.hpp"
#include "telemetry/power_histories.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

class QuorelDatabase;

// What the application gathered beside the tick, each refreshed at its own pace. Inputs that no
// service supplies yet stay empty.
struct ViewModelInputs {
  // Take the live series from the history snapshot; otherwise the chart lists are empty.
  bool populateHistory = false;
  std::vector<USBDevice> usbDevices;
  std::vector<WirelessDevice> wirelessDevices;
  std::vector<SessionRecord> sessions;
  std::optional<CalendarPrediction> calendarPrediction;
  std::optional<double> carbonGrams;  // today, in the configured region
  std::optional<HabitScore> habitScore;
  std::vector<HabitGradeSnapshot> habitHistory;
};

class PowerViewModel {
 public:
  static constexpr std::size_t kComponentPowerAvgBufferCapacity = 60;
  // Longer pauses between samples are missing time, never integrated nor bridged on a chart.
  static constexpr double kGapLimitSeconds = 300;

  // What changed, for observers.
  enum class Published {
    displayState,
    currentState,
    historicalCache,
    processEnergy,
    aiEnergy,
    batteryEpoch,
    oldestHistoryDate,
  };
  using Observer = std::function<void(Published)>;

  // `database` may be null (no store: the caches stay empty). The queue, the clock and the
  // database must outlive the view model.
  PowerViewModel(SerialQueue& mainQueue, QuorelDatabase* database, const Clock& clock);
  ~PowerViewModel();
  PowerViewModel(const PowerViewModel&) = delete;
  PowerViewModel& operator=(const PowerViewModel&) = delete;

  std::uint64_t subscribe(Observer observer);
  void unsubscribe(std::uint64_t id);

  // Takes effect at the next update.
  void setPreferences(const DisplayPreferences& preferences) { preferences_ = preferences; }
  const DisplayPreferences& preferences() const { return preferences_; }

  // Once per published tick.
  void update(const PowerState& state, const PowerHistorySnapshot& history,
              const ViewModelInputs& inputs);
  // Appends the tick to every loaded chart cache, thinned per scale.
  void appendLiveSample(const PowerState& state, const std::optional<ComponentPower>& component);
  // Feeds the average buffer and the session energy; a sample not after the last is ignored.
  void recordComponentPowerSample(const std::optional<ComponentPower>& component,
                                  std::optional<double> consumptionW, TimePoint at);

  // Reloads the chart caches of every scale, or of the given ones, from the store.
  void preloadHistoricalData();
  void preloadHistoricalData(const std::vector<HistoryTimeScale>& scales);
  void loadProcessEnergyData(HistoryTimeScale scale);
  void loadAIEnergyData(HistoryTimeScale scale);
  // The lifetime total (Wh), or nothing when the store could not answer.
  void loadLifetimeComponentEnergy(std::function<void(std::optional<double>)> completion = {});
  void loadBatteryEpoch();
  // A new battery: its epoch and the charts are reloaded, and the memoised forecasts dropped.
  void markBatteryReplaced();

  // What a forecast was computed from, summed up so that comparing two is cheap: the capacity
  // log is only appended to or pruned at its start, so its length and its two ends stand for
  // the whole list. The local day is part of it because a fit reads "now".
  struct HealthToken {
    std::size_t count = 0;
    std::optional<TimePoint> first;
    std::optional<TimePoint> last;
    double lastHealthPct = 0;
    std::optional<TimePoint> epochStart;
    TimePoint day;
    bool operator==(const HealthToken&) const = default;
  };
  struct CycleToken {
    std::size_t count = 0;
    std::optional<TimePoint> first;
    std::optional<TimePoint> last;
    std::int32_t lastCycleCount = 0;
    std::optional<std::int64_t> ratedLimit;
    std::optional<TimePoint> epochStart;
    TimePoint day;
    bool operator==(const CycleToken&) const = default;
  };
  // Health fitted against this target.
  static constexpr double kHealthForecastTargetPct = 80;

  // The forecasts of the current battery (entries before its epoch left out), fitted again only
  // when their token changes. The cycle limit is the gauge's design cycle count of the current
  // state, where it reports one.
  const ForecastResult& healthForecast(const std::vector<CapacityLogEntry>& capacity);
  const ForecastResult& cycleForecast(const std::vector<CapacityLogEntry>& capacity);
  // How many fits the two have run (diagnostics and tests).
  std::uint64_t forecastFits() const { return forecastFits_; }

  // The chart window of a scale ending at `now`, and the point budget of its read.
  struct ScaleWindow {
    TimePoint from;
    TimePoint to;
    int maxPoints = 0;
  };
  static ScaleWindow window(HistoryTimeScale scale, TimePoint now);
  // Seconds that must separate two live samples of a scale's cache.
  static double liveSpacingSeconds(HistoryTimeScale scale);

  const DisplayState& displayState() const { return displayState_; }
  const std::optional<PowerState>& currentState() const { return currentState_; }
  const std::map<HistoryTimeScale, std::vector<PowerSample>>& historicalCache() const {
    return historicalCache_;
  }
  const std::map<HistoryTimeScale, HistoricalCoverageSummary>& historicalCoverageCache() const {
    return historicalCoverageCache_;
  }
  const std::map<HistoryTimeScale, EnergySeries>& processEnergyCache() const {
    return processEnergyCache_;
  }
  const std::map<HistoryTimeScale, std::vector<TrackedEnergySummary>>& processEnergySummaryCache()
      const {
    return processEnergySummaryCache_;
  }
  const std::map<HistoryTimeScale, EnergySeries>& aiEnergyCache() const { return aiEnergyCache_; }
  const std::map<HistoryTimeScale, std::vector<TrackedEnergySummary>>& aiEnergySummaryCache()
      const {
    return aiEnergySummaryCache_;
  }
  const std::optional<BatteryEpoch>& batteryEpoch() const { return batteryEpoch_; }
  const std::optional<TimePoint>& oldestHistoryDate() const { return oldestHistoryDate_; }
  std::optional<double> lifetimeEnergy_Wh() const { return lifetimeEnergy_Wh_; }
  double sessionEnergy_Wh() const { return sessionEnergy_Wh_; }
  std::optional<double> componentPowerAverageWatts() const;
  std::size_t componentPowerAvgBufferCount() const { return componentPowerAvgBuffer_.size(); }

  // Which surfaces are showing; kept here so that every surface reads the same answer.
  bool uiActive = false;
  bool uiVisible = false;
  bool dashboardVisible = false;
  bool popoverVisible = false;
  bool dashboardActive = false;

 private:
  void notify(Published what);
  // Fills `next` from the state, reusing its storage.
  void deriveDisplayState(DisplayState& next, const PowerState& state,
                          const PowerHistorySnapshot& history, const ViewModelInputs& inputs);
  enum class EnergyKind { processes, agents };
  void loadEnergyData(EnergyKind kind, HistoryTimeScale scale);
  // Runs `read` on the database's queue and `deliver` with its result on the main queue, unless
  // the view model is gone by then.
  template <class T>
  void readFromStore(std::function<T(QuorelDatabase&)> read, std::function<void(T)> deliver);

  SerialQueue& mainQueue_;
  QuorelDatabase* database_;
  const Clock& clock_;
  std::shared_ptr<spdlog::logger> log_;
  // Cleared by the destructor, on the main queue, so that a late result finds nobody to tell.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  DisplayPreferences preferences_;
  std::map<std::uint64_t, Observer> observers_;
  std::uint64_t nextObserverId_ = 1;

  DisplayState displayState_ = DisplayState::loading();
  // The previous display state, kept so that deriving the next one reuses its storage.
  DisplayState scratch_;
  std::optional<PowerState> currentState_;
  std::map<HistoryTimeScale, std::vector<PowerSample>> historicalCache_;
  std::map<HistoryTimeScale, HistoricalCoverageSummary> historicalCoverageCache_;
  std::map<HistoryTimeScale, EnergySeries> processEnergyCache_;
  std::map<HistoryTimeScale, std::vector<TrackedEnergySummary>> processEnergySummaryCache_;
  std::map<HistoryTimeScale, EnergySeries> aiEnergyCache_;
  std::map<HistoryTimeScale, std::vector<TrackedEnergySummary>> aiEnergySummaryCache_;
  std::optional<BatteryEpoch> batteryEpoch_;
  std::optional<TimePoint> oldestHistoryDate_;

  std::set<std::string> energyLoadsInFlight_;
  std::set<HistoryTimeScale> historicalLoadsInFlight_;
  std::vector<double> componentPowerAvgBuffer_;
  double sessionEnergy_Wh_ = 0;
  std::optional<TimePoint> lastComponentPowerSampleTime_;
  std::optional<double> lastComponentPowerSampleWatts_;
  std::optional<double> lifetimeEnergy_Wh_;
  std::optional<TimePoint> lastLiveTickTimestamp_;
  std::set<HistoryTimeScale> liveGapPendingScales_;

  std::optional<HealthToken> healthForecastToken_;
  ForecastResult healthForecastCache_ = ForecastInsufficientData{};
  std::optional<CycleToken> cycleForecastToken_;
  ForecastResult cycleForecastCache_ = ForecastInsufficientData{};
  std::uint64_t forecastFits_ = 0;
};

}  // namespace quorel
