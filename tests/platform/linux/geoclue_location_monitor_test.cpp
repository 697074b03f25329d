// The monitor against a private message bus, where a peer of the test's own plays the location
// service: it hands out a client, records what the client was told, and moves the machine.

#include "platform/linux/geoclue_location_monitor.hpp"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <map>
#include <mutex>
#include <thread>

#include "control/fake_top_off_sources.hpp"
#include "core/memory_preference_store.hpp"
#include "platform/linux/private_message_bus.hpp"
#include "support/log_capture.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;

constexpr const char* kClientPath = "/org/freedesktop/GeoClue2/Client/1";
constexpr double kOfficeLat = 48.8566;
constexpr double kOfficeLon = 2.3522;
// One degree of latitude is 111.2 km on the mean sphere.
constexpr double kMetresPerDegree = 111'195.08;

// The location service, served by the test's thread between its looks (serve()).
class FakeLocationService {
 public:
  explicit FakeLocationService(const std::string& address, bool refuseStart = false)
      : refuseStart_(refuseStart) {
    EXPECT_GE(sd_bus_new(&bus_), 0);
    EXPECT_GE(sd_bus_set_address(bus_, address.c_str()), 0);
    EXPECT_GE(sd_bus_set_bus_client(bus_, 1), 0);
    EXPECT_GE(sd_bus_start(bus_), 0);
    EXPECT_GE(sd_bus_request_name(bus_, "org.freedesktop.GeoClue2", 0), 0);
    EXPECT_GE(sd_bus_add_fallback(bus_, &slot_, "/org/freedesktop/GeoClue2", &onCall, this), 0);
  }
  ~FakeLocationService() {
    sd_bus_slot_unref(slot_);
    sd_bus_flush_close_unref(bus_);
  }

  // Publishes a fix `metres` north of the office as the service does: a new Location object,
  // then LocationUpdated.
  void moveTo(double metres) {
    const std::string previous = locations_.empty() ? "/"
                                                    : "/org/freedesktop/GeoClue2/Location/" +
                                                          std::to_string(locations_.size());
    locations_.push_back(kOfficeLat + metres / kMetresPerDegree);
    const std::string next =
        "/org/freedesktop/GeoClue2/Location/" + std::to_string(locations_.size());
    sd_bus_emit_signal(bus_, kClientPath, "org.freedesktop.GeoClue2.Client", "LocationUpdated",
                       "oo", previous.c_str(), next.c_str());
    sd_bus_flush(bus_);
  }
  void serve() {
    while (sd_bus_process(bus_, nullptr) > 0) {
    }
  }
  std::map<std::string, std::string> properties;

 private:
  static int onCall(sd_bus_message* call, void* userdata, sd_bus_error*) {
    return static_cast<FakeLocationService*>(userdata)->answer(call);
  }

  int answer(sd_bus_message* call) {
    const std::string member = sd_bus_message_get_member(call);
    const std::string path = sd_bus_message_get_path(call);
    if (member == "GetClient") return sd_bus_reply_method_return(call, "o", kClientPath);
    if (member == "Start" && refuseStart_) {
      return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "not allowed");
    }
    if (member == "Start" || member == "Stop") return sd_bus_reply_method_return(call, "");
    const char* interface = nullptr;
    const char* name = nullptr;
    if (sd_bus_message_read(call, "ss", &interface, &name) <= 0) return 0;
    if (member == "Set") {
      const char* text = nullptr;
      std::uint32_t number = 0;
      const bool isText = std::string(name) == "DesktopId";
      const int r = isText ? sd_bus_message_read(call, "v", "s", &text)
                           : sd_bus_message_read(call, "v", "u", &number);
      properties[name] = r <= 0 ? "?" : isText ? text : std::to_string(number);
      return sd_bus_reply_method_return(call, "");
    }
    // Get on /org/freedesktop/GeoClue2/Location/N.
    const std::size_t n = std::stoul(path.substr(path.rfind('/') + 1));
    const std::string property = name;
    const double value = property == "Latitude"    ? locations_.at(n - 1)
                         : property == "Longitude" ? kOfficeLon
                                                   : 25.0;
    return sd_bus_reply_method_return(call, "v", "d", value);
  }

  sd_bus* bus_ = nullptr;
  sd_bus_slot* slot_ = nullptr;
  bool refuseStart_;
  std::vector<double> locations_;  // latitudes; the service's thread only
};

