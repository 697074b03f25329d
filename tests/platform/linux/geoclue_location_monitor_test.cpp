// The monitor against a private message bus, where a peer of the test's own plays the location
// service: it hands out a client, records what the client was told, and moves the machine.

#include "platform/linux/geoclue_location_monitor.hpp"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

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

// The location service, served on a thread of its own; everything it shares is behind `mutex`.
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
    thread_ = std::thread([this] { serve(); });
  }
  ~FakeLocationService() {
    stopping_ = true;
    thread_.join();
    sd_bus_slot_unref(slot_);
    sd_bus_flush_close_unref(bus_);
  }

  // Publishes a fix as the service does: a new Location object, then LocationUpdated.
  void moveTo(double latitude, double longitude) {
    const std::lock_guard lock(mutex_);
    jobs_.push_back([this, latitude, longitude] {
      const std::string previous = locations_.empty() ? "/"
                                                      : "/org/freedesktop/GeoClue2/Location/" +
                                                            std::to_string(locations_.size());
      locations_.push_back({latitude, longitude});
      const std::string next =
          "/org/freedesktop/GeoClue2/Location/" + std::to_string(locations_.size());
      sd_bus_emit_signal(bus_, kClientPath, "org.freedesktop.GeoClue2.Client", "LocationUpdated",
                         "oo", previous.c_str(), next.c_str());
    });
  }
  std::map<std::string, std::string> properties() {
    const std::lock_guard lock(mutex_);
    return properties_;
  }
  std::vector<std::string> calls() {
    const std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  struct Fix {
    double latitude;
    double longitude;
  };

  void serve() {
    while (!stopping_) {
      std::deque<std::function<void()>> jobs;
      {
        const std::lock_guard lock(mutex_);
        jobs.swap(jobs_);
      }
      for (auto& job : jobs) job();
      while (sd_bus_process(bus_, nullptr) > 0) {
      }
      sd_bus_wait(bus_, 5'000);
    }
  }

  static int onCall(sd_bus_message* call, void* userdata, sd_bus_error*) {
    return static_cast<FakeLocationService*>(userdata)->answer(call);
  }

  int answer(sd_bus_message* call) {
    const std::string member = sd_bus_message_get_member(call);
    const std::string path = sd_bus_message_get_path(call);
    {
      const std::lock_guard lock(mutex_);
      calls_.push_back(member);
    }
    if (member == "GetClient") return sd_bus_reply_method_return(call, "o", kClientPath);
    if (member == "Start" && refuseStart_) {
      return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "not allowed");
    }
    if (member == "Start" || member == "Stop") return sd_bus_reply_method_return(call, "");
    const char* interface = nullptr;
    const char* name = nullptr;
    if (sd_bus_message_read(call, "ss", &interface, &name) <= 0) return 0;
    if (member == "Set") {
      const char* type = nullptr;
      sd_bus_message_peek_type(call, nullptr, &type);
      std::string value;
      if (std::string(type) == "s") {
        const char* text = nullptr;
        sd_bus_message_read(call, "v", "s", &text);
        value = text;
      } else {
        std::uint32_t number = 0;
        sd_bus_message_read(call, "v", "u", &number);
        value = std::to_string(number);
      }
      const std::lock_guard lock(mutex_);
      properties_[name] = value;
      return sd_bus_reply_method_return(call, "");
    }
    // Get on /org/freedesktop/GeoClue2/Location/N.
    const std::size_t n = std::stoul(path.substr(path.rfind('/') + 1));
    const Fix& fix = locations_.at(n - 1);
    const std::string property = name;
    const double value = property == "Latitude"    ? fix.latitude
                         : property == "Longitude" ? fix.longitude
                                                   : 25.0;
    return sd_bus_reply_method_return(call, "v", "d", value);
  }

  sd_bus* bus_ = nullptr;
  sd_bus_slot* slot_ = nullptr;
  bool refuseStart_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
  std::mutex mutex_;
  std::deque<std::function<void()>> jobs_;
  std::map<std::string, std::string> properties_;
  std::vector<std::string> calls_;
  std::vector<Fix> locations_;  // the service's thread only
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
    return {.onRegionEntry = [add](const std::string& id) { add("entry " + id); },
            .onAuthorizationChange =
                [add](LocationAuthorization a) {
                  add("authorization " + std::string(locationAuthorizationText(a)));
                },
            .onDetermineState =
                [add](const std::string& id, RegionState s) {
                  add("state " + id + (s == RegionState::inside ? " inside" : " outside"));
                },
            .onMonitoringFailed = {}};
  }
  std::vector<std::string> snapshot() {
    const std::lock_guard lock(mutex);
    return events;
  }
  bool waitFor(std::size_t n) {
    return testing::waitUntil([&] { return snapshot().size() >= n; }, 10s);
  }
};

class GeoClueLocationMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.start()) << "no private message bus: install the dbus-daemon package.";
  }
  // A point `metres` north of the office.
  static double northOfOffice(double metres) { return kOfficeLat + metres / kMetresPerDegree; }

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
  ASSERT_TRUE(reports_.waitFor(1));
  EXPECT_EQ(monitor.authorization(), LocationAuthorization::authorizedAlways);
  const auto told = service.properties();
  EXPECT_EQ(told.at("DesktopId"), "quorel");
  EXPECT_GE(std::stoi(told.at("RequestedAccuracyLevel")), 4) << "coarser than a city";

  monitor.startMonitoring({"OFFICE", kOfficeLat, kOfficeLon, 200});
  // Asked before any fix: the answer waits for the first one.
  monitor.requestState("OFFICE");
  service.moveTo(northOfOffice(250), kOfficeLon);
  ASSERT_TRUE(reports_.waitFor(2));
  service.moveTo(northOfOffice(150), kOfficeLon);
  service.moveTo(northOfOffice(10), kOfficeLon);
  service.moveTo(northOfOffice(400), kOfficeLon);
  service.moveTo(northOfOffice(199), kOfficeLon);
  ASSERT_TRUE(reports_.waitFor(4));
  monitor.requestState("OFFICE");
  ASSERT_TRUE(reports_.waitFor(5));
  EXPECT_EQ(reports_.snapshot(), (Events{"authorization authorized_always", "state OFFICE outside",
                                         "entry OFFICE", "entry OFFICE", "state OFFICE inside"}));

  // A circle no longer watched reports nothing, and a bigger one watched anew starts from the
  // last fix without calling it an arrival.
  monitor.stopMonitoring("OFFICE");
  monitor.startMonitoring({"TOWN", kOfficeLat, kOfficeLon, 1000});
  service.moveTo(northOfOffice(2000), kOfficeLon);
  service.moveTo(northOfOffice(0), kOfficeLon);
  ASSERT_TRUE(reports_.waitFor(6));
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(reports_.snapshot().back(), "entry TOWN");
  EXPECT_EQ(reports_.snapshot().size(), 6u);
}

TEST_F(GeoClueLocationMonitorTest, ARefusalIsDeniedAndAMissingServiceStaysUndetermined) {
  {
    FakeLocationService refusing(bus_.address(), /*refuseStart=*/true);
    GeoClueLocationMonitor monitor(clock_, bus_.address());
    monitor.setCallbacks(reports_.callbacks());
    monitor.requestAlwaysAuthorization();
    ASSERT_TRUE(reports_.waitFor(1));
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

TEST(HaversineTest, DistancesMatchTheSphereAcrossTheAntimeridianAndAtThePoles) {
  // Paris to London, 343.5 km on the mean sphere.
  EXPECT_NEAR(haversineDistanceMeters(48.8566, 2.3522, 51.5074, -0.1278), 343'560, 500);
  EXPECT_NEAR(haversineDistanceMeters(0, 179.999, 0, -179.999), 222.4, 0.5);
  EXPECT_NEAR(haversineDistanceMeters(90, 0, 90, 120), 0, 1e-6);
  EXPECT_NEAR(haversineDistanceMeters(10, 20, 10, 20), 0, 1e-9);
}

}  // namespace
}  // namespace quorel
