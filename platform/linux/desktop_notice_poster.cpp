#include "platform/linux/desktop_notice_poster.hpp"

#include <spdlog/logger.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string_view>
#include <vector>

#include "core/logging.hpp"
#include "platform/linux/bus_watch.hpp"
#include "platform/linux/system_bus.hpp"

namespace quorel {

namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kInterface = "org.freedesktop.Notifications";
constexpr const char* kOutageWarning =
    "desktop notification service unavailable — notices are dropped";

std::uint64_t microseconds(Seconds s) {
  return static_cast<std::uint64_t>(std::max(0.0, s.count()) * 1e6);
}

// Appends the a{sv} of string hints.
int appendHints(sd_bus_message* m, const std::vector<std::pair<const char*, std::string>>& hints) {
  int r = sd_bus_message_open_container(m, 'a', "{sv}");
  for (const auto& [key, value] : hints) {
    if (r >= 0) r = sd_bus_message_open_container(m, 'e', "sv");
    if (r >= 0) r = sd_bus_message_append(m, "s", key);
    if (r >= 0) r = sd_bus_message_append(m, "v", "s", value.c_str());
    if (r >= 0) r = sd_bus_message_close_container(m);
  }
  if (r >= 0) r = sd_bus_message_close_container(m);
  return r;
}

}  // namespace

// What the posted handler jobs share with the poster; the handler never changes after
// construction, so only the flag is read across threads.
struct DesktopNoticePoster::Delivery {
  explicit Delivery(NoticeActionHandler h) : handler(std::move(h)) {}
  const NoticeActionHandler handler;
  std::atomic<bool> open{true};
};

// The connection and what the service told us, touched only on the bus queue.
struct DesktopNoticePoster::Session {
  struct Shown {
    std::string key;
    std::string identifier;
  };

  // Declared so that the slots and the watch go before the bus they use.
  SystemBus bus;
  BusSlot actionSlot;
  BusSlot closedSlot;
  std::shared_ptr<BusWatch> watch;
  bool serviceReady = false;
  bool serverHasActions = false;
  bool reportedOutage = false;
  std::optional<MonotonicTime> lastAttempt;
  std::map<std::string, std::uint32_t> idByKey;
  std::map<std::uint32_t, Shown> shown;

  ~Session() { disconnect(); }

  void disconnect() {
    if (watch) watch->close();
    watch.reset();
    actionSlot.reset();
    closedSlot.reset();
    bus.reset();
    serviceReady = false;
    // Ids belong to the service that handed them out.
    idByKey.clear();
    shown.clear();
  }

  void forget(std::uint32_t id) {
    const auto it = shown.find(id);
    if (it == shown.end()) return;
    if (auto key = idByKey.find(it->second.key); key != idByKey.end() && key->second == id) {
      idByKey.erase(key);
    }
    shown.erase(it);
  }

  void remember(std::uint32_t id, const std::string& key, const std::string& identifier) {
    if (auto old = idByKey.find(key); old != idByKey.end() && old->second != id) {
      shown.erase(old->second);
    }
    idByKey[key] = id;
    shown[id] = Shown{key, identifier};
  }
};

DesktopNoticePoster::DesktopNoticePoster(SerialQueue& deliveryQueue, NoticeActionHandler onAction,
                                         Options options)
    : deliveryQueue_(deliveryQueue),
      options_(std::move(options)),
      log_(logging::get("Notifications")),
      delivery_(std::make_shared<Delivery>(std::move(onAction))),
      session_(std::make_unique<Session>()),
      busQueue_(std::make_unique<SerialQueue>("quorel.notices", deliveryQueue.clock())) {
  busQueue_->start();
}

DesktopNoticePoster::~DesktopNoticePoster() {
  delivery_->open.store(false);
  // Asio objects and the sd-bus handle are destroyed on the thread that uses them.
  busQueue_->sync([this] { session_.reset(); });
  busQueue_->shutdown();
}

void DesktopNoticePoster::post(Notice notice) {
  busQueue_->async([this, notice = std::move(notice)] { deliver(notice); });
}

void DesktopNoticePoster::drain() {
  busQueue_->sync([] {});
}

