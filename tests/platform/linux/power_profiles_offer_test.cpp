// The power-saver offer against a fake power-profiles service on a private bus, under either of
// the names the daemon has answered to.

#include "platform/linux/power_profiles_offer.hpp"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "core/clock.hpp"
#include "platform/linux/fake_bus_service.hpp"
#include "platform/linux/private_message_bus.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;

struct ServiceName {
  const char* name;
  const char* path;
};
constexpr ServiceName kCurrent{"org.freedesktop.UPower.PowerProfiles",
                               "/org/freedesktop/UPower/PowerProfiles"};
constexpr ServiceName kOlder{"net.hadess.PowerProfiles", "/net/hadess/PowerProfiles"};

class FakePowerProfiles {
 public:
  FakePowerProfiles(std::vector<std::string> profiles, std::string active)
      : profiles_(std::move(profiles)), active_(std::move(active)) {}

  bool start(const std::string& address, ServiceName service) {
    return service_.start(address, service.name, [&](sd_bus* bus) {
      return sd_bus_add_object_vtable(bus, nullptr, service.path, service.name, vtable(), this) >=
             0;
    });
  }
  std::string active() const {
    const std::lock_guard lock(mutex_);
    return active_;
  }
  void setActive(std::string profile) {
    const std::lock_guard lock(mutex_);
    active_ = std::move(profile);
  }

 private:
  static const sd_bus_vtable* vtable() {
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0), SD_BUS_PROPERTY("Profiles", "aa{sv}", &getProfiles, 0, 0),
        SD_BUS_WRITABLE_PROPERTY("ActiveProfile", "s", &getActive, &setActiveProperty, 0, 0),
        SD_BUS_VTABLE_END};
    return table;
  }
  // Each profile as the daemon lists it, with a driver entry before the name.
  static int getProfiles(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                         void* userdata, sd_bus_error*) {
    auto* self = static_cast<FakePowerProfiles*>(userdata);
    int r = sd_bus_message_open_container(reply, 'a', "a{sv}");
    for (const auto& p : self->profiles_) {
      if (r >= 0) r = sd_bus_message_open_container(reply, 'a', "{sv}");
      if (r >= 0) r = sd_bus_message_append(reply, "{sv}", "Driver", "s", "platform_profile");
      if (r >= 0) r = sd_bus_message_append(reply, "{sv}", "Profile", "s", p.c_str());
      if (r >= 0) r = sd_bus_message_close_container(reply);
    }
    if (r >= 0) r = sd_bus_message_close_container(reply);
    return r;
  }
  static int getActive(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                       void* userdata, sd_bus_error*) {
    return sd_bus_message_append(reply, "s",
                                 static_cast<FakePowerProfiles*>(userdata)->active().c_str());
  }
  static int setActiveProperty(sd_bus*, const char*, const char*, const char*,
                               sd_bus_message* value, void* userdata, sd_bus_error*) {
    const char* profile = nullptr;
    const int r = sd_bus_message_read(value, "s", &profile);
    if (r < 0) return r;
    static_cast<FakePowerProfiles*>(userdata)->setActive(profile);
    return 1;
  }

  std::vector<std::string> profiles_;
  testing::FakeBusService service_;
  mutable std::mutex mutex_;
  std::string active_;
};

class PowerProfilesOfferTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.start()) << "no private message bus: install the dbus-daemon package.";
  }
  PowerProfilesOffer::Options options() const { return {.busAddress = bus_.address()}; }

  testing::PrivateMessageBus bus_;
  ManualClock clock_;
};

TEST_F(PowerProfilesOfferTest, OffersPowerSaverOnlyWhereItExistsAndIsNotAlreadyActive) {
  using Profiles = std::vector<std::string>;
  const std::vector<
      std::tuple<const char*, std::optional<ServiceName>, Profiles, const char*, bool>>
      cases{
          {"current name", kCurrent, {"power-saver", "balanced", "performance"}, "balanced", true},
          {"older name", kOlder, {"power-saver", "balanced"}, "performance", true},
          {"already saving", kCurrent, {"power-saver", "balanced"}, "power-saver", false},
          {"no saver profile", kCurrent, {"balanced", "performance"}, "balanced", false},
          {"no service", std::nullopt, {}, "", false},
      };
  for (const auto& [what, service, profiles, active, offered] : cases) {
    FakePowerProfiles fake(profiles, active);
    if (service) {
      ASSERT_TRUE(fake.start(bus_.address(), *service)) << what;
    }
    PowerProfilesOffer offer(clock_, options());
    offer.drain();
    EXPECT_EQ(offer.available(), offered) << what;
  }
}

TEST_F(PowerProfilesOfferTest, SwitchingOnSetsTheActiveProfileAndWithdrawsTheOffer) {
  FakePowerProfiles fake({"power-saver", "balanced"}, "balanced");
  ASSERT_TRUE(fake.start(bus_.address(), kOlder));
  PowerProfilesOffer offer(clock_, options());
  offer.drain();
  ASSERT_TRUE(offer.available());

  offer.switchOn();
  offer.drain();
  EXPECT_EQ(fake.active(), "power-saver");
  EXPECT_FALSE(offer.available());

  // The desktop's own switch puts it back: asking learns that again.
  fake.setActive("balanced");
  EXPECT_FALSE(offer.available());
  offer.drain();
  EXPECT_TRUE(offer.available());
}

}  // namespace
}  // namespace quorel
