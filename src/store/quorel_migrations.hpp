#pragma once
// Carrying an older history file to the current schema. Each step is frozen as it first shipped:
// a step may copy a table in the shape it had then, never in today's.

namespace spdlog {
class logger;
}

namespace quorel {

class SqliteConnection;

// Runs the steps from the file's user_version up to schema::kVersion in one transaction, then
// sets the version. A step that fails rolls everything back, so the next start tries again from
// the old version; a file newer than this program is left as it is. Logs to `log`; failures of
// SQLite go through the connection's classifier.
void migrateSchema(SqliteConnection& db, spdlog::logger& log);

}  // namespace quorel
