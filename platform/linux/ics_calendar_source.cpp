#include "platform/linux/ics_calendar_source.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <tuple>

#include "core/logging.hpp"
#include "platform/linux/ics_calendar_file.hpp"

namespace quorel {

namespace fs = std::filesystem;

std::vector<fs::path> configuredCalendarFiles(const PreferenceStore& preferences) {
  std::vector<fs::path> paths;
  const auto stored = preferences.value(kCalendarFilesKey);
  if (!stored || !stored->is_array()) return paths;
  for (const auto& entry : *stored) {
    if (entry.is_string() && !entry.get<std::string>().empty())
      paths.emplace_back(entry.get<std::string>());
  }
  return paths;
}

std::optional<CalendarRoots> CalendarRoots::fromEnvironment(const Environment& env) {
  const auto home = env("HOME");
  if (!home || home->empty()) return std::nullopt;
  CalendarRoots roots{.home = *home, .dataHome = fs::path(*home) / ".local" / "share"};
  // The XDG rules ignore a relative value.
  if (const auto data = env("XDG_DATA_HOME"); data && fs::path(*data).is_absolute())
    roots.dataHome = *data;
  return roots;
}

namespace {

struct Location {
  fs::path path;
  CalendarSourceOrigin origin;
};

bool hasIcsExtension(const fs::path& p) {
  std::string ext = p.extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  return ext == ".ics";
}

// Sorted, so that a listing and the order events tie in do not depend on the file system.
std::vector<fs::path> sortedChildren(const fs::path& dir) {
  std::vector<fs::path> children;
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
    children.push_back(it->path());
  std::sort(children.begin(), children.end());
  return children;
}

std::vector<Location> locations(const std::optional<CalendarRoots>& roots,
                                const std::vector<fs::path>& configured) {
  std::vector<Location> found;
  std::error_code ec;
  if (roots) {
    for (const auto& dir : sortedChildren(roots->dataHome / "evolution" / "calendar")) {
      const fs::path file = dir / "calendar.ics";
      if (fs::exists(file, ec)) found.push_back({file, CalendarSourceOrigin::evolution});
    }
    for (const auto& file : sortedChildren(roots->dataHome / "korganizer")) {
      if (hasIcsExtension(file) && !fs::is_directory(file, ec))
        found.push_back({file, CalendarSourceOrigin::korganizer});
    }
    for (const auto& root : {roots->home / ".calendars", roots->dataHome / "calendars"}) {
      if (fs::is_directory(root, ec)) found.push_back({root, CalendarSourceOrigin::vdir});
    }
  }
  for (const auto& path : configured) {
    const fs::path normal = path.lexically_normal();
    const bool known = std::any_of(found.begin(), found.end(), [&](const Location& l) {
      return l.path.lexically_normal() == normal;
    });
    if (!known) found.push_back({normal, CalendarSourceOrigin::configured});
  }
  return found;
}

// The whole file, or why it cannot be had.
std::optional<std::string> readWhole(const fs::path& file, std::string& problem) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    problem = std::string("cannot be read: ") + std::strerror(errno);
    return std::nullopt;
  }
  std::string content;
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      content.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      problem = std::string("cannot be read: ") + std::strerror(errno);
      ::close(fd);
      return std::nullopt;
    }
  }
  ::close(fd);
  return content;
}

struct CachedFile {
  fs::file_time_type mtime;
  std::uintmax_t size = 0;
  std::shared_ptr<const IcsCalendarFile> calendar;  // null: skipped, `problem` says why
  std::string problem;
};

struct ScannedSource {
  CalendarSourceStatus status;
  std::vector<std::pair<fs::path, std::shared_ptr<const IcsCalendarFile>>> calendars;
};

using Fingerprint = std::vector<std::tuple<std::string, fs::file_time_type, std::uintmax_t, bool>>;

}  // namespace

