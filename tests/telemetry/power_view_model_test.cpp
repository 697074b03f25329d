// The view model against a manual clock and an unstarted main queue: what it derives from a
// state, when it publishes, and how it keeps the chart caches and the live energy.

#include "telemetry/power_view_model.hpp"

#include <gtest/gtest.h>

#include "store/quorel_database.hpp"
#include "store/sqlite_test_support.hpp"
#include "support/zone_guard.hpp"

namespace quorel {
namespace {

using Published = PowerViewModel::Published;

class PowerViewModelTest : public ::testing::Test {
 protected:
  PowerViewModelTest() {
    vm.subscribe([this](Published what) { ++published[what]; });
  }

  PowerState drainingState() {
    PowerState state;
    state.phase = PowerPhase::draining;
    state.smoothedWattage = -8.4;
    state.batteryPercentage = 64;
    state.batteryHealth = 91.6;
    state.cycleCount = 312;
    state.temperature_C = 30;
    state.batteryInstalled = true;
    state.timestamp = clock.now();
    return state;
  }

  const DisplayState& show(const PowerState& state, ViewModelInputs inputs = {}) {
    vm.update(state, PowerHistorySnapshot::empty(), inputs);
    return vm.displayState();
  }

  testing::ZoneGuard zone{"UTC"};
  ManualClock clock;  // 2027-01-15 08:00:00 UTC
  SerialQueue main{"test.main", clock};
  PowerViewModel vm{main, nullptr, clock};
  std::map<Published, int> published;
};

TEST_F(PowerViewModelTest, PublishesOnlyWhatDiffers) {
  PowerState state = drainingState();
  show(state);
  show(state);
  EXPECT_EQ(published[Published::displayState], 1);
  EXPECT_EQ(published[Published::currentState], 1);

  // A reading the display does not show is a new state but the same display.
  state.voltage_mV += 3;
  show(state);
  EXPECT_EQ(published[Published::currentState], 2);
  EXPECT_EQ(published[Published::displayState], 1);

  state.temperature_C = 31;
  EXPECT_EQ(show(state).temperatureText, "31.0°C");
  EXPECT_EQ(published[Published::displayState], 2);
}

TEST_F(PowerViewModelTest, DerivesTheBasicTexts) {
  const DisplayState& shown = show(drainingState());
  EXPECT_EQ(shown.wattageText, "-8W");
  EXPECT_EQ(shown.wattageColor, NamedColor::orange);
  EXPECT_EQ(shown.batteryPercent, "64%");
  EXPECT_DOUBLE_EQ(shown.batteryFraction, 0.64);
  EXPECT_EQ(shown.healthPercent, "92%");
  EXPECT_EQ(shown.cycleCountText, "312 cycles");
  EXPECT_EQ(shown.phaseLabel, label(PowerPhase::draining));
  EXPECT_FALSE(shown.cycleProgress);

  PowerState state = drainingState();
  state.diagnostics = BatteryDiagnostics{};
  state.diagnostics->designCycleCount = 1000;
  state.diagnostics->dailyMinSoc = 18;
  state.diagnostics->dailyMaxSoc = 80;
  state.thermalState = ThermalState::serious;
  vm.setPreferences({.fahrenheit = true, .showCarbonFootprint = false, .minimalMenuBar = true});
  const DisplayState& detailed = show(state);
  EXPECT_EQ(detailed.cycleCountText, "312 / 1000 cycles");
  EXPECT_DOUBLE_EQ(*detailed.cycleProgress, 0.312);
  EXPECT_EQ(detailed.dailySocRangeText, "Today: 18–80%");
  EXPECT_EQ(detailed.dailySocRangeColor, NamedColor::orange);
  EXPECT_EQ(detailed.thermalStateText, "Serious");
  EXPECT_EQ(detailed.temperatureText, "86.0°F");
  EXPECT_EQ(detailed.wattageColor, NamedColor::pink);
}

TEST_F(PowerViewModelTest, WattageTextAndColourAtTheirBoundaries) {
  struct Case {
    PowerPhase phase;
    double watts;
    const char* text;
    NamedColor color;
  };
  const Case cases[] = {
      {PowerPhase::charging, 0.6, "+1W", NamedColor::blue},
      {PowerPhase::charging, 0.4, "0W", NamedColor::blue},
      {PowerPhase::full, -0.4, "0W", NamedColor::blue},
      {PowerPhase::full, -0.6, "-1W", NamedColor::orange},  // drain outranks the phase
      {PowerPhase::thermalHold, 0, "0W", NamedColor::yellow},
      {PowerPhase::chargeLimitHold, 0, "0W", NamedColor::beige},
      {PowerPhase::supplementing, 0, "0W", NamedColor::orange},
      {PowerPhase::noBattery, 12, "--", NamedColor::secondaryLabel},
  };
  for (const Case& c : cases) {
    PowerState state = drainingState();
    state.phase = c.phase;
    state.smoothedWattage = c.watts;
    const DisplayState& shown = show(state);
    EXPECT_EQ(shown.wattageText, c.text) << toString(c.phase) << " " << c.watts;
    EXPECT_EQ(shown.wattageColor, c.color) << toString(c.phase) << " " << c.watts;
  }
}

TEST_F(PowerViewModelTest, RemainingTimeTextsAtTheirBoundaries) {
  struct Case {
    std::optional<std::int64_t> minutes;
    std::optional<std::string> remaining;
    std::optional<std::string> calculated;
  };
  const Case cases[] = {
      {std::nullopt, std::nullopt, std::nullopt},
      {0, std::nullopt, std::nullopt},
      {1, "1m", "~1m until full"},
      {59, "59m", "~59m until full"},
      {60, "1h 0m", "~1h 0m until full"},
      {125, "2h 5m", "~2h 5m until full"},
      {-90, std::nullopt, "~1h 30m until empty"},
  };
  for (const Case& c : cases) {
    PowerState state = drainingState();
    state.timeRemaining_min = c.minutes;
    state.calculatedTimeRemaining_min = c.minutes;
    const DisplayState& shown = show(state);
    EXPECT_EQ(shown.timeRemaining, c.remaining) << c.minutes.value_or(-1);
    EXPECT_EQ(shown.calculatedTimeRemaining, c.calculated) << c.minutes.value_or(-1);
  }
}

TEST_F(PowerViewModelTest, EndTimeOnlyWithinADayAndWhileMoving) {
  struct Case {
    PowerPhase phase;
    std::optional<std::int64_t> remaining;
    std::optional<std::int64_t> calculated;
    std::optional<std::string> end;
  };
  const Case cases[] = {
      {PowerPhase::draining, 90, -30, "09:30"},  // the gauge's figure wins
      {PowerPhase::draining, std::nullopt, -30, "08:30"},
      {PowerPhase::charging, 1439, std::nullopt, "07:59"},
      {PowerPhase::charging, 1440, std::nullopt, std::nullopt},
      {PowerPhase::draining, std::nullopt, -1440, std::nullopt},
      {PowerPhase::draining, 0, -30, std::nullopt},
      {PowerPhase::full, 90, std::nullopt, std::nullopt},
      {PowerPhase::onHold, std::nullopt, 45, std::nullopt},
  };
  for (const Case& c : cases) {
    PowerState state = drainingState();
    state.phase = c.phase;
    state.timeRemaining_min = c.remaining;
    state.calculatedTimeRemaining_min = c.calculated;
    EXPECT_EQ(show(state).endTimeText, c.end)
        << toString(c.phase) << " " << c.remaining.value_or(-1) << " " << c.calculated.value_or(-1);
  }
}

TEST_F(PowerViewModelTest, TemperatureCarbonAndAdapterTexts) {
  PowerState state = drainingState();
  state.temperature_C = 0;
  EXPECT_FALSE(show(state).temperatureText);
  state.temperature_C = 37.5;
  EXPECT_EQ(show(state).temperatureText, "37.5°C");
  vm.setPreferences({.fahrenheit = true, .showCarbonFootprint = false, .minimalMenuBar = false});
  EXPECT_EQ(show(state).temperatureText, "99.5°F");

  struct Carbon {
    std::optional<double> grams;
    bool enabled;
    std::optional<std::string> text;
  };
  const Carbon carbon[] = {{0.99, true, "Today: <1g CO₂"},
                           {1.0, true, "Today: 1g CO₂"},
                           {12.6, true, "Today: 13g CO₂"},
                           {12.6, false, std::nullopt},
                           {std::nullopt, true, std::nullopt}};
  for (const Carbon& c : carbon) {
    vm.setPreferences(
        {.fahrenheit = false, .showCarbonFootprint = c.enabled, .minimalMenuBar = false});
    ViewModelInputs inputs;
    inputs.carbonGrams = c.grams;
    EXPECT_EQ(show(state, inputs).carbonFootprintText, c.text)
        << c.grams.value_or(-1) << " " << c.enabled;
  }

  state.externalConnected = true;
  EXPECT_EQ(show(state).adapterInfo, "Charger connected");
  state.adapterWatts = 96;
  EXPECT_EQ(show(state).adapterInfo, "96W charger");
}

TEST_F(PowerViewModelTest, CalendarAndHabitTexts) {
  ViewModelInputs inputs;
  inputs.calendarPrediction =
      CalendarPrediction{"Standup", clock.now() + std::chrono::hours(2), 19.6};
  HabitScore habit;
  habit.grade = HabitGrade::bPlus;
  habit.factors = {{std::string(kChargeDepthFactor), "88/100"}};
  inputs.habitScore = habit;
  const DisplayState& shown = show(drainingState(), inputs);
  EXPECT_EQ(shown.calendarPrediction, "~20% at 10:00 (Standup)");
  EXPECT_TRUE(shown.calendarWarning) << "the prediction itself is below 20";
  EXPECT_EQ(shown.habitScore, "B+");
  EXPECT_EQ(shown.habitScoreColor, NamedColor::blue);
  EXPECT_EQ(shown.habitScoreFactors, inputs.habitScore->factors);

  inputs.calendarPrediction->predictedPct = 20;
  inputs.habitScore.reset();
  const DisplayState& later = show(drainingState(), inputs);
  EXPECT_FALSE(later.calendarWarning);
  EXPECT_FALSE(later.habitScore);
  EXPECT_TRUE(later.habitScoreFactors.empty());
}

// A year of monthly readings losing half a percent of health and gaining 25 cycles a month.
std::vector<CapacityLogEntry> agingLog(TimePoint end, int months) {
  std::vector<CapacityLogEntry> log;
  for (int i = 0; i < months; ++i) {
    CapacityLogEntry entry;
    entry.timestamp = end - std::chrono::hours(24 * 30 * (months - 1 - i));
    entry.designCapacity_mAh = 5000;
    entry.healthPct = 100 - 0.5 * i;
    entry.nominalCapacity_mAh = static_cast<std::int32_t>(50 * entry.healthPct);
    entry.cycleCount = 25 * i;
    log.push_back(entry);
  }
  return log;
}

TEST_F(PowerViewModelTest, ForecastsFitOnlyWhenTheirInputsChange) {
  PowerState state = drainingState();
  state.diagnostics = BatteryDiagnostics{};
  state.diagnostics->designCycleCount = 1000;
  std::vector<CapacityLogEntry> log = agingLog(clock.now(), 12);

  for (int tick = 0; tick < 1000; ++tick) {
    state.timestamp = clock.now();
    show(state);
    vm.healthForecast(log);
    vm.cycleForecast(log);
    clock.advance(Seconds(1));
  }
  EXPECT_EQ(vm.forecastFits(), 2u) << "1,000 unchanged ticks must reuse the first fits";
  EXPECT_EQ(kindOf(vm.healthForecast(log)), ForecastResultKind::forecast);
  EXPECT_EQ(kindOf(vm.cycleForecast(log)), ForecastResultKind::forecast);

  struct Change {
    const char* what;
    std::function<void()> apply;
    std::uint64_t healthFits;
    std::uint64_t cycleFits;
  };
  const std::vector<Change> changes = {
      {"a new capacity reading", [&] { log = agingLog(clock.now(), 13); }, 1, 1},
      {"the oldest reading pruned", [&] { log.erase(log.begin()); }, 1, 1},
      {"the rated limit",
       [&] {
         state.diagnostics->designCycleCount = 1500;
         show(state);
       },
       0, 1},
      {"a new local day", [&] { clock.advance(std::chrono::hours(24)); }, 1, 1},
      {"a replaced battery", [&] { vm.markBatteryReplaced(); }, 1, 1},
  };
  for (const Change& change : changes) {
    change.apply();
    const std::uint64_t before = vm.forecastFits();
    vm.healthForecast(log);
    EXPECT_EQ(vm.forecastFits() - before, change.healthFits) << change.what;
    vm.cycleForecast(log);
    EXPECT_EQ(vm.forecastFits() - before, change.healthFits + change.cycleFits) << change.what;
    vm.healthForecast(log);
    vm.cycleForecast(log);
    EXPECT_EQ(vm.forecastFits() - before, change.healthFits + change.cycleFits)
        << change.what << ": a second ask must not fit again";
  }

  // A gauge that states no limit gets the readout, not a date on a stale limit.
  state.diagnostics->designCycleCount.reset();
  show(state);
  const ForecastResult& cycles = vm.cycleForecast(log);
  ASSERT_EQ(kindOf(cycles), ForecastResultKind::readout);
  EXPECT_EQ(std::get<ForecastReadout>(cycles).headline, kNoRatedCycleLimitHeadline);
}

TEST_F(PowerViewModelTest, AverageBufferHoldsTheLastSixtyFigures) {
  for (int i = 0; i < 100; ++i) {
    vm.recordComponentPowerSample(std::nullopt, i, clock.now());
    clock.advance(Seconds(1));
  }
  EXPECT_EQ(vm.componentPowerAvgBufferCount(), 60u);
  EXPECT_DOUBLE_EQ(*vm.componentPowerAverageWatts(), 69.5);  // mean of 40...99
}

TEST_F(PowerViewModelTest, SessionEnergyBridgesOnlyShortGaps) {
  const TimePoint t0 = clock.now();
  vm.recordComponentPowerSample(std::nullopt, 36, t0);
  vm.recordComponentPowerSample(std::nullopt, 36, t0 + std::chrono::seconds(300));
  EXPECT_DOUBLE_EQ(vm.sessionEnergy_Wh(), 0);

  vm.recordComponentPowerSample(std::nullopt, 36, t0 + std::chrono::seconds(400));
  EXPECT_DOUBLE_EQ(vm.sessionEnergy_Wh(), 1.0);
  // Not after the last sample: neither averaged nor integrated.
  vm.recordComponentPowerSample(std::nullopt, 1000, t0 + std::chrono::seconds(400));
  EXPECT_DOUBLE_EQ(*vm.componentPowerAverageWatts(), 36);

  // Without a consumption figure the components count, but not while CPU counters stall.
  ComponentPower parts{.ecpuWatts = 1,
                       .pcpuWatts = 2,
                       .gpuWatts = 3,
                       .aneWatts = 0,
                       .dramWatts = 1,
                       .cpuAndMemoryAvailable = false};
  vm.recordComponentPowerSample(parts, std::nullopt, t0 + std::chrono::seconds(410));
  EXPECT_EQ(vm.componentPowerAvgBufferCount(), 3u);
  parts.cpuAndMemoryAvailable = true;
  vm.recordComponentPowerSample(parts, std::nullopt, t0 + std::chrono::seconds(410));
  EXPECT_DOUBLE_EQ(vm.sessionEnergy_Wh(), 1.0 + (36 + 7) * 0.5 * 10 / 3600);
}

// The chart caches need a store to have been loaded from.
class PowerViewModelStoreTest : public PowerViewModelTest {
 protected:
  void settle() {
    while (db.queue().runPending() + main.runPending() > 0) {
    }
  }

