// The agent's manager and socket client against the real helper server, over a real socket.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <thread>

#include "control/helper_client.hpp"
#include "control/helper_manager.hpp"
#include "helper_server.hpp"
#include "platform/linux/sysfs_tree.hpp"
#include "platform/sandbox/simulated_battery_controls.hpp"
#include "support/log_capture.hpp"
#include "support/wait_until.hpp"

namespace quorel {
namespace {

class InstalledService final : public HelperServiceController {
 public:
  HelperServiceStatus status() override { return HelperServiceStatus::enabled; }
  bool masked() override { return false; }
  std::optional<Error> registerHelper() override { return std::nullopt; }
  std::optional<Error> unregisterHelper() override { return std::nullopt; }
};

// One helper process as systemd would run it: its own queue and thread, a simulated battery.
struct RunningHelper {
  RunningHelper(const std::filesystem::path& socket, const std::filesystem::path& stateDir,
                std::string version)
      : battery(clock) {
    controller = std::make_unique<HelperController>(battery, clock, stateDir, std::move(version));
    methods = std::make_unique<HelperMethods>(*controller);
    server = std::make_unique<HelperServer>(queue, *methods, HelperServerOptions{});
    server->setOnQuit([this] {
      server->stop();
      quitAsked = true;
    });
    auto fd = listenOnUnixSocket(socket);
    EXPECT_TRUE(fd);
    controller->start();
    server->start(*fd);
    queue.start();
  }
  ~RunningHelper() {
    queue.sync([this] { server.reset(); });
    queue.shutdown();
  }

  ManualClock clock;
  SimulatedBatteryControls battery;
  SerialQueue queue{"helper", clock};
  std::unique_ptr<HelperController> controller;
  std::unique_ptr<HelperMethods> methods;
  std::unique_ptr<HelperServer> server;
  std::atomic<bool> quitAsked = false;
};

class HelperLinkTest : public ::testing::Test {
 protected:
  HelperLinkTest() { io.start(); }
  ~HelperLinkTest() override {
    manager.reset();
    helper.reset();
    io.shutdown();
    mainQueue.shutdown();
  }
  std::filesystem::path socket() const { return dir.root() / "run" / "helper.sock"; }
  void startHelper(std::string version) {
    helper.reset();
    helper = std::make_unique<RunningHelper>(socket(), dir.root(), std::move(version));
  }
  void makeManager() {
    manager = std::make_unique<HelperManager>(mainQueue, service,
                                              HelperClient::factory(io, mainQueue, socket()));
  }
  bool turnUntil(const std::function<bool()>& condition) {
    return testing::waitUntil(condition, [&] { mainQueue.runPending(); });
  }

  testing::SysfsTree dir;
  SystemClock ioClock;
  SerialQueue io{"helper-io", ioClock};
  ManualClock clock;
  SerialQueue mainQueue{"main", clock};
  InstalledService service;
  std::unique_ptr<RunningHelper> helper;
  std::unique_ptr<HelperManager> manager;
};

TEST_F(HelperLinkTest, ConnectsAndCommandsReachTheBattery) {
  startHelper(std::string(kHelperWireVersion));
  makeManager();
  manager->enable();
  ASSERT_TRUE(turnUntil([&] { return manager->controlAvailable() && manager->capabilities(); }));
  EXPECT_EQ(manager->capabilities(), helper->battery.capabilities());

  std::vector<std::optional<QuorelHelperError>> replies;
  manager->proxy()->setChargeLimit(70, [&](auto e) { replies.push_back(e); });
  manager->proxy()->setChargeLimit(5, [&](auto e) { replies.push_back(e); });
  ASSERT_TRUE(turnUntil([&] { return replies.size() == 2; }));
  EXPECT_EQ(replies[0], std::nullopt);
  ASSERT_TRUE(replies[1]);
  EXPECT_EQ(replies[1]->code, QuorelHelperErrorCode::codeOutOfRange);
  EXPECT_FALSE(replies[1]->message.empty());
  manager->refreshHelperStateNow();
  ASSERT_TRUE(turnUntil([&] { return manager->helperState()->chargeLimit == 70; }));
}

// The update path end to end: the old helper quits when asked, and the one that answers the
// next connection (socket activation's job in production) is the installed one.
TEST_F(HelperLinkTest, AnOutdatedHelperQuitsAndTheUpdatedOneTakesOver) {
  startHelper("2.0.6");
  makeManager();
  manager->enable();
  ASSERT_TRUE(turnUntil([&] { return helper->quitAsked.load(); }));
  EXPECT_EQ(manager->staleHelperPhase(), StaleHelperPhase::restarting);
  ASSERT_TRUE(turnUntil([&] { return manager->proxy() == nullptr; }));
  EXPECT_FALSE(manager->controlAvailable());

  startHelper(std::string(kHelperWireVersion));
  clock.advance(HelperManager::kReconnectBaseDelay);
  ASSERT_TRUE(turnUntil([&] { return manager->controlAvailable(); }));
  EXPECT_EQ(manager->staleHelperPhase(), StaleHelperPhase::none);
  EXPECT_EQ(manager->helperState()->helperVersion, std::string(kHelperWireVersion));
}

TEST_F(HelperLinkTest, NothingListeningMeansTheConnectionIsInvalidatedNotCrashed) {
  testing::LogCapture logs;
  makeManager();
  manager->establishConnection();
  ASSERT_TRUE(turnUntil([&] {
    return logs.contains("helper connection invalidated — channel dead; refreshing status");
  }));
  EXPECT_EQ(manager->reconnectAttempt(), 0);
  EXPECT_EQ(manager->proxy(), nullptr);
  EXPECT_EQ(manager->status(), HelperStatus::disabled());
}

TEST_F(HelperLinkTest, OneShotCallsAnswerFailFastOrTimeOut) {
  SystemClock real;
  auto missing = callHelperOnce(socket(), "ping", {}, Seconds{1}, real);
  ASSERT_TRUE(missing.error);
  EXPECT_EQ(missing.error->code, ENOENT);

  startHelper(std::string(kHelperWireVersion));
  auto counters = callHelperOnce(socket(), "readEnergyCounters", {}, Seconds{5}, real);
  ASSERT_TRUE(counters.result) << counters.error->message;
  ASSERT_TRUE(counters.result->arrayValue() && !counters.result->arrayValue()->empty());
  auto refused = callHelperOnce(socket(), "setChargeLimit",
                                JSONValue::object({{"percent", JSONValue(1)}}), Seconds{5}, real);
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->kind, HelperCallError::Kind::helper);
  EXPECT_EQ(refused.error->code, 400);

