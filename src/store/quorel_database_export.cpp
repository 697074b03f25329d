// Exports: a series read a day at a time off the store's queue and written as CSV or JSON text.

#include <spdlog/spdlog.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "store/export_file.hpp"
#include "store/quorel_database.hpp"

namespace quorel {

namespace {

using export_text::IsoFormatter;

enum class ColumnKind { plain, iso, flag };

// One series ready to read: its two statements and how each column leaves.
struct PreparedExport {
  explicit PreparedExport(ExportSeries series, std::string_view operation)
      : query(seriesQuery(series)),
        context(std::string(operation) + " " + std::string(query.table)),
        select{windowSelect(query, false), windowSelect(query, true)} {
    const auto has = [](const auto& names, std::string_view name) {
      return std::find(names.begin(), names.end(), name) != names.end();
    };
    for (const auto name : query.selectColumns) {
      kinds.push_back(has(query.isoColumns, name)    ? ColumnKind::iso
                      : has(query.boolColumns, name) ? ColumnKind::flag
                                                     : ColumnKind::plain);
    }
  }
  const std::string& sql(const ExportWindow& window) const { return select[window.isLast]; }

  const SeriesQuery& query;
  std::string context;
  std::string select[2];
  std::vector<ColumnKind> kinds;
};

std::string_view textOf(sqlite3_stmt* row, int column) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
  return {text ? text : "", static_cast<std::size_t>(sqlite3_column_bytes(row, column))};
}

void appendCSVText(std::string& out, std::string_view text) {
  // Most stored texts are plain labels; they go out as they are without a temporary.
  const bool plain =
      text.find_first_of(",\"\n\r") == std::string_view::npos &&
      (text.empty() || std::string_view("=+-@").find(text.front()) == std::string_view::npos);
  if (plain) {
    out += text;
  } else {
    out += csvEscape(text);
  }
}

// One value in its exported form, NULL as nothing in CSV and null in JSON; false when a number
// has no JSON form (infinity).
bool appendValue(std::string& out, sqlite3_stmt* row, int c, ColumnKind kind, IsoFormatter& iso,
                 bool json) {
  const int type = sqlite3_column_type(row, c);
  if (type == SQLITE_NULL) {
    if (json) out += "null";
  } else if (kind == ColumnKind::iso) {
    if (json) out += '"';
    iso.append(out, sqlite3_column_double(row, c));
    if (json) out += '"';
  } else if (kind == ColumnKind::flag) {
    out += sqlite3_column_int64(row, c) != 0 ? "true" : "false";
  } else if (type == SQLITE_TEXT) {
    json ? export_text::appendJSONString(out, textOf(row, c)) : appendCSVText(out, textOf(row, c));
  } else if (type == SQLITE_INTEGER) {
    export_text::appendInteger(out, sqlite3_column_int64(row, c));
  } else {
    const double value = sqlite3_column_double(row, c);
    if (json && !std::isfinite(value)) return false;
    export_text::appendNumber(out, value);
  }
  return true;
}

void appendCSVRow(std::string& out, sqlite3_stmt* row, const std::vector<ColumnKind>& kinds,
                  IsoFormatter& iso) {
  for (int c = 0; c < static_cast<int>(kinds.size()); ++c) {
    if (c > 0) out += ',';
    appendValue(out, row, c, kinds[static_cast<std::size_t>(c)], iso, false);
  }
  out += '\n';
}

// `keys` holds each column's `"name":` with the separating comma before all but the first.
bool appendJSONRow(std::string& out, sqlite3_stmt* row, const std::vector<ColumnKind>& kinds,
                   const std::vector<std::string>& keys, IsoFormatter& iso) {
  out += '{';
  for (int c = 0; c < static_cast<int>(kinds.size()); ++c) {
    out += keys[static_cast<std::size_t>(c)];
    if (!appendValue(out, row, c, kinds[static_cast<std::size_t>(c)], iso, true)) return false;
  }
  out += '}';
  return true;
}

std::vector<std::string> jsonKeys(const SeriesQuery& query) {
  std::vector<std::string> keys;
  for (const auto name : query.columns) {
    std::string key = keys.empty() ? "" : ",";
    export_text::appendJSONString(key, name);
    keys.push_back(key + ':');
  }
  return keys;
}

}  // namespace

// Where JSON text goes: kept whole in `text` (a document in memory), or handed to a seekable
// descriptor after each day so that a month of rows never sits in memory at once. A series that
// fails, or a value JSON cannot hold, takes the text back to an earlier position, in memory or
// in the file.
class JSONSink {
 public:
  JSONSink() = default;
  explicit JSONSink(int fd) : fd_(fd) {}

