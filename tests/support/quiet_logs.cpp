// Test binaries keep log lines off the terminal unless QUOREL_TEST_LOGS is set; tests that
// check log lines capture them with LogCapture regardless.
#include <cstdlib>

#include "core/logging.hpp"

namespace {
const bool kConfigured = [] {
  quorel::logging::Options options;
  options.toStderr = std::getenv("QUOREL_TEST_LOGS") != nullptr;
  options.level = spdlog::level::debug;
  quorel::logging::configure(options);
  return true;
}();
}  // namespace