// Connects, subscribes and asks what the service can show; the failure's detail otherwise.
std::optional<std::string> DesktopNoticePoster::reachService() {
  Session& s = *session_;
  auto fail = [](std::string detail) { return std::optional<std::string>(std::move(detail)); };
  attempts_.fetch_add(1);
  auto connection =
      connectSessionBus(options_.busAddress, microseconds(options_.callTimeout), "quorel-notices");
  if (!connection.bus) {
    return fail(connection.address.empty() ? std::string("no session bus address")
                                           : "no session bus at " + connection.address + ": " +
                                                 std::strerror(-connection.error));
  }
  s.bus = std::move(connection.bus);

  // The service broadcasts these to every client; only the ids it gave us are ours.
  auto onAction = [](sd_bus_message* m, void* userdata, sd_bus_error*) -> int {
    auto* self = static_cast<DesktopNoticePoster*>(userdata);
    std::uint32_t id = 0;
    const char* action = nullptr;
    if (sd_bus_message_read(m, "us", &id, &action) <= 0) return 0;
    const auto it = self->session_->shown.find(id);
    if (it == self->session_->shown.end()) return 0;
    self->deliveryQueue_.async(
        [d = self->delivery_, identifier = it->second.identifier, key = std::string(action)] {
          if (d->open.load() && d->handler) d->handler(identifier, key);
        });
    return 0;
  };
  auto onClosed = [](sd_bus_message* m, void* userdata, sd_bus_error*) -> int {
    auto* self = static_cast<DesktopNoticePoster*>(userdata);
    std::uint32_t id = 0;
    std::uint32_t reason = 0;
    if (sd_bus_message_read(m, "uu", &id, &reason) <= 0) return 0;
    self->session_->forget(id);
    self->onScreen_.store(self->session_->shown.size());
    return 0;
  };
  sd_bus_slot* actionSlot = nullptr;
  sd_bus_slot* closedSlot = nullptr;
  int r = sd_bus_match_signal(s.bus.get(), &actionSlot, kService, kPath, kInterface,
                              "ActionInvoked", onAction, this);
  s.actionSlot.reset(actionSlot);
  if (r >= 0) {
    r = sd_bus_match_signal(s.bus.get(), &closedSlot, kService, kPath, kInterface,
                            "NotificationClosed", onClosed, this);
    s.closedSlot.reset(closedSlot);
  }
  if (r < 0) return fail(std::string("subscribing failed: ") + std::strerror(-r));

  BusCallError error;
  sd_bus_message* raw = nullptr;
  r = sd_bus_call_method(s.bus.get(), kService, kPath, kInterface, "GetCapabilities", error.get(),
                         &raw, "");
  BusMessage reply(raw);
  if (r < 0) return fail("GetCapabilities failed: " + error.text(r));
  s.serverHasActions = false;
  if (sd_bus_message_enter_container(reply.get(), 'a', "s") > 0) {
    const char* capability = nullptr;
    while (sd_bus_message_read(reply.get(), "s", &capability) > 0) {
      if (std::string_view(capability) == "actions") s.serverHasActions = true;
    }
  }
  s.watch = BusWatch::create(busQueue_->context(), s.bus.get(), [this](int lostError) {
    log_->debug("session bus connection lost: {}", std::strerror(-lostError));
    session_->serviceReady = false;
  });
  if (int watchError = 0; !s.watch->start(watchError)) {
    return fail(std::string("cannot watch the session bus: ") + std::strerror(-watchError));
  }
  s.serviceReady = true;
  if (s.reportedOutage) {
    s.reportedOutage = false;
    log_->info("desktop notification service reachable — notices resume");
  }
  return std::nullopt;
}

void DesktopNoticePoster::deliver(const Notice& notice) {
  Session& s = *session_;
  auto outage = [&](const std::string& detail) {
    s.disconnect();
    onScreen_.store(0);
    if (!s.reportedOutage) {
      s.reportedOutage = true;
      log_->warn(kOutageWarning);
    }
    log_->debug("notice {} dropped: {}", notice.identifier, detail);
  };

  if (s.bus && sd_bus_is_open(s.bus.get()) <= 0) s.disconnect();
  if (!s.serviceReady) {
    const MonotonicTime now = deliveryQueue_.clock().monotonicNow();
    if (s.lastAttempt && now - *s.lastAttempt < options_.retryInterval) {
      log_->debug("notice {} dropped: the notification service was missing moments ago",
                  notice.identifier);
      return;
    }
    s.lastAttempt = now;
    if (auto failure = reachService()) return outage(*failure);
  }

  // A notice closed a moment ago must not be replaced: handle what has already come in.
  if (s.watch) s.watch->pump();
  if (!s.serviceReady) return outage("the session bus connection was lost");

  const std::string key = notice.category.empty() ? notice.identifier : notice.category;
  const auto previous = s.idByKey.find(key);
  const std::uint32_t replaces = previous == s.idByKey.end() ? 0 : previous->second;

  sd_bus_message* raw = nullptr;
  int r = sd_bus_message_new_method_call(s.bus.get(), &raw, kService, kPath, kInterface, "Notify");
  BusMessage call(raw);
  if (r >= 0) {
    r = sd_bus_message_append(call.get(), "susss", kApplicationName, replaces, "",
                              notice.title.c_str(), notice.body.c_str());
  }
  if (r >= 0) r = sd_bus_message_open_container(call.get(), 'a', "s");
  if (s.serverHasActions) {
    for (const auto& action : notice.actions) {
      if (r >= 0) {
        r = sd_bus_message_append(call.get(), "ss", action.identifier.c_str(),
                                  action.title.c_str());
      }
    }
  }
  if (r >= 0) r = sd_bus_message_close_container(call.get());
  std::vector<std::pair<const char*, std::string>> hints{{"category", kHintCategory}};
  if (options_.desktopEntry) hints.emplace_back("desktop-entry", *options_.desktopEntry);
  if (r >= 0) r = appendHints(call.get(), hints);
  if (r >= 0) r = sd_bus_message_append(call.get(), "i", -1);
  if (r < 0) {
    log_->warn("notice {} not sent: it could not be encoded ({})", notice.identifier,
               std::strerror(-r));
    return;
  }

  BusCallError error;
  sd_bus_message* replyRaw = nullptr;
  r = sd_bus_call(s.bus.get(), call.get(), 0, error.get(), &replyRaw);
  BusMessage reply(replyRaw);
  std::uint32_t id = 0;
  if (r >= 0) r = sd_bus_message_read(reply.get(), "u", &id);
  if (r < 0) {
    const bool serviceGone = sd_bus_error_has_names(error.get(), SD_BUS_ERROR_SERVICE_UNKNOWN,
                                                    SD_BUS_ERROR_NAME_HAS_NO_OWNER) ||
                             sd_bus_is_open(s.bus.get()) <= 0;
    if (serviceGone) return outage("Notify failed: " + error.text(r));
    log_->warn("notice {} not shown: {}", notice.identifier, error.text(r));
    if (s.watch) s.watch->pump();
    return;
  }
  s.remember(id, key, notice.identifier);
  onScreen_.store(s.shown.size());
  log_->debug("notice {} shown as {} (replacing {})", notice.identifier, id, replaces);
  // Signals that came in with the reply wait in sd-bus's buffer, not on the socket.
  if (s.watch) s.watch->pump();
}

}  // namespace quorel
