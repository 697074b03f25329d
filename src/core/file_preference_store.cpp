#include "core/file_preference_store.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

#include "core/logging.hpp"
#include "core/serial_queue.hpp"

namespace quorel {

namespace fs = std::filesystem;

namespace {

std::string errnoText(int error) {
  return std::system_category().message(error);
}

// An exclusive flock on the lock file beside the preferences, held for one read-modify-write.
// The lock file is never replaced, unlike the preferences file itself, so every process locks
// the same inode.
class FileLock {
 public:
  explicit FileLock(const fs::path& lockFile) {
    fd_ = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) {
      error_ = errno;
      return;
    }
    while (::flock(fd_, LOCK_EX) != 0) {
      if (errno == EINTR) continue;
      error_ = errno;
      ::close(fd_);
      fd_ = -1;
      return;
    }
  }
  ~FileLock() {
    if (fd_ >= 0) ::close(fd_);  // closing the descriptor releases the lock
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  bool held() const { return fd_ >= 0; }
  int error() const { return error_; }

 private:
  int fd_ = -1;
  int error_ = 0;
};

enum class ReadOutcome { document, missing, invalid, unreadable };

struct FileRead {
  ReadOutcome outcome;
  nlohmann::json document;  // an object when outcome is `document`
  int error = 0;
};

FileRead readDocument(const fs::path& file) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    const int error = errno;
    if (error == ENOENT) return {ReadOutcome::missing, nlohmann::json::object()};
    return {ReadOutcome::unreadable, nlohmann::json::object(), error};
  }
  std::string text;
  std::array<char, 8192> buffer{};
  for (;;) {
    const ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      const int error = errno;
      ::close(fd);
      return {ReadOutcome::unreadable, nlohmann::json::object(), error};
    }
    if (n == 0) break;
    text.append(buffer.data(), static_cast<std::size_t>(n));
  }
  ::close(fd);
  // An empty file holds nothing that could be lost; treat it as an empty domain.
  if (text.find_first_not_of(" \t\r\n") == std::string::npos) {
    return {ReadOutcome::document, nlohmann::json::object()};
  }
  auto parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded() || !parsed.is_object()) {
    return {ReadOutcome::invalid, nlohmann::json::object()};
  }
  return {ReadOutcome::document, std::move(parsed)};
}

bool writeAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// Writes `text` to `file` so that a reader sees either the old or the new document, never a
// mixture, and the new one survives a crash once this returns. Returns an errno or 0.
int writeAtomically(const fs::path& file, const std::string& text) {
  std::string pattern =
      (file.parent_path() / ("." + file.filename().string() + ".XXXXXX")).string();
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  const int fd = ::mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) return errno;
  const fs::path temporary(name.data());
  int error = 0;
  if (::fchmod(fd, 0600) != 0 || !writeAll(fd, text) || ::fsync(fd) != 0) error = errno;
  if (::close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && ::rename(temporary.c_str(), file.c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(temporary.c_str());
    return error;
  }
  // The rename is durable only once the directory entry is on disk.
  const int dir = ::open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
  return 0;
}

fs::path asidePath(const fs::path& file) {
  fs::path candidate = file.string() + ".corrupt";
  std::error_code ec;
  for (int n = 1; fs::exists(candidate, ec); ++n) {
    candidate = file.string() + ".corrupt-" + std::to_string(n);
  }
  return candidate;
}

}  // namespace

struct FilePreferenceStore::Impl {
  fs::path file;
  fs::path lockFile;
  std::shared_ptr<spdlog::logger> log = logging::get("Preferences");
  int inotifyFd = -1;

  mutable std::mutex mutex;  // guards the fields below
  nlohmann::json cache = nlohmann::json::object();
  std::map<std::uint64_t, Observer> observers;
  std::uint64_t nextObserverId = 1;

  ~Impl() {
    if (inotifyFd >= 0) ::close(inotifyFd);
  }

