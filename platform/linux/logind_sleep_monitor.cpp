#include "platform/linux/logind_sleep_monitor.hpp"

#include <fcntl.h>
#include <spdlog/logger.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "core/logging.hpp"
#include "platform/linux/bus_watch.hpp"
#include "platform/linux/system_bus.hpp"

namespace quorel {

namespace {

constexpr const char* kLogindName = "org.freedesktop.login1";
constexpr const char* kLogindPath = "/org/freedesktop/login1";
constexpr const char* kLogindInterface = "org.freedesktop.login1.Manager";
constexpr const char* kSignalName = "PrepareForSleep";
constexpr const char* kDelayWarning =
    "logind gave no sleep delay lock — energy of the minute before a sleep may be lost";
// Bounds start() on a bus that accepts the connection and then never answers; the agent must
// not hang at launch for sd-bus's default of 25 seconds.
constexpr std::uint64_t kCallTimeout_us = 2'000'000;

struct SlotReleaser {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using BusPtr = SystemBus;
using SlotPtr = std::unique_ptr<sd_bus_slot, SlotReleaser>;

std::string errorText(int negativeErrno) {
  return std::strerror(-negativeErrno);
}

}  // namespace

// The descriptor logind hands out for a delay lock: the machine sleeps once every holder has
// closed it. Shared with the permits, which may be dropped on any thread after the connection.
struct LogindSleepMonitor::DelayLock {
  ~DelayLock() { release(); }
  // Keeps `fd` (already ours) as the lock unless one is held.
  void hold(int fd) {
    const std::lock_guard lock(mutex);
    if (held >= 0) {
      ::close(fd);
      return;
    }
    held = fd;
  }
  void release() {
    const std::lock_guard lock(mutex);
    if (held >= 0) ::close(held);
    held = -1;
  }
  bool holding() {
    const std::lock_guard lock(mutex);
    return held >= 0;
  }
  std::mutex mutex;
  int held = -1;
};

// What the posted handler jobs share with the monitor. Handlers never change after start, so
// only the flag is read across threads.
struct LogindSleepMonitor::Delivery {
  explicit Delivery(Handlers h) : handlers(std::move(h)) {}
  const Handlers handlers;
  std::atomic<bool> open{true};
};

// One bus connection and its waits, touched only on the bus queue once that queue has started.
// Asio waits for the bus's socket to be ready; sd-bus does the reading, writing and matching.
struct LogindSleepMonitor::Connection : std::enable_shared_from_this<Connection> {
  Connection(asio::io_context& io, BusPtr openBus, std::shared_ptr<Delivery> toDeliver,
             std::shared_ptr<DelayLock> lock, SerialQueue& queue,
             std::shared_ptr<spdlog::logger> logger, std::atomic<std::uint64_t>& received)
      : bus(std::move(openBus)),
        watch(BusWatch::create(io, bus.get(),
                               [this](int error) {
                                 // The watch has stopped; what is left is to say so and close.
                                 lost(error);
                               })),
        delivery(std::move(toDeliver)),
        delayLock(std::move(lock)),
        deliveryQueue(queue),
        log(std::move(logger)),
        signalsReceived(received) {}

  ~Connection() { close(); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Declared in this order so that the slot is released before the bus that holds it.
  BusPtr bus;
  SlotPtr slot;
  SlotPtr inhibitCall;
  std::shared_ptr<BusWatch> watch;
  std::shared_ptr<Delivery> delivery;
  std::shared_ptr<DelayLock> delayLock;
  SerialQueue& deliveryQueue;
  std::shared_ptr<spdlog::logger> log;
  std::atomic<std::uint64_t>& signalsReceived;
  bool closed = false;
  bool reportedNoDelay = false;

  static int onPrepareForSleep(sd_bus_message* message, void* userdata, sd_bus_error*) {
    static_cast<Connection*>(userdata)->received(message);
    return 0;
  }

  void received(sd_bus_message* message) {
    int sleeping = 0;
    if (sd_bus_message_has_signature(message, "b") <= 0 ||
        sd_bus_message_read(message, "b", &sleeping) <= 0) {
      log->warn("PrepareForSleep without a boolean argument — ignored");
      return;
    }
    signalsReceived.fetch_add(1);
    if (sleeping == 0) {
      // Awake again: hold the next sleep until its work is done, as for the first.
      requestDelayLock();
      deliveryQueue.async([d = delivery] {
        if (d->open.load() && d->handlers.didWake) d->handlers.didWake();
      });
      return;
    }
    // The lock goes when the handler and everything it handed the permit to are done; a
    // handler that is not there, or no longer wanted, lets the machine sleep at once.
    SleepPermit permit([lock = delayLock] { lock->release(); });
    deliveryQueue.async([d = delivery, permit = std::move(permit)]() mutable {
      if (d->open.load() && d->handlers.willSleep) d->handlers.willSleep(std::move(permit));
    });
  }

  // Asks logind for a delay lock on sleep. Asynchronous, so that a bus without logind (or a
  // slow one) costs nothing but a warning.
  void requestDelayLock() {
    if (closed || delayLock->holding()) return;
    sd_bus_slot* call = nullptr;
    const int r = sd_bus_call_method_async(
        bus.get(), &call, kLogindName, kLogindPath, kLogindInterface, "Inhibit", &onInhibitReply,
        this, "ssss", "sleep", "Quorel", "Saving the energy history before sleep", "delay");
    if (r < 0) return noDelayLock(fmt::format("Inhibit could not be sent: {}", errorText(r)));
    inhibitCall.reset(call);
  }

  static int onInhibitReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* self = static_cast<Connection*>(userdata);
    if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
      self->noDelayLock(fmt::format("Inhibit failed: {}", error->message ? error->message : "?"));
      return 0;
    }
    int fd = -1;
    if (sd_bus_message_read(reply, "h", &fd) <= 0 || fd < 0) {
      self->noDelayLock("Inhibit answered without a descriptor");
      return 0;
    }
    // The message owns its descriptor and closes it with the message.
    const int own = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
    if (own < 0) return 0;
    self->delayLock->hold(own);
    return 0;
  }

