#include "app/single_instance_lock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace quorel {

SingleInstanceLock::SingleInstanceLock(std::filesystem::path file) {
  std::error_code ec;
  if (!std::filesystem::exists(file.parent_path(), ec)) {
    std::filesystem::create_directories(file.parent_path(), ec);
    std::filesystem::permissions(file.parent_path(), std::filesystem::perms::owner_all, ec);
  }
  const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    error_ = "cannot open the instance lock " + file.string() + " — " + std::strerror(errno);
    return;
  }
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    // Held: the holder wrote its pid when it took the lock.
    char buffer[32] = {};
    const ssize_t n = ::pread(fd, buffer, sizeof(buffer) - 1, 0);
    if (n > 0) {
      char* end = nullptr;
      const long pid = std::strtol(buffer, &end, 10);
      if (pid > 0 && end != buffer) holder_ = static_cast<pid_t>(pid);
    }
    ::close(fd);
    return;
  }
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd, 0) != 0 ||
      ::pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    // The lock itself is what matters; the pid only makes the second copy's message nicer.
  }
  fd_ = fd;
}

SingleInstanceLock::~SingleInstanceLock() {
  // Closing releases the lock; the file stays, so a racing starter never locks a stale inode.
  if (fd_ >= 0) ::close(fd_);
}

std::string SingleInstanceLock::alreadyRunningMessage(std::optional<pid_t> holder) {
  if (!holder) return "Quorel is already running";
  return "Quorel is already running (pid " + std::to_string(*holder) + ")";
}

}  // namespace quorel
