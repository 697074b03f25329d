#include "agent_helper_link.hpp"

#include <string>

#include "control/charge_gate_reader.hpp"
#include "control/charge_limit_inferrer.hpp"
#include "control/helper_client.hpp"
#include "core/logging.hpp"
#include "platform/linux/linux_charge_observer.hpp"
#include "platform/linux/power_supply_scan.hpp"
#include "platform/linux/sysfs_attributes.hpp"
#include "platform/linux/systemd_helper_service_controller.hpp"
#include "platform/linux/upower_charge_thresholds.hpp"

namespace quorel {

namespace {

// How often what the system does with the battery is read again; a plateau needs a minute of it.
constexpr Seconds kChargeObservationInterval{10};

}  // namespace

AgentHelperLink::AgentHelperLink(Inputs inputs)
    : mainQueue_(inputs.mainQueue),
      pollQueue_(inputs.pollQueue),
      clock_(inputs.clock),
      log_(std::move(inputs.log)),
      options_(inputs.options),
      simulated_(inputs.simulated),
      limitObserved_(std::move(inputs.limitObserved)),
      settled_(std::move(inputs.settled)) {
  if (!simulated_) {
    upowerThresholds_ = std::make_unique<UPowerBusChargeThresholds>();
    chargeObserver_ = std::make_unique<LinuxChargeObserver>(
        LinuxChargeObserver::Options{.sysfsRoot = options_.sysfsRoot}, upowerThresholds_.get(),
        clock_);
  }
  service_ = std::make_unique<SystemdHelperServiceController>();
  HelperManager::Hooks hooks;
  hooks.availability = [this] { return availability(); };
  hooks.conflictProbe = [this]() -> std::optional<std::string> {
    if (!chargeObservation_ || !chargeObservation_->conflicts.anyDetected()) return std::nullopt;
    return std::string(
        chargeLimitManagerName(chargeObservation_->conflicts.conflicts.front().manager));
  };
  manager_ = std::make_unique<HelperManager>(
      mainQueue_, *service_,
      HelperClient::factory(inputs.ioQueue, mainQueue_, options_.helperSocket), std::move(hooks));
}

AgentHelperLink::~AgentHelperLink() = default;

BatteryControlAvailability AgentHelperLink::availability() const {
  if (simulated_) return BatteryControlAvailability::available;
  return probeBatteryControlAvailability(sysfs::powerSupplyClassPath(options_.sysfsRoot));
}

void AgentHelperLink::connect() {
  switch (manager_->rawServiceStatus()) {
    case HelperServiceStatus::enabled:
      manager_->enable([this](std::optional<HelperEnableFailure>) {
        log_->info("battery helper: {}", manager_->statusText());
        settled();
      });
      break;
    case HelperServiceStatus::requiresApproval:
      log_->info("battery helper: {}", helper_texts::kApprovalPending);
      settled();
      break;
    case HelperServiceStatus::notRegistered:
    case HelperServiceStatus::notFound:
      // Without systemd, or at a socket of its own, the helper was started by hand; its socket
      // says so.
      if ((!SystemdHelperServiceController::systemdRunning() ||
           options_.helperSocket != AgentOptions{}.helperSocket) &&
          std::filesystem::exists(options_.helperSocket)) {
        manager_->establishConnection([this](bool) {
          log_->info("battery helper (started by hand): {}", manager_->statusText());
          settled();
        });
        break;
      }
      log_->debug("battery helper not installed — battery control stays off");
      settled();
      break;
  }
}

// The link reads as disabled until the first connection attempt ends; handed over earlier, it
// would make the rules drop a heat pause adopted from the last run without raising the ceiling.
void AgentHelperLink::settled() {
  settled_(*manager_);
}

// Read on the poll queue, where the blocking reads belong, and kept on the main queue for the
// guards, the tools and the helper's status to read.
void AgentHelperLink::refreshChargeObservation() {
  if (!chargeObserver_ || chargeObservationPending_) return;
  const MonotonicTime now = clock_.monotonicNow();
  if (lastChargeObservation_ && now - *lastChargeObservation_ < kChargeObservationInterval) {
    return;
  }
  lastChargeObservation_ = now;
  chargeObservationPending_ = true;
  pollQueue_.async([this] {
    ChargeObservation observed = chargeObserver_->observe();
    mainQueue_.async([this, observed = std::move(observed)] {
      chargeObservationPending_ = false;
      if (!chargeObservation_ || chargeObservation_->conflicts != observed.conflicts) {
        for (const auto& c : observed.conflicts.conflicts) {
          log_->warn("{} also sets a charge limit — {}", chargeLimitManagerName(c.manager),
                     c.evidence);
        }
      }
      if (!chargeObservation_ || chargeObservation_->gate != observed.gate ||
          chargeObservation_->limit != observed.limit) {
        log_->debug("charge gate {}, limit {} ({})", chargeGateStateText(observed.gate),
                    observed.limit.percent ? std::to_string(*observed.limit.percent) : "none",
                    chargeLimitSourceText(observed.limit.source));
      }
      chargeObservation_ = observed;
      limitObserved_(observed.limit.percent);
    });
  });
}

}  // namespace quorel
