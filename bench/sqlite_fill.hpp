#pragma once
// Filling a benchmark's database in plain SQL, one transaction, so that a year of history takes
// seconds rather than the write path's minutes.

#include <sqlite3.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "core/iso8601.hpp"

namespace quorel::bench {

inline void exec(sqlite3* db, const char* sql) {
  if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
    throw std::runtime_error(std::string(sqlite3_errmsg(db)) + " in: " + sql);
  }
}

// Steps `sql` once per call with the values given, then resets it.
class Insert {
 public:
  Insert(sqlite3* db, const char* sql) {
    if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK) {
      throw std::runtime_error(sqlite3_errmsg(db));
    }
  }
  ~Insert() { sqlite3_finalize(statement_); }
  Insert(const Insert&) = delete;
  Insert& operator=(const Insert&) = delete;
  template <class... T>
  void operator()(T... values) {
    int i = 0;
    (bind(++i, values), ...);
    if (sqlite3_step(statement_) != SQLITE_DONE) throw std::runtime_error("insert");
    sqlite3_reset(statement_);
  }

 private:
  void bind(int i, double v) { sqlite3_bind_double(statement_, i, v); }
  void bind(int i, const std::string& v) {
    sqlite3_bind_text(statement_, i, v.c_str(), -1, SQLITE_TRANSIENT);
  }
  sqlite3_stmt* statement_ = nullptr;
};

// A year of days from `start`: a daily metric each (capacity fading, cycles rising) and three
// sessions, the last of them charging.
inline void fillDaysAndSessions(sqlite3* db, double start, int days) {
  constexpr double kDay = 86400;
  Insert day(db,
             "INSERT INTO daily_battery_metrics (day_key, day_start, nominal_capacity_mah, "
             "design_capacity_mah, cycle_count, health_pct, avg_temperature_c, "
             "max_temperature_c) VALUES (?,?,?,?,?,?,?,?)");
  Insert session(db,
                 "INSERT INTO sessions (id, start_time, end_time, start_pct, end_pct, "
                 "is_charging, mode, quality, confidence, collected_duration_s) "
                 "VALUES (?,?,?,?,?,?,'battery','measured',0.9,3600)");
  for (int d = 0; d < days; ++d) {
    const double dayStart = start + d * kDay;
    const std::string key = formatIso8601(fromUnixSeconds(dayStart)).substr(0, 10);
    day(key, dayStart, 5000 - 2.0 * d, 5000.0, 1.0 * d, 100 - 0.04 * d, 34.0, 41.0);
    for (int s = 0; s < 3; ++s) {
      char id[37];
      std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d", d * 3 + s);
      session(std::string(id), dayStart + s * 28800, dayStart + s * 28800 + 3600, 30.0, 80.0,
              s == 2 ? 1.0 : 0.0);
    }
  }
}

}  // namespace quorel::bench
