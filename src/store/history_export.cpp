#include "store/history_export.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "core/enum_text.hpp"

namespace quorel {

namespace {

constexpr double kWindow_s = 86400.0;

constexpr EnumTextTable<ExportSeries, 8> kRawValues{{{
    {ExportSeries::power, "power"},
    {ExportSeries::battery, "battery"},
    {ExportSeries::sessions, "sessions"},
    {ExportSeries::processEnergy, "processEnergy"},
    {ExportSeries::aiEnergy, "aiEnergy"},
    {ExportSeries::dailyMetrics, "dailyMetrics"},
    {ExportSeries::collection, "collection"},
    {ExportSeries::batteryEpochs, "batteryEpochs"},
}}};

constexpr EnumTextTable<ExportSeries, 8> kDisplayNames{{{
    {ExportSeries::power, "Power samples"},
    {ExportSeries::battery, "Battery health"},
    {ExportSeries::sessions, "Charge sessions"},
    {ExportSeries::processEnergy, "Per-app energy"},
    {ExportSeries::aiEnergy, "AI agent energy"},
    {ExportSeries::dailyMetrics, "Daily model inputs"},
    {ExportSeries::collection, "Collection quality"},
    {ExportSeries::batteryEpochs, "Battery epochs"},
}}};

constexpr EnumTextTable<ExportSeries, 8> kFileSlugs{{{
    {ExportSeries::power, "power"},
    {ExportSeries::battery, "battery-health"},
    {ExportSeries::sessions, "sessions"},
    {ExportSeries::processEnergy, "app-energy"},
    {ExportSeries::aiEnergy, "ai-energy"},
    {ExportSeries::dailyMetrics, "daily-model-inputs"},
    {ExportSeries::collection, "collection-quality"},
    {ExportSeries::batteryEpochs, "battery-epochs"},
}}};

// Each series as written down once: its table, its columns in the table's order (space-separated),
// the time column, and the columns that hold times and flags.
struct SeriesLayout {
  std::string_view table;
  std::string_view columns;
  std::string_view timeColumn;
  std::string_view isoColumns;
  std::string_view boolColumns;
};

constexpr std::string_view kTrackedEnergyTail =
    " avg_cpu avg_watts peak_watts sample_count observed_duration_s missing_duration_s energy_wh "
    "coverage_ratio quality source";

// In the order of ExportSeries. The energy twins are the timestamp, their identifier, then the
// tail.
constexpr SeriesLayout kLayouts[] = {
    {"power_samples",
     "timestamp wattage battery_pct ecpu_w pcpu_w gpu_w ane_w dram_w system_load_w power_in_w "
     "wall_power_w thermal_state is_charging external_connected temperature_c observed_duration_s "
     "component_quality system_power_quality wall_estimate_quality component_rejection_reason "
     "system_total_w battery_rail_w dc_in_w thunderbolt_left_w thunderbolt_right_w pd_brightness_w",
     "timestamp", "timestamp", "is_charging external_connected"},
    {"capacity_log",
     "timestamp nominal_capacity_mah design_capacity_mah cycle_count health_pct max_temperature_c",
     "timestamp", "timestamp", ""},
    {"sessions",
     "id start_time end_time start_pct end_pct is_charging avg_wattage total_wh mode "
     "collected_duration_s missing_duration_s quality confidence",
     "start_time", "start_time end_time", "is_charging"},
    {"process_energy", "timestamp process_name", "timestamp", "timestamp", ""},
    {"ai_agent_energy", "timestamp agent_id", "timestamp", "timestamp", ""},
    {"daily_battery_metrics",
     "day_key day_start nominal_capacity_mah design_capacity_mah cycle_count health_pct "
     "capacity_sample_count avg_temperature_c max_temperature_c temperature_observed_s "
     "temperature_sample_count quality",
     "day_start", "day_start", ""},
    {"collection_intervals", "id start_time end_time status reason", "start_time",
     "start_time end_time", ""},
    {"battery_epoch",
     "id first_seen serial baseline_cycle_count baseline_design_mah baseline_nominal_mah source",
     "first_seen", "first_seen", ""},
};
static_assert(std::size(kLayouts) == kAllExportSeries.size());

std::vector<std::string_view> words(std::string_view text) {
  std::vector<std::string_view> out;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find(' ', at), text.size());
    if (end > at) out.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return out;
}

SeriesQuery makeQuery(ExportSeries series) {
  const SeriesLayout& layout = kLayouts[static_cast<std::size_t>(series)];
  SeriesQuery q{layout.table,      words(layout.columns),    {},
                layout.timeColumn, words(layout.isoColumns), words(layout.boolColumns)};
  if (series == ExportSeries::processEnergy || series == ExportSeries::aiEnergy) {
    for (const auto name : words(kTrackedEnergyTail)) q.columns.push_back(name);
  }
  q.selectColumns = q.columns;
  // The stored wall figure is the platform's own estimate, not a measurement; the header says so.
  std::replace(q.columns.begin(), q.columns.end(), std::string_view("wall_power_w"),
               std::string_view("apple_wall_energy_estimate_raw_w"));
  return q;
}

bool needsQuoting(std::string_view text) {
  return text.find_first_of(",\"\n\r") != std::string_view::npos;
}

bool looksLikeFormula(std::string_view text) {
  return !text.empty() &&
         (text.front() == '=' || text.front() == '+' || text.front() == '-' || text.front() == '@');
}

void appendTwoDigits(char* at, int value) {
  at[0] = static_cast<char>('0' + value / 10);
  at[1] = static_cast<char>('0' + value % 10);
}

// Days since 1970-01-01 to a proleptic Gregorian date, exact for any day an int64 holds.
void civilFromDays(std::int64_t days, std::int64_t& year, int& month, int& day) {
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const auto dayOfEra = static_cast<unsigned>(days - era * 146097);
  const unsigned yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned mp = (5 * dayOfYear + 2) / 153;
  day = static_cast<int>(dayOfYear - (153 * mp + 2) / 5 + 1);
  month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  year = static_cast<std::int64_t>(yearOfEra) + era * 400 + (month <= 2 ? 1 : 0);
}

std::string dayText(TimePoint t) {
  return formatIso8601(t).substr(0, 10);
}

}  // namespace

