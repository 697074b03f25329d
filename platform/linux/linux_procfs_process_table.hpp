#pragma once
// The process table read from procfs. Per pass it costs one directory listing and one small
// read of `<pid>/stat` per process (open, one read into a stack buffer, close); `comm`,
// `cmdline` and the `exe` link are read only when asked for.

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "energy/process_table.hpp"

namespace quorel {

namespace procfs {

// Linux marks its own threads with this bit (PF_KTHREAD) in the flags field of `stat`.
inline constexpr std::uint64_t kKernelThreadFlag = 0x00200000;
// kthreadd, the parent of every kernel thread.
inline constexpr ProcessId kKernelThreadParent = 2;

// What a stat line alone does not say.
struct StatContext {
  // USER_HZ, the unit of the time fields.
  long ticksPerSecond = 100;
  // When the machine booted, seconds since 1970; makes the start absolute.
  std::optional<std::int64_t> bootTime_s;
  // Whether pid 2 is kthreadd. Inside a pid namespace kernel threads are invisible and pid 2 is
  // an ordinary process whose children must not be taken for kernel threads.
  bool kernelThreadParentPresent = false;
};

// One `<pid>/stat` line as the kernel writes it: "pid (comm) state ppid ... starttime ...".
// The name may hold spaces and parentheses, so the fields are counted from the last ')'.
// Absent when the line is cut short or a field this needs is not a number, or when the line
// belongs to another pid.
std::optional<ProcessStat> parseStat(std::string_view line, ProcessId pid,
                                     const StatContext& context);

// Whether a stat line is kthreadd's: pid 2, named so, started by the kernel itself.
bool isKernelThreadParent(std::string_view line);

// The `btime` line of the system-wide `stat` file: when the machine booted, seconds since 1970.
std::optional<std::int64_t> parseBootTime(std::string_view systemStat);

}  // namespace procfs

class LinuxProcfsProcessTable final : public ProcessTable {
 public:
  // `ticksPerSecond` is the kernel's USER_HZ that `stat` counts in; absent means the system's.
  explicit LinuxProcfsProcessTable(std::filesystem::path procRoot = "/proc",
                                   std::optional<long> ticksPerSecond = std::nullopt);
  LinuxProcfsProcessTable(const LinuxProcfsProcessTable&) = delete;
  LinuxProcfsProcessTable& operator=(const LinuxProcfsProcessTable&) = delete;

  // Numeric entries of the root only ("self", "sys" and the like are not processes). Also looks
  // again, once per listing, at what a stat line cannot tell alone: whether pid 2 is kthreadd,
  // and the boot time while it could not be read.
  std::vector<ProcessId> listPids() const override;
  std::optional<ProcessStat> readStat(ProcessId pid) const override;
  std::optional<std::string> readName(ProcessId pid) const override;
  std::optional<std::vector<std::string>> readArguments(ProcessId pid) const override;
  // The target of `<pid>/exe`, without the " (deleted)" the kernel adds once the file has been
  // replaced (as after an upgrade): the path still names the program.
  std::optional<std::filesystem::path> readExecutablePath(ProcessId pid) const override;

  long ticksPerSecond() const { return ticksPerSecond_; }
  // Seconds since 1970; absent while the root's `stat` has no readable `btime`.
  std::optional<std::int64_t> bootTime_s() const;

 private:
  // Writes "<root>/<pid>/<file>" into `buffer`; false when it would not fit.
  bool pidFilePath(ProcessId pid, std::string_view file, char* buffer, std::size_t size) const;
  std::optional<std::string> readPidFile(ProcessId pid, std::string_view file) const;
  void loadBootTime() const;
  void refreshSystemFacts() const;
  procfs::StatContext statContext() const;

  std::string root_;
  long ticksPerSecond_;
  // The boot time never changes while the machine runs, so it is read once and shared by every
  // thread; kNoBootTime until it has been read.
  static constexpr std::int64_t kNoBootTime = std::numeric_limits<std::int64_t>::min();
  mutable std::atomic<std::int64_t> bootTime_s_{kNoBootTime};
  mutable std::atomic<bool> kernelThreadParentPresent_{false};
};

}  // namespace quorel