  void noDelayLock(const std::string& detail) {
    if (!reportedNoDelay) {
      reportedNoDelay = true;
      log->warn(kDelayWarning);
    }
    log->debug(detail);
  }

  // Handles everything the bus has ready, then waits for what it needs next.
  void pump() {
    if (!closed) watch->pump();
  }

  void lost(int error) {
    log->warn("system bus connection lost — sleep and wake will no longer be seen");
    log->debug("sd-bus reported: {}", errorText(error));
    close();
  }

  void close() {
    if (closed) return;
    closed = true;
    watch->close();
    inhibitCall.reset();
    slot.reset();
    sd_bus_close(bus.get());
  }
};

LogindSleepMonitor::LogindSleepMonitor(SerialQueue& deliveryQueue,
                                       std::optional<std::string> busAddress)
    : deliveryQueue_(deliveryQueue),
      busAddress_(std::move(busAddress)),
      log_(logging::get("AppDelegate")),
      delayLock_(std::make_shared<DelayLock>()) {}

LogindSleepMonitor::~LogindSleepMonitor() {
  stop();
}

bool LogindSleepMonitor::start(Handlers handlers) {
  stop();

  auto fail = [this](std::string_view warning, const std::string& detail) {
    if (!reportedFailure_) {
      reportedFailure_ = true;
      log_->warn(warning);
    }
    log_->debug(detail);
    return false;
  };

  auto opened = connectSystemBus(busAddress_, kCallTimeout_us, "quorel-sleep-wake");
  const std::string address = opened.address;
  if (!opened.bus) {
    return fail("system bus unavailable — sleep and wake will not be seen",
                fmt::format("could not connect to {}: {}", address, errorText(opened.error)));
  }
  BusPtr bus = std::move(opened.bus);

  auto delivery = std::make_shared<Delivery>(std::move(handlers));
  auto queue = std::make_unique<SerialQueue>("quorel.logind", deliveryQueue_.clock());
  auto connection =
      std::make_shared<Connection>(queue->context(), std::move(bus), delivery, delayLock_,
                                   deliveryQueue_, log_, signalsReceived_);

  // Subscribing waits for the bus's answer, which also proves the connection is alive.
  sd_bus_slot* slot = nullptr;
  const int r =
      sd_bus_match_signal(connection->bus.get(), &slot, kLogindName, kLogindPath, kLogindInterface,
                          kSignalName, &Connection::onPrepareForSleep, connection.get());
  if (r < 0) {
    return fail(
        "system bus refused the PrepareForSleep subscription — sleep and wake will not be seen",
        fmt::format("subscribing on {} failed: {}", address, errorText(r)));
  }
  connection->slot.reset(slot);

  const int fd = sd_bus_get_fd(connection->bus.get());
  if (fd < 0) {
    return fail("system bus unavailable — sleep and wake will not be seen",
                fmt::format("no pollable socket for {}: {}", address, errorText(fd)));
  }

  // Signals that arrived while subscribing already sit in sd-bus's buffer, not on the socket,
  // so the first pump must not wait for the socket.
  std::weak_ptr<Connection> weak = connection;
  queue->start();
  queue->async([weak] {
    auto self = weak.lock();
    if (!self) return;
    self->requestDelayLock();
    int error = 0;
    if (!self->watch->start(error)) self->lost(error);
  });

  log_->debug("watching {} on {}", kSignalName, address);
  delivery_ = std::move(delivery);
  busQueue_ = std::move(queue);
  connection_ = std::move(connection);
  return true;
}

bool LogindSleepMonitor::holdsDelayLock() const {
  return delayLock_->holding();
}

void LogindSleepMonitor::stop() {
  if (delivery_) {
    delivery_->open.store(false);
    delivery_.reset();
  }
  if (!busQueue_) return;
  // Asio objects and the sd-bus handle are destroyed on the thread that uses them.
  busQueue_->sync([connection = std::move(connection_)]() mutable { connection.reset(); });
  busQueue_->shutdown();
  busQueue_.reset();
  // Nothing is left to hold the machine for.
  delayLock_->release();
}

}  // namespace quorel
