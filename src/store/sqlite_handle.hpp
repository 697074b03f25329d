#pragma once
// Owning wrappers for SQLite's C handles.

#include <sqlite3.h>

#include <memory>

namespace quorel {

struct SqliteConnectionCloser {
  // close_v2 defers the close until every statement is finalized, so teardown order between a
  // connection and its cached statements can never leak or crash.
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using SqliteConnection = std::unique_ptr<sqlite3, SqliteConnectionCloser>;

struct SqliteStatementFinalizer {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using SqliteStatement = std::unique_ptr<sqlite3_stmt, SqliteStatementFinalizer>;

// Prepares `sql` on `db`; null with the result code in `rc` when SQLite refuses it.
inline SqliteStatement prepareStatement(sqlite3* db, const char* sql, int& rc) {
  sqlite3_stmt* raw = nullptr;
  rc = sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
  SqliteStatement statement(raw);
  if (rc != SQLITE_OK) statement.reset();
  return statement;
}

}  // namespace quorel