// What the monitor reported, from its own thread.
struct Reports {
  std::mutex mutex;
  std::vector<std::string> events;

  BatteryControlLocationMonitoring::Callbacks callbacks() {
    auto add = [this](std::string e) {
      const std::lock_guard lock(mutex);
      events.push_back(std::move(e));
    };
    BatteryControlLocationMonitoring::Callbacks c;
    c.onRegionEntry = [add](const std::string& id) { add("entry " + id); };
    c.onAuthorizationChange = [add](LocationAuthorization a) {
      add("authorization " + std::string(locationAuthorizationText(a)));
    };
    c.onDetermineState = [add](const std::string& id, RegionState s) {
      add("state " + id + (s == RegionState::inside ? " inside" : " outside"));
    };
    return c;
  }
  std::vector<std::string> snapshot() {
    const std::lock_guard lock(mutex);
    return events;
  }
  bool waitFor(std::size_t n, FakeLocationService* service) {
    return testing::waitUntil([&] { return snapshot().size() >= n; },
                              [&] {
                                if (service) service->serve();
                              },
                              10s);
  }
};

class GeoClueLocationMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.start()) << "no private message bus: install the dbus-daemon package.";
  }
  testing::PrivateMessageBus bus_;
  const SystemClock clock_;
  Reports reports_;
  testing::LogCapture logs_;
};

using Events = std::vector<std::string>;

TEST_F(GeoClueLocationMonitorTest, ReportsArrivalsOnlyWhenAFixCrossesIntoTheCircle) {
  FakeLocationService service(bus_.address());
  GeoClueLocationMonitor monitor(clock_, bus_.address());
  monitor.setCallbacks(reports_.callbacks());
  monitor.requestAlwaysAuthorization();
  ASSERT_TRUE(reports_.waitFor(1, &service));
  EXPECT_EQ(monitor.authorization(), LocationAuthorization::authorizedAlways);
  const auto told = service.properties;
  EXPECT_EQ(told.at("DesktopId"), "quorel");
  EXPECT_GE(std::stoi(told.at("RequestedAccuracyLevel")), 4) << "coarser than a city";

  monitor.startMonitoring({"OFFICE", kOfficeLat, kOfficeLon, 200});
  // Asked before any fix: the answer waits for the first one.
  monitor.requestState("OFFICE");
  service.moveTo(250);
  ASSERT_TRUE(reports_.waitFor(2, &service));
  service.moveTo(150);
  service.moveTo(10);
  service.moveTo(400);
  service.moveTo(199);
  ASSERT_TRUE(reports_.waitFor(4, &service));
  monitor.requestState("OFFICE");
  ASSERT_TRUE(reports_.waitFor(5, &service));
  EXPECT_EQ(reports_.snapshot(), (Events{"authorization authorized_always", "state OFFICE outside",
                                         "entry OFFICE", "entry OFFICE", "state OFFICE inside"}));

  // A circle no longer watched reports nothing, and a bigger one watched anew starts from the
  // last fix without calling it an arrival.
  monitor.stopMonitoring("OFFICE");
  monitor.startMonitoring({"TOWN", kOfficeLat, kOfficeLon, 1000});
  service.moveTo(2000);
  service.moveTo(0);
  ASSERT_TRUE(reports_.waitFor(6, &service));
  EXPECT_EQ(reports_.snapshot().at(5), "entry TOWN");
}

TEST_F(GeoClueLocationMonitorTest, ARefusalIsDeniedAndAMissingServiceStaysUndetermined) {
  {
    FakeLocationService refusing(bus_.address(), /*refuseStart=*/true);
    GeoClueLocationMonitor monitor(clock_, bus_.address());
    monitor.setCallbacks(reports_.callbacks());
    monitor.requestAlwaysAuthorization();
    ASSERT_TRUE(reports_.waitFor(1, &refusing));
    EXPECT_EQ(monitor.authorization(), LocationAuthorization::denied);
    EXPECT_TRUE(logs_.contains("location service refused access — geofence rules are not watched"));
  }
  GeoClueLocationMonitor monitor(clock_, bus_.address());
  monitor.setCallbacks(reports_.callbacks());
  monitor.requestAlwaysAuthorization();
  ASSERT_TRUE(logs_.waitFor(
      "location service not on the bus — geofence rules are kept but not watched", 10s));
  EXPECT_EQ(monitor.authorization(), LocationAuthorization::notDetermined);
  monitor.startMonitoring({"OFFICE", kOfficeLat, kOfficeLon, 200});
  monitor.requestState("OFFICE");
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(reports_.snapshot(), Events{"authorization denied"});
}

