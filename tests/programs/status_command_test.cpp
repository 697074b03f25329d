#include "programs/quorel/status_command.hpp"

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "app/single_instance_lock.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;

struct TempDir {
  fs::path path;
  TempDir() {
    char pattern[] = "/tmp/quorel-status-XXXXXX";
    path = ::mkdtemp(pattern);
  }
  ~TempDir() { fs::remove_all(path); }
};

DisplayState stateIn(PowerPhase phase, double watts, std::string wattageText) {
  DisplayState d;
  d.phase = phase;
  d.smoothedWattage = watts;
  d.wattageText = std::move(wattageText);
  d.batteryPercent = "63%";
  d.currentDisplayPercent = 63;
  return d;
}

TEST(StatusBar, DrawnTextFollowsModeAndPhase) {
  struct Case {
    PowerPhase phase;
    double watts;
    const char* wattage;
    MenuBarMode mode;
    const char* drawn;
  };
  const Case cases[] = {
      {PowerPhase::draining, -8.4, "8.4W", MenuBarMode::automatic, "8.4W"},
      {PowerPhase::supplementing, -3, "3.0W", MenuBarMode::automatic, "3.0W"},
      // Charging rounds the magnitude half away from zero.
      {PowerPhase::charging, 44.5, "44.5W", MenuBarMode::automatic, "⚡+45W"},
      {PowerPhase::trickleCharge, -0.4, "0.4W", MenuBarMode::automatic, "⚡+0W"},
      {PowerPhase::full, 0, "0.0W", MenuBarMode::automatic, "✓"},
      {PowerPhase::bootSurge, 12, "12W", MenuBarMode::automatic, "✓"},
      {PowerPhase::chargeLimitHold, 0, "0.0W", MenuBarMode::automatic, "63%"},
      {PowerPhase::thermalHold, 0, "0.0W", MenuBarMode::automatic, "63%"},
      {PowerPhase::noBattery, 0, "0.0W", MenuBarMode::automatic, "--"},
      {PowerPhase::charging, 30, "30.0W", MenuBarMode::wattage, "30.0W"},
      {PowerPhase::charging, 30, "30.0W", MenuBarMode::minimal, "30.0"},
      // A lone "W" is kept: there is nothing left to show without it.
      {PowerPhase::draining, 0, "W", MenuBarMode::minimal, "W"},
      {PowerPhase::draining, 0, "--", MenuBarMode::minimal, "--"},
      {PowerPhase::charging, 30, "30.0W", MenuBarMode::percentage, "63%"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(drawnText(stateIn(c.phase, c.watts, c.wattage), c.mode), c.drawn)
        << toString(c.phase) << " in " << kMenuBarModeTexts.text(c.mode);
  }
}

TEST(StatusBar, SignatureIgnoresWhatIsNotDrawn) {
  StatusSnapshot a{stateIn(PowerPhase::charging, 44.6, "44.6W"), MenuBarMode::automatic, false};
  StatusSnapshot b = a;
  b.display.smoothedWattage = 45.2;  // still "⚡+45W"
  b.display.healthPercent = "91%";
  b.display.wattageColor = NamedColor::green;
  EXPECT_EQ(renderSignature(a, MenuBarMode::automatic), renderSignature(b, MenuBarMode::automatic));
  // The colour counts only where the bar is coloured.
  a.colorEnabled = b.colorEnabled = true;
  EXPECT_NE(renderSignature(a, MenuBarMode::automatic), renderSignature(b, MenuBarMode::automatic));
  b.display.smoothedWattage = 45.6;
  b.display.wattageColor = a.display.wattageColor;
  EXPECT_NE(renderSignature(a, MenuBarMode::automatic), renderSignature(b, MenuBarMode::automatic));
  // The gauges are signed by the figure they point at.
  EXPECT_EQ(renderSignature(a, MenuBarMode::gaugePowerIn).drawn, "p0");
  a.display.batteryPercentageRaw = 62.6;
  EXPECT_EQ(renderSignature(a, MenuBarMode::gaugeBattery),
            (RenderSignature{MenuBarMode::gaugeBattery, "b63", std::nullopt}));
}

TEST(StatusBar, BarLineCarriesPhaseClassAndPercentage) {
  const StatusSnapshot s{stateIn(PowerPhase::trickleCharge, 2, "2.0W"), MenuBarMode::wattage,
                         false};
  const auto line = nlohmann::json::parse(barLine(s, MenuBarMode::automatic, false));
  EXPECT_EQ(line["text"], "⚡+2W");
  EXPECT_EQ(line["class"], "trickleCharge");
  EXPECT_EQ(line["percentage"], 63);
  EXPECT_NE(line["tooltip"].get<std::string>().find("Battery 63%"), std::string::npos);
  EXPECT_EQ(barLine(s, MenuBarMode::wattage, true), "2.0W");
  EXPECT_EQ(nlohmann::json::parse(barLine(std::nullopt, MenuBarMode::wattage, false))["class"],
            "unavailable");
}

TEST(StatusState, JsonRoundTripKeepsWhatTheCommandShows) {
  StatusSnapshot s{stateIn(PowerPhase::thermalHold, -1.25, "1.3W"), MenuBarMode::percentage, true};
  s.display.temperatureText = "41.0°C";
  s.display.lifetimeEnergy_Wh = 1234.5;
  s.display.designCycleCount = 1000;
  s.display.wattageColor = NamedColor::orange;
  s.display.systemPowerInData = {3, 17.6};
  const auto json = statusToJson(s);
  EXPECT_EQ(json["phase"], "thermalHold");
  EXPECT_TRUE(json["time_remaining"].is_null());
  const auto back = statusFromJson(nlohmann::json::parse(json.dump()));
  ASSERT_TRUE(back);
  s.display.systemPowerInData = {17.6};  // only the latest value travels
  EXPECT_EQ(*back, s);
  EXPECT_FALSE(statusFromJson(nlohmann::json{{"phase", "sideways"}}));
}

TEST(StatusState, ReplaceIsAtomicForAConcurrentReader) {
  TempDir dir;
  const auto file = dir.path / "nested" / "state.json";
  const std::string small(10, 'a');
  const std::string large(200000, 'b');
  ASSERT_FALSE(replaceFileAtomically(file, small));
  EXPECT_EQ(fs::status(file.parent_path()).permissions() & fs::perms::all, fs::perms::owner_all);
  std::atomic<bool> stop{false};
  std::atomic<int> torn{0};
  std::thread reader([&] {
    while (!stop) {
      std::ifstream in(file);
      const std::string got((std::istreambuf_iterator<char>(in)), {});
      if (got != small && got != large) ++torn;
    }
  });
  for (int i = 0; i < 300; ++i) ASSERT_FALSE(replaceFileAtomically(file, i % 2 ? small : large));
  stop = true;
  reader.join();
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(std::distance(fs::directory_iterator(file.parent_path()), {}), 1);  // no temporaries
}

TEST(StatusState, PublisherWritesOnlyChangesAndRemovesTheFile) {
  TempDir dir;
  const auto file = dir.path / "state.json";
  StatusSnapshot s{stateIn(PowerPhase::draining, -5, "5.0W"), MenuBarMode::wattage, false};
  {
    StateFilePublisher publisher(file);
    EXPECT_TRUE(publisher.publish(s));
    EXPECT_FALSE(publisher.publish(s));
    s.display.wattageText = "5.1W";
    EXPECT_TRUE(publisher.publish(s));
    std::ifstream in(file);
    EXPECT_EQ(nlohmann::json::parse(in)["wattage_text"], "5.1W");
  }
  EXPECT_FALSE(fs::exists(file));
}

TEST(StatusCommand, NoAgentMeansExitThreeEvenWithAStaleFile) {
  TempDir dir;
  const auto lock = dir.path / "quorel.lock";
  const auto state = dir.path / "state.json";
  StatusCommandArguments json;
  json.json = true;
  auto result = runStatusCommand(json, lock, state);
  EXPECT_EQ(result.exitStatus, kExitAgentNotRunning);
  EXPECT_EQ(nlohmann::json::parse(result.output),
            (nlohmann::json{{"available", false}, {"reason", "agent not running"}}));

  // A crashed agent leaves its file and an unlocked lock file behind.
  const StatusSnapshot s{stateIn(PowerPhase::full, 0, "0.0W"), MenuBarMode::wattage, false};
  ASSERT_FALSE(replaceFileAtomically(state, statusToJson(s).dump()));
  std::ofstream(lock) << "12345\n";
  result = runStatusCommand({}, lock, state);
  EXPECT_EQ(result.exitStatus, kExitAgentNotRunning);
  EXPECT_TRUE(result.output.empty());
  EXPECT_NE(result.error.find("`quorel`"), std::string::npos);

  SingleInstanceLock held(lock);
  ASSERT_TRUE(held.acquired());
  result = runStatusCommand({}, lock, state);
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_NE(result.output.find("Battery 63%"), std::string::npos);
  StatusCommandArguments bar;
  bar.bar = true;
  bar.mode = "auto";
  bar.format = "plain";
  EXPECT_EQ(runStatusCommand(bar, lock, state).output, "✓\n");
}

// Reads one line from the follower, or "" when none comes within a second.
std::string nextLine(std::FILE* in, int fd) {
  fd_set ready;
  FD_ZERO(&ready);
  FD_SET(fd, &ready);
  timeval wait{1, 0};
  if (::select(fd + 1, &ready, nullptr, nullptr, &wait) <= 0) return "";
  char line[4096];
  return std::fgets(line, sizeof line, in) ? std::string(line) : "";
}

TEST(StatusCommand, FollowPrintsOncePerVisibleChangeAndSurvivesARestart) {
  TempDir dir;
  const auto lock = dir.path / "quorel.lock";
  const auto state = dir.path / "run" / "state.json";
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  std::FILE* out = ::fdopen(fds[1], "w");
  std::FILE* in = ::fdopen(fds[0], "r");
  StatusCommandArguments arguments;
  arguments.bar = true;
  arguments.follow = true;
  arguments.mode = "auto";
  arguments.format = "plain";
  std::thread follower([&] { followStatusBar(arguments, lock, state, out); });
  EXPECT_EQ(nextLine(in, fds[0]), "--\n");

  auto held = std::make_unique<StateFilePublisher>(state);
  SingleInstanceLock instance(lock);
  StatusSnapshot s{stateIn(PowerPhase::charging, 44.6, "44.6W"), MenuBarMode::wattage, false};
  held->publish(s);
  EXPECT_EQ(nextLine(in, fds[0]), "⚡+45W\n");
  s.display.smoothedWattage = 45.2;  // drawn the same
  s.display.healthPercent = "90%";
  held->publish(s);
  s.display.phase = PowerPhase::full;
  held->publish(s);
  EXPECT_EQ(nextLine(in, fds[0]), "✓\n");  // nothing came between
  held.reset();                            // the agent stops: its file goes
  EXPECT_EQ(nextLine(in, fds[0]), "--\n");
  held = std::make_unique<StateFilePublisher>(state);
  held->publish(s);
  EXPECT_EQ(nextLine(in, fds[0]), "✓\n");
  // Closing the reader ends the follower at its next line.
  std::fclose(in);
  s.display.phase = PowerPhase::noBattery;
  held->publish(s);
  follower.join();
  std::fclose(out);
}

}  // namespace
}  // namespace quorel
