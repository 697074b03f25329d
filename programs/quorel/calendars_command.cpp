#include "calendars_command.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "core/file_preference_store.hpp"

namespace quorel {

namespace fs = std::filesystem;

namespace {

constexpr std::chrono::hours kListWindow{24};

CalendarsCommandResult refused(std::string sentence) {
  return {.exitStatus = 2, .output = {}, .error = std::move(sentence)};
}

std::vector<std::string> storedList(const PreferenceStore& preferences) {
  std::vector<std::string> out;
  for (const auto& p : configuredCalendarFiles(preferences)) out.push_back(p.string());
  return out;
}

// The store only logs a failed write, so the file is read afresh to tell whether it landed.
bool store(FilePreferenceStore& preferences, const std::vector<std::string>& paths) {
  if (paths.empty()) {
    preferences.removeValue(kCalendarFilesKey);
  } else {
    preferences.setValue(kCalendarFilesKey, nlohmann::json(paths));
  }
  const FilePreferenceStore check(preferences.path());
  return storedList(check) == paths;
}

std::string listText(CalendarAuthorization authorization,
                     const std::vector<IcsCalendarSource::SourceReport>& reports) {
  std::string out = fmt::format("Calendar access: {}\n", calendarAuthorizationText(authorization));
  if (reports.empty()) {
    return out +
           "No calendar found. Add an .ics file or a folder of them with "
           "quorel calendars add PATH.\n";
  }
  for (const auto& r : reports) {
    const auto& s = r.status;
    out += fmt::format("{}  {}\n", s.path.string(), kCalendarSourceOriginTexts.text(s.origin));
    if (s.readable) {
      out += fmt::format("  readable, {} file{}, {} event{} in the next 24 h", s.files,
                         s.files == 1 ? "" : "s", r.eventCount, r.eventCount == 1 ? "" : "s");
    } else {
      out += "  not readable";
    }
    out += s.problem.empty() ? "\n" : " (" + s.problem + ")\n";
  }
  return out;
}

std::string listJson(CalendarAuthorization authorization,
                     const std::vector<IcsCalendarSource::SourceReport>& reports) {
  nlohmann::ordered_json sources = nlohmann::ordered_json::array();
  for (const auto& r : reports) {
    const auto& s = r.status;
    sources.push_back({
        {"path", s.path.string()},
        {"origin", kCalendarSourceOriginTexts.text(s.origin)},
        {"kind", s.directory ? "folder" : "file"},
        {"readable", s.readable},
        {"files", s.files},
        {"events_next_24h", r.eventCount},
        {"problem",
         s.problem.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(s.problem)},
    });
  }
  nlohmann::ordered_json out{{"authorization", calendarAuthorizationText(authorization)},
                             {"sources", std::move(sources)}};
  return out.dump(2) + "\n";
}

// Why `path` cannot be a calendar, or nothing when it can.
std::optional<std::string> unusable(const fs::path& path) {
  std::error_code ec;
  const auto type = fs::status(path, ec).type();
  if (type == fs::file_type::not_found) return path.string() + " does not exist.";
  if (type == fs::file_type::directory) return std::nullopt;
  if (type != fs::file_type::regular) return path.string() + " is neither a file nor a folder.";
  IcsCalendarSource::Options options;
  options.configuredPaths = [path] { return std::vector<fs::path>{path}; };
  IcsCalendarSource probe(options);
  const auto reports = probe.report(TimePoint{}, TimePoint{});
  if (!reports.empty() && reports.front().status.readable) return std::nullopt;
  const std::string why = reports.empty() ? "it cannot be read" : reports.front().status.problem;
  return path.string() + " is not a calendar Quorel can read: " + why + ".";
}

}  // namespace

CalendarsCommandResult runCalendarsCommand(const CalendarsCommandArguments& arguments,
                                           const CalendarsCommandEnvironment& environment,
                                           const Clock& clock) {
  const std::string& action = arguments.action;
  if (action == "list") {
    std::error_code ec;
    // Only read: listing creates no preference file.
    std::optional<FilePreferenceStore> preferences;
    if (fs::exists(environment.preferencesFile, ec))
      preferences.emplace(environment.preferencesFile);
    IcsCalendarSource::Options options;
    options.roots = environment.roots;
    options.configuredPaths = [&preferences] {
      return preferences ? configuredCalendarFiles(*preferences) : std::vector<fs::path>{};
    };
    IcsCalendarSource source(options);
    const TimePoint now = clock.now();
    const auto reports = source.report(now, now + kListWindow);
    const auto authorization = source.authorization();
    return {.exitStatus = 0,
            .output = arguments.json ? listJson(authorization, reports)
                                     : listText(authorization, reports),
            .error = {}};
  }
  if (action != "add" && action != "remove") {
    return refused("\"" + action + "\" is not a calendars action — use list, add or remove.");
  }
  if (!arguments.path || arguments.path->empty()) {
    return refused("quorel calendars " + action + " needs a path, e.g. quorel calendars " + action +
                   " ~/calendars/work.ics.");
  }
  const fs::path path = (environment.workingDirectory / *arguments.path).lexically_normal();
  FilePreferenceStore preferences(environment.preferencesFile);
  auto paths = storedList(preferences);
  const auto listed = std::find_if(paths.begin(), paths.end(), [&](const std::string& p) {
    return fs::path(p).lexically_normal() == path;
  });
  if (action == "add") {
    if (listed != paths.end()) {
      return {.exitStatus = 0, .output = path.string() + " is already listed.\n", .error = {}};
    }
    if (auto why = unusable(path)) return refused(*why);
    paths.push_back(path.string());
  } else {
    if (listed == paths.end()) {
      return refused(path.string() +
                     " is not among the listed calendar files; quorel calendars list shows them.");
    }
    paths.erase(listed);
  }
  if (!store(preferences, paths)) {
    return {.exitStatus = 1,
            .output = {},
            .error = "The preference file " + environment.preferencesFile.string() +
                     " could not be written; nothing changed."};
  }
  return {.exitStatus = 0,
          .output = (action == "add" ? "Added " : "Removed ") + path.string() + "\n",
          .error = {}};
}

}  // namespace quorel