  // Reads the file with the lock held. A file that holds no JSON object is moved aside so that
  // the write that follows cannot destroy what the user had in it. Absent when the file exists
  // but cannot be read: it must then be neither replaced nor taken for an empty domain.
  std::optional<nlohmann::json> readLocked() {
    auto read = readDocument(file);
    switch (read.outcome) {
      case ReadOutcome::document:
      case ReadOutcome::missing:
        return std::move(read.document);
      case ReadOutcome::unreadable:
        log->error("cannot read preferences at {} — {}", file.string(), errnoText(read.error));
        return std::nullopt;
      case ReadOutcome::invalid:
        break;
    }
    const fs::path aside = asidePath(file);
    if (::rename(file.c_str(), aside.c_str()) == 0) {
      log->warn(
          "preferences file {} is not a valid JSON object — moved it aside to {} and started "
          "with empty preferences",
          file.string(), aside.string());
    } else {
      log->error(
          "preferences file {} is not a valid JSON object and could not be moved aside to {} — "
          "{}; starting with empty preferences",
          file.string(), aside.string(), errnoText(errno));
    }
    return nlohmann::json::object();
  }

  // Makes `document` the domain as this process sees it; true when that changed anything.
  bool adopt(nlohmann::json document) {
    std::lock_guard lock(mutex);
    if (cache == document) return false;
    cache = std::move(document);
    return true;
  }

  void notify() {
    std::vector<Observer> toCall;
    {
      std::lock_guard lock(mutex);
      for (const auto& [id, observer] : observers) toCall.push_back(observer);
    }
    for (const auto& observer : toCall) observer();
  }

  bool reload() {
    bool changed = false;
    {
      FileLock lock(lockFile);
      if (auto document = readLocked()) changed = adopt(std::move(*document));
    }
    if (changed) notify();
    return changed;
  }

  template <class Edit>
  void update(Edit&& edit) {
    bool changed = false;
    {
      FileLock lock(lockFile);
      if (!lock.held()) {
        log->error("cannot lock preferences at {} — {}; writing without the lock",
                   lockFile.string(), errnoText(lock.error()));
      }
      auto read = readLocked();
      const bool readable = read.has_value();
      if (!readable) {
        std::lock_guard guard(mutex);
        read = cache;
      }
      nlohmann::json document = std::move(*read);
      const nlohmann::json before = document;
      edit(document);
      if (!readable) {
        // Writing now would replace a file nobody could read.
        log->error(
            "not writing preferences to {} — the file cannot be read; the change is kept "
            "in memory only",
            file.string());
      } else if (document != before) {
        if (const int error = writeAtomically(file, document.dump(2) + "\n"); error != 0) {
          log->error("cannot write preferences to {} — {}; the change is kept in memory only",
                     file.string(), errnoText(error));
        }
      }
      // Whatever another process wrote since our last look comes in with this read as well.
      changed = adopt(std::move(document));
    }
    if (changed) notify();
  }

  // True when the watch saw something happen to the preferences file. Without a watch every
  // look counts, so poll() still works, only less cheaply.
  bool drainEvents() {
    if (inotifyFd < 0) return true;
    bool relevant = false;
    alignas(inotify_event) std::array<char, 4096> buffer{};
    const std::string name = file.filename().string();
    for (;;) {
      const ssize_t n = ::read(inotifyFd, buffer.data(), buffer.size());
      if (n <= 0) break;
      for (ssize_t offset = 0; offset < n;) {
        inotify_event event{};
        std::memcpy(&event, buffer.data() + offset, sizeof(event));
        const char* eventName = buffer.data() + offset + sizeof(inotify_event);
        if ((event.mask & IN_Q_OVERFLOW) != 0) relevant = true;
        if (event.len > 0 && name == eventName) relevant = true;
        offset += static_cast<ssize_t>(sizeof(inotify_event) + event.len);
      }
    }
    return relevant;
  }

  bool poll() { return drainEvents() && reload(); }
};

struct FilePreferenceStore::Watch {
  explicit Watch(asio::io_context& io) : descriptor(io) {}
  asio::posix::stream_descriptor descriptor;  // touched only on the watching queue
  std::weak_ptr<Impl> impl;
  std::atomic<bool> stopped{false};

