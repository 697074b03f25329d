#pragma once
// A service of a test's own on a private bus: its connection is served on a thread of its own,
// so the code under test can make blocking calls to it. Work that must touch the connection
// (emitting a signal, adding an object) is handed to that thread with run().

#include <systemd/sd-bus.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quorel::testing {

class FakeBusService {
 public:
  FakeBusService() = default;
  FakeBusService(const FakeBusService&) = delete;
  FakeBusService& operator=(const FakeBusService&) = delete;
  ~FakeBusService() { stop(); }

  // Connects to `address`, owns `name`, lets `setUp` add its objects, then serves until stop().
  bool start(const std::string& address, const char* name,
             const std::function<bool(sd_bus*)>& setUp) {
    if (sd_bus_new(&bus_) < 0 || sd_bus_set_address(bus_, address.c_str()) < 0 ||
        sd_bus_set_bus_client(bus_, 1) < 0 || sd_bus_start(bus_) < 0 || !setUp(bus_)) {
      return false;
    }
    // The daemon may not yet have seen the last owner of the name leave.
    int r = -EEXIST;
    for (int tries = 0; r == -EEXIST && tries < 400; ++tries) {
      if ((r = sd_bus_request_name(bus_, name, 0)) == -EEXIST) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    }
    if (r < 0) return false;
    thread_ = std::thread([this] { serve(); });
    return true;
  }
  void stop() {
    stopping_.store(true);
    if (thread_.joinable()) thread_.join();
    if (bus_) sd_bus_flush_close_unref(bus_);
    bus_ = nullptr;
  }
  // Runs `work` on the serving thread and waits for it.
  void run(std::function<void(sd_bus*)> work) {
    std::promise<void> done;
    {
      const std::lock_guard lock(mutex_);
      pending_.push_back([&] {
        work(bus_);
        sd_bus_flush(bus_);
        done.set_value();
      });
    }
    done.get_future().wait();
  }

 private:
  void serve() {
    while (!stopping_.load()) {
      std::vector<std::function<void()>> jobs;
      {
        const std::lock_guard lock(mutex_);
        jobs.swap(pending_);
      }
      for (auto& job : jobs) job();
      while (sd_bus_process(bus_, nullptr) > 0) {
      }
      // Short, so that a job handed over is picked up soon.
      sd_bus_wait(bus_, 5'000);
    }
  }

  sd_bus* bus_ = nullptr;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;
  std::vector<std::function<void()>> pending_;
};

}  // namespace quorel::testing
