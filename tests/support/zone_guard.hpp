#pragma once
// Sets TZ for the guard's lifetime and puts the old value back, so tests of local days hold on
// any machine.

#include <cstdlib>
#include <optional>
#include <string>

namespace quorel::testing {

class ZoneGuard {
 public:
  explicit ZoneGuard(const char* zone) {
    if (const char* old = std::getenv("TZ")) old_ = old;
    set(zone);
  }
  ~ZoneGuard() {
    if (old_) {
      set(old_->c_str());
    } else {
      ::unsetenv("TZ");
    }
  }
  ZoneGuard(const ZoneGuard&) = delete;
  ZoneGuard& operator=(const ZoneGuard&) = delete;
  void set(const char* zone) { ::setenv("TZ", zone, 1); }

 private:
  std::optional<std::string> old_;
};

}  // namespace quorel::testing
