#include "control/helper_manager.hpp"

#include <gtest/gtest.h>

#include <map>

#include "support/log_capture.hpp"

namespace quorel {
namespace {

class FakeService final : public HelperServiceController {
 public:
  HelperServiceStatus current = HelperServiceStatus::enabled;
  bool isMasked = false;
  int unregisters = 0;

  HelperServiceStatus status() override { return current; }
  bool masked() override { return isMasked; }
  std::optional<Error> registerHelper() override { return Error{helper_texts::kNotInstalled}; }
  std::optional<Error> unregisterHelper() override {
    ++unregisters;
    return Error{helper_texts::kNeedsRootToRemove};
  }
};

// The helper at the other end of every connection the manager opens: how it behaves is set by
// the test, and it answers through the main queue as the socket client does.
struct FakeHelper {
  bool listening = true;
  bool answers = true;
  bool exitsOnQuit = true;
  bool crashesOnConnect = false;
  std::optional<std::string> version = std::string(kHelperWireVersion);
  std::map<std::string, HelperCallError> refusals;
  std::vector<std::string> calls;
  std::vector<MonotonicTime> connectedAt;
  // Ends the newest connection from the helper's side.
  std::function<void()> crashNewest;
  const void* newest = nullptr;
};

class FakeChannel final : public HelperChannel {
 public:
  FakeChannel(FakeHelper& helper, SerialQueue& queue) : helper_(helper), queue_(queue) {
    helper_.connectedAt.push_back(queue.clock().monotonicNow());
    if (!helper_.listening) {
      end(false);
    } else if (helper_.crashesOnConnect) {
      end(true);
    }
    helper_.crashNewest = [this] { end(true); };
    helper_.newest = this;
  }
  ~FakeChannel() override {
    close();
    if (helper_.newest == this) helper_.crashNewest = nullptr;
  }

  void call(std::string method, JSONValue, HelperCallCompletion done) override {
    helper_.calls.push_back(method);
    if (*ended_) {
      post([done] { done({std::nullopt, HelperCallError{}}); });
      return;
    }
    if (!helper_.answers) return;
    if (auto refusal = helper_.refusals.find(method); refusal != helper_.refusals.end()) {
      post([done, error = refusal->second] { done({std::nullopt, error}); });
      return;
    }
    JSONValue result(true);
    if (method == "ping") result = JSONValue(42);
    if (method == "capabilities") result = HelperCapabilities{.nativeCharging = true}.toJSON();
    if (method == "getState") {
      HelperState state;
      state.helperVersion = helper_.version;
      result = state.toJSON();
    }
    post([done, result] {
      if (done) done({result, std::nullopt});
    });
    if (method == "quit" && helper_.exitsOnQuit) end(true);
  }
  void setClosedHandler(ClosedHandler handler) override { onClosed_ = std::move(handler); }
  void close() override {
    *closed_ = true;
    *ended_ = true;
  }

 private:
  void post(std::function<void()> work) {
    queue_.async([closed = closed_, work = std::move(work)] {
      if (!*closed) work();
    });
  }
  void end(bool connected) {
    if (*ended_) return;
    *ended_ = true;
    post([this, connected] {
      if (onClosed_) onClosed_(connected);
    });
  }

  FakeHelper& helper_;
  SerialQueue& queue_;
  ClosedHandler onClosed_;
  std::shared_ptr<bool> closed_ = std::make_shared<bool>(false);
  std::shared_ptr<bool> ended_ = std::make_shared<bool>(false);
};

class HelperManagerTest : public ::testing::Test {
 protected:
  HelperManagerTest() { makeManager(); }
  ~HelperManagerTest() override {
    manager.reset();
    queue.shutdown();
  }
  void makeManager(HelperManager::Hooks hooks = {}) {
    manager = std::make_unique<HelperManager>(
        queue, service, [this] { return std::make_unique<FakeChannel>(helper, queue); },
        std::move(hooks));
  }
  // Time passes in small steps, as it would for a running queue.
  void advance(double seconds) {
    queue.runPending();
    for (double t = 0; t < seconds - 1e-9; t += 0.1) {
      clock.advance(Seconds{0.1});
      queue.runPending();
    }
  }
  void connect() {
    manager->enable();
    advance(0.1);
    ASSERT_EQ(manager->status(), HelperStatus::enabled());
  }
  double secondsBetween(std::size_t from, std::size_t to) const {
    return std::chrono::duration<double>(helper.connectedAt.at(to) - helper.connectedAt.at(from))
        .count();
  }
  std::size_t pings() const { return std::count(helper.calls.begin(), helper.calls.end(), "ping"); }