struct IcsCalendarSource::Impl {
  Options options;
  std::shared_ptr<spdlog::logger> log = logging::get("calendar");
  mutable std::mutex mutex;
  std::map<fs::path, CachedFile> cache;
  std::vector<ScannedSource> sources;
  Fingerprint fingerprint;
  CalendarAuthorization authorization = CalendarAuthorization::notDetermined;

  // Looks at every source; returns whether anything read changed. Holds `mutex`.
  bool look();
  const CachedFile* load(const fs::path& file, std::map<fs::path, CachedFile>& next);
  ScannedSource scan(const Location& location, std::map<fs::path, CachedFile>& next);
  std::vector<fs::path> folderFiles(const fs::path& root, std::string& problem) const;
};

const CachedFile* IcsCalendarSource::Impl::load(const fs::path& file,
                                                std::map<fs::path, CachedFile>& next) {
  std::error_code ec;
  const auto mtime = fs::last_write_time(file, ec);
  const auto size = ec ? 0 : fs::file_size(file, ec);
  if (ec) {
    CachedFile& entry = next[file];
    entry.problem = "cannot be read: " + ec.message();
    return &entry;
  }
  if (const auto already = next.find(file); already != next.end()) return &already->second;
  if (const auto known = cache.find(file);
      known != cache.end() && known->second.mtime == mtime && known->second.size == size) {
    return &(next[file] = known->second);
  }
  CachedFile entry{.mtime = mtime, .size = size, .calendar = nullptr, .problem = {}};
  if (size > options.maxFileBytes) {
    entry.problem = "larger than " + std::to_string(options.maxFileBytes >> 20) + " MiB";
  } else if (auto text = readWhole(file, entry.problem)) {
    IcsCalendarFile::ParseError error;
    entry.calendar = IcsCalendarFile::parse(*text, options.floatingTimeZone, &error);
    if (!entry.calendar) entry.problem = "not an iCalendar file: " + error.message;
  }
  // Once per version of the file: an unchanged file is not read, so not reported, again.
  if (!entry.calendar) log->warn("calendar file {} skipped — {}", file.string(), entry.problem);
  return &(next[file] = std::move(entry));
}