  testing::ScratchDirectory scratch{"quorel-view-model"};
  QuorelDatabase db{QuorelDatabase::Options{.dataDirectory = scratch.path(),
                                            .databasePathOverride = scratch.path() / "q.db",
                                            .onCorruption = {},
                                            .startQueue = false},
                    clock};
  PowerViewModel stored{main, &db, clock};
};

TEST_F(PowerViewModelStoreTest, APreloadRequestedTwiceLoadsOnce) {
  stored.preloadHistoricalData();
  stored.preloadHistoricalData({HistoryTimeScale::oneHour});
  settle();
  EXPECT_EQ(db.powerHistoryReads(), 6u);
  EXPECT_EQ(stored.historicalCache().size(), 6u);
  // Once delivered, a scale may be loaded again.
  stored.preloadHistoricalData({HistoryTimeScale::oneHour});
  settle();
  EXPECT_EQ(db.powerHistoryReads(), 7u);
}

TEST_F(PowerViewModelStoreTest, AResultArrivingAfterTheViewModelIsGoneIsDropped) {
  auto doomed = std::make_unique<PowerViewModel>(main, &db, clock);
  doomed->preloadHistoricalData();
  doomed->loadBatteryEpoch();
  doomed.reset();
  settle();
  EXPECT_EQ(db.powerHistoryReads(), 6u);
}

TEST_F(PowerViewModelStoreTest, EpochLifetimeEnergyAndEnergyRankingsComeFromTheStore) {
  const TimePoint t0 = clock.now() - std::chrono::minutes(5);
  for (int i = 0; i < 2; ++i) {
    PowerSample sample;
    sample.timestamp = t0 + std::chrono::seconds(100 * i);
    sample.wattage = 4;
    sample.batteryPct = 80;
    sample.powerInW = 40;  // the machine drew 36 W
    sample.externalConnected = true;
    db.insertPowerSample(sample);
  }
  std::vector<TrackedEnergyRecord> records;
  for (const auto& [name, wh] : {std::pair{"make", 0.2}, {"editor", 0.9}, {"shell", 0.1}}) {
    records.push_back(TrackedEnergyRecord{.timestamp = t0,
                                          .identifier = name,
                                          .averageCPU = 5,
                                          .averageWatts = wh * 60,
                                          .peakWatts = wh * 60,
                                          .sampleCount = 12,
                                          .observedDuration_s = 60,
                                          .missingDuration_s = 0,
                                          .energyWh = wh,
                                          .coverageRatio = 1,
                                          .quality = HistoricalValueQuality::measured,
                                          .source = "test"});
  }
  db.insertProcessEnergy(records);
  db.forceNewBatteryEpoch("SER1", 12, 5000, 4900, t0);
  settle();

  std::optional<double> reported;
  stored.loadLifetimeComponentEnergy([&](std::optional<double> wh) { reported = wh; });
  stored.loadBatteryEpoch();
  stored.loadProcessEnergyData(HistoryTimeScale::oneHour);
  stored.loadProcessEnergyData(HistoryTimeScale::oneHour);  // still in flight
  settle();

  ASSERT_TRUE(reported);
  EXPECT_NEAR(*reported, 1.0, 1e-9);
  EXPECT_EQ(stored.displayState().lifetimeEnergy_Wh, reported);
  ASSERT_TRUE(stored.batteryEpoch());
  EXPECT_EQ(stored.batteryEpoch()->serial, "SER1");
  EXPECT_EQ(db.energyHistoryBuilds(), 1u);
  const auto& ranked = stored.processEnergySummaryCache().at(HistoryTimeScale::oneHour);
  ASSERT_EQ(ranked.size(), 3u);
  EXPECT_EQ(ranked[0].identifier, "editor");
  EXPECT_EQ(ranked[2].identifier, "shell");
  EXPECT_EQ(stored.processEnergyCache().at(HistoryTimeScale::oneHour).size(), 3u);
}

TEST_F(PowerViewModelStoreTest, LiveSamplesAreThinnedPerScaleAndMarkAGapOnce) {
  stored.preloadHistoricalData();
  settle();
  PowerState state = drainingState();
  auto tick = [&](double seconds) {
    clock.advance(Seconds(seconds));
    state.timestamp = clock.now();
    stored.appendLiveSample(state, std::nullopt);
  };
  tick(0);
  tick(301);  // the machine slept
  for (int i = 0; i < 3600; ++i) tick(1);

  // Ticks at 0, then 301...3901 s; each scale keeps the ones its spacing allows.
  const std::map<HistoryTimeScale, std::size_t> expectedCount = {
      {HistoryTimeScale::oneHour, 722},
      {HistoryTimeScale::twelveHours, 122},
      {HistoryTimeScale::today, 62},
      {HistoryTimeScale::sevenDays, 7},
      {HistoryTimeScale::thirtyDays, 3}};
  ASSERT_EQ(stored.historicalCache().size(), 6u);
  for (const auto& [scale, samples] : stored.historicalCache()) {
    const double spacing = PowerViewModel::liveSpacingSeconds(scale);
    int gaps = 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
      gaps += samples[i].precededByGap;
      if (i > 0) {
        EXPECT_GE(secondsBetween(samples[i - 1].timestamp, samples[i].timestamp), spacing)
            << toString(scale);
      }
    }
    if (scale == HistoryTimeScale::tenMinutes) {
      // Its window slid past the gap, and what fell out of it was dropped in batches.
      EXPECT_EQ(gaps, 0);
      EXPECT_GE(samples.size(), 601u);
      EXPECT_LE(samples.size(), 601u + 601u / 7 + 1);
    } else {
      EXPECT_EQ(gaps, 1) << toString(scale);
      EXPECT_EQ(samples.size(), expectedCount.at(scale)) << toString(scale);
    }
  }
}

}  // namespace
}  // namespace quorel
