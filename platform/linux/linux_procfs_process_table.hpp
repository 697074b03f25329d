#pragma once
// The process table read from procfs. Per pass it costs one directory listing and one small
// read of `<pid>/stat` per process into a stack buffer; `comm`, `cmdline` and the `exe` link are
// read only when asked for. On procfs each `stat` stays open between passes and is only read
// again from its start, since opening and closing it costs more than the read itself.

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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

// Whether `<pid>/stat` descriptors stay open between reads.
enum class StatDescriptors {
  // Kept open where the root is procfs, reopened on every read elsewhere. On procfs a kept
  // descriptor belongs to its process: once the process ends it reads ESRCH, even when the pid
  // has been given to another. A plain file (a captured tree) has no such tie: a descriptor
  // kept on it would go on reading a file the tree has since replaced.
  automatic,
  // Kept open on any file system: the benchmark's generated tree, and tests of this path, whose
  // trees rewrite files in place.
  keepOpen,
  // Opened, read and closed on every read.
  reopen,
};

class LinuxProcfsProcessTable final : public ProcessTable {
 public:
  // `ticksPerSecond` is the kernel's USER_HZ that `stat` counts in; absent means the system's.
  // Keeping descriptors open raises the process's soft limit on open files to its hard limit
  // (once per process) and keeps a reserve of descriptors for the rest of the program.
  explicit LinuxProcfsProcessTable(std::filesystem::path procRoot = "/proc",
                                   std::optional<long> ticksPerSecond = std::nullopt,
                                   StatDescriptors descriptors = StatDescriptors::automatic);
  ~LinuxProcfsProcessTable() override;
  LinuxProcfsProcessTable(const LinuxProcfsProcessTable&) = delete;
  LinuxProcfsProcessTable& operator=(const LinuxProcfsProcessTable&) = delete;

  // Numeric entries of the root only ("self", "sys" and the like are not processes). Also looks
  // again, once per listing, at what a stat line cannot tell alone: whether pid 2 is kthreadd,
  // and the boot time while it could not be read. Closes the kept descriptors of pids that are
  // no longer listed.
  std::vector<ProcessId> listPids() const override;
  // Through the kept descriptor when there is one. A descriptor whose read fails, comes back
  // empty or shows another start than the one it was opened on is closed and the file opened
  // afresh: the pid may belong to a new process by now.
  std::optional<ProcessStat> readStat(ProcessId pid) const override;
  std::optional<std::string> readName(ProcessId pid) const override;
  std::optional<std::vector<std::string>> readArguments(ProcessId pid) const override;
  // The target of `<pid>/exe`, without the " (deleted)" the kernel adds once the file has been
  // replaced (as after an upgrade): the path still names the program.
  std::optional<std::filesystem::path> readExecutablePath(ProcessId pid) const override;

  long ticksPerSecond() const { return ticksPerSecond_; }
  bool keepsDescriptorsOpen() const { return keepOpen_; }
  // Seconds since 1970; absent while the root's `stat` has no readable `btime`.
  std::optional<std::int64_t> bootTime_s() const;

 private:
  // Writes "<root>/<pid>/<file>" into `buffer`; false when it would not fit.
  bool pidFilePath(ProcessId pid, std::string_view file, char* buffer, std::size_t size) const;
  std::optional<std::string> readPidFile(ProcessId pid, std::string_view file) const;
  // Opens `<pid>/stat`; with descriptors kept, running out of them gives some back first.
  int openStat(ProcessId pid) const;
  std::optional<ProcessStat> readStatFrom(int fd, ProcessId pid, bool& wholeInBuffer) const;
  std::optional<ProcessStat> readKeptStat(ProcessId pid) const;
  void closeStatsNotIn(const std::vector<ProcessId>& pids) const;
  void shedStatDescriptors() const;
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

  struct KeptStat {
    ProcessId pid;
    int fd;
    // What the descriptor was opened on; a line with another start is another process's.
    std::uint64_t startTicks;
  };
  bool keepOpen_ = false;
  // Guards the kept descriptors: a reader must not read one that another thread is closing.
  mutable std::mutex keptLock_;
  mutable std::vector<KeptStat> kept_;  // by pid, ascending
  // How many may be kept; lowered for good once the process runs out of descriptors.
  mutable std::size_t keptCapacity_ = 0;
  mutable bool exhaustionLogged_ = false;
};

}  // namespace quorel
