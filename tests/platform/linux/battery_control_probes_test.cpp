#include "platform/linux/battery_control_probes.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>

#include "platform/linux/private_message_bus.hpp"
#include "platform/linux/sysfs_tree.hpp"

namespace quorel {
namespace {

using testing::SysfsTree;

TEST(DrmDisplayProbeTest, OnlyConnectedConnectorsThatAreNotBuiltInPanelsCount) {
  const struct {
    const char* what;
    std::vector<std::pair<std::string, std::string>> connectors;  // name, status
    bool external;
  } cases[] = {
      {"laptop panel alone",
       {{"card0-eDP-1", "connected"}, {"card0-HDMI-A-1", "disconnected"}},
       false},
      {"monitor on HDMI", {{"card0-eDP-1", "connected"}, {"card0-HDMI-A-1", "connected"}}, true},
      {"monitor on a second card's DisplayPort", {{"card1-DP-3", "connected\n"}}, true},
      {"older panels and phone-style panels",
       {{"card0-LVDS-1", "connected"}, {"card0-DSI-1", "connected"}},
       false},
      {"a status the driver cannot tell", {{"card0-DP-1", "unknown"}}, false},
      {"names that are no connector",
       {{"card0", "connected"},
        {"renderD128", "connected"},
        {"cardX-DP-1", "connected"},
        {"card0-DP-x", "connected"}},
       false},
  };
  for (const auto& c : cases) {
    SysfsTree tree;
    tree.write("class/drm/version", "drm 1.1.0 20060810\n");
    for (const auto& [name, status] : c.connectors) {
      tree.write("class/drm/" + name + "/status", status);
    }
    EXPECT_EQ(hasExternalDisplay(drmClassPath(tree.root())), c.external) << c.what;
  }
  SysfsTree noDrm;
  EXPECT_FALSE(hasExternalDisplay(drmClassPath(noDrm.root())));
}

// A private message bus with a peer owning logind's name and serving LidClosed from a flag.
class FakeLogind {
 public:
  explicit FakeLogind(const std::string& address, bool serveProperty) {
    int r = sd_bus_new(&bus_);
    if (r >= 0) r = sd_bus_set_address(bus_, address.c_str());
    if (r >= 0) r = sd_bus_set_bus_client(bus_, 1);
    if (r >= 0) r = sd_bus_start(bus_);
    if (r >= 0) r = sd_bus_request_name(bus_, "org.freedesktop.login1", 0);
    if (r >= 0 && serveProperty) {
      r = sd_bus_add_object_vtable(bus_, &slot_, "/org/freedesktop/login1",
                                   "org.freedesktop.login1.Manager", kVtable, this);
    }
    EXPECT_GE(r, 0) << "the stand-in for logind could not take its place on the bus";
    thread_ = std::thread([this] {
      while (!stopping_) {
        while (sd_bus_process(bus_, nullptr) > 0) {
        }
        sd_bus_wait(bus_, 20'000);
      }
    });
  }
  ~FakeLogind() {
    stopping_ = true;
    thread_.join();
    sd_bus_slot_unref(slot_);
    sd_bus_flush_close_unref(bus_);
  }
  std::atomic<bool> lidClosed{false};

 private:
  static int getLid(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                    void* userdata, sd_bus_error*) {
    const int closed = static_cast<FakeLogind*>(userdata)->lidClosed.load() ? 1 : 0;
    return sd_bus_message_append(reply, "b", closed);
  }
  static constexpr sd_bus_vtable kVtable[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_PROPERTY("LidClosed", "b", getLid, 0, 0),
      SD_BUS_VTABLE_END,
  };

  sd_bus* bus_ = nullptr;
  sd_bus_slot* slot_ = nullptr;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

class LogindLidProbeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.start()) << "no private message bus: install the dbus-daemon package.";
    address_ = bus_.address();
  }
  testing::PrivateMessageBus bus_;
  std::string address_;
};

TEST_F(LogindLidProbeTest, ReadsLidClosedEachTimeItIsAskedAndOpenWithoutIt) {
  {
    FakeLogind logind(address_, true);
    LogindLidProbe probe(address_);
    EXPECT_FALSE(probe.isLidClosed());
    logind.lidClosed = true;
    EXPECT_TRUE(probe.isLidClosed());
    logind.lidClosed = false;
    EXPECT_FALSE(probe.isLidClosed());
  }
  FakeLogind withoutProperty(address_, false);
  EXPECT_FALSE(LogindLidProbe(address_).isLidClosed());
}

TEST(LogindLidProbeWithoutBus, NoBusReadsAsOpen) {
  LogindLidProbe probe(std::string("unix:path=/nonexistent/quorel-test-bus"));
  EXPECT_FALSE(probe.isLidClosed());
  EXPECT_FALSE(probe.isLidClosed());
}

}  // namespace
}  // namespace quorel
