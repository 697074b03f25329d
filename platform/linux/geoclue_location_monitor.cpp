#include "platform/linux/geoclue_location_monitor.hpp"

#include <spdlog/logger.h>
#include <systemd/sd-bus.h>

#include <asio/io_context.hpp>
#include <chrono>
#include <cmath>
#include <cstring>
#include <map>
#include <set>
#include <utility>

#include "core/logging.hpp"
#include "platform/linux/bus_watch.hpp"
#include "platform/linux/system_bus.hpp"

namespace quorel {

namespace {

constexpr const char* kService = "org.freedesktop.GeoClue2";
// The bus daemon's word when the service comes or goes, for this one name only.
constexpr const char* kServiceOwnerMatch =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='org.freedesktop.GeoClue2'";
constexpr const char* kManagerPath = "/org/freedesktop/GeoClue2/Manager";
constexpr const char* kManagerInterface = "org.freedesktop.GeoClue2.Manager";
constexpr const char* kClientInterface = "org.freedesktop.GeoClue2.Client";
constexpr const char* kLocationInterface = "org.freedesktop.GeoClue2.Location";
// Every call waits at most this long: a location service that hangs must cost a warning, not
// the queue.
constexpr std::uint64_t kCallTimeout_us = 2'000'000;
constexpr double kEarthMeanRadiusMeters = 6'371'008.8;

constexpr const char* kNotOnBus =
    "location service not on the bus — geofence rules are kept but not watched";
constexpr const char* kRefused = "location service refused access — geofence rules are not watched";

struct SlotReleaser {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using SlotPtr = std::unique_ptr<sd_bus_slot, SlotReleaser>;

// An sd_bus_error freed with its scope.
struct BusError {
  sd_bus_error error{};
  ~BusError() { sd_bus_error_free(&error); }
  bool has(const char* name) const { return sd_bus_error_has_name(&error, name) != 0; }
  std::string text() const {
    return std::string(error.name ? error.name : "?") + ": " + (error.message ? error.message : "");
  }
};

double radians(double degrees) {
  return degrees * M_PI / 180.0;
}

}  // namespace

double haversineDistanceMeters(double latitude1, double longitude1, double latitude2,
                               double longitude2) {
  const double dLat = radians(latitude2 - latitude1);
  const double dLon = radians(longitude2 - longitude1);
  const double a = std::sin(dLat / 2) * std::sin(dLat / 2) +
                   std::cos(radians(latitude1)) * std::cos(radians(latitude2)) *
                       std::sin(dLon / 2) * std::sin(dLon / 2);
  return 2 * kEarthMeanRadiusMeters * std::asin(std::min(1.0, std::sqrt(a)));
}

// What the bus queue shares with the callers' threads.
struct GeoClueLocationMonitor::Shared {
  std::mutex mutex;
  Callbacks callbacks;
  std::atomic<LocationAuthorization> authorization{LocationAuthorization::notDetermined};

  Callbacks copy() {
    const std::lock_guard lock(mutex);
    return callbacks;
  }
  void authorize(LocationAuthorization next) {
    if (authorization.exchange(next) == next) return;
    if (auto c = copy(); c.onAuthorizationChange) c.onAuthorizationChange(next);
  }
};

// The connection, the client and the circles; touched only on the bus queue.
struct GeoClueLocationMonitor::Session : std::enable_shared_from_this<Session> {
  struct Watched {
    CircularRegion region;
    RegionState state = RegionState::unknown;
  };
  struct Fix {
    double latitude = 0;
    double longitude = 0;
  };

