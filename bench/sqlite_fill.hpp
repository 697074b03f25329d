#pragma once
// Filling a benchmark's database in plain SQL, one transaction, so that a year of history takes
// seconds rather than the write path's minutes.

#include <sqlite3.h>

#include <stdexcept>
#include <string>

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

}  // namespace quorel::bench