  // A listener that never answers: the wait ends at the deadline.
  helper.reset();
  auto silent = listenOnUnixSocket(socket());
  ASSERT_TRUE(silent);
  auto late = callHelperOnce(socket(), "ping", {}, Seconds{0.05}, real);
  ::close(*silent);
  ASSERT_TRUE(late.error);
  EXPECT_EQ(late.error->code, ETIMEDOUT);
}

// A helper that dies with a call in flight: the call fails first, then the end is reported as a
// connection that had been made, and later calls fail at once.
TEST_F(HelperLinkTest, AHelperDyingMidCallFailsTheCallThenReportsTheEnd) {
  auto listening = listenOnUnixSocket(socket());
  ASSERT_TRUE(listening);
  std::thread dying([fd = *listening] {
    const int peer = ::accept(fd, nullptr, nullptr);
    char buffer[256];
    ssize_t n = 0;
    while ((n = ::recv(peer, buffer, sizeof buffer, 0)) > 0 &&
           std::memchr(buffer, '\n', static_cast<std::size_t>(n)) == nullptr) {
    }
    ::close(peer);
  });
  HelperClient client(io, mainQueue, socket());
  std::vector<std::string> events;
  client.setClosedHandler(
      [&](bool connected) { events.push_back(connected ? "closed after connect" : "refused"); });
  client.call("ping", {}, [&](HelperCallOutcome out) {
    events.push_back(out.error && out.error->kind == HelperCallError::Kind::transport
                         ? "call failed"
                         : "call answered");
  });
  ASSERT_TRUE(turnUntil([&] { return events.size() == 2; }));
  dying.join();
  ::close(*listening);
  EXPECT_EQ(events, (std::vector<std::string>{"call failed", "closed after connect"}));
  client.call("ping", {}, [&](HelperCallOutcome out) {
    events.push_back(out.error ? "late call failed" : "late call answered");
  });
  ASSERT_TRUE(turnUntil([&] { return events.size() == 3; }));
  EXPECT_EQ(events.back(), "late call failed");
}

TEST(HelperAnswerTest, AnswersAreReadByKindAndAnythingElseIsRefused) {
  struct Case {
    const char* line;
    std::optional<HelperCallError::Kind> kind;  // absent: a result
    bool parses;
  };
  const Case cases[] = {
      {R"({"jsonrpc":"2.0","id":3,"result":true})", std::nullopt, true},
      {R"({"jsonrpc":"2.0","id":3,"error":{"code":503,"message":"no",)"
       R"("data":{"domain":"QuorelHelperError"}}})",
       HelperCallError::Kind::helper, true},
      // A helper code without the helper's domain is a protocol error, and so is an unknown code.
      {R"({"jsonrpc":"2.0","id":3,"error":{"code":503,"message":"no"}})",
       HelperCallError::Kind::protocol, true},
      {R"({"jsonrpc":"2.0","id":3,"error":{"code":-32001,"message":"uid 1000",)"
       R"("data":{"domain":"QuorelHelperError"}}})",
       HelperCallError::Kind::protocol, true},
      {R"({"jsonrpc":"2.0","id":"3","result":true})", std::nullopt, false},
      {R"({"jsonrpc":"2.0","id":3.5,"result":true})", std::nullopt, false},
      {R"({"jsonrpc":"2.0","id":3})", std::nullopt, false},
      {"[]", std::nullopt, false},
  };
  for (const auto& c : cases) {
    const auto answer = parseHelperAnswer(c.line);
    ASSERT_EQ(answer.has_value(), c.parses) << c.line;
    if (!answer) continue;
    EXPECT_EQ(answer->id, 3);
    EXPECT_EQ(answer->outcome.error ? std::optional(answer->outcome.error->kind) : std::nullopt,
              c.kind)
        << c.line;
  }
}

}  // namespace
}  // namespace quorel