  ManualClock clock;
  SerialQueue queue{"main-test", clock};
  FakeService service;
  FakeHelper helper;
  std::unique_ptr<HelperManager> manager;
  testing::LogCapture logs;
};

TEST_F(HelperManagerTest, ConnectsLoadsStateAndCarriesCommandsAndRefusals) {
  EXPECT_EQ(manager->proxy(), nullptr);
  connect();
  ASSERT_TRUE(manager->helperState());
  EXPECT_EQ(manager->helperState()->helperVersion, std::string(kHelperWireVersion));
  EXPECT_TRUE(manager->capabilities() && manager->capabilities()->nativeCharging);
  EXPECT_TRUE(manager->controlAvailable());
  ASSERT_NE(manager->proxy(), nullptr);

  helper.refusals["setChargeLimit"] = {HelperCallError::Kind::helper, 400, "out of range"};
  helper.refusals["forceDischarge"] = {HelperCallError::Kind::protocol, -32001, "uid 1000"};
  std::vector<std::optional<QuorelHelperError>> replies;
  const auto record = [&](std::optional<QuorelHelperError> e) { replies.push_back(e); };
  manager->proxy()->setSailingBand(3, record);
  manager->proxy()->setChargeLimit(10, record);
  manager->proxy()->forceDischarge(true, record);
  const auto stateReads = [&] {
    return std::count(helper.calls.begin(), helper.calls.end(), "getState");
  };
  const auto readsBefore = stateReads();
  queue.runPending();
  ASSERT_EQ(replies.size(), 3u);
  // Only the write that landed reads the helper's state again, so what is shown follows it.
  EXPECT_EQ(stateReads(), readsBefore + 1);
  EXPECT_EQ(replies[0], std::nullopt);
  EXPECT_EQ(replies[1], (QuorelHelperError{QuorelHelperErrorCode::codeOutOfRange, "out of range"}));
  EXPECT_EQ(replies[2]->message, "uid 1000");
}

TEST_F(HelperManagerTest, ConcurrentConnectsShareOneAttempt) {
  std::vector<bool> outcomes;
  manager->establishConnection([&](bool ok) { outcomes.push_back(ok); });
  manager->establishConnection([&](bool ok) { outcomes.push_back(ok); });
  advance(0.1);
  EXPECT_EQ(helper.connectedAt.size(), 1u);
  EXPECT_EQ(outcomes, (std::vector<bool>{true, true}));
}

// A silent helper gets 10 s, a 3 s pause and 5 s more from cold; then one fresh attempt, and
// after that the sentence saying what to run.
TEST_F(HelperManagerTest, ColdPingBudgetsThenOneFreshAttemptThenTheText) {
  helper.answers = false;
  manager->enable();
  advance(17.5);
  EXPECT_TRUE(manager->isConnecting());
  EXPECT_EQ(helper.connectedAt.size(), 1u);
  const auto pingsInFirstTen = pings();
  EXPECT_GE(pingsInFirstTen, 5u);  // 2 s pings with 0.4 s pauses
  advance(1.0);
  EXPECT_EQ(helper.connectedAt.size(), 2u) << "auto-reset reconnects once";
  EXPECT_TRUE(logs.contains("first-ping timeout — service.status=enabled"));
  advance(18.5);
  EXPECT_FALSE(manager->isConnecting());
  EXPECT_EQ(helper.connectedAt.size(), 2u);
  EXPECT_EQ(manager->status(), HelperStatus::error(helper_texts::kNotRunning));

  // Once connected, a reconnect gets the warm budget of 2 s only; its failure starts the one
  // fresh attempt from cold.
  helper.answers = true;
  connect();
  helper.answers = false;
  helper.crashNewest();
  advance(11.1);
  ASSERT_EQ(helper.connectedAt.size(), 4u);
  advance(1.8);
  EXPECT_EQ(helper.connectedAt.size(), 4u);
  advance(0.4);
  EXPECT_EQ(helper.connectedAt.size(), 5u);
}

TEST_F(HelperManagerTest, TwoMissedPingsTearDownButAnAnswerBetweenResetsTheCount) {
  connect();
  helper.answers = false;
  advance(30 + 5.1);
  EXPECT_EQ(manager->status(), HelperStatus::enabled()) << "one miss is tolerated";
  helper.answers = true;
  advance(30);
  helper.answers = false;
  advance(30 + 5.1);
  EXPECT_EQ(manager->status(), HelperStatus::enabled()) << "the answer between reset the count";
  advance(30);
  EXPECT_TRUE(logs.contains("ping missed twice — tearing down connection"));
  EXPECT_EQ(manager->status(), HelperStatus::error(helper_texts::kConnectionLost));
  EXPECT_EQ(manager->proxy(), nullptr);
  EXPECT_FALSE(manager->helperState());
}

TEST_F(HelperManagerTest, CrashReconnectsAfter11_22_44SecondsThenSaysItCrashed) {
  connect();
  helper.crashesOnConnect = true;
  helper.crashNewest();
  advance(200);
  ASSERT_EQ(helper.connectedAt.size(), 4u);
  EXPECT_NEAR(secondsBetween(0, 1) - secondsBetween(0, 0), 11, 0.15);
  EXPECT_NEAR(secondsBetween(1, 2), 22, 0.15);
  EXPECT_NEAR(secondsBetween(2, 3), 44, 0.15);
  EXPECT_EQ(manager->status(), HelperStatus::error(helper_texts::kCrashedRepeatedly));
  EXPECT_TRUE(logs.contains("3 reconnect attempts exhausted — surfacing error"));
}

TEST_F(HelperManagerTest, ASuccessfulReconnectSetsTheBackoffBackToTheStart) {
  connect();
  for (int crash = 0; crash < 5; ++crash) {
    helper.crashNewest();
    advance(11.2);
    EXPECT_EQ(manager->status(), HelperStatus::enabled()) << crash;
    EXPECT_EQ(manager->reconnectAttempt(), 0);
  }
  EXPECT_EQ(helper.connectedAt.size(), 6u);
}

struct StaleCase {
  const char* name;
  bool exitsOnQuit;
  std::optional<std::string> versionAfterQuit;
  StaleHelperPhase finalPhase;
};

class StaleHelperTest : public HelperManagerTest,
                        public ::testing::WithParamInterface<StaleCase> {};

TEST_P(StaleHelperTest, AnOutdatedHelperIsAskedToQuitThenReconnectedThenGivenUpOn) {
  const StaleCase& c = GetParam();
  helper.version = "2.0.6";
  helper.exitsOnQuit = c.exitsOnQuit;
  manager->enable();
  queue.runPending();
  EXPECT_EQ(manager->staleHelperPhase(), StaleHelperPhase::restarting);
  EXPECT_EQ(std::count(helper.calls.begin(), helper.calls.end(), "quit"), 1);
  EXPECT_FALSE(manager->controlAvailable());
  helper.version = c.versionAfterQuit;

  for (int step = 0; step < 1500; ++step) {
    advance(0.1);
    if (manager->staleHelperPhase() != StaleHelperPhase::none) {
      EXPECT_FALSE(manager->controlAvailable()) << static_cast<int>(manager->staleHelperPhase());
    }
  }
  EXPECT_EQ(manager->staleHelperPhase(), c.finalPhase);
  if (c.finalPhase == StaleHelperPhase::failed) {
    EXPECT_TRUE(logs.contains("helper still outdated after restart — reconnecting afresh"));
    EXPECT_NE(manager->proxy(), nullptr) << "the helper still answers; control stays off";
    EXPECT_EQ(manager->statusText(), helper_texts::kStaleFailed);
  } else {
    EXPECT_TRUE(manager->controlAvailable());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Phases, StaleHelperTest,
    ::testing::Values(StaleCase{"ComesBackUpdated", true, "2.0.7", StaleHelperPhase::none},
                      StaleCase{"ComesBackStale", true, "2.0.6", StaleHelperPhase::failed},
                      StaleCase{"IgnoresQuit", false, "2.0.6", StaleHelperPhase::failed},
                      StaleCase{"ReportsNoVersion", true, std::nullopt, StaleHelperPhase::failed}),
    [](const auto& param) { return std::string(param.param.name); });

// A helper that ignores `quit` is left alone for 30 s before the next step.
TEST_F(HelperManagerTest, AStaleHelperThatKeepsAnsweringIsGivenThirtySeconds) {
  helper.version = "2.0.6";
  helper.exitsOnQuit = false;
  manager->enable();
  advance(29.5);
  manager->refreshHelperStateNow();
  advance(0.1);
  EXPECT_EQ(manager->staleHelperPhase(), StaleHelperPhase::restarting);
  EXPECT_FALSE(manager->controlAvailable());
  advance(0.5);  // the 30 s ping refreshes the state
  EXPECT_NE(manager->staleHelperPhase(), StaleHelperPhase::restarting);
  EXPECT_TRUE(logs.contains("outdated helper still answering 30 s after quit — escalating"));
}

TEST_F(HelperManagerTest, EnableSaysWhatToRunWhenTheHelperIsNotThereForThisUser) {
  struct Case {
    HelperServiceStatus service;
    bool masked;
    std::optional<HelperEnableFailure::Kind> failure;
    HelperStatus status;
  };
  const Case cases[] = {
      {HelperServiceStatus::notFound, false, HelperEnableFailure::Kind::notRegistered,
       HelperStatus::error(helper_texts::kNotInstalled)},
      {HelperServiceStatus::notRegistered, true, HelperEnableFailure::Kind::disableOverride,
       HelperStatus::error(helper_texts::kMasked)},
      {HelperServiceStatus::requiresApproval, false, std::nullopt,
       HelperStatus::requiresApproval()},
  };
  for (const auto& c : cases) {
    service.current = c.service;
    service.isMasked = c.masked;
    makeManager();
    std::optional<HelperEnableFailure> failure;
    manager->enable([&](auto f) { failure = f; });
    EXPECT_EQ(failure ? std::optional(failure->kind) : std::nullopt, c.failure);
    EXPECT_EQ(manager->status(), c.status);
    EXPECT_TRUE(helper.connectedAt.empty());
  }
  // Approval is root adding this user; the manager notices within one poll.
  service.current = HelperServiceStatus::enabled;
  advance(5.1);
  EXPECT_EQ(manager->status(), HelperStatus::enabled());

  HelperManager::Hooks hooks;
  hooks.conflictProbe = [] { return std::optional<std::string>("TLP"); };
  makeManager(hooks);
  std::optional<HelperEnableFailure> failure;
  manager->enable([&](auto f) { failure = f; });
  EXPECT_EQ(failure, (HelperEnableFailure{HelperEnableFailure::Kind::conflictTool, "TLP"}));
}

TEST_F(HelperManagerTest, DisableWithASilentHelperWaitsFiveSecondsAndStillUnregisters) {
  connect();
  helper.answers = false;
  std::optional<std::optional<Error>> result;
  manager->disable([&](std::optional<Error> e) { result = e; });
  advance(4.9);
  EXPECT_FALSE(result);
  advance(0.2);
  ASSERT_TRUE(result);
  EXPECT_EQ(*result, Error{helper_texts::kNeedsRootToRemove});
  EXPECT_EQ(service.unregisters, 1);
  EXPECT_EQ(manager->status(), HelperStatus::disabled());
  EXPECT_TRUE(logs.count("disable(): battery reset timed out — a charge limit may stay in force; "
                         "the battery could stay stuck not charging") == 1);
}

}  // namespace
}  // namespace quorel
