#include "insights/insights_refresher.hpp"

#include "insights/local_days.hpp"

namespace quorel {

InsightsRefresher::InsightsRefresher(CarbonFootprintService& carbon, HabitScoringService& habits,
                                     HabitGradeHistoryStore& history, SerialQueue& ownerQueue,
                                     SerialQueue& workQueue, const Clock& clock)
    : carbon_(carbon),
      habits_(habits),
      history_(history),
      ownerQueue_(ownerQueue),
      workQueue_(workQueue),
      clock_(clock) {}

InsightsRefresher::~InsightsRefresher() {
  *alive_ = false;
}

template <class T>
void InsightsRefresher::offload(std::function<T()> work, std::function<void(T)> deliver) {
  workQueue_.async([this, alive = alive_, work = std::move(work), deliver = std::move(deliver)] {
    T result = work();
    ownerQueue_.async([alive, deliver, result = std::move(result)]() mutable {
      if (*alive) deliver(std::move(result));
    });
  });
}

void InsightsRefresher::changed() {
  if (onChange_) onChange_();
}

void InsightsRefresher::start() {
  carbonTimer_ = ownerQueue_.every(Seconds(0), kCarbonRefreshInterval, [this] { refreshCarbon(); });
  habitTimer_ = ownerQueue_.every(Seconds(0), kHabitRefreshInterval, [this] { refreshHabit(); });
}

void InsightsRefresher::setRegion(std::optional<CarbonRegionIntensity> region) {
  if (region == region_) return;
  region_ = region;
  refreshCarbon();
}

void InsightsRefresher::refreshCarbon() {
  if (carbonInFlight_) {
    carbonAgain_ = true;
    return;
  }
  if (!region_) {
    if (carbonGrams_) {
      carbonGrams_.reset();
      changed();
    }
    return;
  }
  carbonInFlight_ = true;
  offload<std::optional<double>>(
      [this, region = *region_]() -> std::optional<double> {
        auto grams = carbon_.todayCO2Grams(region, clock_.now());
        if (!grams) return std::nullopt;
        return *grams;
      },
      [this](std::optional<double> grams) {
        carbonInFlight_ = false;
        // A failed read keeps the last figure: the day's energy does not vanish with it.
        if (grams && grams != carbonGrams_) {
          carbonGrams_ = grams;
          changed();
        }
        if (carbonAgain_) {
          carbonAgain_ = false;
          refreshCarbon();
        }
      });
}

void InsightsRefresher::refreshHabit() {
  if (habitInFlight_) return;
  habitInFlight_ = true;
  struct Outcome {
    std::optional<HabitScore> score;
    std::vector<HabitGradeSnapshot> history;
  };
  offload<Outcome>(
      [this] {
        Outcome outcome;
        auto score = habits_.calculateScore();
        outcome.history = history_.loadAll();
        if (!score) return outcome;
        outcome.score = *score;
        const TimePoint now = clock_.now();
        const TimePoint today = startOfLocalDay(now);
        bool recordedToday = false;
        for (const auto& snapshot : outcome.history) {
          recordedToday = recordedToday || startOfLocalDay(snapshot.timestamp) == today;
        }
        if (!recordedToday) {
          outcome.history = history_.record({now, std::string(score->gradeText()), score->factors});
        }
        return outcome;
      },
      [this](Outcome outcome) {
        habitInFlight_ = false;
        bool different = outcome.history != habitHistory_;
        habitHistory_ = std::move(outcome.history);
        if (outcome.score && outcome.score != habitScore_) {
          habitScore_ = std::move(outcome.score);
          different = true;
        }
        if (different) changed();
      });
}

}  // namespace quorel
