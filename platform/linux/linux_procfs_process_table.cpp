#include "platform/linux/linux_procfs_process_table.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/magic.h>
#include <spdlog/logger.h>
#include <sys/resource.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>

#include "core/file_descriptor.hpp"
#include "core/logging.hpp"
#include "energy/process_text.hpp"

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

ssize_t readAtStart(int fd, char* buffer, std::size_t size) {
  while (true) {
    const ssize_t n = ::pread(fd, buffer, size, 0);
    if (n >= 0 || errno != EINTR) return n;
  }
}

// Descriptors left to the rest of the program (the database, sockets, sysfs reads) however many
// processes there are.
constexpr rlim_t kReservedDescriptors = 256;
// Beyond any machine's process count; keeps an unlimited soft limit from meaning unbounded.
constexpr std::size_t kMaxKeptStats = 1 << 20;

// The limit belongs to the process, not to a table, so it is raised once.
void raiseOpenFileLimit() {
  static std::once_flag once;
  std::call_once(once, [] {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  });
}

// How many stat descriptors a table may keep under the current soft limit.
std::size_t keptStatCapacity() {
  raiseOpenFileLimit();
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  if (limit.rlim_cur == RLIM_INFINITY) return kMaxKeptStats;
  const rlim_t soft = limit.rlim_cur;
  const rlim_t capacity = soft > 2 * kReservedDescriptors ? soft - kReservedDescriptors : soft / 2;
  return std::min<std::size_t>(capacity, kMaxKeptStats);
}

bool isProcfs(const std::string& root) {
  struct statfs fs {};
  return ::statfs(root.c_str(), &fs) == 0 && fs.f_type == PROC_SUPER_MAGIC;
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
                                                 std::optional<long> ticksPerSecond,
                                                 StatDescriptors descriptors)
    : root_(procRoot.string()),
      ticksPerSecond_(ticksPerSecond && *ticksPerSecond > 0 ? *ticksPerSecond : systemTickRate()) {
  while (root_.size() > 1 && root_.back() == '/') root_.pop_back();
  keepOpen_ = descriptors == StatDescriptors::keepOpen ||
              (descriptors == StatDescriptors::automatic && isProcfs(root_));
  if (keepOpen_) keptCapacity_ = keptStatCapacity();
  refreshSystemFacts();
}

LinuxProcfsProcessTable::~LinuxProcfsProcessTable() {
  for (const KeptStat& kept : kept_) ::close(kept.fd);
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
  if (dir == nullptr) {
    if (keepOpen_) closeStatsNotIn(pids);
    return pids;
  }
  while (const dirent* entry = ::readdir(dir)) {
    ProcessId pid = 0;
    if (isPidName(entry->d_name, pid)) pids.push_back(pid);
  }
  ::closedir(dir);
  std::sort(pids.begin(), pids.end());
  if (keepOpen_) closeStatsNotIn(pids);
  return pids;
}

void LinuxProcfsProcessTable::closeStatsNotIn(const std::vector<ProcessId>& pids) const {
  const std::lock_guard lock(keptLock_);
  auto listed = pids.begin();
  auto out = kept_.begin();
  for (const KeptStat& kept : kept_) {
    listed = std::lower_bound(listed, pids.end(), kept.pid);
    if (listed != pids.end() && *listed == kept.pid) {
      *out++ = kept;
    } else {
      ::close(kept.fd);
    }
  }
  kept_.erase(out, kept_.end());
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

int LinuxProcfsProcessTable::openStat(ProcessId pid) const {
  char path[PATH_MAX];
  if (!pidFilePath(pid, "stat", path, sizeof path)) return -1;
  int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0 && (errno == EMFILE || errno == ENFILE) && keepOpen_ && !kept_.empty()) {
    shedStatDescriptors();
    fd = ::open(path, O_RDONLY | O_CLOEXEC);
  }
  return fd;
}

// The program needs descriptors more than a pass needs to save opens: a quarter of the kept
// ones are given back (the highest pids, as good as any), no more are kept from now on, and the
// processes not kept are read open-read-close.
void LinuxProcfsProcessTable::shedStatDescriptors() const {
  const std::size_t keep = kept_.size() - std::max<std::size_t>(1, kept_.size() / 4);
  for (std::size_t i = keep; i < kept_.size(); ++i) ::close(kept_[i].fd);
  kept_.resize(keep);
  keptCapacity_ = keep;
  if (exhaustionLogged_) return;
  exhaustionLogged_ = true;
  logging::get("ProcessTable")
      ->warn(
          "out of file descriptors — keeping {} stat files open, reading the others "
          "open-read-close",
          keep);
}

std::optional<ProcessStat> LinuxProcfsProcessTable::readStatFrom(int fd, ProcessId pid,
                                                                 bool& wholeInBuffer) const {
  char buffer[kStatBufferSize];
  const ssize_t n = readOnce(fd, buffer, sizeof buffer);
  wholeInBuffer = n > 0 && static_cast<std::size_t>(n) < sizeof buffer;
  if (n <= 0) return std::nullopt;
  const auto length = static_cast<std::size_t>(n);
  if (wholeInBuffer) return procfs::parseStat({buffer, length}, pid, statContext());
  std::string longLine(buffer, length);
  if (!readRest(fd, longLine, 64 * 1024)) return std::nullopt;
  return procfs::parseStat(longLine, pid, statContext());
}

std::optional<ProcessStat> LinuxProcfsProcessTable::readKeptStat(ProcessId pid) const {
  const auto byPid = [](const KeptStat& kept, ProcessId p) { return kept.pid < p; };
  const std::lock_guard lock(keptLock_);
  auto kept = std::lower_bound(kept_.begin(), kept_.end(), pid, byPid);
  if (kept != kept_.end() && kept->pid == pid) {
    char buffer[kStatBufferSize];
    const ssize_t n = readAtStart(kept->fd, buffer, sizeof buffer);
    if (n > 0 && static_cast<std::size_t>(n) < sizeof buffer) {
      auto stat = procfs::parseStat({buffer, static_cast<std::size_t>(n)}, pid, statContext());
      if (stat && stat->startTicks == kept->startTicks) return stat;
    }
    // ESRCH or nothing to read: the process ended. Another start: the file was replaced under
    // the descriptor. Either way the pid may belong to a new process now, so look afresh.
    ::close(kept->fd);
    kept_.erase(kept);
  }
  const int fd = openStat(pid);
  if (fd < 0) return std::nullopt;
  FileDescriptor guard(fd);
  bool wholeInBuffer = false;
  auto stat = readStatFrom(fd, pid, wholeInBuffer);
  // A line longer than the buffer cannot be read again with one pread; it is not kept.
  if (stat && wholeInBuffer && kept_.size() < keptCapacity_) {
    kept_.insert(std::lower_bound(kept_.begin(), kept_.end(), pid, byPid),
                 {pid, guard.release(), stat->startTicks});
  }
  return stat;
}

std::optional<ProcessStat> LinuxProcfsProcessTable::readStat(ProcessId pid) const {
  if (pid <= 0) return std::nullopt;
  if (keepOpen_) return readKeptStat(pid);
  const int fd = openStat(pid);
  if (fd < 0) return std::nullopt;
  FileDescriptor guard(fd);
  bool wholeInBuffer = false;
  return readStatFrom(fd, pid, wholeInBuffer);
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
