#include "core/logging.hpp"

#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <mutex>
#include <string>
#include <unordered_map>

namespace quorel::logging {

namespace {
struct Registry {
  std::mutex mutex;
  // Configured sinks (stderr, file) and extra ones (tests) sit behind one distributing sink,
  // so that reconfiguring never has to touch the loggers themselves.
  std::shared_ptr<spdlog::sinks::dist_sink_mt> configured =
      std::make_shared<spdlog::sinks::dist_sink_mt>();
  std::shared_ptr<spdlog::sinks::dist_sink_mt> all = [this] {
    auto d = std::make_shared<spdlog::sinks::dist_sink_mt>();
    d->add_sink(configured);
    return d;
  }();
  std::unordered_map<std::string, std::shared_ptr<spdlog::logger>> loggers;
  spdlog::level::level_enum level = spdlog::level::info;
  bool configuredOnce = false;
};

Registry& registry() {
  static Registry r;
  return r;
}

void applyDefaultsLocked(Registry& r) {
  if (r.configuredOnce) return;
  r.configuredOnce = true;
  auto err = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  err->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z %^%l%$ [%n] %v");
  r.configured->set_sinks({err});
}
}  // namespace

void configure(const Options& options) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.configuredOnce = true;
  std::vector<std::shared_ptr<spdlog::sinks::sink>> sinks;
  if (options.toStderr) {
    auto err = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    err->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z %^%l%$ [%n] %v");
    sinks.push_back(err);
  }
  if (options.file) {
    try {
      std::filesystem::create_directories(options.file->parent_path());
      auto file = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(options.file->string(),
                                                                         1024 * 1024, 5);
      file->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z %l [%n] %v");
      sinks.push_back(file);
    } catch (const std::exception& e) {
      // Logging to a file is a convenience; losing it must not stop the agent.
      if (!sinks.empty()) {
        sinks.front()->log(spdlog::details::log_msg(
            "logging", spdlog::level::warn,
            std::string("cannot open log file ") + options.file->string() + " — " + e.what()));
      }
    }
  }
  r.configured->set_sinks(std::move(sinks));
  r.level = options.level;
  for (auto& [name, logger] : r.loggers) logger->set_level(options.level);
}

std::shared_ptr<spdlog::logger> get(std::string_view category) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  applyDefaultsLocked(r);
  std::string key(category);
  if (auto it = r.loggers.find(key); it != r.loggers.end()) return it->second;
  auto logger = std::make_shared<spdlog::logger>(key, r.all);
  logger->set_level(r.level);
  r.loggers.emplace(std::move(key), logger);
  return logger;
}

void addSink(std::shared_ptr<spdlog::sinks::sink> sink) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  applyDefaultsLocked(r);
  r.all->add_sink(std::move(sink));
}

void removeSink(const std::shared_ptr<spdlog::sinks::sink>& sink) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.all->remove_sink(sink);
}

}  // namespace quorel::logging
