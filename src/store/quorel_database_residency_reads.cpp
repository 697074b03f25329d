// The read behind the residency of charge and temperature: observed seconds per whole percent and
// whole degree, so that a year of samples reaches its reader as a few thousand totals.

#include <cmath>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "store/quorel_database.hpp"
#include "store/sqlite_binder.hpp"

namespace quorel {

namespace {

// Grouped here rather than by SQLite: its GROUP BY sorts, and over a year of samples the sort
// costs five times the scan. The unary plus keeps SQLite off the time index, since the window
// usually spans most of the table and a scan beats a lookup per row.
constexpr const char* kResidencyRows =
    "SELECT battery_pct, temperature_c, MIN(observed_duration_s, 300.0) FROM power_samples\n"
    "WHERE +timestamp BETWEEN ? AND ? AND observed_duration_s > 0";

// The whole number at or below `value`; absent for a missing or unrepresentable reading.
std::optional<std::int64_t> floored(std::optional<double> value) {
  if (!value || !std::isfinite(*value) || std::abs(*value) > 1e15) return std::nullopt;
  return static_cast<std::int64_t>(std::floor(*value));
}

}  // namespace

Result<std::vector<ResidencyObservation>> QuorelDatabase::queryResidencyObservations(TimePoint from,
                                                                                     TimePoint to) {
  return onQueue([&]() -> Result<std::vector<ResidencyObservation>> {
    if (!db_) return unavailableError();
    int rc = SQLITE_OK;
    auto statement = prepareStatement(db_.get(), kResidencyRows, rc);
    if (!statement) return readFailure(rc, "queryResidencyObservations prepare");
    Binder(statement.get()).time(from).time(to);
    using Key = std::pair<std::optional<std::int64_t>, std::optional<std::int64_t>>;
    std::map<Key, double> seconds;
    // Charge and temperature move slowly, so most rows land where the one before did.
    auto last = seconds.end();
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
      ColumnReader c(statement.get());
      Key key{floored(c.optionalReal()), floored(c.optionalReal())};
      if (last == seconds.end() || last->first != key) {
        last = seconds.try_emplace(std::move(key), 0.0).first;
      }
      last->second += c.real();
    }
    if (rc != SQLITE_DONE) return readFailure(rc, "queryResidencyObservations step");
    std::vector<ResidencyObservation> rows;
    rows.reserve(seconds.size());
    for (const auto& [key, total] : seconds) rows.push_back({key.first, key.second, total});
    return rows;
  });
}

}  // namespace quorel
