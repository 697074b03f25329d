#pragma once
// The answers of the history tools, read from the store and shaped as assistants receive them.
// The snapshot provider runs these on the store's queue; `quorel history --json` runs them on its
// own read-only connection, so a script and an assistant see the same objects.
//
// Threading: each call reads through QuorelDatabase's read path, which runs in place on the
// store's queue or waits for it from elsewhere. A failed read gives the store's words.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/clock.hpp"
#include "core/json_value.hpp"
#include "core/result.hpp"
#include "insights/carbon_footprint_service.hpp"
#include "store/history_read_records.hpp"
#include "store/history_records.hpp"

namespace quorel {

class QuorelDatabase;

namespace snapshot_history {

// The limits the ranked and listed answers accept; anything outside is brought to the nearer end.
inline constexpr int kMinimumLimit = 1;
inline constexpr int kMaximumLimit = 500;
// The series behind a ranking's "current_w" is thinned to this many points.
inline constexpr int kCurrentPowerSeriesPoints = 200;
// A ranked entry's current power is the mean of its buckets this close to the range's end.
inline constexpr double kCurrentPowerWindow_s = 90;

int clampedLimit(std::int64_t limit);
// The mean of `identifier`'s buckets at or after `end` less kCurrentPowerWindow_s; 0 without any.
double currentWatts(const EnergySeries& series, const std::string& identifier, TimePoint end);

// What a ranking is made of: the ranked summaries, and the series behind their "current_w".
struct RankingReads {
  std::vector<TrackedEnergySummary> summaries;
  EnergySeries series;
};
Result<RankingReads> readRanking(QuorelDatabase& db, EnergyHistoryKind kind, TimePoint from,
                                 TimePoint to, std::int64_t limit);

// {"available":true,"from","to","count","coverage","samples"} for [from, to].
Result<JSONValue> powerHistory(QuorelDatabase& db, TimePoint from, TimePoint to, int maxPoints);
// {"available":true,"from","to","apps"} (or "agents"), ranked by energy, `limit` clamped.
Result<JSONValue> energyRanking(QuorelDatabase& db, EnergyHistoryKind kind, TimePoint from,
                                TimePoint to, std::int64_t limit);
// {"available":true,"count","sessions"}, newest first, `limit` clamped.
Result<JSONValue> recentSessions(QuorelDatabase& db, std::int64_t limit);
// {"available":true,"epoch","count","trend"}; "epoch" null while no battery has been seen.
Result<JSONValue> batteryHealthTrend(QuorelDatabase& db);
// The lifetime energy with its span and coverage, and today's carbon in `region` as of `now`.
Result<JSONValue> energyTotals(QuorelDatabase& db, CarbonFootprintService& carbon,
                               const CarbonRegionIntensity& region, TimePoint now);
// The coverage object of [from, to] alone.
Result<JSONValue> coverage(QuorelDatabase& db, TimePoint from, TimePoint to);

}  // namespace snapshot_history
}  // namespace quorel