std::vector<fs::path> IcsCalendarSource::Impl::folderFiles(const fs::path& root,
                                                           std::string& problem) const {
  std::vector<fs::path> files;
  std::error_code ec;
  fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec);
  if (ec) {
    problem = "cannot be opened: " + ec.message();
    return files;
  }
  for (const fs::recursive_directory_iterator end; it != end; it.increment(ec)) {
    if (ec) break;
    if (it.depth() >= kMaxDepth - 1) it.disable_recursion_pending();
    std::error_code typeError;
    if (!it->is_regular_file(typeError) || !hasIcsExtension(it->path())) continue;
    if (files.size() == kMaxFilesPerFolder) {
      log->warn("calendar folder {} holds more than {} files — reading the first {}", root.string(),
                kMaxFilesPerFolder, kMaxFilesPerFolder);
      break;
    }
    files.push_back(it->path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

ScannedSource IcsCalendarSource::Impl::scan(const Location& location,
                                            std::map<fs::path, CachedFile>& next) {
  ScannedSource scanned;
  CalendarSourceStatus& status = scanned.status;
  status.path = location.path;
  status.origin = location.origin;
  std::error_code ec;
  const auto type = fs::status(location.path, ec).type();
  if (type == fs::file_type::not_found) {
    status.problem = "not found";
    return scanned;
  }
  if (ec) {
    status.problem = "cannot be read: " + ec.message();
    return scanned;
  }
  if (type == fs::file_type::directory) {
    status.directory = true;
    std::string problem;
    const auto files = folderFiles(location.path, problem);
    if (!problem.empty()) {
      status.problem = problem;
      return scanned;
    }
    std::size_t skipped = 0;
    for (const auto& file : files) {
      const CachedFile* entry = load(file, next);
      if (entry->calendar) {
        scanned.calendars.emplace_back(file, entry->calendar);
      } else {
        ++skipped;
      }
    }
    status.files = scanned.calendars.size();
    // An empty collection is a calendar with nothing in it, not an unreadable one.
    status.readable = files.empty() || skipped < files.size();
    if (skipped > 0)
      status.problem =
          std::to_string(skipped) + " of " + std::to_string(files.size()) + " files skipped";
    return scanned;
  }
  if (type != fs::file_type::regular) {
    status.problem = "neither a file nor a folder";
    return scanned;
  }
  const CachedFile* entry = load(location.path, next);
  if (entry->calendar) {
    scanned.calendars.emplace_back(location.path, entry->calendar);
    status.files = 1;
    status.readable = true;
  } else {
    status.problem = entry->problem;
  }
  return scanned;
}

bool IcsCalendarSource::Impl::look() {
  const auto configured =
      options.configuredPaths ? options.configuredPaths() : std::vector<fs::path>{};
  std::map<fs::path, CachedFile> next;
  std::vector<ScannedSource> scanned;
  for (const auto& location : locations(options.roots, configured))
    scanned.push_back(scan(location, next));
  // Files no source names any more are forgotten.
  cache = std::move(next);
  sources = std::move(scanned);

  // What each source is and whether it reads, then every file's version: a source that appears,
  // vanishes or stops reading is a change even when it has no files.
  Fingerprint now;
  for (const auto& s : sources)
    now.emplace_back(s.status.path.string(), fs::file_time_type{}, 0, s.status.readable);
  for (const auto& [path, file] : cache)
    now.emplace_back(path.string(), file.mtime, file.size, file.calendar != nullptr);
  const bool changed = now != fingerprint;
  fingerprint = std::move(now);

  const bool anyReadable = std::any_of(sources.begin(), sources.end(),
                                       [](const ScannedSource& s) { return s.status.readable; });
  authorization = sources.empty() ? CalendarAuthorization::notDetermined
                  : anyReadable   ? CalendarAuthorization::fullAccess
                                  : CalendarAuthorization::denied;
  return changed;
}

IcsCalendarSource::IcsCalendarSource(Options options) : impl_(std::make_unique<Impl>()) {
  impl_->options = std::move(options);
}

IcsCalendarSource::~IcsCalendarSource() = default;

std::vector<BatteryControlCalendarEvent> IcsCalendarSource::events(TimePoint from, TimePoint to) {
  std::lock_guard lock(impl_->mutex);
  impl_->look();
  std::vector<BatteryControlCalendarEvent> all;
  // A file named both by a discovered folder and by the preference counts once.
  std::set<fs::path> seen;
  for (const auto& source : impl_->sources) {
    for (const auto& [path, calendar] : source.calendars) {
      if (!seen.insert(path).second) continue;
      auto events = calendar->events(from, to);
      all.insert(all.end(), std::make_move_iterator(events.begin()),
                 std::make_move_iterator(events.end()));
    }
  }
  std::stable_sort(all.begin(), all.end(), [](const auto& a, const auto& b) {
    return std::tie(a.startDate, a.title) < std::tie(b.startDate, b.title);
  });
  return all;
}

CalendarAuthorization IcsCalendarSource::authorization() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->authorization;
}

bool IcsCalendarSource::refresh() {
  std::lock_guard lock(impl_->mutex);
  return impl_->look();
}

std::vector<IcsCalendarSource::SourceReport> IcsCalendarSource::report(TimePoint from,
                                                                       TimePoint to) {
  std::lock_guard lock(impl_->mutex);
  impl_->look();
  std::vector<SourceReport> reports;
  for (const auto& source : impl_->sources) {
    SourceReport r{.status = source.status, .eventCount = 0};
    for (const auto& entry : source.calendars)
      r.eventCount += entry.second->events(from, to).size();
    reports.push_back(std::move(r));
  }
  return reports;
}

}  // namespace quorel