  static void arm(const std::shared_ptr<Watch>& watch) {
    watch->descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                                 [watch](const std::error_code& ec) {
                                   if (ec || watch->stopped.load()) return;
                                   if (auto store = watch->impl.lock()) store->poll();
                                   if (!watch->stopped.load()) arm(watch);
                                 });
  }
};

FilePreferenceStore::FilePreferenceStore(fs::path file) : impl_(std::make_shared<Impl>()) {
  impl_->file = std::move(file);
  impl_->lockFile = impl_->file.string() + ".lock";
  const fs::path directory = impl_->file.parent_path();
  std::error_code ec;
  if (!fs::exists(directory, ec)) {
    fs::create_directories(directory, ec);
    if (ec) {
      impl_->log->error("cannot create preferences directory {} — {}", directory.string(),
                        ec.message());
    } else {
      fs::permissions(directory, fs::perms::owner_all, ec);
    }
  }
  impl_->inotifyFd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (impl_->inotifyFd >= 0 && ::inotify_add_watch(impl_->inotifyFd, directory.c_str(),
                                                   IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM |
                                                       IN_CREATE | IN_DELETE) < 0) {
    impl_->log->warn("cannot watch {} for changes — {}; other processes' writes are seen on poll",
                     directory.string(), errnoText(errno));
    ::close(impl_->inotifyFd);
    impl_->inotifyFd = -1;
  }
  FileLock lock(impl_->lockFile);
  if (auto document = impl_->readLocked()) impl_->adopt(std::move(*document));
}

FilePreferenceStore::~FilePreferenceStore() {
  if (watch_) {
    watch_->stopped.store(true);
    watchQueue_->async([watch = watch_] {
      std::error_code ignored;
      watch->descriptor.close(ignored);
    });
  }
}

std::optional<nlohmann::json> FilePreferenceStore::value(const std::string& key) const {
  std::lock_guard lock(impl_->mutex);
  if (auto it = impl_->cache.find(key); it != impl_->cache.end()) return *it;
  return std::nullopt;
}

void FilePreferenceStore::setValue(const std::string& key, const nlohmann::json& value) {
  impl_->update([&](nlohmann::json& document) { document[key] = value; });
}

void FilePreferenceStore::removeValue(const std::string& key) {
  impl_->update([&](nlohmann::json& document) { document.erase(key); });
}

std::uint64_t FilePreferenceStore::addObserver(Observer observer) {
  std::lock_guard lock(impl_->mutex);
  const auto id = impl_->nextObserverId++;
  impl_->observers.emplace(id, std::move(observer));
  return id;
}

void FilePreferenceStore::removeObserver(std::uint64_t id) {
  std::lock_guard lock(impl_->mutex);
  impl_->observers.erase(id);
}

const fs::path& FilePreferenceStore::path() const {
  return impl_->file;
}

bool FilePreferenceStore::poll() {
  return impl_->poll();
}

void FilePreferenceStore::watchOn(SerialQueue& queue) {
  if (watch_) return;
  if (impl_->inotifyFd < 0) {
    impl_->log->warn("no change watch on {} — call poll() to see other processes' writes",
                     impl_->file.string());
    return;
  }
  // The queue's reactor gets its own descriptor for the same inotify instance, so that closing
  // it on the queue never races with poll() reading the original elsewhere.
  const int fd = ::fcntl(impl_->inotifyFd, F_DUPFD_CLOEXEC, 0);
  if (fd < 0) {
    impl_->log->warn("cannot watch {} on queue {} — {}", impl_->file.string(), queue.label(),
                     errnoText(errno));
    return;
  }
  watch_ = std::make_shared<Watch>(queue.context());
  watch_->impl = impl_;
  watchQueue_ = &queue;
  queue.async([watch = watch_, fd] {
    if (watch->stopped.load()) {
      ::close(fd);
      return;
    }
    std::error_code ec;
    watch->descriptor.assign(fd, ec);
    if (ec) {
      ::close(fd);
      return;
    }
    Watch::arm(watch);
  });
}

}  // namespace quorel