  Session(SerialQueue& q, std::shared_ptr<Shared> s, std::optional<std::string> address)
      : queue(q),
        shared(std::move(s)),
        busAddress(std::move(address)),
        log(logging::get("BatteryControl")) {}
  ~Session() { disconnect(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  SerialQueue& queue;
  SystemBus bus;
  // For as long as the connection lasts, so that a service started after us is noticed.
  SlotPtr ownerSignal;
  SlotPtr locationSignal;
  // Replaced, never reset, when a new connection starts: a watch may be closing from inside its
  // own pump.
  std::shared_ptr<BusWatch> busWatch;
  std::shared_ptr<Shared> shared;
  std::optional<std::string> busAddress;
  std::shared_ptr<spdlog::logger> log;
  std::string clientPath;
  // Authorization was asked for: the client is started whenever the service is on the bus.
  bool wanted = false;
  bool running = false;
  std::map<std::string, Watched> regions;
  std::set<std::string> stateRequests;
  std::optional<Fix> lastFix;

  void start() {
    wanted = true;
    if (running) return;
    if (!bus && !connect()) return;
    startClient();
    pump();
  }

  // The connection, watched from now on for the service's name changing hands.
  bool connect() {
    auto opened = connectSystemBus(busAddress, kCallTimeout_us, "quorel-location");
    if (!opened.bus) {
      notOnBus(std::strerror(-opened.error));
      return false;
    }
    bus = std::move(opened.bus);
    sd_bus_slot* slot = nullptr;
    // Before the first GetClient, so that a service arriving right after it is not missed.
    int r = sd_bus_add_match(bus.get(), &slot, kServiceOwnerMatch, &Session::onOwnerChanged, this);
    if (r >= 0) {
      ownerSignal.reset(slot);
      std::weak_ptr<Session> weak = shared_from_this();
      busWatch = BusWatch::create(queue.context(), bus.get(), [weak](int code) {
        if (auto self = weak.lock()) self->lost(code);
      });
      if (busWatch->start(r)) return true;
    }
    notOnBus(std::strerror(-r));
    disconnect();
    return false;
  }

  void startClient() {
    BusError error;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call_method(bus.get(), kService, kManagerPath, kManagerInterface, "GetClient",
                               &error.error, &reply, "");
    if (r < 0) return refusedOrAbsent(error);
    const char* path = nullptr;
    r = sd_bus_message_read(reply, "o", &path);
    if (r > 0) clientPath = path;
    sd_bus_message_unref(reply);
    if (r <= 0) return notOnBus("GetClient answered without a client");

    const std::string desktopId(kDesktopId);
    if (sd_bus_set_property(bus.get(), kService, clientPath.c_str(), kClientInterface, "DesktopId",
                            &error.error, "s", desktopId.c_str()) < 0 ||
        sd_bus_set_property(bus.get(), kService, clientPath.c_str(), kClientInterface,
                            "RequestedAccuracyLevel", &error.error, "u",
                            kRequestedAccuracyLevel) < 0) {
      return refusedOrAbsent(error);
    }
    sd_bus_slot* slot = nullptr;
    r = sd_bus_match_signal(bus.get(), &slot, kService, clientPath.c_str(), kClientInterface,
                            "LocationUpdated", &Session::onLocationUpdated, this);
    if (r < 0) return notOnBus(std::strerror(-r));
    locationSignal.reset(slot);
    if (sd_bus_call_method(bus.get(), kService, clientPath.c_str(), kClientInterface, "Start",
                           &error.error, nullptr, "") < 0) {
      return refusedOrAbsent(error);
    }
    running = true;
    log->info("location service started our client");
    shared->authorize(LocationAuthorization::authorizedAlways);
  }

  void refusedOrAbsent(const BusError& error) {
    if (error.has(SD_BUS_ERROR_ACCESS_DENIED)) {
      log->warn(kRefused);
      log->debug("{}", error.text());
      stopClient(true);
      shared->authorize(LocationAuthorization::denied);
      return;
    }
    notOnBus(error.text());
  }

  void notOnBus(const std::string& detail) {
    log->warn(kNotOnBus);
    log->debug("{}", detail);
    stopClient(true);
    shared->authorize(LocationAuthorization::notDetermined);
  }

  static int onOwnerChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto* self = static_cast<Session*>(userdata);
    const char* name = nullptr;
    const char* previous = nullptr;
    const char* next = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &previous, &next) <= 0 ||
        std::strcmp(name, kService) != 0) {
      return 0;
    }
    // Starting the client takes calls of its own, which must not run inside sd-bus's dispatch.
    std::weak_ptr<Session> weak = self->shared_from_this();
    self->queue.async([weak, left = *previous != '\0', arrived = *next != '\0'] {
      if (auto s = weak.lock()) s->ownerChanged(left, arrived);
    });
    return 0;
  }

  // A service that went away took our client with it; one that arrives gets a new one when
  // authorization was asked for. The circles stay, with their states forgotten: the machine may
  // have moved while nobody was looking, and that is no arrival.
  void ownerChanged(bool left, bool arrived) {
    if (!bus) return;
    if (left) {
      if (running) {
        log->warn("location service left the bus — geofence rules are kept for when it returns");
      }
      stopClient(false);
      shared->authorize(LocationAuthorization::notDetermined);
    }
    if (arrived && wanted && !running) {
      log->info("location service appeared on the bus");
      startClient();
    }
    pump();
  }

  static int onLocationUpdated(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto* self = static_cast<Session*>(userdata);
    const char* previous = nullptr;
    const char* next = nullptr;
    if (sd_bus_message_read(message, "oo", &previous, &next) <= 0) return 0;
    // The properties are read by calls of their own, which must not run inside sd-bus's
    // dispatch of this signal.
    std::weak_ptr<Session> weak = self->shared_from_this();
    self->queue.async([weak, path = std::string(next)] {
      if (auto s = weak.lock()) s->readLocation(path);
    });
    return 0;
  }