TEST_F(GeoClueLocationMonitorTest, AServiceStartedLaterIsUsedAndOneThatLeavesIsWaitedFor) {
  GeoClueLocationMonitor monitor(clock_, bus_.address());
  monitor.setCallbacks(reports_.callbacks());
  monitor.requestAlwaysAuthorization();
  ASSERT_TRUE(logs_.waitFor(
      "location service not on the bus — geofence rules are kept but not watched", 10s));
  // Watched from before the service exists, and kept through its absence.
  monitor.startMonitoring({"OFFICE", kOfficeLat, kOfficeLon, 200});
  Events expected;
  for (int visit = 1; visit <= 2; ++visit) {
    SCOPED_TRACE("visit " + std::to_string(visit));
    {
      FakeLocationService service(bus_.address());
      ASSERT_TRUE(reports_.waitFor(expected.size() + 1, &service));
      EXPECT_EQ(monitor.authorization(), LocationAuthorization::authorizedAlways);
      EXPECT_EQ(service.properties["DesktopId"], "quorel");
      service.moveTo(400);
      service.moveTo(10);
      ASSERT_TRUE(reports_.waitFor(expected.size() + 2, &service));
      expected.insert(expected.end(), {"authorization authorized_always", "entry OFFICE"});
    }
    ASSERT_TRUE(reports_.waitFor(expected.size() + 1, nullptr));
    expected.push_back("authorization not_determined");
    EXPECT_EQ(reports_.snapshot(), expected);
    EXPECT_EQ(monitor.authorization(), LocationAuthorization::notDetermined);
  }
  EXPECT_TRUE(logs_.contains(
      "location service left the bus — geofence rules are kept for when it returns"));
}

// A geofence rule set while the service was away fires once it starts: the engine hears the
// authorization change, watches its circle and asks where the machine is.
TEST_F(GeoClueLocationMonitorTest, TheRulesEngineWatchesItsCirclesOnceALateServiceStarts) {
  const std::string office = "3B1D2E3F-4A5B-4C6D-8E7F-901A2B3C4D5E";
  ManualClock engineClock;
  SerialQueue main{"test.main", engineClock};
  MemoryPreferenceStore defaults;
  testing::FakeCalendar calendar{engineClock};
  testing::FakeRulesSource rules;
  rules.rules = {TopOffRule{GeofenceTopOffRule{office, kOfficeLat, kOfficeLon, 200, "Office"}}};
  // After the main queue, which its callbacks post to until it is gone.
  GeoClueLocationMonitor monitor(clock_, bus_.address());
  BatteryControlRulesEngine engine{rules, calendar, monitor, defaults, engineClock, main};
  std::vector<std::string> fired;
  engine.addFireHandler([&](const TopOffRule& rule) { fired.push_back(rule.id()); });
  engine.start();
  ASSERT_TRUE(logs_.waitFor(
      "location service not on the bus — geofence rules are kept but not watched", 10s));
  main.runPending();
  EXPECT_TRUE(engine.monitoredRegions().empty());

  {
    FakeLocationService service(bus_.address());
    auto until = [&](auto done) {
      return testing::waitUntil(
          done, [&] { service.serve(), main.runPending(); }, 10s);
    };
    ASSERT_TRUE(until([&] { return engine.monitoredRegions().contains(office); }));
    service.moveTo(10);
    ASSERT_TRUE(until([&] { return !fired.empty(); }));
    EXPECT_EQ(fired, std::vector<std::string>{office});
  }
  ASSERT_TRUE(testing::waitUntil([&] { return engine.monitoredRegions().empty(); },
                                 [&] { main.runPending(); }, 10s));
}

}  // namespace
}  // namespace quorel
