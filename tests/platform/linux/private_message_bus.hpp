#pragma once
// A message bus of a test's own: dbus-daemon on a private address, ended with the test, so that
// a fake peer can stand in for a system service.

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace quorel::testing {

class PrivateMessageBus {
 public:
  PrivateMessageBus() = default;
  PrivateMessageBus(const PrivateMessageBus&) = delete;
  PrivateMessageBus& operator=(const PrivateMessageBus&) = delete;
  ~PrivateMessageBus() { stop(); }

  // False when no daemon could be started (the install script installs dbus-daemon).
  bool start() {
    // The daemon prints its address, then its pid, a line each.
    daemon_ = ::popen(
        "exec dbus-daemon --session --nofork --nopidfile --print-address=1 --print-pid=1 "
        "2>/dev/null",
        "r");
    char address[512];
    char pid[32];
    if (!daemon_ || !std::fgets(address, sizeof address, daemon_) ||
        !std::fgets(pid, sizeof pid, daemon_)) {
      return false;
    }
    address_.assign(address, std::strcspn(address, "\n"));
    pid_ = static_cast<pid_t>(std::atol(pid));
    return true;
  }
  void stop() {
    if (pid_ > 0) ::kill(pid_, SIGTERM);
    if (daemon_) ::pclose(daemon_);
    daemon_ = nullptr;
    pid_ = 0;
  }
  const std::string& address() const { return address_; }

 private:
  FILE* daemon_ = nullptr;
  pid_t pid_ = 0;
  std::string address_;
};

}  // namespace quorel::testing
