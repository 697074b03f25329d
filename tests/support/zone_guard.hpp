#pragma once
// Sets TZ for the guard's lifetime and puts the old value back, so tests of local days hold on
// any machine. Changes go through the local-time seam, under the lock its readers take.

#include <cstdlib>
#include <optional>
#include <string>

#include "core/local_time.hpp"

namespace quorel::testing {

class ZoneGuard {
 public:
  explicit ZoneGuard(const char* zone) {
    if (const char* old = std::getenv("TZ")) old_ = old;
    set(zone);
  }
  ~ZoneGuard() { setTimeZone(old_); }
  ZoneGuard(const ZoneGuard&) = delete;
  ZoneGuard& operator=(const ZoneGuard&) = delete;
  void set(const char* zone) { setTimeZone(std::string(zone)); }

 private:
  std::optional<std::string> old_;
};

}  // namespace quorel::testing
