#pragma once
// Where the machine is, as smart top-off sees it: circles to watch, arrivals inside them, and
// whether the location may be read at all. On Linux the desktop's location service gives fixes
// and the monitor does the circle arithmetic itself; the engine runs on fakes in tests.

#include <functional>
#include <string>

#include "control/automation_authorization.hpp"

namespace quorel {

// A circle on the earth's surface, named by the rule that wants it (its UUID text).
struct CircularRegion {
  std::string identifier;
  double latitude = 0;   // degrees
  double longitude = 0;  // degrees
  double radiusMeters = 0;
  bool operator==(const CircularRegion&) const = default;
};

enum class RegionState { unknown, inside, outside };

class BatteryControlLocationMonitoring {
 public:
  // Each may be called on any thread the monitor likes; receivers hop to their own queue.
  struct Callbacks {
    // The machine moved from outside a monitored circle to inside it.
    std::function<void(const std::string& identifier)> onRegionEntry;
    std::function<void(LocationAuthorization)> onAuthorizationChange;
    // The answer to requestState.
    std::function<void(const std::string& identifier, RegionState)> onDetermineState;
    // The circle could not be watched; nothing else follows from it.
    std::function<void(const std::string& identifier)> onMonitoringFailed;
  };

  virtual ~BatteryControlLocationMonitoring() = default;

  // Replaces the callbacks; set them before asking for anything.
  virtual void setCallbacks(Callbacks callbacks) = 0;
  // Thread-safe.
  virtual LocationAuthorization authorization() const = 0;
  // Asks for the right to read the location in the background; the outcome arrives through
  // onAuthorizationChange. Asking while an answer is pending does nothing more.
  virtual void requestAlwaysAuthorization() = 0;
  virtual void startMonitoring(const CircularRegion& region) = 0;
  virtual void stopMonitoring(const std::string& identifier) = 0;
  // Answers through onDetermineState, from the last fix or, without one, from the next.
  virtual void requestState(const std::string& identifier) = 0;
};

}  // namespace quorel
