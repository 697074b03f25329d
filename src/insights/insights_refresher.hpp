#pragma once
// Keeps the day's carbon figure and the habit grade current for the surfaces: carbon every five
// minutes, the grade at start and hourly, the grade recorded in the history once per local day.
// The reads go to a worker queue (never the store's own queue, which they wait on) and the
// results come back to the owner's queue, where they are read.
//
// Threading: construct, start, setRegion and the getters on the owner's queue only.

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "core/clock.hpp"
#include "core/serial_queue.hpp"
#include "insights/carbon_footprint_service.hpp"
#include "insights/habit_grade_history_store.hpp"
#include "insights/habit_scoring_service.hpp"

namespace quorel {

class InsightsRefresher {
 public:
  static constexpr Seconds kCarbonRefreshInterval{300};
  static constexpr Seconds kHabitRefreshInterval{3600};

  // Everything must outlive the refresher. `ownerQueue` is where the timers run and results
  // land; `workQueue` runs the store reads.
  InsightsRefresher(CarbonFootprintService& carbon, HabitScoringService& habits,
                    HabitGradeHistoryStore& history, SerialQueue& ownerQueue,
                    SerialQueue& workQueue, const Clock& clock);
  ~InsightsRefresher();
  InsightsRefresher(const InsightsRefresher&) = delete;
  InsightsRefresher& operator=(const InsightsRefresher&) = delete;

  // Called with nothing when a result changed what the getters return.
  void setOnChange(std::function<void()> onChange) { onChange_ = std::move(onChange); }
  // Starts both schedules; each runs once at once.
  void start();
  // A region that names none clears the carbon figure. A change refreshes at once.
  void setRegion(std::optional<CarbonRegionIntensity> region);

  const std::optional<double>& carbonGrams() const { return carbonGrams_; }
  const std::optional<HabitScore>& habitScore() const { return habitScore_; }
  const std::vector<HabitGradeSnapshot>& habitHistory() const { return habitHistory_; }

 private:
  void refreshCarbon();
  void refreshHabit();
  // Posts `work` to the worker and its result back here, unless the refresher is gone by then.
  template <class T>
  void offload(std::function<T()> work, std::function<void(T)> deliver);
  void changed();

  CarbonFootprintService& carbon_;
  HabitScoringService& habits_;
  HabitGradeHistoryStore& history_;
  SerialQueue& ownerQueue_;
  SerialQueue& workQueue_;
  const Clock& clock_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::function<void()> onChange_;
  TimerHandle carbonTimer_;
  TimerHandle habitTimer_;
  std::optional<CarbonRegionIntensity> region_;
  bool carbonInFlight_ = false;
  bool carbonAgain_ = false;  // the region changed while a read was running
  bool habitInFlight_ = false;
  std::optional<double> carbonGrams_;
  std::optional<HabitScore> habitScore_;
  std::vector<HabitGradeSnapshot> habitHistory_;
};

}  // namespace quorel
