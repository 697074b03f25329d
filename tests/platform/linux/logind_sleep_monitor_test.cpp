// The monitor against a private message bus: a throw-away dbus-daemon stands in for the system
// bus, and a second connection that owns org.freedesktop.login1 plays logind.

#include "platform/linux/logind_sleep_monitor.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "core/clock.hpp"
#include "platform/linux/private_message_bus.hpp"
#include "support/log_capture.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;
using Events = std::vector<std::string>;

constexpr const char* kUnavailable = "system bus unavailable — sleep and wake will not be seen";
constexpr const char* kLost = "system bus connection lost — sleep and wake will no longer be seen";
constexpr const char* kMalformed = "PrepareForSleep without a boolean argument — ignored";
constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kNoDelayLock =
    "logind gave no sleep delay lock — energy of the minute before a sleep may be lost";
constexpr auto kCrossProcessBound = 10s;

// A client of the private bus that sends PrepareForSleep, under the logind name or not.
class Peer {
 public:
  Peer(const std::string& address, const char* wellKnownName) {
    EXPECT_GE(sd_bus_new(&bus_), 0);
    EXPECT_GE(sd_bus_set_address(bus_, address.c_str()), 0);
    EXPECT_GE(sd_bus_set_bus_client(bus_, 1), 0);
    EXPECT_GE(sd_bus_start(bus_), 0);
    EXPECT_GE(wellKnownName ? sd_bus_request_name(bus_, wellKnownName, 0) : 0, 0);
  }
  ~Peer() {
    sd_bus_slot_unref(objectSlot_);
    sd_bus_flush_close_unref(bus_);
    for (int fd : lockEnds_) ::close(fd);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  // PrepareForSleep with one argument of D-Bus type `signature`; logind sends a boolean.
  template <class Argument>
  void emit(const char* signature, Argument argument) {
    ASSERT_GE(sd_bus_emit_signal(bus_, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                 "PrepareForSleep", signature, argument),
              0);
    ASSERT_GE(sd_bus_flush(bus_), 0);
  }
  // Answers Inhibit as logind does: with one end of a pipe, whose other end stays here and
  // reads end-of-file once every holder has closed theirs. Calls are answered by process().
  void serveInhibit() {
    ASSERT_GE(sd_bus_add_object(bus_, &objectSlot_, "/org/freedesktop/login1", &onCall, this), 0);
  }
  void process() {
    while (sd_bus_process(bus_, nullptr) > 0) {
    }
  }
  std::size_t locksGiven() const { return lockEnds_.size(); }
  // Whether the latest lock handed out has been released by everybody who held it.
  bool latestLockReleased() const {
    pollfd p{lockEnds_.back(), POLLIN, 0};
    return ::poll(&p, 1, 0) == 1 && (p.revents & POLLHUP) != 0;
  }

  void prepareForSleep(std::initializer_list<bool> sleeping) {
    for (bool s : sleeping) emit("b", static_cast<int>(s));
  }
  // Returns once the daemon has answered a call sent after everything before it, so all this
  // peer sent earlier has been routed.
  void roundTrip() {
    sd_bus_error error{};  // SD_BUS_ERROR_NULL is a C compound literal
    sd_bus_message* reply = nullptr;
    EXPECT_GE(sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus", "GetId", &error, &reply, ""),
              0);
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
  }

 private:
  static int onCall(sd_bus_message* call, void* userdata, sd_bus_error*) {
    if (sd_bus_message_is_method_call(call, "org.freedesktop.login1.Manager", "Inhibit") <= 0) {
      return 0;
    }
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return -errno;
    static_cast<Peer*>(userdata)->lockEnds_.push_back(ends[0]);
    const int r = sd_bus_reply_method_return(call, "h", ends[1]);
    ::close(ends[1]);
    return r < 0 ? r : 1;
  }

  sd_bus* bus_ = nullptr;
  sd_bus_slot* objectSlot_ = nullptr;
  std::vector<int> lockEnds_;
};

// What the handlers saw, in order; a handler run off the delivery queue is marked so. The
// tests drive the delivery queue on their own thread, so only that thread touches `events`.
struct Recorder {
  Events events;
  // The permits of the sleeps seen, kept until the test lets go of them.
  std::vector<SleepPermit> permits;