  std::string& text() { return text_; }
  std::int64_t position() const { return flushed_ + static_cast<std::int64_t>(text_.size()); }

  std::optional<ExportFailure> flush() {
    if (fd_ < 0 || text_.empty()) return std::nullopt;
    if (const int error = writeAll(fd_, text_)) return failure("write", error);
    flushed_ += static_cast<std::int64_t>(text_.size());
    text_.clear();
    return std::nullopt;
  }

  std::optional<ExportFailure> rewind(std::int64_t position) {
    if (position >= flushed_) {
      text_.resize(static_cast<std::size_t>(position - flushed_));
      return std::nullopt;
    }
    text_.clear();
    if (::ftruncate(fd_, position) != 0) return failure("truncate", errno);
    if (::lseek(fd_, position, SEEK_SET) < 0) return failure("seek", errno);
    flushed_ = position;
    return std::nullopt;
  }

  // In memory only: room for `bytes` more, so that a large document is not copied over and over
  // as it grows.
  void expect(std::size_t bytes) {
    if (fd_ < 0) text_.reserve(text_.size() + bytes);
  }

 private:
  static ExportFailure failure(std::string_view step, int error) {
    return ExportFailure{ExportFailure::Stage::target, "exportJSON " + std::string(step),
                         std::strerror(error)};
  }

  int fd_ = -1;
  std::string text_;
  std::int64_t flushed_ = 0;
};

namespace {}  // namespace

std::optional<ExportFailure> QuorelDatabase::readExportWindow(
    const std::string& sql, const ExportWindow& window, const std::string& context,
    const std::function<bool(sqlite3_stmt*)>& row) {
  return onQueue([&]() -> std::optional<ExportFailure> {
    if (!db_)
      return ExportFailure{ExportFailure::Stage::history, context, unavailableError().message};
    int rc = SQLITE_OK;
    SqliteStatement statement = prepareStatement(db_.get(), sql.c_str(), rc);
    if (!statement) {
      db_.logError(rc, context + " prepare");
      return ExportFailure{ExportFailure::Stage::history, context + " prepare", db_.errorMessage()};
    }
    sqlite3_bind_double(statement.get(), 1, window.start);
    sqlite3_bind_double(statement.get(), 2, window.end);
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
      if (!row(statement.get())) return std::nullopt;
    }
    if (rc == SQLITE_DONE) return std::nullopt;
    db_.logError(rc, context + " step");
    return ExportFailure{ExportFailure::Stage::history, context + " step", db_.errorMessage()};
  });
}

ExportResult QuorelDatabase::exportCSV(ExportSeries series, TimePoint from, TimePoint to,
                                       const std::filesystem::path& target,
                                       const ExportProgressHandler& progress) {
  ExportFile file(target, "exportCSV");
  if (auto failure = file.create()) return {0, std::move(failure)};
  ExportResult result = writeCSV(series, from, to, file.descriptor(), progress);
  if (result.ok()) result.failure = file.commit();
  // Without a commit the file removes its temporary on the way out.
  return result;
}

ExportResult QuorelDatabase::writeCSV(ExportSeries series, TimePoint from, TimePoint to, int fd,
                                      const ExportProgressHandler& progress) {
  const PreparedExport prepared(series, "exportCSV");
  const auto written = [&](std::string_view text) -> std::optional<ExportFailure> {
    const int error = writeAll(fd, text);
    if (error == 0) return std::nullopt;
    return ExportFailure{ExportFailure::Stage::target, "exportCSV write", std::strerror(error)};
  };
  std::string chunk;
  for (const auto name : prepared.query.columns) {
    if (!chunk.empty()) chunk += ',';
    chunk += name;
  }
  chunk += '\n';
  ExportResult result;
  if ((result.failure = written(chunk))) return result;

  const auto windows = exportWindows(toUnixSeconds(from), toUnixSeconds(to));
  IsoFormatter iso;
  for (std::size_t i = 0; i < windows.size(); ++i) {
    chunk.clear();
    result.failure = readExportWindow(prepared.sql(windows[i]), windows[i], prepared.context,
                                      [&](sqlite3_stmt* row) {
                                        appendCSVRow(chunk, row, prepared.kinds, iso);
                                        ++result.rows;
                                        return true;
                                      });
    if (result.failure || (result.failure = written(chunk))) return result;
    if (progress) progress({i + 1, windows.size(), result.rows});
  }
  return result;
}

