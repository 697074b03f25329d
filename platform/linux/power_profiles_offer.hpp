#pragma once
// The power-saver offer over the system's power-profiles service (org.freedesktop.UPower.
// PowerProfiles, or the older net.hadess.PowerProfiles of the same daemon). What the service
// says is learnt on a queue of the offer's own ("quorel.profiles"), every call bounded, so
// available() answers at once from the last reading and never waits on the bus.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "control/power_saver_offer.hpp"
#include "core/serial_queue.hpp"

namespace quorel {

class PowerProfilesOffer final : public PowerSaverOffer {
 public:
  struct Options {
    // A D-Bus address; absent means the system bus.
    std::optional<std::string> busAddress;
    Seconds callTimeout{2};
  };

  // Starts learning at once. `clock` must outlive the offer.
  PowerProfilesOffer(const Clock& clock, Options options);
  explicit PowerProfilesOffer(const Clock& clock) : PowerProfilesOffer(clock, Options{}) {}
  ~PowerProfilesOffer() override;
  PowerProfilesOffer(const PowerProfilesOffer&) = delete;
  PowerProfilesOffer& operator=(const PowerProfilesOffer&) = delete;

  bool available() const override;
  void switchOn() override;
  // Asks the service again in the background.
  void refresh();
  // Blocks until the work queued before is done. Not on the offer's own queue.
  void drain();

 private:
  struct Session;
  // What the service says is a cache of the offer's, so a question may refresh it.
  void learn() const;

  Options options_;
  mutable std::atomic<bool> available_{false};
  mutable std::atomic<bool> refreshQueued_{false};
  std::unique_ptr<Session> session_;  // the offer's queue only
  std::unique_ptr<SerialQueue> queue_;
};

}  // namespace quorel
