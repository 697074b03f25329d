#pragma once
// Binding parameters and reading columns by position, counting the index so that a statement's
// column order is written down once, in the call chain.

#include <sqlite3.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/clock.hpp"
#include "core/component_power.hpp"

namespace quorel {

// Binds in parameter order after resetting the statement and clearing its old bindings. Texts
// are copied by SQLite, so temporaries are safe.
class Binder {
 public:
  explicit Binder(sqlite3_stmt* statement) : statement_(statement) {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
  }
  Binder& real(double value) {
    sqlite3_bind_double(statement_, index_++, value);
    return *this;
  }
  Binder& real(const std::optional<double>& value) {
    if (value) return real(*value);
    sqlite3_bind_null(statement_, index_++);
    return *this;
  }
  Binder& time(TimePoint t) { return real(toUnixSeconds(t)); }
  Binder& integer(std::int64_t value) {
    sqlite3_bind_int64(statement_, index_++, value);
    return *this;
  }
  Binder& integer(const std::optional<std::int64_t>& value) {
    if (value) return integer(*value);
    sqlite3_bind_null(statement_, index_++);
    return *this;
  }
  Binder& boolean(bool value) { return integer(value ? 1 : 0); }
  Binder& text(std::string_view value) {
    sqlite3_bind_text(statement_, index_++, value.data(), static_cast<int>(value.size()),
                      SQLITE_TRANSIENT);
    return *this;
  }
  Binder& optionalText(const std::optional<std::string>& value) {
    if (value) return text(std::string_view(*value));
    sqlite3_bind_null(statement_, index_++);
    return *this;
  }

 private:
  sqlite3_stmt* statement_;
  int index_ = 1;
};

// Reads the columns of the current row in order. NULL reads as absent for the optional forms and
// as 0 or "" for the others, as SQLite's own column calls do.
class ColumnReader {
 public:
  explicit ColumnReader(sqlite3_stmt* statement, int first = 0)
      : statement_(statement), index_(first) {}

  bool isNull() const { return sqlite3_column_type(statement_, index_) == SQLITE_NULL; }
  ColumnReader& skip() {
    ++index_;
    return *this;
  }
  double real() { return sqlite3_column_double(statement_, index_++); }
  std::optional<double> optionalReal() {
    if (isNull()) {
      ++index_;
      return std::nullopt;
    }
    return real();
  }
  TimePoint time() { return fromUnixSeconds(real()); }
  std::optional<TimePoint> optionalTime() {
    auto seconds = optionalReal();
    if (!seconds) return std::nullopt;
    return fromUnixSeconds(*seconds);
  }
  std::int64_t integer() { return sqlite3_column_int64(statement_, index_++); }
  std::optional<std::int64_t> optionalInteger() {
    if (isNull()) {
      ++index_;
      return std::nullopt;
    }
    return integer();
  }
  std::optional<std::string> optionalText() {
    const auto* raw = sqlite3_column_text(statement_, index_);
    const int size = sqlite3_column_bytes(statement_, index_);
    ++index_;
    if (raw == nullptr) return std::nullopt;
    return std::string(reinterpret_cast<const char*>(raw), static_cast<std::size_t>(size));
  }
  std::string text() { return optionalText().value_or(std::string()); }
  // A stored quality label; an absent or unknown one reads as unavailable.
  HistoricalValueQuality quality() {
    const auto label = optionalText();
    if (!label) return HistoricalValueQuality::unavailable;
    return historicalValueQualityFromString(*label).value_or(HistoricalValueQuality::unavailable);
  }

 private:
  sqlite3_stmt* statement_;
  int index_;
};

}  // namespace quorel