  void readLocation(const std::string& path) {
    if (!running) return;
    Fix fix;
    double accuracy = 0;
    BusError error;
    auto read = [&](const char* name, double* out) {
      return sd_bus_get_property_trivial(bus.get(), kService, path.c_str(), kLocationInterface,
                                         name, &error.error, 'd', out) >= 0;
    };
    if (!read("Latitude", &fix.latitude) || !read("Longitude", &fix.longitude) ||
        !read("Accuracy", &accuracy)) {
      log->debug("location {} unreadable: {}", path, error.text());
      return pump();
    }
    log->debug("location fix ±{:.0f} m", accuracy);
    located(fix);
    pump();
  }

  RegionState stateAt(const Fix& fix, const CircularRegion& region) const {
    return haversineDistanceMeters(fix.latitude, fix.longitude, region.latitude,
                                   region.longitude) <= region.radiusMeters
               ? RegionState::inside
               : RegionState::outside;
  }

  void located(const Fix& fix) {
    lastFix = fix;
    const Callbacks callbacks = shared->copy();
    for (auto& [id, watched] : regions) {
      const RegionState now = stateAt(fix, watched.region);
      const bool arrived = watched.state == RegionState::outside && now == RegionState::inside;
      watched.state = now;
      if (arrived && callbacks.onRegionEntry) callbacks.onRegionEntry(id);
    }
    auto waiting = std::exchange(stateRequests, {});
    for (const auto& id : waiting) answerState(id);
  }

  void watch(const CircularRegion& region) {
    Watched w{region, lastFix ? stateAt(*lastFix, region) : RegionState::unknown};
    regions.insert_or_assign(region.identifier, w);
  }

  void unwatch(const std::string& id) {
    regions.erase(id);
    stateRequests.erase(id);
  }

  void answerState(const std::string& id) {
    const auto it = regions.find(id);
    if (it == regions.end()) return;
    if (!lastFix) {
      stateRequests.insert(id);
      return;
    }
    it->second.state = stateAt(*lastFix, it->second.region);
    if (auto c = shared->copy(); c.onDetermineState) c.onDetermineState(id, it->second.state);
  }

  // Handles what the property reads left in sd-bus's buffer, then waits for what comes next.
  void pump() {
    if (bus && busWatch) busWatch->pump();
  }

  void lost(int error) {
    log->warn("location service connection lost — geofence rules are no longer watched");
    log->debug("sd-bus reported: {}", std::strerror(-error));
    disconnect();
    shared->authorize(LocationAuthorization::notDetermined);
  }

  // `tellService`: lets the service power the location sources down. Nothing waits for its
  // answer: stopping must not hang on a service that has stopped answering.
  void stopClient(bool tellService) {
    sd_bus_message* stop = nullptr;
    if (tellService && running && bus &&
        sd_bus_message_new_method_call(bus.get(), &stop, kService, clientPath.c_str(),
                                       kClientInterface, "Stop") >= 0) {
      sd_bus_message_set_expect_reply(stop, 0);
      sd_bus_send(bus.get(), stop, nullptr);
      sd_bus_flush(bus.get());
    }
    sd_bus_message_unref(stop);
    running = false;
    lastFix.reset();
    for (auto& [id, watched] : regions) watched.state = RegionState::unknown;
    locationSignal.reset();
  }

  void disconnect() {
    stopClient(true);
    if (busWatch) busWatch->close();
    ownerSignal.reset();
    bus.reset();
  }
};

GeoClueLocationMonitor::GeoClueLocationMonitor(const Clock& clock,
                                               std::optional<std::string> busAddress)
    : shared_(std::make_shared<Shared>()),
      queue_(std::make_unique<SerialQueue>("quorel.geoclue", clock)) {
  session_ = std::make_shared<Session>(*queue_, shared_, std::move(busAddress));
  queue_->start();
}

GeoClueLocationMonitor::~GeoClueLocationMonitor() {
  // Asio objects and the sd-bus handle go on the thread that uses them.
  queue_->sync([session = std::move(session_)]() mutable { session.reset(); });
  queue_->shutdown();
}

LocationAuthorization GeoClueLocationMonitor::authorization() const {
  return shared_->authorization.load();
}

void GeoClueLocationMonitor::setCallbacks(Callbacks callbacks) {
  const std::lock_guard lock(shared_->mutex);
  shared_->callbacks = std::move(callbacks);
}

void GeoClueLocationMonitor::onQueue(std::function<void(Session&)> work) {
  queue_->async([weak = std::weak_ptr<Session>(session_), work = std::move(work)] {
    if (auto session = weak.lock()) work(*session);
  });
}

void GeoClueLocationMonitor::requestAlwaysAuthorization() {
  onQueue([](Session& s) { s.start(); });
}

void GeoClueLocationMonitor::startMonitoring(const CircularRegion& region) {
  onQueue([region](Session& s) { s.watch(region); });
}

void GeoClueLocationMonitor::stopMonitoring(const std::string& identifier) {
  onQueue([identifier](Session& s) { s.unwatch(identifier); });
}

void GeoClueLocationMonitor::requestState(const std::string& identifier) {
  onQueue([identifier](Session& s) { s.answerState(identifier); });
}

}  // namespace quorel
