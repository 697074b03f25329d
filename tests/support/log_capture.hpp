#pragma once
// Captures what the loggers write during a test, so log lines can be checked word for word.

#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/logging.hpp"

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
    std::lock_guard lock(sink_->linesMutex);
    return sink_->captured;
  }
  std::size_t count(const std::string& message) const {
    auto all = lines();
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(), [&](const Line& l) { return l.message == message; }));
  }

 private:
  struct Sink : spdlog::sinks::base_sink<std::mutex> {
    mutable std::mutex linesMutex;
    std::vector<Line> captured;

   protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
      std::lock_guard lock(linesMutex);
      captured.push_back({std::string(msg.logger_name.begin(), msg.logger_name.end()), msg.level,
                          std::string(msg.payload.begin(), msg.payload.end())});
    }
    void flush_() override {}
  };
  std::shared_ptr<Sink> sink_;
};

}  // namespace quorel::testing
