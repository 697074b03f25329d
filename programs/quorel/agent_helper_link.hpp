#pragma once
// The link to the privileged helper in the agent, and what the system does with the battery as
// the link's guards see it. The link refuses to enable while another charge-limit manager is
// seen holding this battery, or where the battery offers nothing to control.
//
// Threading: made, used and destroyed on the main queue's thread. The charge observer is read on
// the poll queue, which must be shut down before this object goes; the helper's socket is read
// and written on the I/O queue, which must be running from construction until
// `closeManager()`.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "agent.hpp"
#include "control/charge_observation.hpp"
#include "control/helper_manager.hpp"
#include "core/clock.hpp"
#include "core/serial_queue.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

class LinuxChargeObserver;
class SystemdHelperServiceController;
class UPowerBusChargeThresholds;

class AgentHelperLink {
 public:
  struct Inputs {
    SerialQueue& mainQueue;
    SerialQueue& pollQueue;
    // The helper's socket: reads and writes here, answers on the main queue.
    SerialQueue& ioQueue;
    const Clock& clock;
    std::shared_ptr<spdlog::logger> log;
    // The /sys stand-in and the helper's socket; must outlive this object.
    const AgentOptions& options;
    // The simulated machine's battery is the simulated helper's to control, and there is no
    // real one to observe.
    bool simulated = false;
    // Every charge limit observed, on the main queue.
    std::function<void(std::optional<std::int64_t>)> limitObserved;
    // Once, when the first connection attempt has ended, on the main queue.
    std::function<void(HelperManager&)> settled;
  };

  explicit AgentHelperLink(Inputs inputs);
  ~AgentHelperLink();
  AgentHelperLink(const AgentHelperLink&) = delete;
  AgentHelperLink& operator=(const AgentHelperLink&) = delete;

  // Valid until `closeManager()`.
  HelperManager& manager() { return *manager_; }
  BatteryControlAvailability availability() const;

  // Connects when the helper is installed for this user; where it is not, says so once, quietly.
  void connect();
  // Reads the battery again when the last reading is old enough; called with every power state.
  void refreshChargeObservation();
  // Ends the link while the I/O queue still runs; everything holding `manager()` must be gone.
  void closeManager() { manager_.reset(); }

 private:
  void settled();

  SerialQueue& mainQueue_;
  SerialQueue& pollQueue_;
  const Clock& clock_;
  std::shared_ptr<spdlog::logger> log_;
  const AgentOptions& options_;
  bool simulated_;
  std::function<void(std::optional<std::int64_t>)> limitObserved_;
  std::function<void(HelperManager&)> settled_;
  std::unique_ptr<SystemdHelperServiceController> service_;
  std::unique_ptr<HelperManager> manager_;
  // Touched on the poll queue only, which is shut down before they go.
  std::unique_ptr<UPowerBusChargeThresholds> upowerThresholds_;
  std::unique_ptr<LinuxChargeObserver> chargeObserver_;
  // Main queue.
  std::optional<ChargeObservation> chargeObservation_;
  std::optional<MonotonicTime> lastChargeObservation_;
  bool chargeObservationPending_ = false;
};

}  // namespace quorel
