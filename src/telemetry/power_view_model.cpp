#include "telemetry/power_view_model.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "core/local_time.hpp"
#include "core/logging.hpp"

namespace quorel {

namespace {

constexpr HistoryTimeScale kAllScales[] = {
    HistoryTimeScale::tenMinutes, HistoryTimeScale::oneHour,   HistoryTimeScale::twelveHours,
    HistoryTimeScale::today,      HistoryTimeScale::sevenDays, HistoryTimeScale::thirtyDays,
};

template <class T>
void assignIfPopulating(std::vector<T>& target, const std::vector<T>& source, bool populate) {
  if (populate) {
    target = source;
  } else {
    target.clear();
  }
}

PowerSample liveSample(const PowerState& state, const std::optional<ComponentPower>& component) {
  PowerSample sample;
  sample.timestamp = state.timestamp;
  sample.wattage = state.smoothedWattage;
  sample.batteryPct = state.batteryPercentage;
  if (component) {
    // Stalled CPU and memory counters would chart as a fall to zero, so they are left out.
    if (component->cpuAndMemoryAvailable) {
      sample.ecpuW = component->ecpuWatts;
      sample.pcpuW = component->pcpuWatts;
      sample.dramW = component->dramWatts;
    }
    sample.gpuW = component->gpuWatts;
    sample.aneW = component->aneWatts;
  }
  sample.systemLoadW = state.systemLoad_W;
  sample.powerInW = state.systemPowerIn_W;
  sample.wallPowerW = state.wallPowerEstimate_W;
  sample.thermalState = 0;
  sample.isCharging =
      state.phase == PowerPhase::charging || state.phase == PowerPhase::trickleCharge;
  sample.externalConnected = state.externalConnected;
  if (state.temperature_C > 0) sample.temperatureC = state.temperature_C;
  return sample;
}

}  // namespace

PowerViewModel::PowerViewModel(SerialQueue& mainQueue, QuorelDatabase* database, const Clock& clock)
    : mainQueue_(mainQueue), database_(database), clock_(clock), log_(logging::get("ViewModel")) {
  componentPowerAvgBuffer_.reserve(kComponentPowerAvgBufferCapacity + 1);
}

PowerViewModel::~PowerViewModel() {
  alive_.reset();
}

std::uint64_t PowerViewModel::subscribe(Observer observer) {
  const std::uint64_t id = nextObserverId_++;
  observers_.emplace(id, std::move(observer));
  return id;
}

void PowerViewModel::unsubscribe(std::uint64_t id) {
  observers_.erase(id);
}

void PowerViewModel::notify(Published what) {
  // An observer may unsubscribe itself while being told.
  for (auto it = observers_.begin(); it != observers_.end();) {
    auto current = it++;
    current->second(what);
  }
}

void PowerViewModel::update(const PowerState& state, const PowerHistorySnapshot& history,
                            const ViewModelInputs& inputs) {
  if (!currentState_ || *currentState_ != state) {
    currentState_ = state;
    notify(Published::currentState);
  }
  recordComponentPowerSample(state.componentPower, state.systemConsumption_W(), state.timestamp);
  deriveDisplayState(scratch_, state, history, inputs);
  // Every publish wakes every observer, so an unchanged state is not published.
  if (scratch_ == displayState_) return;
  std::swap(scratch_, displayState_);
  notify(Published::displayState);
}

void PowerViewModel::deriveDisplayState(DisplayState& next, const PowerState& state,
                                        const PowerHistorySnapshot& history,
                                        const ViewModelInputs& inputs) {
  namespace text = display_text;
  const bool populate = inputs.populateHistory;
  const TimePoint now = clock_.now();
  const auto& diagnostics = state.diagnostics;
  const std::optional<std::int64_t> designCycles =
      diagnostics ? diagnostics->designCycleCount : std::nullopt;

  next.wattageText = text::wattageText(state.phase, state.smoothedWattage);
  next.wattageColor =
      state.phase == PowerPhase::noBattery
          ? NamedColor::secondaryLabel
          : menuBarColor(state.phase, state.smoothedWattage, preferences_.minimalMenuBar);
  next.batteryPercent = std::to_string(state.displayPercent()) + "%";
  next.batteryFraction = state.batteryPercentage / 100.0;
  next.healthPercent = text::percentText(state.batteryHealth);
  next.cycleCountText = text::cycleCountText(state.cycleCount, designCycles);
  next.temperatureText = text::temperatureText(state.temperature_C, preferences_.fahrenheit);
  next.timeRemaining =
      state.timeRemaining_min ? text::durationText(*state.timeRemaining_min) : std::nullopt;
  next.adapterInfo = text::adapterInfoText(state.adapterWatts, state.externalConnected);
  next.phaseLabel = label(state.phase);
  next.phase = state.phase;
  assignIfPopulating(next.sparklineData, history.wattageValues, populate);
  assignIfPopulating(next.sparklineTimestamps, history.wattageTimestamps, populate);
  assignIfPopulating(next.systemPowerInData, history.systemPowerInValues, populate);
  assignIfPopulating(next.systemPowerInTimestamps, history.systemPowerInTimestamps, populate);
  assignIfPopulating(next.systemLoadData, history.systemLoadValues, populate);
  assignIfPopulating(next.systemLoadTimestamps, history.systemLoadTimestamps, populate);
  next.calculatedTimeRemaining =
      text::calculatedTimeRemainingText(state.calculatedTimeRemaining_min);
  next.endTimeText = text::endTimeText(state.phase, state.timeRemaining_min,
                                       state.calculatedTimeRemaining_min, now);
  next.connectionType = state.connectionType;
  next.connectionTypeText =
      state.connectionType
          ? std::optional<std::string>(text::connectionTypeText(*state.connectionType))
          : std::nullopt;
  next.componentPower = state.componentPower;
  next.systemPowerRails = state.systemPowerRails;
  next.diagnostics = diagnostics;
  next.thermalStateText = text::thermalStateText(state.thermalState);
  next.thermalStateColor = text::thermalStateColor(state.thermalState);
  next.designCycleCount = designCycles;
  next.cycleProgress = designCycles && *designCycles >= 1
                           ? std::optional<double>(static_cast<double>(state.cycleCount) /
                                                   static_cast<double>(*designCycles))
                           : std::nullopt;
  next.wallPowerText = text::wattsText(state.wallPowerEstimate_W);
  next.adapterEfficiencyText = text::efficiencyText(state.adapterEfficiency);
  const auto low = diagnostics ? diagnostics->dailyMinSoc : std::nullopt;
  const auto high = diagnostics ? diagnostics->dailyMaxSoc : std::nullopt;
  next.dailySocRangeText = text::dailySocRangeText(low, high);
  next.dailySocRangeColor = text::dailySocRangeColor(low, high);
  next.usbDevices = inputs.usbDevices;
  next.wirelessDevices = inputs.wirelessDevices;
  next.sessions = inputs.sessions;
  next.calendarPrediction = text::calendarPredictionText(inputs.calendarPrediction);
  next.calendarWarning = inputs.calendarPrediction && inputs.calendarPrediction->predictedPct < 20;
  next.carbonFootprintText =
      text::carbonFootprintText(inputs.carbonGrams, preferences_.showCarbonFootprint);
  if (inputs.habitScore) {
    next.habitScore = std::string(inputs.habitScore->gradeText());
    next.habitScoreColor = text::habitGradeColor(inputs.habitScore->gradeText());
    next.habitScoreFactors = inputs.habitScore->factors;
  } else {
    next.habitScore.reset();
    next.habitScoreColor = NamedColor::secondaryLabel;
    next.habitScoreFactors.clear();
  }
  next.habitScoreHistory = inputs.habitHistory;
  if (populate) {
    next.componentPowerHistory = history.componentData;
    next.componentPowerTimestamps = history.componentTimestamps;
  } else {
    next.componentPowerHistory.clear();
    next.componentPowerTimestamps.clear();
  }
  next.componentPowerAvg_W = componentPowerAverageWatts();
  next.systemConsumption_W = state.systemConsumption_W();
  next.sessionEnergy_Wh = sessionEnergy_Wh_;
  next.lifetimeEnergy_Wh = lifetimeEnergy_Wh_;
  next.smoothedWattage = std::round(state.smoothedWattage * 100.0) / 100.0;
  next.batteryPercentageRaw = state.batteryPercentage;
  next.currentDisplayPercent = state.displayPercent();
  next.temperatureCelsius = state.temperature_C;
}

void PowerViewModel::recordComponentPowerSample(const std::optional<ComponentPower>& component,
                                                std::optional<double> consumptionW, TimePoint at) {
  double total = 0;
  if (consumptionW) {
    total = *consumptionW;
  } else if (component && component->cpuAndMemoryAvailable) {
    total = component->total();
  } else {
    return;
  }
  if (lastComponentPowerSampleTime_ && at <= *lastComponentPowerSampleTime_) return;

  componentPowerAvgBuffer_.push_back(total);
  if (componentPowerAvgBuffer_.size() > kComponentPowerAvgBufferCapacity) {
    componentPowerAvgBuffer_.erase(componentPowerAvgBuffer_.begin());
  }
  if (lastComponentPowerSampleTime_ && lastComponentPowerSampleWatts_) {
    const double gap = secondsBetween(*lastComponentPowerSampleTime_, at);
    if (gap > 0 && gap < kGapLimitSeconds) {
      sessionEnergy_Wh_ += (*lastComponentPowerSampleWatts_ + total) * 0.5 * gap / 3600.0;
    }
  }
  lastComponentPowerSampleTime_ = at;
  lastComponentPowerSampleWatts_ = total;
}

std::optional<double> PowerViewModel::componentPowerAverageWatts() const {
  if (componentPowerAvgBuffer_.empty()) return std::nullopt;
  const double sum =
      std::accumulate(componentPowerAvgBuffer_.begin(), componentPowerAvgBuffer_.end(), 0.0);
  return sum / static_cast<double>(componentPowerAvgBuffer_.size());
}

void PowerViewModel::appendLiveSample(const PowerState& state,
                                      const std::optional<ComponentPower>& component) {
  if (lastLiveTickTimestamp_ &&
      secondsBetween(*lastLiveTickTimestamp_, state.timestamp) > kGapLimitSeconds) {
    liveGapPendingScales_.insert(std::begin(kAllScales), std::end(kAllScales));
  }
  lastLiveTickTimestamp_ = state.timestamp;

  const PowerSample sample = liveSample(state, component);
  bool appended = false;
  for (auto& [scale, samples] : historicalCache_) {
    if (!samples.empty() &&
        secondsBetween(samples.back().timestamp, state.timestamp) < liveSpacingSeconds(scale)) {
      continue;
    }
    samples.push_back(sample);
    samples.back().precededByGap = liveGapPendingScales_.erase(scale) > 0;
    appended = true;
    // Drop what slid out of the window, in batches so that a steady stream does not shift the
    // list on every tick.
    const TimePoint from = window(scale, state.timestamp).from;
    const auto firstInside =
        std::partition_point(samples.begin(), samples.end(),
                             [from](const PowerSample& s) { return s.timestamp < from; });
    const auto stale = static_cast<std::size_t>(firstInside - samples.begin());
    if (stale > 0 && stale >= std::max<std::size_t>(1, samples.size() / 8)) {
      samples.erase(samples.begin(), firstInside);
    }
  }
  if (appended) notify(Published::historicalCache);
}

PowerViewModel::ScaleWindow PowerViewModel::window(HistoryTimeScale scale, TimePoint now) {
  auto rolling = [now](double seconds, int points) {
    return ScaleWindow{now - std::chrono::duration_cast<TimePoint::duration>(Seconds(seconds)), now,
                       points};
  };
  switch (scale) {
    case HistoryTimeScale::tenMinutes:
      return rolling(600, 300);
    case HistoryTimeScale::oneHour:
      return rolling(3600, 360);
    case HistoryTimeScale::twelveHours:
      return rolling(12 * 3600, 720);
    case HistoryTimeScale::today:
      return ScaleWindow{fromUnixSeconds(dayIdentity(now).start), now, 720};
    case HistoryTimeScale::sevenDays:
      return rolling(7 * 86400, 1008);
    case HistoryTimeScale::thirtyDays:
      return rolling(30 * 86400, 1440);
  }
  return rolling(600, 300);
}

double PowerViewModel::liveSpacingSeconds(HistoryTimeScale scale) {
  switch (scale) {
    case HistoryTimeScale::tenMinutes:
      return 0;
    case HistoryTimeScale::oneHour:
      return 5;
    case HistoryTimeScale::twelveHours:
      return 30;
    case HistoryTimeScale::today:
      return 60;
    case HistoryTimeScale::sevenDays:
      return 600;
    case HistoryTimeScale::thirtyDays:
      return 1800;
  }
  return 0;
}

}  // namespace quorel
