#pragma once
// Notices on the desktop through the session's notification service (org.freedesktop.Notifications
// on the session bus). Everything that touches the bus runs on a queue of the poster's own
// ("quorel.notices"), so post() returns at once and a slow or absent service never holds up the
// caller; each bus call waits at most `callTimeout`.
//
// One notice on screen per replacement key (the notice's category, else its identifier): the id
// the service gave the last one is passed as replaces_id, until the service says it was closed.
// Actions reach the handler on the delivery queue with our notice identifier and the action key.
// A service that cannot show actions gets the notice without them. With no service on the bus
// the poster warns once, drops notices, and asks again at most every `retryInterval`.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "core/clock.hpp"
#include "core/notice_poster.hpp"
#include "core/serial_queue.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

class DesktopNoticePoster final : public NoticePoster {
 public:
  static constexpr const char* kApplicationName = "Quorel";
  // The freedesktop category closest to ours: every notice of this agent is about the battery.
  static constexpr const char* kHintCategory = "device";

  struct Options {
    // A D-Bus address such as "unix:path=/tmp/bus"; absent means the session bus.
    std::optional<std::string> busAddress;
    // The desktop entry's name without ".desktop", when the agent has one installed.
    std::optional<std::string> desktopEntry;
    Seconds callTimeout{2};
    Seconds retryInterval{180};
  };

  // `deliveryQueue` (the main queue) runs the action handler and must outlive the poster; its
  // clock paces the retries.
  DesktopNoticePoster(SerialQueue& deliveryQueue, NoticeActionHandler onAction, Options options);
  DesktopNoticePoster(SerialQueue& deliveryQueue, NoticeActionHandler onAction)
      : DesktopNoticePoster(deliveryQueue, std::move(onAction), Options{}) {}
  // Closes the connection; no handler runs after it returns.
  ~DesktopNoticePoster() override;
  DesktopNoticePoster(const DesktopNoticePoster&) = delete;
  DesktopNoticePoster& operator=(const DesktopNoticePoster&) = delete;

  void post(Notice notice) override;

  // Blocks until everything posted before has been handled on the poster's queue. For callers
  // that need an order against the service, such as tests; never call it on the main queue.
  void drain();

  // Thread-safe: times the service was looked for.
  std::uint64_t connectionAttempts() const { return attempts_.load(); }
  // Notices of ours the service has not yet said were closed.
  std::size_t noticesOnScreen() const { return onScreen_.load(); }

 private:
  struct Session;
  struct Delivery;

  void deliver(const Notice& notice);
  std::optional<std::string> reachService();

  SerialQueue& deliveryQueue_;
  Options options_;
  std::shared_ptr<spdlog::logger> log_;
  std::atomic<std::uint64_t> attempts_{0};
  std::atomic<std::size_t> onScreen_{0};
  std::shared_ptr<Delivery> delivery_;
  std::unique_ptr<Session> session_;  // the bus queue's only
  std::unique_ptr<SerialQueue> busQueue_;
};

}  // namespace quorel