  SleepWakeSource::Handlers handlers(SerialQueue& queue) {
    auto record = [this, &queue](std::string event) {
      events.push_back(queue.isCurrent() ? event : event + " off the queue");
    };
    return {[record, this](SleepPermit permit) {
              permits.push_back(std::move(permit));
              record("sleep");
            },
            [record] { record("wake"); }};
  }
};

std::size_t countLines(const testing::LogCapture& logs, const std::string& message) {
  const auto lines = logs.messages("AppDelegate");
  return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), message));
}

// For deliveries that cross processes into a queue the test drives by hand: step, look, and
// give the other side a moment, within a bound.
bool eventually(const std::function<bool()>& condition, const std::function<void()>& step = {}) {
  const SystemClock clock;
  const MonotonicTime deadline = clock.monotonicNow() + kCrossProcessBound;
  while (clock.monotonicNow() < deadline) {
    if (step) step();
    if (condition()) return true;
    std::this_thread::sleep_for(2ms);
  }
  return false;
}

class LogindSleepMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.start()) << "no private message bus: install the dbus-daemon package.";
    address_ = bus_.address();
  }
  void TearDown() override { killBus(); }
  void killBus() { bus_.stop(); }
  bool deliver(Recorder& recorder, std::size_t n) {
    const bool arrived =
        eventually([&] { return recorder.events.size() >= n; }, [&] { main_.runPending(); });
    main_.runPending();
    return arrived;
  }

  testing::PrivateMessageBus bus_;
  std::string address_;
  const SystemClock clock_;
  SerialQueue main_{"test.main", clock_};
  Recorder recorder_;
  testing::LogCapture logs_;
};

TEST_F(LogindSleepMonitorTest, DeliversSleepAndWakeInOrderOnTheDeliveryQueue) {
  LogindSleepMonitor monitor(main_, address_);
  ASSERT_TRUE(monitor.start(recorder_.handlers(main_)));
  Peer logind(address_, kLogind);
  logind.prepareForSleep({true, false, true, false});
  ASSERT_TRUE(deliver(recorder_, 4));
  EXPECT_EQ(recorder_.events, (Events{"sleep", "wake", "sleep", "wake"}));
  EXPECT_EQ(monitor.signalsReceived(), 4u);
}

TEST_F(LogindSleepMonitorTest, HoldsSleepUntilThePermitIsLetGoAndTakesTheLockAgainAtWake) {
  Peer logind(address_, kLogind);
  logind.serveInhibit();
  LogindSleepMonitor monitor(main_, address_);
  ASSERT_TRUE(monitor.start(recorder_.handlers(main_)));
  ASSERT_TRUE(eventually([&] { return monitor.holdsDelayLock(); }, [&] { logind.process(); }));
  ASSERT_EQ(logind.locksGiven(), 1u);

  logind.prepareForSleep({true});
  ASSERT_TRUE(deliver(recorder_, 1));
  // The handler's work is not done while it holds the permit: the machine must not sleep yet.
  EXPECT_FALSE(logind.latestLockReleased());
  SleepPermit handedOn = recorder_.permits.front();
  recorder_.permits.clear();
  EXPECT_FALSE(logind.latestLockReleased());
  handedOn.reset();
  EXPECT_TRUE(eventually([&] { return logind.latestLockReleased(); }));
  EXPECT_FALSE(monitor.holdsDelayLock());

  logind.prepareForSleep({false});
  ASSERT_TRUE(deliver(recorder_, 2));
  ASSERT_TRUE(eventually([&] { return monitor.holdsDelayLock(); }, [&] { logind.process(); }));
  EXPECT_EQ(logind.locksGiven(), 2u);
  monitor.stop();
  EXPECT_TRUE(eventually([&] { return logind.latestLockReleased(); }));
}

