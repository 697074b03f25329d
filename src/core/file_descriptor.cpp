#include "core/file_descriptor.hpp"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>

namespace quorel {

int millisecondsUntil(MonotonicTime deadline, const Clock& clock) {
  const auto left = std::chrono::duration<double, std::milli>(deadline - clock.monotonicNow());
  if (!(left.count() > 0)) return 0;
  return static_cast<int>(std::min(std::ceil(left.count()), 1e9));
}

bool waitForDescriptor(int fd, short events, MonotonicTime deadline, const Clock& clock) {
  for (;;) {
    const int left = millisecondsUntil(deadline, clock);
    if (left == 0) return false;
    pollfd p{fd, events, 0};
    const int n = ::poll(&p, 1, left);
    if (n > 0) return true;
    if (n < 0 && errno != EINTR) return false;
  }
}

}  // namespace quorel
