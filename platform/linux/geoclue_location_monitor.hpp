#pragma once
// Smart top-off's location on Linux, from the desktop's location service (GeoClue) on the system
// bus. The service gives fixes, not geofences, so the monitor keeps the watched circles itself:
// an arrival is a fix inside a circle (great-circle distance at most the radius) after one
// outside it, and a state request is answered from the last fix, or from the next one when there
// is none yet.
//
// Authorization, in the words the automation reports: "authorized_always" once the service
// started our client, "denied" when it refuses us, "not_determined" while the service is not on
// the bus (geofence rules are then kept and nothing is watched). Once asked for, the connection
// stays and watches the service's name: a service that starts later, or comes back, is given a
// new client and the kept circles are watched again; one that leaves reads "not_determined".
//
// Threading: the bus lives on a queue of its own ("quorel.geoclue"); every method may be called
// from any thread and returns at once, and every bus call is bounded. Callbacks run on that
// queue: receivers hop to their own.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "control/battery_control_location.hpp"
#include "core/serial_queue.hpp"

namespace quorel {

// Great-circle distance on a sphere of the earth's mean radius; good to a few metres at the
// sizes a geofence has.
double haversineDistanceMeters(double latitude1, double longitude1, double latitude2,
                               double longitude2);

class GeoClueLocationMonitor final : public BatteryControlLocationMonitoring {
 public:
  static constexpr std::string_view kDesktopId = "quorel";
  // GeoClue's street level: the smallest circle a rule may draw is 100 m across town blocks,
  // which city level (a few kilometres) cannot resolve.
  static constexpr std::uint32_t kRequestedAccuracyLevel = 6;

  // `busAddress` replaces the system bus (tests use a private one). The clock runs the queue.
  explicit GeoClueLocationMonitor(const Clock& clock,
                                  std::optional<std::string> busAddress = std::nullopt);
  // Stops the client and closes the connection.
  ~GeoClueLocationMonitor() override;
  GeoClueLocationMonitor(const GeoClueLocationMonitor&) = delete;
  GeoClueLocationMonitor& operator=(const GeoClueLocationMonitor&) = delete;

  void setCallbacks(Callbacks callbacks) override;
  LocationAuthorization authorization() const override;
  // Connects and starts a client unless one is running or being started; from then on, also
  // whenever the service appears on the bus.
  void requestAlwaysAuthorization() override;
  void startMonitoring(const CircularRegion& region) override;
  void stopMonitoring(const std::string& identifier) override;
  void requestState(const std::string& identifier) override;

 private:
  struct Session;
  struct Shared;
  // Runs `work` on the bus queue unless the session has gone by then.
  void onQueue(std::function<void(Session&)> work);

  std::shared_ptr<Shared> shared_;
  std::unique_ptr<SerialQueue> queue_;
  // Created and destroyed on the queue, which alone touches it.
  std::shared_ptr<Session> session_;
};

}  // namespace quorel