std::string_view rawValue(ExportSeries series) {
  return kRawValues.text(series, "power");
}

std::optional<ExportSeries> exportSeriesFromRawValue(std::string_view text) {
  return kRawValues.parse(text);
}

std::string_view displayName(ExportSeries series) {
  return kDisplayNames.text(series, "Power samples");
}

std::string_view fileSlug(ExportSeries series) {
  return kFileSlugs.text(series, "power");
}

const SeriesQuery& seriesQuery(ExportSeries series) {
  static const std::array<SeriesQuery, 8> kQueries = [] {
    std::array<SeriesQuery, 8> all;
    for (std::size_t i = 0; i < all.size(); ++i) all[i] = makeQuery(kAllExportSeries[i]);
    return all;
  }();
  return kQueries[static_cast<std::size_t>(series)];
}

std::vector<ExportWindow> exportWindows(double from, double to) {
  std::vector<ExportWindow> windows;
  if (!(from <= to)) return windows;
  for (double start = from;;) {
    const double end = std::min(start + kWindow_s, to);
    windows.push_back({start, end, end >= to});
    if (end >= to) return windows;
    start = end;
  }
}

std::string windowSelect(const SeriesQuery& query, bool isLast) {
  std::string sql = "SELECT ";
  for (std::size_t i = 0; i < query.selectColumns.size(); ++i) {
    if (i > 0) sql += ", ";
    sql += query.selectColumns[i];
  }
  const std::string time(query.timeColumn);
  sql += " FROM " + std::string(query.table) + " WHERE " + time + " >= ? AND " + time +
         (isLast ? " <= ?" : " < ?") + " ORDER BY " + time + " ASC";
  return sql;
}

std::string csvEscape(std::string_view text) {
  std::string escaped;
  if (looksLikeFormula(text)) escaped += '\'';
  escaped += text;
  if (!needsQuoting(text)) return escaped;
  std::string quoted = "\"";
  for (const char c : escaped) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + '"';
}

std::string defaultExportFileName(std::span<const ExportSeries> series, TimePoint from,
                                  TimePoint to, std::string_view extension) {
  const std::string_view slug = series.size() == 1 ? fileSlug(series.front()) : "history";
  const std::string first = dayText(from);
  const std::string last = dayText(to);
  std::string name = "quorel-" + std::string(slug) + "-" + first;
  if (last != first) name += "-to-" + last;
  return name + "." + std::string(extension);
}

namespace export_text {

void appendNumber(std::string& out, double value) {
  char buffer[32];
  const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, ec == std::errc() ? end : buffer);
}

void appendInteger(std::string& out, std::int64_t value) {
  char buffer[24];
  const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, ec == std::errc() ? end : buffer);
}

void IsoFormatter::append(std::string& out, double seconds) {
  // Through the same conversion as every other shown time, so that a fraction a double cannot
  // hold exactly lands on the same millisecond everywhere.
  const auto ms = std::chrono::floor<std::chrono::milliseconds>(fromUnixSeconds(seconds))
                      .time_since_epoch()
                      .count();
  constexpr std::int64_t kMsPerDay = 86'400'000;
  const std::int64_t day = ms >= 0 ? ms / kMsPerDay : -((-ms - 1) / kMsPerDay) - 1;
  if (day != day_) {
    std::int64_t year = 0;
    int month = 0;
    int dayOfMonth = 0;
    civilFromDays(day, year, month, dayOfMonth);
    const int length = std::snprintf(date_, sizeof date_, "%04lld-%02d-%02d",
                                     static_cast<long long>(year), month, dayOfMonth);
    dateLength_ = static_cast<std::size_t>(std::clamp(length, 0, int{sizeof date_} - 1));
    day_ = day;
  }
  auto inDay = static_cast<int>(ms - day * kMsPerDay);
  char time[14] = {'T', 0, 0, ':', 0, 0, ':', 0, 0, '.', 0, 0, 0, 'Z'};
  const int milli = inDay % 1000;
  inDay /= 1000;
  appendTwoDigits(time + 1, inDay / 3600);
  appendTwoDigits(time + 4, inDay / 60 % 60);
  appendTwoDigits(time + 7, inDay % 60);
  time[10] = static_cast<char>('0' + milli / 100);
  appendTwoDigits(time + 11, milli % 100);
  out.append(date_, dateLength_);
  out.append(time, sizeof time);
}

void appendJSONString(std::string& out, std::string_view text) {
  out += '"';
  // Stored texts are nearly always plain labels, which go out in one piece.
  const bool plain = std::none_of(text.begin(), text.end(), [](char c) {
    return c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20;
  });
  if (plain) {
    out += text;
    out += '"';
    return;
  }
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
      out += escape;
    } else {
      out += c;
    }
  }
  out += '"';
}

}  // namespace export_text

}  // namespace quorel