TEST_F(LogindSleepMonitorTest, WithoutALockFromLogindSleepStillArrivesAndOneWarningSaysWhy) {
  Peer logind(address_, kLogind);  // answers no Inhibit call
  LogindSleepMonitor monitor(main_, address_);
  ASSERT_TRUE(monitor.start(recorder_.handlers(main_)));
  logind.prepareForSleep({true, false, true});
  ASSERT_TRUE(deliver(recorder_, 3));
  ASSERT_TRUE(
      eventually([&] { return countLines(logs_, kNoDelayLock) >= 1; }, [&] { logind.process(); }));
  EXPECT_FALSE(monitor.holdsDelayLock());
  EXPECT_EQ(countLines(logs_, kNoDelayLock), 1u);
}

TEST_F(LogindSleepMonitorTest, HeedsOnlyWellFormedSignalsFromLogind) {
  LogindSleepMonitor monitor(main_, address_);
  ASSERT_TRUE(monitor.start(recorder_.handlers(main_)));

  // Anyone may send a signal with logind's path and interface; only logind's name counts.
  Peer impostor(address_, nullptr);
  impostor.prepareForSleep({true});
  impostor.roundTrip();
  Peer logind(address_, kLogind);
  logind.emit("s", "yes");
  logind.prepareForSleep({false});

  // The good signal comes last from its sender and the impostor's was routed before it, so
  // once it has arrived everything else has had its chance.
  ASSERT_TRUE(deliver(recorder_, 1));
  EXPECT_EQ(recorder_.events, Events{"wake"});
  EXPECT_EQ(monitor.signalsReceived(), 1u);
  EXPECT_EQ(countLines(logs_, kMalformed), 1u);
}

TEST_F(LogindSleepMonitorTest, NoHandlerRunsAfterStopEvenIfAlreadyPosted) {
  auto monitor = std::make_unique<LogindSleepMonitor>(main_, address_);
  ASSERT_TRUE(monitor->start(recorder_.handlers(main_)));
  Peer logind(address_, kLogind);
  logind.prepareForSleep({true});
  // Received and posted, but the delivery queue has not run yet.
  ASSERT_TRUE(eventually([&] { return monitor->signalsReceived() == 1; }));
  monitor->stop();
  main_.runPending();
  monitor->stop();
  monitor.reset();
  main_.runPending();
  EXPECT_TRUE(recorder_.events.empty());
}

TEST_F(LogindSleepMonitorTest, ABusThatGoesAwayIsReportedOnceAndStopStillWorks) {
  LogindSleepMonitor monitor(main_, address_);
  ASSERT_TRUE(monitor.start(recorder_.handlers(main_)));
  killBus();
  ASSERT_TRUE(eventually([&] { return countLines(logs_, kLost) >= 1; }));
  monitor.stop();
  EXPECT_EQ(countLines(logs_, kLost), 1u);
  main_.runPending();
  EXPECT_TRUE(recorder_.events.empty());
}

TEST(LogindSleepMonitorWithoutBus, StartFailsWithOneWarningAndTheAgentGoesOn) {
  const std::string address = "unix:path=/nonexistent/quorel-test/bus_socket";
  testing::LogCapture logs;
  const SystemClock clock;
  SerialQueue main("test.main", clock);
  Recorder recorder;
  LogindSleepMonitor monitor(main, address);
  EXPECT_FALSE(monitor.start(recorder.handlers(main)));
  EXPECT_FALSE(monitor.start(recorder.handlers(main)));
  monitor.stop();

  // One warning; whatever else was said is detail for a debug log.
  EXPECT_EQ(countLines(logs, kUnavailable), 1u);
  for (const auto& line : logs.messages("AppDelegate")) {
    if (line == kUnavailable) continue;
    EXPECT_EQ(line.rfind("could not connect to " + address + ": ", 0), 0u) << line;
  }
  EXPECT_EQ(main.runPending(), 0u);
  EXPECT_TRUE(recorder.events.empty());
}

}  // namespace
}  // namespace quorel
