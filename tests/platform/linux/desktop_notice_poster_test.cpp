// The poster against a fake notification service on a private bus: what it sends in Notify,
// how it follows what the service says back, and how it behaves when there is no service.

#include "platform/linux/desktop_notice_poster.hpp"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "core/clock.hpp"
#include "platform/linux/fake_bus_service.hpp"
#include "platform/linux/private_message_bus.hpp"
#include "support/log_capture.hpp"
#include "support/wait_until.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;

constexpr const char* kName = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kOutage = "desktop notification service unavailable — notices are dropped";

struct NotifyCall {
  std::string app;
  std::uint32_t replaces = 0;
  std::string title;
  std::vector<std::string> actions;  // key, label, key, label...
  std::map<std::string, std::string> hints;
  std::uint32_t id = 0;
};

// Hands out ids from 1 as a real service does and records every Notify.
class FakeNotificationService {
 public:
  explicit FakeNotificationService(std::vector<std::string> capabilities)
      : capabilities_(std::move(capabilities)) {}

  bool start(const std::string& address) {
    return service_.start(address, kName, [this](sd_bus* bus) {
      return sd_bus_add_object_vtable(bus, nullptr, kPath, kName, vtable(), this) >= 0;
    });
  }
  std::vector<NotifyCall> calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
  }
  // Closed by the person (reason 2), or an action chosen on notice `id`.
  void close(std::uint32_t id) {
    service_.run([id](sd_bus* b) {
      sd_bus_emit_signal(b, kPath, kName, "NotificationClosed", "uu", id, 2u);
    });
  }
  void invoke(std::uint32_t id, const char* action) {
    service_.run(
        [=](sd_bus* b) { sd_bus_emit_signal(b, kPath, kName, "ActionInvoked", "us", id, action); });
  }

 private:
  static const sd_bus_vtable* vtable() {
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("GetCapabilities", "", "as", &onGetCapabilities, 0),
        SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", &onNotify, 0),
        SD_BUS_SIGNAL("ActionInvoked", "us", 0),
        SD_BUS_SIGNAL("NotificationClosed", "uu", 0),
        SD_BUS_VTABLE_END};
    return table;
  }

  static int onGetCapabilities(sd_bus_message* call, void* userdata, sd_bus_error*) {
    std::vector<char*> words;
    for (auto& c : static_cast<FakeNotificationService*>(userdata)->capabilities_) {
      words.push_back(c.data());
    }
    words.push_back(nullptr);
    sd_bus_message* reply = nullptr;
    int r = sd_bus_message_new_method_return(call, &reply);
    if (r >= 0) r = sd_bus_message_append_strv(reply, words.data());
    if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return r;
  }

  static int onNotify(sd_bus_message* call, void* userdata, sd_bus_error*) {
    auto* self = static_cast<FakeNotificationService*>(userdata);
    NotifyCall seen;
    const char *app, *icon, *title, *body;
    int r = sd_bus_message_read(call, "susss", &app, &seen.replaces, &icon, &title, &body);
    if (r < 0) return r;
    seen.app = app;
    seen.title = title;
    r = sd_bus_message_enter_container(call, 'a', "s");
    const char* word = nullptr;
    while (r >= 0 && (r = sd_bus_message_read(call, "s", &word)) > 0) seen.actions.push_back(word);
    if (r >= 0) r = sd_bus_message_exit_container(call);
    if (r >= 0) r = sd_bus_message_enter_container(call, 'a', "{sv}");
    while (r >= 0 && (r = sd_bus_message_enter_container(call, 'e', "sv")) > 0) {
      const char *key, *value;
      if ((r = sd_bus_message_read(call, "s", &key)) < 0) break;
      if ((r = sd_bus_message_read(call, "v", "s", &value)) < 0) break;
      seen.hints[key] = value;
      r = sd_bus_message_exit_container(call);
    }
    if (r < 0) return r;
    const std::lock_guard lock(self->mutex_);
    seen.id = seen.replaces != 0 ? seen.replaces : ++self->lastId_;
    self->calls_.push_back(seen);
    return sd_bus_reply_method_return(call, "u", seen.id);
  }

  std::vector<std::string> capabilities_;
  testing::FakeBusService service_;
  mutable std::mutex mutex_;
  std::vector<NotifyCall> calls_;
  std::uint32_t lastId_ = 0;
};

Notice notice(std::string identifier, std::string category = {},
              std::vector<NoticeAction> actions = {}) {
  return Notice{.identifier = std::move(identifier),
                .title = "Battery at 20%",
                .body = "body",
                .category = std::move(category),
                .actions = std::move(actions)};
}

class DesktopNoticePosterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.start()) << "no private message bus: install the dbus-daemon package.";
  }
  std::unique_ptr<DesktopNoticePoster> poster(std::optional<std::string> desktopEntry = {}) {
    return std::make_unique<DesktopNoticePoster>(
        main_,
        [this](const std::string& noticeId, const std::string& action) {
          chosen_.push_back(noticeId + " " + action + (main_.isCurrent() ? "" : " off the queue"));
        },
        DesktopNoticePoster::Options{.busAddress = bus_.address(),
                                     .desktopEntry = std::move(desktopEntry)});
  }

  testing::PrivateMessageBus bus_;
  ManualClock clock_;
  SerialQueue main_{"test.main", clock_};
  std::vector<std::string> chosen_;  // the main queue's, which the test turns
  testing::LogCapture logs_;
};

TEST_F(DesktopNoticePosterTest, ReplacesTheNoticeOfTheSameCategoryElseOfTheSameIdentifier) {
  FakeNotificationService service({"body", "actions"});
  ASSERT_TRUE(service.start(bus_.address()));
  auto p = poster("quorel");
  // Low-power notices share a category though each has an identifier of its own.
  const std::vector<std::pair<Notice, std::uint32_t>> cases{
      {notice("uuid-1", "com.quorel.lowpower"), 0},
      {notice("uuid-2", "com.quorel.lowpower"), 1},
      {notice("quorel.charge-limit.calibration"), 0},
      {notice("quorel.charge-limit.topoff-failed"), 0},
      {notice("quorel.charge-limit.calibration"), 2},
      {notice("uuid-3", "com.quorel.lowpower"), 1},
  };
  for (const auto& [n, _] : cases) p->post(n);
  p->drain();
  const auto calls = service.calls();
  ASSERT_EQ(calls.size(), cases.size());
  for (std::size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(calls[i].replaces, cases[i].second) << cases[i].first.identifier << " at " << i;
    EXPECT_EQ(calls[i].app, "Quorel");
    EXPECT_EQ(calls[i].hints, (std::map<std::string, std::string>{{"category", "device"},
                                                                  {"desktop-entry", "quorel"}}));
  }
}

// Signals are broadcast: another application's ids must neither reach the handler nor end ours.
TEST_F(DesktopNoticePosterTest, FollowsTheServiceOnActionsChosenAndNoticesClosed) {
  FakeNotificationService service({"actions"});
  ASSERT_TRUE(service.start(bus_.address()));
  auto p = poster();
  p->post(notice("uuid-7", "com.quorel.lowpower", {{"OPEN_BATTERY_SETTINGS", "Open"}}));
  p->post(notice("quorel.charge-limit.calibration"));
  p->drain();
  service.invoke(99, "OPEN_BATTERY_SETTINGS");
  service.invoke(1, "OPEN_BATTERY_SETTINGS");
  service.invoke(2, "default");
  service.close(77);
  service.close(1);
  ASSERT_TRUE(testing::waitUntil([&] { return chosen_.size() >= 2 && p->noticesOnScreen() == 1; },
                                 [&] { main_.runPending(); }));
  main_.runPending();
  EXPECT_EQ(chosen_, (std::vector<std::string>{"uuid-7 OPEN_BATTERY_SETTINGS",
                                               "quorel.charge-limit.calibration default"}));
  // The closed one is shown afresh; the other is still replaced.
  p->post(notice("uuid-8", "com.quorel.lowpower"));
  p->post(notice("quorel.charge-limit.calibration"));
  p->drain();
  const auto calls = service.calls();
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_EQ(calls[2].replaces, 0u);
  EXPECT_EQ(calls[3].replaces, 2u);
}

TEST_F(DesktopNoticePosterTest, SendsActionsOnlyToAServiceThatCanShowThem) {
  const std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> cases{
      {{"body", "actions"}, {"OPEN_BATTERY_SETTINGS", "Open", "SWITCH_TO_POWER_SAVER", "Save"}},
      {{"body", "body-markup"}, {}},
  };
  for (const auto& [capabilities, expected] : cases) {
    FakeNotificationService service(capabilities);
    ASSERT_TRUE(service.start(bus_.address()));
    poster()->post(
        notice("n", {}, {{"OPEN_BATTERY_SETTINGS", "Open"}, {"SWITCH_TO_POWER_SAVER", "Save"}}));
    const auto calls = service.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].actions, expected) << capabilities.back();
  }
}

TEST_F(DesktopNoticePosterTest, WithoutAServiceDropsNoticesWarnsOnceAndAsksAgainOnlyAfterAWhile) {
  auto p = poster();
  p->post(notice("a"));
  p->post(notice("b"));
  p->drain();
  EXPECT_EQ(p->connectionAttempts(), 1u);

  clock_.advance(179s);
  p->post(notice("c"));
  p->drain();
  EXPECT_EQ(p->connectionAttempts(), 1u);

  FakeNotificationService service({});
  ASSERT_TRUE(service.start(bus_.address()));
  clock_.advance(1s);
  p->post(notice("d"));
  p->drain();
  EXPECT_EQ(p->connectionAttempts(), 2u);
  const auto calls = service.calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].title, "Battery at 20%");

  const auto lines = logs_.messages("Notifications");
  EXPECT_EQ(std::count(lines.begin(), lines.end(), kOutage), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "desktop notification service reachable — notices resume"),
            1);
}

}  // namespace
}  // namespace quorel
