#include "platform/linux/linux_procfs_process_table.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>

#include "energy/process_text.hpp"
#include "platform/linux/file_descriptor.hpp"

namespace quorel {

namespace {

// A real stat line is 300 to 400 bytes; a page covers any name a process can be given. A longer
// one (only a hand-made tree has those) is read on into the heap.
constexpr std::size_t kStatBufferSize = 4096;
// cmdline can be as large as the argument area; beyond this it is cut, which costs the classifier
// nothing (it reads the first few arguments) and keeps a hostile process from costing memory.
constexpr std::size_t kMaxArgumentBlock = 256 * 1024;
constexpr std::string_view kDeletedSuffix = " (deleted)";

// One read, retried only when interrupted. Returns -1 on a read error (procfs answers ESRCH
// once the process has ended between open and read). A short count means end of file: procfs
// writes a stat line whole into a buffer large enough for it, and a regular file (a captured
// tree) stops short only at its end; not asking again saves a system call per process.
ssize_t readOnce(int fd, char* buffer, std::size_t size) {
  while (true) {
    const ssize_t n = ::read(fd, buffer, size);
    if (n >= 0 || errno != EINTR) return n;
  }
}

// Appends the rest of the file to `text`, up to `limit` bytes in all.
bool readRest(int fd, std::string& text, std::size_t limit) {
  // Read until the end here: cmdline comes from the process's memory a page at a time.
  char chunk[kStatBufferSize];
  while (text.size() < limit) {
    const ssize_t n = readOnce(fd, chunk, std::min(sizeof chunk, limit - text.size()));
    if (n < 0) return false;
    if (n == 0) break;
    text.append(chunk, static_cast<std::size_t>(n));
  }
  return true;
}

// The space-separated fields of a stat line, one after another.
class FieldCursor {
 public:
  explicit FieldCursor(std::string_view text) : text_(text) {}

  std::optional<std::string_view> next() {
    while (pos_ < text_.size() && text_[pos_] == ' ') ++pos_;
    if (pos_ >= text_.size()) return std::nullopt;
    const std::size_t start = pos_;
    while (pos_ < text_.size() && text_[pos_] != ' ' && text_[pos_] != '\n') ++pos_;
    if (pos_ == start) return std::nullopt;
    return text_.substr(start, pos_ - start);
  }

  template <typename Integer>
  std::optional<Integer> nextInteger() {
    const auto field = next();
    if (!field) return std::nullopt;
    Integer value{};
    const auto [end, error] = std::from_chars(field->data(), field->data() + field->size(), value);
    if (error != std::errc{} || end != field->data() + field->size()) return std::nullopt;
    return value;
  }

 private:
  std::string_view text_;
  std::size_t pos_ = 0;
};

std::uint64_t ticksToNanoseconds(std::uint64_t ticks, long ticksPerSecond) {
  const auto rate = static_cast<std::uint64_t>(ticksPerSecond);
  return ticks / rate * 1'000'000'000ull + ticks % rate * 1'000'000'000ull / rate;
}

bool isPidName(const char* name, ProcessId& pid) {
  const char* end = name + std::strlen(name);
  if (name == end || *name < '1' || *name > '9') return false;
  const auto [last, error] = std::from_chars(name, end, pid);
  return error == std::errc{} && last == end;
}

long systemTickRate() {
  const long rate = ::sysconf(_SC_CLK_TCK);
  // USER_HZ has been 100 on every Linux architecture for decades; only a failed call lands here.
  return rate > 0 ? rate : 100;
}

}  // namespace

namespace procfs {

std::optional<ProcessStat> parseStat(std::string_view line, ProcessId pid,
                                     const StatContext& context) {
  const std::size_t open = line.find(" (");
  const std::size_t close = line.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
    return std::nullopt;
  }
  ProcessId linePid = 0;
  const auto [pidEnd, pidError] = std::from_chars(line.data(), line.data() + open, linePid);
  if (pidError != std::errc{} || pidEnd != line.data() + open || linePid != pid) {
    return std::nullopt;
  }