std::variant<QuorelDatabase::JSONSeriesOutcome, ExportFailure> QuorelDatabase::appendJSONSeries(
    JSONExport& out, JSONSink& sink, ExportSeries series, double from, double to,
    std::int64_t rowCap) {
  const PreparedExport prepared(series, "exportJSON");
  const auto keys = jsonKeys(prepared.query);
  std::string& text = sink.text();
  export_text::appendJSONString(text, rawValue(series));
  text += ":[";
  const std::int64_t firstRow = sink.position();
  std::int64_t rows = 0;
  bool writable = true;
  bool capped = false;
  IsoFormatter iso;
  const auto windows = exportWindows(from, to);
  for (std::size_t i = 0; i < windows.size(); ++i) {
    const ExportWindow& window = windows[i];
    // Once the first day shows how large a day is, the rest is made room for at once.
    if (i == 1 && sink.position() > firstRow) {
      sink.expect(static_cast<std::size_t>(sink.position() - firstRow) * (windows.size() - 1) * 11 /
                  10);
    }
    auto failure =
        readExportWindow(prepared.sql(window), window, prepared.context, [&](sqlite3_stmt* row) {
          if (rows == rowCap) {
            capped = true;
            return false;
          }
          if (rows++ > 0) text += ',';
          writable = appendJSONRow(text, row, prepared.kinds, keys, iso);
          return writable;
        });
    if (failure) {
      // A series that cannot be read stands empty rather than half there.
      if (auto rewound = sink.rewind(firstRow)) return *rewound;
      rows = 0;
      if (!out.failure) out.failure = std::move(failure);
      break;
    }
    if (!writable) return QuorelDatabase::JSONSeriesOutcome::unwritable;
    if (capped) {
      log_->warn(
          "exportJSON {}: truncated at {} rows (F-db-003 memory cap; use CSV export for the full "
          "dataset)",
          prepared.query.table, rows);
      out.truncated.push_back(series);
      break;
    }
    if (auto flushed = sink.flush()) return *flushed;
  }
  text += ']';
  out.rows += rows;
  return QuorelDatabase::JSONSeriesOutcome::written;
}

JSONExport QuorelDatabase::writeJSONTo(JSONSink& sink, const std::vector<ExportSeries>& series,
                                       TimePoint from, TimePoint to, std::int64_t rowCap) {
  JSONExport out;
  sink.text() += "{\"exported_at\":\"" + formatIso8601(clock_.now()) + "\",\"from\":\"" +
                 formatIso8601(from) + "\",\"to\":\"" + formatIso8601(to) + "\",\"series\":{";
  std::vector<ExportSeries> done;
  bool whole = true;
  for (const ExportSeries s : series) {
    if (std::find(done.begin(), done.end(), s) != done.end()) continue;
    if (!done.empty()) sink.text() += ',';
    done.push_back(s);
    auto outcome = appendJSONSeries(out, sink, s, toUnixSeconds(from), toUnixSeconds(to), rowCap);
    if (auto* failure = std::get_if<ExportFailure>(&outcome)) {
      out.failure = std::move(*failure);
      return out;
    }
    if (std::get<JSONSeriesOutcome>(outcome) == QuorelDatabase::JSONSeriesOutcome::unwritable) {
      log_->error("exportJSON: a value of {} is not a finite number, which JSON cannot hold",
                  seriesQuery(s).table);
      out = JSONExport{};
      if (auto rewound = sink.rewind(0)) out.failure = std::move(*rewound);
      sink.text() = "{}";
      whole = false;
      break;
    }
  }
  if (whole) sink.text() += "}}";
  if (auto flushed = sink.flush(); flushed && !out.failure) out.failure = std::move(*flushed);
  return out;
}

JSONExport QuorelDatabase::exportJSONDocument(const std::vector<ExportSeries>& series,
                                              TimePoint from, TimePoint to, std::int64_t rowCap) {
  JSONSink sink;
  JSONExport out = writeJSONTo(sink, series, from, to, rowCap);
  out.document = std::move(sink.text());
  return out;
}

JSONExport QuorelDatabase::writeJSON(const std::vector<ExportSeries>& series, TimePoint from,
                                     TimePoint to, int fd, std::int64_t rowCap) {
  JSONSink sink(fd);
  return writeJSONTo(sink, series, from, to, rowCap);
}

std::string QuorelDatabase::exportJSON(const std::vector<ExportSeries>& series, TimePoint from,
                                       TimePoint to) {
  return exportJSONDocument(series, from, to).document;
}

}  // namespace quorel
