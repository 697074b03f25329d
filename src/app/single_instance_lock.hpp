#pragma once
// One agent per user: the first holds an exclusive lock on a file and writes its process id
// there, so a second can say which process it found.

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

namespace quorel {

class SingleInstanceLock {
 public:
  // Takes the lock on `file` (created 0600, its folder 0700 when missing). Either the lock is
  // held afterwards or `holder()` names the process that holds it (absent when unknown).
  explicit SingleInstanceLock(std::filesystem::path file);
  ~SingleInstanceLock();
  SingleInstanceLock(const SingleInstanceLock&) = delete;
  SingleInstanceLock& operator=(const SingleInstanceLock&) = delete;

  bool acquired() const { return fd_ >= 0; }
  std::optional<pid_t> holder() const { return holder_; }
  // Why the lock could not be taken when no other instance holds it (an unwritable folder).
  const std::string& error() const { return error_; }

  // "Quorel is already running (pid N)"
  static std::string alreadyRunningMessage(std::optional<pid_t> holder);

 private:
  int fd_ = -1;
  std::optional<pid_t> holder_;
  std::string error_;
};

}  // namespace quorel