  FieldCursor fields(line.substr(close + 1));
  const auto state = fields.next();  // field 3
  if (!state || state->size() != 1) return std::nullopt;
  ProcessStat stat;
  stat.pid = pid;
  stat.state = state->front();
  const auto ppid = fields.nextInteger<ProcessId>();  // 4
  if (!ppid || *ppid < 0) return std::nullopt;
  stat.ppid = *ppid;
  // pgrp, session, tty_nr, tpgid (5-8): signed, and tpgid is -1 without a terminal.
  for (int field = 5; field <= 8; ++field) {
    if (!fields.nextInteger<std::int64_t>()) return std::nullopt;
  }
  const auto flags = fields.nextInteger<std::uint64_t>();  // 9
  // minflt, cminflt, majflt, cmajflt (10-13).
  for (int field = 10; field <= 13; ++field) {
    if (!fields.nextInteger<std::uint64_t>()) return std::nullopt;
  }
  const auto utime = fields.nextInteger<std::uint64_t>();  // 14
  const auto stime = fields.nextInteger<std::uint64_t>();  // 15
  if (!flags || !utime || !stime) return std::nullopt;
  // cutime, cstime, priority, nice, num_threads, itrealvalue (16-21): signed in the kernel.
  for (int field = 16; field <= 21; ++field) {
    if (!fields.nextInteger<std::int64_t>()) return std::nullopt;
  }
  const auto startTicks = fields.nextInteger<std::uint64_t>();  // 22
  if (!startTicks) return std::nullopt;

  stat.cpuTime_ns = ticksToNanoseconds(*utime + *stime, context.ticksPerSecond);
  stat.startTicks = *startTicks;
  if (context.bootTime_s) {
    const auto sinceBoot =
        std::chrono::nanoseconds(ticksToNanoseconds(*startTicks, context.ticksPerSecond));
    stat.startTime = TimePoint{std::chrono::seconds(*context.bootTime_s)} +
                     std::chrono::duration_cast<TimePoint::duration>(sinceBoot);
  }
  stat.isKernelThread = (*flags & kKernelThreadFlag) != 0 ||
                        (context.kernelThreadParentPresent &&
                         (pid == kKernelThreadParent || stat.ppid == kKernelThreadParent));
  return stat;
}

bool isKernelThreadParent(std::string_view line) {
  constexpr std::string_view kPrefix = "2 (kthreadd) ";
  if (line.substr(0, kPrefix.size()) != kPrefix) return false;
  FieldCursor fields(line.substr(kPrefix.size()));
  fields.next();  // state
  const auto ppid = fields.nextInteger<ProcessId>();
  return ppid == 0;
}

std::optional<std::int64_t> parseBootTime(std::string_view systemStat) {
  constexpr std::string_view kKey = "btime ";
  std::size_t pos = 0;
  while (pos < systemStat.size()) {
    std::size_t end = systemStat.find('\n', pos);
    if (end == std::string_view::npos) end = systemStat.size();
    const std::string_view line = systemStat.substr(pos, end - pos);
    if (line.substr(0, kKey.size()) == kKey) {
      FieldCursor fields(line.substr(kKey.size()));
      const auto seconds = fields.nextInteger<std::int64_t>();
      if (!seconds || *seconds <= 0) return std::nullopt;
      return seconds;
    }
    pos = end + 1;
  }
  return std::nullopt;
}

}  // namespace procfs

LinuxProcfsProcessTable::LinuxProcfsProcessTable(std::filesystem::path procRoot,
                                                 std::optional<long> ticksPerSecond)
    : root_(procRoot.string()),
      ticksPerSecond_(ticksPerSecond && *ticksPerSecond > 0 ? *ticksPerSecond : systemTickRate()) {
  while (root_.size() > 1 && root_.back() == '/') root_.pop_back();
  refreshSystemFacts();
}

std::optional<std::int64_t> LinuxProcfsProcessTable::bootTime_s() const {
  const std::int64_t value = bootTime_s_.load(std::memory_order_relaxed);
  if (value == kNoBootTime) return std::nullopt;
  return value;
}

void LinuxProcfsProcessTable::loadBootTime() const {
  const int fd = ::open((root_ + "/stat").c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  FileDescriptor guard(fd);
  std::string text;
  // The system-wide stat grows with the number of CPUs; btime comes after the per-CPU lines.
  if (!readRest(fd, text, 1024 * 1024)) return;
  if (const auto seconds = procfs::parseBootTime(text)) {
    bootTime_s_.store(*seconds, std::memory_order_relaxed);
  }
}

procfs::StatContext LinuxProcfsProcessTable::statContext() const {
  return {ticksPerSecond_, bootTime_s(),
          kernelThreadParentPresent_.load(std::memory_order_relaxed)};
}

void LinuxProcfsProcessTable::refreshSystemFacts() const {
  if (!bootTime_s()) loadBootTime();
  char path[PATH_MAX];
  bool present = false;
  if (pidFilePath(procfs::kKernelThreadParent, "stat", path, sizeof path)) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
      FileDescriptor guard(fd);
      char buffer[kStatBufferSize];
      const ssize_t n = readOnce(fd, buffer, sizeof buffer);
      present = n > 0 && procfs::isKernelThreadParent({buffer, static_cast<std::size_t>(n)});
    }
  }
  kernelThreadParentPresent_.store(present, std::memory_order_relaxed);
}

