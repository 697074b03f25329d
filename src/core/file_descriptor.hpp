#pragma once
// Closes a descriptor when it goes out of scope, so that no early return of a reader leaks one;
// and the bounded wait on one that every client with a deadline needs.

#include <unistd.h>

#include "core/clock.hpp"

namespace quorel {

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  // Hands the descriptor over to a caller that keeps it beyond this scope.
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

// Whole milliseconds from now until `deadline` by `clock`, rounded up; 0 once it has passed.
int millisecondsUntil(MonotonicTime deadline, const Clock& clock);

// Waits for `events` (poll's) on `fd` until `deadline`, through interruptions; false when the
// time ran out or poll failed.
bool waitForDescriptor(int fd, short events, MonotonicTime deadline, const Clock& clock);

}  // namespace quorel
