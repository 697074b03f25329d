#pragma once
// Captures what the loggers write while alive, so tests can check log lines word for word.
// The one capture every test binary uses: two classes of this name in one binary would break
// the one-definition rule.

#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/logging.hpp"
#include "wait_until.hpp"

namespace quorel::testing {

class LogCapture {
 public:
  struct Line {
    std::string logger;
    spdlog::level::level_enum level;
    std::string message;
  };

  LogCapture() : sink_(std::make_shared<Sink>()) { logging::addSink(sink_); }
  ~LogCapture() { logging::removeSink(sink_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<Line> lines() const {
    std::lock_guard lock(sink_->entriesMutex);
    return sink_->captured;
  }
  // Every message in order, or only those of one category ("PowerMonitor", ...).
  std::vector<std::string> messages(const std::optional<std::string>& category = {}) const {
    std::vector<std::string> out;
    for (auto& e : lines()) {
      if (!category || e.logger == *category) out.push_back(std::move(e.message));
    }
    return out;
  }
  std::size_t count(const std::string& message) const {
    const auto all = messages();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), message));
  }
  bool contains(const std::string& message) const { return count(message) > 0; }
  // Waits, bounded, for a message that another thread logs.
  bool waitFor(const std::string& message,
               std::chrono::milliseconds limit = std::chrono::seconds(5)) const {
    return waitUntil([&] { return contains(message); }, limit);
  }

 private:
  struct Sink : spdlog::sinks::base_sink<std::mutex> {
    mutable std::mutex entriesMutex;
    std::vector<Line> captured;

   protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
      std::lock_guard lock(entriesMutex);
      captured.push_back({std::string(msg.logger_name.begin(), msg.logger_name.end()), msg.level,
                          std::string(msg.payload.begin(), msg.payload.end())});
    }
    void flush_() override {}
  };
  std::shared_ptr<Sink> sink_;
};

}  // namespace quorel::testing
