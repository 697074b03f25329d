#pragma once
// The operating system's process table as the process sampler and the agent classifier see it:
// five reads, shaped so that the one made for every process on every pass is a single cheap
// call, and the costly ones (names, arguments, executable) are made only for the few processes
// a caller lists or meets for the first time. Callers cache those by start, not the table.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/clock.hpp"

namespace quorel {

using ProcessId = std::int32_t;

// One read of a process's accounting record.
struct ProcessStat {
  ProcessId pid = 0;
  // 0 for processes the kernel started itself (the init process, the kernel-thread parent).
  ProcessId ppid = 0;
  // User plus system time of all the process's threads since it started. Children's time is not
  // in it, not even of children that have ended.
  std::uint64_t cpuTime_ns = 0;
  // When the process started, in the table's own ticks since boot. Unchanged for the whole life
  // of a process and different for a later process on the same pid (unless both started within
  // one tick), so caches of names and attributions are keyed on it.
  std::uint64_t startTicks = 0;
  // The same instant as wall time; absent when the table cannot tell when the machine booted.
  std::optional<TimePoint> startTime;
  // The kernel's one-letter state: 'R' running, 'S' sleeping, 'Z' ended but not yet reaped...
  char state = '?';
  // A thread of the kernel itself. Its CPU time is real work of the machine, so it counts in
  // totals, but it belongs to no program and is never listed.
  bool isKernelThread = false;

  bool operator==(const ProcessStat&) const = default;
};

// All operations are const and may be called from any thread, concurrently. A process can end
// between any two calls; every per-process read then returns nothing, never an error, and the
// caller skips the pid. Nothing throws.
class ProcessTable {
 public:
  virtual ~ProcessTable() = default;

  // The processes that exist now, ascending. Empty when the table cannot be read at all.
  virtual std::vector<ProcessId> listPids() const = 0;

  // The record read once per process per pass; see ProcessStat. Absent when the process is gone
  // or its record cannot be read or makes no sense.
  virtual std::optional<ProcessStat> readStat(ProcessId pid) const = 0;

  // The kernel's short name of the process (truncated by the kernel, 15 bytes on Linux), with
  // bad UTF-8 replaced by U+FFFD.
  virtual std::optional<std::string> readName(ProcessId pid) const = 0;

  // The argument vector, argv[0] first, each with bad UTF-8 replaced by U+FFFD. Empty (not
  // absent) for a process that has none to show: kernel threads, ended processes.
  virtual std::optional<std::vector<std::string>> readArguments(ProcessId pid) const = 0;

  // Where the process's program lives. Absent for kernel threads, for processes the agent may
  // not inspect, and for processes that are gone.
  virtual std::optional<std::filesystem::path> readExecutablePath(ProcessId pid) const = 0;
};

}  // namespace quorel
