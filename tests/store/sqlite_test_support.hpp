#pragma once
// A second, plain connection that tests use to build files and to look at what the store left
// behind, independent of the code under test.

#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace quorel::testing {

using SqlValue = std::variant<std::nullptr_t, std::int64_t, double, std::string>;

class SqlFile {
 public:
  explicit SqlFile(const std::filesystem::path& file) {
    if (sqlite3_open(file.c_str(), &db_) != SQLITE_OK) {
      throw std::runtime_error("cannot open " + file.string());
    }
  }
  ~SqlFile() { sqlite3_close_v2(db_); }
  SqlFile(const SqlFile&) = delete;
  SqlFile& operator=(const SqlFile&) = delete;

  sqlite3* handle() const { return db_; }

  // Runs statements that must succeed.
  void exec(const std::string& sql) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
      std::string text = message ? message : "unknown";
      sqlite3_free(message);
      throw std::runtime_error(text + " in: " + sql);
    }
  }
  // Runs a statement that may fail; returns the result code.
  int tryExec(const std::string& sql) {
    return sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr);
  }

  void insert(const std::string& table,
              const std::vector<std::pair<std::string, SqlValue>>& values) {
    std::string columns;
    std::vector<SqlValue> cells;
    for (const auto& [name, value] : values) {
      columns += (columns.empty() ? "" : ", ") + name;
      cells.push_back(value);
    }
    insert(table, columns, cells);
  }
  // `columns` as in SQL, "a, b, c", with one value for each.
  void insert(const std::string& table, const std::string& columns,
              const std::vector<SqlValue>& values) {
    std::string marks = "?";
    for (std::size_t i = 1; i < values.size(); ++i) marks += ", ?";
    sqlite3_stmt* statement =
        prepare("INSERT INTO " + table + " (" + columns + ") VALUES (" + marks + ")");
    for (int index = 1; const auto& value : values) {
      if (const auto* i = std::get_if<std::int64_t>(&value)) {
        sqlite3_bind_int64(statement, index, *i);
      } else if (const auto* d = std::get_if<double>(&value)) {
        sqlite3_bind_double(statement, index, *d);
      } else if (const auto* s = std::get_if<std::string>(&value)) {
        sqlite3_bind_text(statement, index, s->c_str(), static_cast<int>(s->size()),
                          SQLITE_TRANSIENT);
      }
      ++index;
    }
    const int rc = sqlite3_step(statement);
    sqlite3_finalize(statement);
    if (rc != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(db_) + (" in " + table));
  }

  // Every row as text cells; NULL reads as "NULL", reals in shortest round-trip form.
  std::vector<std::vector<std::string>> rows(const std::string& sql) const {
    sqlite3_stmt* statement = prepare(sql);
    std::vector<std::vector<std::string>> result;
    while (sqlite3_step(statement) == SQLITE_ROW) {
      auto& row = result.emplace_back();
      for (int c = 0; c < sqlite3_column_count(statement); ++c) {
        const bool null = sqlite3_column_type(statement, c) == SQLITE_NULL;
        row.emplace_back(null ? "NULL"
                              : reinterpret_cast<const char*>(sqlite3_column_text(statement, c)));
      }
    }
    sqlite3_finalize(statement);
    return result;
  }

  std::optional<double> real(const std::string& sql) const {
    auto r = single(sql);
    return r ? std::optional(std::stod(*r)) : std::nullopt;
  }
  std::int64_t integer(const std::string& sql) const {
    auto r = single(sql);
    if (!r) throw std::runtime_error("NULL from: " + sql);
    return std::stoll(*r);
  }
  std::optional<std::string> text(const std::string& sql) const { return single(sql); }

 private:
  sqlite3_stmt* prepare(const std::string& sql) const {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
      throw std::runtime_error(std::string(sqlite3_errmsg(db_)) + " in: " + sql);
    }
    return statement;
  }
  std::optional<std::string> single(const std::string& sql) const {
    auto all = rows(sql);
    if (all.size() != 1 || all.front().size() != 1) {
      throw std::runtime_error("expected one value from: " + sql);
    }
    if (all.front().front() == "NULL") return std::nullopt;
    return all.front().front();
  }

  sqlite3* db_ = nullptr;
};

// A fresh directory under the system's temporary one, removed with everything in it, also when a
// test took its permissions away.
class ScratchDirectory {
 public:
  explicit ScratchDirectory(const std::string& prefix) {
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp " + pattern);
    path_ = pattern;
  }
  ~ScratchDirectory() {
    std::error_code ec;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ec);
    std::filesystem::remove_all(path_, ec);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace quorel::testing
