// The view model's reads of the history store. Each runs on the database's queue, so the main
// queue never waits on SQLite, and hands its result back to the main queue.

#include <spdlog/spdlog.h>

#include <algorithm>

#include "core/local_time.hpp"
#include "store/quorel_database.hpp"
#include "telemetry/power_view_model.hpp"

namespace quorel {

namespace {

constexpr HistoryTimeScale kAllScales[] = {
    HistoryTimeScale::tenMinutes, HistoryTimeScale::oneHour,   HistoryTimeScale::twelveHours,
    HistoryTimeScale::today,      HistoryTimeScale::sevenDays, HistoryTimeScale::thirtyDays,
};

struct LoadedHistory {
  Result<std::vector<PowerSample>> samples;
  Result<HistoricalCoverageSummary> coverage;
};

}  // namespace

template <class T>
void PowerViewModel::readFromStore(std::function<T(QuorelDatabase&)> read,
                                   std::function<void(T)> deliver) {
  QuorelDatabase* database = database_;
  SerialQueue* main = &mainQueue_;
  std::weak_ptr<bool> alive = alive_;
  database->queue().async(
      [database, main, alive, read = std::move(read), deliver = std::move(deliver)]() mutable {
        auto result = std::make_shared<T>(read(*database));
        main->async([alive, result, deliver] {
          // Checked on the main queue, where the view model is destroyed, so this cannot race.
          if (alive.expired()) return;
          deliver(std::move(*result));
        });
      });
}

void PowerViewModel::preloadHistoricalData() {
  preloadHistoricalData({std::begin(kAllScales), std::end(kAllScales)});
  if (!database_) return;
  readFromStore<std::optional<TimePoint>>(
      [](QuorelDatabase& db) { return db.oldestPowerSampleDate(); },
      [this](std::optional<TimePoint> oldest) {
        if (oldest == oldestHistoryDate_) return;
        oldestHistoryDate_ = oldest;
        notify(Published::oldestHistoryDate);
      });
}

void PowerViewModel::preloadHistoricalData(const std::vector<HistoryTimeScale>& scales) {
  if (!database_) return;
  const TimePoint now = clock_.now();
  for (const HistoryTimeScale scale : scales) {
    if (!historicalLoadsInFlight_.insert(scale).second) continue;
    const ScaleWindow w = window(scale, now);
    readFromStore<LoadedHistory>(
        [w](QuorelDatabase& db) {
          return LoadedHistory{db.queryPowerSamples(w.from, w.to, w.maxPoints),
                               db.historicalCoverage(w.from, w.to)};
        },
        [this, scale](LoadedHistory loaded) {
          historicalLoadsInFlight_.erase(scale);
          if (!loaded.samples.ok()) {
            log_->warn("history of {} not loaded: {}", toString(scale),
                       loaded.samples.error().message);
            return;
          }
          historicalCache_[scale] = std::move(loaded.samples.value());
          if (loaded.coverage.ok()) historicalCoverageCache_[scale] = loaded.coverage.value();
          notify(Published::historicalCache);
        });
  }
}

void PowerViewModel::loadProcessEnergyData(HistoryTimeScale scale) {
  loadEnergyData(EnergyKind::processes, scale);
}

void PowerViewModel::loadAIEnergyData(HistoryTimeScale scale) {
  loadEnergyData(EnergyKind::agents, scale);
}

void PowerViewModel::loadEnergyData(EnergyKind kind, HistoryTimeScale scale) {
  if (!database_) return;
  const bool processes = kind == EnergyKind::processes;
  std::string key =
      std::string(processes ? "processes/" : "agents/") + std::string(toString(scale));
  if (!energyLoadsInFlight_.insert(key).second) return;

  const ScaleWindow w = window(scale, clock_.now());
  const EnergyHistoryWindow chartWindow =
      scale == HistoryTimeScale::today
          ? EnergyHistoryWindow::day(w.from)
          : EnergyHistoryWindow::rolling(std::chrono::duration_cast<Seconds>(w.to - w.from));
  const EnergyHistoryKind storeKind =
      processes ? EnergyHistoryKind::processes : EnergyHistoryKind::agents;
  readFromStore<EnergyHistorySnapshot>(
      [storeKind, chartWindow, w](QuorelDatabase& db) {
        return db.cachedEnergyHistory(storeKind, chartWindow, w.from, w.to);
      },
      [this, processes, scale, key](EnergyHistorySnapshot snapshot) {
        energyLoadsInFlight_.erase(key);
        std::vector<TrackedEnergySummary> ranked;
        ranked.reserve(snapshot.summaries.size());
        for (auto& [name, summary] : snapshot.summaries) ranked.push_back(std::move(summary));
        std::stable_sort(ranked.begin(), ranked.end(),
                         [](const auto& a, const auto& b) { return a.energyWh > b.energyWh; });
        auto& series = processes ? processEnergyCache_ : aiEnergyCache_;
        auto& summaries = processes ? processEnergySummaryCache_ : aiEnergySummaryCache_;
        series[scale] = std::move(snapshot.series);
        summaries[scale] = std::move(ranked);
        notify(processes ? Published::processEnergy : Published::aiEnergy);
      });
}

void PowerViewModel::loadLifetimeComponentEnergy(
    std::function<void(std::optional<double>)> completion) {
  if (!database_) {
    if (completion) completion(std::nullopt);
    return;
  }
  readFromStore<Result<double>>([](QuorelDatabase& db) { return db.totalComponentEnergy_Wh(); },
                                [this, completion = std::move(completion)](Result<double> total) {
                                  if (!total.ok()) {
                                    log_->warn("lifetime energy not loaded: {}",
                                               total.error().message);
                                    if (completion) completion(std::nullopt);
                                    return;
                                  }
                                  lifetimeEnergy_Wh_ = total.value();
                                  if (displayState_.lifetimeEnergy_Wh != lifetimeEnergy_Wh_) {
                                    displayState_.lifetimeEnergy_Wh = lifetimeEnergy_Wh_;
                                    notify(Published::displayState);
                                  }
                                  if (completion) completion(lifetimeEnergy_Wh_);
                                });
}

void PowerViewModel::loadBatteryEpoch() {
  if (!database_) return;
  readFromStore<std::optional<BatteryEpoch>>(
      [](QuorelDatabase& db) { return db.currentBatteryEpoch(); },
      [this](std::optional<BatteryEpoch> epoch) {
        if (epoch == batteryEpoch_) return;
        batteryEpoch_ = std::move(epoch);
        notify(Published::batteryEpoch);
      });
}

void PowerViewModel::markBatteryReplaced() {
  // Trends drawn against the old battery's baseline would now mislead.
  healthForecastToken_.reset();
  cycleForecastToken_.reset();
  loadBatteryEpoch();
  preloadHistoricalData();
}

}  // namespace quorel
