#pragma once
// Taking history out of the store: which tables can leave, in which columns, and the text forms
// they leave in. The reading itself is QuorelDatabase::exportCSV and exportJSON; what is here is
// pure and thread-agnostic.
//
// Values leave as stored: times (REAL seconds) as ISO-8601 UTC with milliseconds, 0/1 flags as
// true/false, numbers in the shortest form that reads back to the same double, NULL as an empty
// CSV field or a JSON null.

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/clock.hpp"

namespace quorel {

enum class ExportSeries {
  power,
  battery,
  sessions,
  processEnergy,
  aiEnergy,
  dailyMetrics,
  collection,
  batteryEpochs,
};

inline constexpr std::array<ExportSeries, 8> kAllExportSeries = {
    ExportSeries::power,         ExportSeries::battery,       ExportSeries::sessions,
    ExportSeries::processEnergy, ExportSeries::aiEnergy,      ExportSeries::dailyMetrics,
    ExportSeries::collection,    ExportSeries::batteryEpochs,
};

// "power", "processEnergy", ...: the names scripts and the command line use.
std::string_view rawValue(ExportSeries series);
std::optional<ExportSeries> exportSeriesFromRawValue(std::string_view text);
// "Power samples", "Per-app energy", ...
std::string_view displayName(ExportSeries series);
// "power", "app-energy", ...: the part of a file name that says what it holds.
std::string_view fileSlug(ExportSeries series);

// How one series is read: the table, its output and SQL column names (same length, same order),
// and which columns hold times and flags.
struct SeriesQuery {
  std::string_view table;
  std::vector<std::string_view> columns;
  std::vector<std::string_view> selectColumns;
  std::string_view timeColumn;
  std::vector<std::string_view> isoColumns;
  std::vector<std::string_view> boolColumns;
};
const SeriesQuery& seriesQuery(ExportSeries series);

// One read of an export: rows with start <= time < end, or <= end for the last.
struct ExportWindow {
  double start = 0;  // seconds since 1970
  double end = 0;
  bool isLast = false;

  bool operator==(const ExportWindow&) const = default;
};
// Day-long windows from `from` to `to` (seconds); none when from > to, one when they are equal.
std::vector<ExportWindow> exportWindows(double from, double to);
// The statement that reads one window of `query`, with the two bounds as parameters.
std::string windowSelect(const SeriesQuery& query, bool isLast);

// Quotes what a CSV reader would split or a spreadsheet would evaluate.
std::string csvEscape(std::string_view text);

// Why an export did not complete. `context` names the step ("exportCSV create temp",
// "exportCSV power_samples prepare"), `reason` what the system or SQLite said.
struct ExportFailure {
  // Where it failed: the file beside the target, or the history it reads.
  enum class Stage { target, history };
  Stage stage = Stage::history;
  std::string context;
  std::string reason;

  std::string describe() const { return context + ": " + reason; }
};

struct ExportResult {
  std::int64_t rows = 0;
  std::optional<ExportFailure> failure;

  bool ok() const { return !failure; }
};

// A JSON export and what became of it.
struct JSONExport {
  std::string document;
  std::int64_t rows = 0;
  // Series cut short at the cap.
  std::vector<ExportSeries> truncated;
  // The first series that could not be read (it stands empty in the document).
  std::optional<ExportFailure> failure;
};

// Called after each window on the exporting thread.
struct ExportProgress {
  std::size_t windowsDone = 0;
  std::size_t windowsTotal = 0;
  std::int64_t rows = 0;
};
using ExportProgressHandler = std::function<void(const ExportProgress&)>;

// JSON keeps the whole document in memory, so each series stops here.
inline constexpr std::int64_t kExportJSONRowCap = 1'000'000;

// "quorel-<slug>-<from day>.<extension>", or "...-<from day>-to-<to day>..." when the period
// crosses days (UTC). Several series share the slug "history".
std::string defaultExportFileName(std::span<const ExportSeries> series, TimePoint from,
                                  TimePoint to, std::string_view extension);

// Text forms of single values, appended so that a row is built without temporaries.
namespace export_text {
// The shortest text that reads back to the same double ("0.1", "12", "1e+21").
void appendNumber(std::string& out, double value);
void appendInteger(std::string& out, std::int64_t value);
// formatIso8601(fromUnixSeconds(seconds)), remembering the last day's date so that a run of
// rows on one day formats only the time of day.
class IsoFormatter {
 public:
  void append(std::string& out, double seconds);

 private:
  std::int64_t day_ = std::numeric_limits<std::int64_t>::min();
  char date_[24] = {};
  std::size_t dateLength_ = 0;
};
// A JSON string literal, quotes included.
void appendJSONString(std::string& out, std::string_view text);
}  // namespace export_text

}  // namespace quorel
