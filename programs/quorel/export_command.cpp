#include "export_command.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <system_error>

#include "core/iso8601.hpp"
#include "core/result.hpp"
#include "store/export_file.hpp"
#include "store/quorel_database.hpp"

namespace quorel {

namespace fs = std::filesystem;

namespace {

// Shorter exports finish before a progress line would be read.
constexpr std::size_t kProgressAfterDays = 7;

// Where one export goes: a file, or standard output when `file` is absent.
struct Destination {
  std::vector<ExportSeries> series;
  std::optional<fs::path> file;
};

struct ExportPlan {
  std::vector<ExportSeries> series;
  TimePoint from;
  TimePoint to;
  bool json = false;
  std::vector<Destination> destinations;
};

ExportCommandResult refuse(std::string sentence) {
  return {2, "", std::move(sentence)};
}

std::string seriesList() {
  std::string list;
  for (std::size_t i = 0; i < kAllExportSeries.size(); ++i) {
    if (i > 0) list += i + 1 == kAllExportSeries.size() ? " or " : ", ";
    list += rawValue(kAllExportSeries[i]);
  }
  return list;
}

Result<TimePoint> timeArgument(const std::string& text, const char* flag) {
  if (const auto t = parseIso8601(text)) return *t;
  return Error{
      fmt::format("{} \"{}\" is not an ISO-8601 date-time — write it like 2026-11-22T10:15:30Z or "
                  "2026-11-22T11:15:30.250+01:00.",
                  flag, text)};
}

Result<std::vector<ExportSeries>> seriesArguments(const std::vector<std::string>& names) {
  std::vector<ExportSeries> series;
  for (const auto& name : names) {
    const auto s = exportSeriesFromRawValue(name);
    if (!s) return Error{fmt::format("\"{}\" is not a series — use {}.", name, seriesList())};
    if (std::find(series.begin(), series.end(), *s) == series.end()) series.push_back(*s);
  }
  if (series.empty()) return Error{fmt::format("name at least one series: {}.", seriesList())};
  return series;
}

// Files under their default names in `directory`: one per series for CSV, one for JSON.
std::vector<Destination> intoDirectory(const ExportPlan& plan, const fs::path& directory) {
  std::vector<Destination> out;
  if (plan.json) {
    out.push_back(
        {plan.series, directory / defaultExportFileName(plan.series, plan.from, plan.to, "json")});
    return out;
  }
  for (const ExportSeries s : plan.series) {
    const ExportSeries one[] = {s};
    out.push_back({{s}, directory / defaultExportFileName(one, plan.from, plan.to, "csv")});
  }
  return out;
}

Result<std::vector<Destination>> destinations(const ExportPlan& plan,
                                              const std::optional<std::string>& output,
                                              const fs::path& workingDirectory) {
  std::error_code ec;
  if (output && fs::is_directory(*output, ec)) return intoDirectory(plan, *output);
  if (!plan.json && plan.series.size() > 1) {
    if (output) {
      return Error{fmt::format(
          "a CSV file holds one series — give --output a folder for the {} files, or ask for "
          "--format json.",
          plan.series.size())};
    }
    return intoDirectory(plan, workingDirectory);
  }
  std::vector<Destination> one{{plan.series, std::nullopt}};
  if (output) one.front().file = fs::path(*output);
  return one;
}

std::string describeSeries(const std::vector<ExportSeries>& series) {
  if (series.size() == 1) return std::string(displayName(series.front()));
  return fmt::format("{} series", series.size());
}

// The sentence for a failed export, with its exit status.
ExportCommandResult failed(const ExportFailure& failure, const Destination& where,
                           const fs::path& databasePath) {
  if (failure.stage == ExportFailure::Stage::history) {
    return {1, "",
            fmt::format("the history could not be exported: {} ({})", failure.reason,
                        databasePath.string())};
  }
  const std::string target = where.file ? where.file->string() : "standard output";
  return refuse(fmt::format("cannot write {} ({}) — name a file in a folder you can write to.",
                            target, failure.reason));
}

std::optional<ExportFailure> writeCSV(QuorelDatabase& db, const ExportPlan& plan,
                                      const Destination& where, const ExportCommandStreams& io,
                                      std::int64_t& rows) {
  const ExportSeries series = where.series.front();
  ExportProgressHandler progress;
  bool lineOpen = false;
  if (io.progress) {
    progress = [&](const ExportProgress& p) {
      if (p.windowsTotal <= kProgressAfterDays) return;
      io.progress(fmt::format("\rexporting {}: day {} of {}, {} rows", displayName(series),
                              p.windowsDone, p.windowsTotal, p.rows));
      lineOpen = p.windowsDone < p.windowsTotal;
      if (!lineOpen) io.progress("\n");
    };
  }
  const ExportResult result = where.file
                                  ? db.exportCSV(series, plan.from, plan.to, *where.file, progress)
                                  : db.writeCSV(series, plan.from, plan.to, io.output, progress);
  // A failure's sentence starts on a line of its own.
  if (lineOpen) io.progress("\n");
  rows = result.rows;
  return result.failure;
}

std::optional<ExportFailure> writeJSON(QuorelDatabase& db, const ExportPlan& plan,
                                       const Destination& where, const ExportCommandStreams& io,
                                       std::int64_t& rows, std::string& notice) {
  // A file is written as the rows are read; standard output cannot take back a series that
  // fails halfway, so there the document is made whole first.
  std::optional<ExportFile> file;
  JSONExport document;
  if (where.file) {
    file.emplace(*where.file, "exportJSON");
    if (auto failure = file->create()) return failure;
    document = db.writeJSON(where.series, plan.from, plan.to, file->descriptor());
  } else {
    document = db.exportJSONDocument(where.series, plan.from, plan.to);
  }
  if (document.failure) return document.failure;
  rows = document.rows;
  for (const ExportSeries s : document.truncated) {
    notice += fmt::format("{} stops at {} rows — use --format csv for the whole period.\n",
                          displayName(s), kExportJSONRowCap);
  }
  document.document += '\n';
  if (!file) {
    if (const int error = writeAll(io.output, document.document)) {
      return ExportFailure{ExportFailure::Stage::target, "exportJSON write", std::strerror(error)};
    }
    return std::nullopt;
  }
  if (auto failure = file->write(document.document)) return failure;
  return file->commit();
}

Result<ExportPlan> plan(const ExportCommandArguments& a, const fs::path& workingDirectory) {
  ExportPlan p;
  auto series = seriesArguments(a.series);
  if (!series) return series.error();
  p.series = std::move(*series);
  if (a.format != "csv" && a.format != "json") {
    return Error{fmt::format("--format \"{}\" is not a format — use csv or json.", a.format)};
  }
  p.json = a.format == "json";
  const auto from = timeArgument(a.from, "--from");
  if (!from) return from.error();
  const auto to = timeArgument(a.to, "--to");
  if (!to) return to.error();
  if (*from > *to) {
    return Error{
        fmt::format("--from {} is after --to {} — give the earlier time first.", a.from, a.to)};
  }
  p.from = *from;
  p.to = *to;
  auto where = destinations(p, a.output, workingDirectory);
  if (!where) return where.error();
  p.destinations = std::move(*where);
  return p;
}

}  // namespace

ExportCommandResult runExportCommand(const ExportCommandArguments& arguments,
                                     const fs::path& databasePath, const Clock& clock,
                                     const ExportCommandStreams& streams) {
  // Arguments first, so that a typo is reported before anything is opened or created.
  const auto checked = plan(arguments, streams.workingDirectory);
  if (!checked) return refuse(checked.error().message);

  std::error_code ec;
  if (!fs::exists(databasePath, ec)) {
    return {1, "",
            fmt::format("there is no history database at {} — start the agent once to create it, "
                        "or point --data-dir at the folder that holds quorel.db.",
                        databasePath.string())};
  }
  QuorelDatabase::Options options;
  options.databasePathOverride = databasePath;
  options.startQueue = false;
  options.readOnly = true;
  QuorelDatabase db(std::move(options), clock);

  ExportCommandResult result;
  for (const Destination& where : checked->destinations) {
    std::int64_t rows = 0;
    const auto failure = checked->json
                             ? writeJSON(db, *checked, where, streams, rows, result.notice)
                             : writeCSV(db, *checked, where, streams, rows);
    if (failure) {
      auto refused = failed(*failure, where, databasePath);
      refused.notice = std::move(result.notice);
      return refused;
    }
    if (where.file) {
      result.notice += fmt::format("{}: {} rows written to {}\n", describeSeries(where.series),
                                   rows, where.file->string());
    }
  }
  return result;
}

}  // namespace quorel
