#pragma once
// Owning wrappers for SQLite's C handles. The handle types are only named here, so that a header
// holding them does not bring <sqlite3.h> to everyone who includes it.

#include <memory>

struct sqlite3;
struct sqlite3_stmt;

namespace quorel {

struct SqliteConnectionCloser {
  // close_v2 defers the close until every statement is finalized, so teardown order between a
  // connection and its cached statements can never leak or crash.
  void operator()(sqlite3* db) const;
};
using SqliteHandle = std::unique_ptr<sqlite3, SqliteConnectionCloser>;

struct SqliteStatementFinalizer {
  void operator()(sqlite3_stmt* statement) const;
};
using SqliteStatement = std::unique_ptr<sqlite3_stmt, SqliteStatementFinalizer>;

// Prepares `sql` on `db`; null with the result code in `rc` when SQLite refuses it.
SqliteStatement prepareStatement(sqlite3* db, const char* sql, int& rc);

}  // namespace quorel
