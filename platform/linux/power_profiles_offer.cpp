#include "platform/linux/power_profiles_offer.hpp"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <vector>

#include "core/logging.hpp"
#include "platform/linux/system_bus.hpp"

namespace quorel {

namespace {

struct ProfilesService {
  const char* name;  // also the interface
  const char* path;
};

// The daemon renamed itself; older releases answer only under the first name it had.
constexpr std::array<ProfilesService, 2> kServices{{
    {"org.freedesktop.UPower.PowerProfiles", "/org/freedesktop/UPower/PowerProfiles"},
    {"net.hadess.PowerProfiles", "/net/hadess/PowerProfiles"},
}};
constexpr std::string_view kPowerSaver = "power-saver";

// The "Profile" of each entry of the aa{sv} the service lists.
std::optional<std::vector<std::string>> readProfileNames(sd_bus_message* m) {
  std::vector<std::string> names;
  if (sd_bus_message_enter_container(m, 'a', "a{sv}") <= 0) return std::nullopt;
  while (sd_bus_message_enter_container(m, 'a', "{sv}") > 0) {
    while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
      const char* key = nullptr;
      if (sd_bus_message_read(m, "s", &key) <= 0) return std::nullopt;
      if (std::string_view(key) == "Profile" && sd_bus_message_enter_container(m, 'v', "s") > 0) {
        const char* profile = nullptr;
        if (sd_bus_message_read(m, "s", &profile) <= 0) return std::nullopt;
        names.emplace_back(profile);
        if (sd_bus_message_exit_container(m) < 0) return std::nullopt;
      } else if (sd_bus_message_skip(m, "v") < 0) {
        return std::nullopt;
      }
      if (sd_bus_message_exit_container(m) < 0) return std::nullopt;
    }
    if (sd_bus_message_exit_container(m) < 0) return std::nullopt;
  }
  if (sd_bus_message_exit_container(m) < 0) return std::nullopt;
  return names;
}

}  // namespace

struct PowerProfilesOffer::Session {
  SystemBus bus;
  const ProfilesService* service = nullptr;  // the one that answered last
  bool reportedMissing = false;
};

PowerProfilesOffer::PowerProfilesOffer(const Clock& clock, Options options)
    : options_(std::move(options)),
      session_(std::make_unique<Session>()),
      queue_(std::make_unique<SerialQueue>("quorel.profiles", clock)) {
  queue_->start();
  refresh();
}

PowerProfilesOffer::~PowerProfilesOffer() {
  queue_->sync([this] { session_.reset(); });
  queue_->shutdown();
}

bool PowerProfilesOffer::available() const {
  // The profile can change under us (the desktop's own switch), so every question also asks
  // the service again, once at a time.
  if (!refreshQueued_.exchange(true)) {
    queue_->async([this] {
      refreshQueued_.store(false);
      learn();
    });
  }
  return available_.load();
}

void PowerProfilesOffer::refresh() {
  queue_->async([this] { learn(); });
}

void PowerProfilesOffer::drain() {
  queue_->sync([] {});
}

void PowerProfilesOffer::learn() const {
  Session& s = *session_;
  auto log = logging::get("Notifications");
  if (s.bus && sd_bus_is_open(s.bus.get()) <= 0) s.bus.reset();
  if (!s.bus) {
    auto connection = connectSystemBus(
        options_.busAddress, static_cast<std::uint64_t>(options_.callTimeout.count() * 1e6),
        "quorel-profiles");
    if (!connection.bus) {
      available_.store(false);
      log->debug("no system bus for the power profiles: {}", std::strerror(-connection.error));
      return;
    }
    s.bus = std::move(connection.bus);
  }
  for (const auto& service : kServices) {
    BusCallError error;
    sd_bus_message* raw = nullptr;
    const int r = sd_bus_get_property(s.bus.get(), service.name, service.path, service.name,
                                      "Profiles", error.get(), &raw, "aa{sv}");
    BusMessage reply(raw);
    if (r < 0) continue;
    const auto profiles = readProfileNames(reply.get());
    char* active = nullptr;
    BusCallError activeError;
    if (!profiles ||
        sd_bus_get_property_string(s.bus.get(), service.name, service.path, service.name,
                                   "ActiveProfile", activeError.get(), &active) < 0) {
      continue;
    }
    const std::string activeProfile = active ? active : "";
    std::free(active);
    s.service = &service;
    s.reportedMissing = false;
    const bool offered =
        activeProfile != kPowerSaver &&
        std::find(profiles->begin(), profiles->end(), kPowerSaver) != profiles->end();
    if (offered != available_.exchange(offered)) {
      log->debug("power-saver offer {} (active profile {})", offered ? "on" : "off", activeProfile);
    }
    return;
  }
  s.service = nullptr;
  available_.store(false);
  if (!s.reportedMissing) {
    s.reportedMissing = true;
    log->debug("no power-profiles service — power saver is not offered");
  }
}

void PowerProfilesOffer::switchOn() {
  queue_->async([this] {
    Session& s = *session_;
    if (!s.service) learn();
    auto log = logging::get("Notifications");
    if (!s.service || !s.bus) {
      log->warn("power saver not switched on: no power-profiles service");
      return;
    }
    BusCallError error;
    const int r =
        sd_bus_set_property(s.bus.get(), s.service->name, s.service->path, s.service->name,
                            "ActiveProfile", error.get(), "s", std::string(kPowerSaver).c_str());
    if (r < 0) {
      log->warn("power saver not switched on: {}", error.text(r));
    } else {
      log->info("switched to the power-saver profile");
    }
    learn();
  });
}

}  // namespace quorel