std::vector<ProcessId> LinuxProcfsProcessTable::listPids() const {
  refreshSystemFacts();
  std::vector<ProcessId> pids;
  DIR* dir = ::opendir(root_.c_str());
  if (dir == nullptr) return pids;
  while (const dirent* entry = ::readdir(dir)) {
    ProcessId pid = 0;
    if (isPidName(entry->d_name, pid)) pids.push_back(pid);
  }
  ::closedir(dir);
  std::sort(pids.begin(), pids.end());
  return pids;
}

bool LinuxProcfsProcessTable::pidFilePath(ProcessId pid, std::string_view file, char* buffer,
                                          std::size_t size) const {
  char digits[16];
  const auto [digitsEnd, error] = std::to_chars(digits, digits + sizeof digits, pid);
  if (error != std::errc{}) return false;
  const auto digitCount = static_cast<std::size_t>(digitsEnd - digits);
  if (root_.size() + digitCount + file.size() + 3 > size) return false;
  char* out = std::copy(root_.begin(), root_.end(), buffer);
  *out++ = '/';
  out = std::copy(digits, digitsEnd, out);
  *out++ = '/';
  out = std::copy(file.begin(), file.end(), out);
  *out = '\0';
  return true;
}

std::optional<ProcessStat> LinuxProcfsProcessTable::readStat(ProcessId pid) const {
  char path[PATH_MAX];
  if (pid <= 0 || !pidFilePath(pid, "stat", path, sizeof path)) return std::nullopt;
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  FileDescriptor guard(fd);
  char buffer[kStatBufferSize];
  const ssize_t n = readOnce(fd, buffer, sizeof buffer);
  if (n <= 0) return std::nullopt;
  const auto length = static_cast<std::size_t>(n);
  if (length < sizeof buffer) {
    return procfs::parseStat({buffer, length}, pid, statContext());
  }
  std::string longLine(buffer, length);
  if (!readRest(fd, longLine, 64 * 1024)) return std::nullopt;
  return procfs::parseStat(longLine, pid, statContext());
}

std::optional<std::string> LinuxProcfsProcessTable::readPidFile(ProcessId pid,
                                                                std::string_view file) const {
  char path[PATH_MAX];
  if (pid <= 0 || !pidFilePath(pid, file, path, sizeof path)) return std::nullopt;
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  FileDescriptor guard(fd);
  std::string text;
  if (!readRest(fd, text, kMaxArgumentBlock)) return std::nullopt;
  return text;
}

std::optional<std::string> LinuxProcfsProcessTable::readName(ProcessId pid) const {
  auto comm = readPidFile(pid, "comm");
  if (!comm) return std::nullopt;
  if (!comm->empty() && comm->back() == '\n') comm->pop_back();
  return repairUTF8(*comm);
}

std::optional<std::vector<std::string>> LinuxProcfsProcessTable::readArguments(
    ProcessId pid) const {
  const auto block = readPidFile(pid, "cmdline");
  if (!block) return std::nullopt;
  return splitArguments(*block);
}

std::optional<std::filesystem::path> LinuxProcfsProcessTable::readExecutablePath(
    ProcessId pid) const {
  char path[PATH_MAX];
  if (pid <= 0 || !pidFilePath(pid, "exe", path, sizeof path)) return std::nullopt;
  char target[PATH_MAX];
  const ssize_t n = ::readlink(path, target, sizeof target);
  if (n <= 0 || static_cast<std::size_t>(n) == sizeof target) return std::nullopt;
  std::string_view link(target, static_cast<std::size_t>(n));
  if (link.size() > kDeletedSuffix.size() &&
      link.substr(link.size() - kDeletedSuffix.size()) == kDeletedSuffix) {
    link.remove_suffix(kDeletedSuffix.size());
  }
  return std::filesystem::path(std::string(link));
}

}  // namespace quorel
