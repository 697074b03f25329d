#include "platform/linux/sysfs_attributes.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>

#include "core/file_descriptor.hpp"

namespace quorel::sysfs {

namespace {

// Attributes are at most a page; a uevent is a few hundred bytes. Anything much larger is not
// a sysfs file, and is refused rather than read whole.
constexpr std::size_t kMaxFileSize = 64 * 1024;

class DirectoryHandle {
 public:
  explicit DirectoryHandle(DIR* dir) : dir_(dir) {}
  DirectoryHandle(const DirectoryHandle&) = delete;
  DirectoryHandle& operator=(const DirectoryHandle&) = delete;
  ~DirectoryHandle() {
    if (dir_ != nullptr) ::closedir(dir_);
  }
  DIR* get() const { return dir_; }

 private:
  DIR* dir_;
};

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

}  // namespace

std::filesystem::path powerSupplyClassPath(const std::filesystem::path& sysfsRoot) {
  return sysfsRoot / "class" / "power_supply";
}

std::filesystem::path thermalClassPath(const std::filesystem::path& sysfsRoot) {
  return sysfsRoot / "class" / "thermal";
}

std::filesystem::path powercapClassPath(const std::filesystem::path& sysfsRoot) {
  return sysfsRoot / "class" / "powercap";
}

std::optional<std::string> readFile(const std::filesystem::path& path, int* error) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (error != nullptr) *error = errno;
    return std::nullopt;
  }
  FileDescriptor guard(fd);
  // A file nobody may read is unreadable even to root, who could open it anyway: a captured
  // tree then behaves the same whoever replays it. Anyone else was already refused by open.
  static const bool privileged = ::geteuid() == 0;
  struct stat status {};
  if (privileged && ::fstat(guard.get(), &status) == 0 && S_ISREG(status.st_mode) &&
      (status.st_mode & (S_IRUSR | S_IRGRP | S_IROTH)) == 0) {
    if (error != nullptr) *error = EACCES;
    return std::nullopt;
  }
  std::string text;
  char buffer[4096];
  for (;;) {
    ssize_t n = ::read(guard.get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (error != nullptr) *error = errno;
      return std::nullopt;
    }
    if (n == 0) break;
    text.append(buffer, static_cast<std::size_t>(n));
    if (text.size() > kMaxFileSize) {
      if (error != nullptr) *error = EFBIG;
      return std::nullopt;
    }
    // A sysfs attribute hands over its whole value in one read, and a short read of a regular
    // file means its end: skipping the read that would return 0 saves a system call per file.
    if (static_cast<std::size_t>(n) < sizeof buffer) break;
  }
  return text;
}

std::optional<std::vector<std::string>> listDirectory(const std::filesystem::path& dir,
                                                      int* error) {
  DirectoryHandle handle(::opendir(dir.c_str()));
  if (handle.get() == nullptr) {
    if (error != nullptr) *error = errno;
    return std::nullopt;
  }
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(handle.get())) {
    std::string_view name(entry->d_name);
    if (name != "." && name != "..") names.emplace_back(name);
  }
  if (errno != 0) {
    if (error != nullptr) *error = errno;
    return std::nullopt;
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return text;
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
  text = trim(text);
  if (text.empty()) return std::nullopt;
  std::int64_t value = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc{} || ptr != end) return std::nullopt;
  return value;
}

UeventProperties UeventProperties::parse(std::string_view text, std::string_view prefix) {
  UeventProperties result;
  while (!text.empty()) {
    std::size_t eol = text.find('\n');
    std::string_view line = text.substr(0, eol);
    text = eol == std::string_view::npos ? std::string_view{} : text.substr(eol + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    std::size_t eq = line.find('=');
    if (eq == std::string_view::npos) continue;
    std::string_view key = line.substr(0, eq);
    if (key.size() <= prefix.size() || key.substr(0, prefix.size()) != prefix) continue;
    key.remove_prefix(prefix.size());
    std::string lowered(key);
    std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    result.entries_.emplace_back(std::move(lowered), std::string(line.substr(eq + 1)));
  }
  return result;
}

std::optional<std::string_view> UeventProperties::find(std::string_view name) const {
  for (const auto& [key, value] : entries_) {
    if (key == name) return std::string_view(value);
  }
  return std::nullopt;
}

SysfsDevice::SysfsDevice(std::filesystem::path dir, std::string_view ueventPrefix)
    : dir_(std::move(dir)) {
  if (auto text = readFile(dir_ / "uevent")) {
    auto parsed = UeventProperties::parse(*text, ueventPrefix);
    // A uevent without a single property of the class says nothing about the device; the
    // attribute files are the better source then.
    if (parsed.size() > 0) uevent_ = std::move(parsed);
  }
}

std::optional<std::string> SysfsDevice::readAttributeFile(std::string_view name) const {
  auto text = readFile(dir_ / name);
  if (!text) return std::nullopt;
  return std::string(trim(*text));
}

std::optional<std::string> SysfsDevice::property(std::string_view name) const {
  if (uevent_) {
    auto value = uevent_->find(name);
    if (!value) return std::nullopt;
    return std::string(trim(*value));
  }
  return readAttributeFile(name);
}

std::optional<std::int64_t> SysfsDevice::integerProperty(std::string_view name) const {
  auto text = property(name);
  if (!text) return std::nullopt;
  return parseInteger(*text);
}

std::optional<std::string> SysfsDevice::attribute(std::string_view name) const {
  if (uevent_) {
    if (auto value = uevent_->find(name)) return std::string(trim(*value));
  }
  return readAttributeFile(name);
}

std::optional<std::int64_t> SysfsDevice::integerAttribute(std::string_view name) const {
  auto text = attribute(name);
  if (!text) return std::nullopt;
  return parseInteger(*text);
}

}  // namespace quorel::sysfs
