// `quorel helper status`: a helper manager of its own, connected once, and what it sees.

#include <iostream>

#include "control/helper_client.hpp"
#include "control/helper_manager.hpp"
#include "core/enum_text.hpp"
#include "core/logging.hpp"
#include "core/serial_queue.hpp"
#include "helper_command.hpp"
#include "platform/linux/systemd_helper_service_controller.hpp"

namespace quorel {

namespace {

// How long to wait for the state once the helper answered a ping.
constexpr Seconds kStateWait{6};
constexpr Seconds kStatePoll{0.05};

constexpr EnumTextTable kPhaseTexts{std::array{
    std::pair{StaleHelperPhase::none, std::string_view{"none"}},
    std::pair{StaleHelperPhase::restarting, std::string_view{"restarting"}},
    std::pair{StaleHelperPhase::resetting, std::string_view{"resetting"}},
    std::pair{StaleHelperPhase::failed, std::string_view{"failed"}},
}};

constexpr EnumTextTable kStatusKinds{std::array{
    std::pair{HelperStatus::Kind::disabled, std::string_view{"disabled"}},
    std::pair{HelperStatus::Kind::requiresApproval, std::string_view{"requiresApproval"}},
    std::pair{HelperStatus::Kind::enabled, std::string_view{"enabled"}},
    std::pair{HelperStatus::Kind::error, std::string_view{"error"}},
}};

const char* yesNo(bool value) {
  return value ? "yes" : "no";
}

void printText(const HelperManager& manager, std::ostream& out) {
  out << "Helper: " << manager.statusText() << "\n";
  out << "Service: " << helperServiceStatusText(manager.rawServiceStatus()) << "\n";
  const auto state = manager.helperState();
  if (state) {
    out << "Version: " << state->helperVersion.value_or("(none)") << " (floor "
        << kHelperVersionFloor << (manager.helperOutdated() ? ", outdated" : "") << ")\n";
    out << "State: limit " << state->chargeLimit << " %, band " << state->sailingBand
        << ", discharging " << yesNo(state->forceDischargeActive) << ", top-up "
        << yesNo(state->topUpActive) << ", last write "
        << (state->lastWriteAt == distantPast() ? std::string("never")
                                                : formatIso8601(state->lastWriteAt))
        << (state->lastWriteVerified ? "" : " (not verified)") << "\n";
  }
  if (const auto caps = manager.capabilities()) {
    out << "Can: limit charging " << yesNo(caps->canControlCharging()) << ", force discharge "
        << yesNo(caps->canForceDischarge()) << ", firmware threshold "
        << yesNo(caps->nativeCharging) << "\n";
  }
  if (manager.staleHelperPhase() != StaleHelperPhase::none) {
    out << "Update: " << kPhaseTexts.text(manager.staleHelperPhase(), "") << "\n";
  }
  out << "Control available: " << yesNo(manager.controlAvailable()) << "\n";
}

JSONValue statusJSON(const HelperManager& manager, bool systemd) {
  const auto state = manager.helperState();
  const auto caps = manager.capabilities();
  return JSONValue::object({
      {"status", JSONValue(kStatusKinds.text(manager.status().kind, "disabled"))},
      {"message", JSONValue(manager.statusText())},
      {"service", JSONValue(helperServiceStatusText(manager.rawServiceStatus()))},
      {"masked", JSONValue(manager.maskDetected())},
      {"systemd", JSONValue(systemd)},
      {"helperVersion",
       state && state->helperVersion ? JSONValue(*state->helperVersion) : JSONValue(nullptr)},
      {"outdated", JSONValue(manager.helperOutdated())},
      {"staleHelperPhase", JSONValue(kPhaseTexts.text(manager.staleHelperPhase(), "none"))},
      {"controlAvailable", JSONValue(manager.controlAvailable())},
      {"state", state ? state->toJSON() : JSONValue(nullptr)},
      {"capabilities", caps ? caps->toJSON() : JSONValue(nullptr)},
  });
}

}  // namespace

int helperStatus(const HelperCommandArguments& args, const HelperCommandEnvironment& env) {
  // What the manager logs, this command prints.
  logging::get("HelperManager")->set_level(spdlog::level::off);
  SystemClock clock;
  SerialQueue mainQueue("quorel.main", clock);
  SerialQueue io("quorel.helper", clock);
  io.start();
  SystemdHelperServiceController service(
      args.root / std::filesystem::path(kDefaultHelperAllowFile).relative_path());
  const bool systemd = SystemdHelperServiceController::systemdRunning(args.root);
  // Only looks: an outdated helper is reported, not asked to quit.
  HelperManager::Hooks hooks;
  hooks.staleHelperQuitter = [] {};
  hooks.staleHelperReconnector = [] {};
  std::unique_ptr<HelperManager> manager;
  TimerHandle waitForState;
  mainQueue.async([&] {
    manager = std::make_unique<HelperManager>(
        mainQueue, service, HelperClient::factory(io, mainQueue, args.helperSocket), hooks);
    // Without systemd a helper run by hand may still be listening; without a listener there is
    // nothing to wait for.
    const bool listening = std::filesystem::exists(args.helperSocket);
    if (!listening || (systemd && manager->rawServiceStatus() != HelperServiceStatus::enabled)) {
      mainQueue.shutdown();
      return;
    }
    manager->establishConnection([&](bool connected) {
      if (!connected) {
        mainQueue.shutdown();
        return;
      }
      const MonotonicTime deadline =
          clock.monotonicNow() + std::chrono::duration_cast<MonotonicTime::duration>(kStateWait);
      waitForState = mainQueue.every(kStatePoll, kStatePoll, [&, deadline] {
        if ((manager->helperState() && manager->capabilities()) || !manager->proxy() ||
            clock.monotonicNow() > deadline) {
          mainQueue.shutdown();
        }
      });
    });
  });
  mainQueue.run();
  const bool answered = manager && manager->proxy() != nullptr;
  if (manager) {
    if (args.json) {
      *env.out << statusJSON(*manager, systemd).write().value_or("{}") << "\n";
    } else {
      printText(*manager, *env.out);
    }
  }
  if (!systemd && !args.json && !answered) {
    *env.out << "\nThis system doesn't run systemd. Run the helper by hand as root:\n  sudo "
             << (env.self.parent_path() / "quorel-helper").string() << " --allow-uid "
             << env.realUid << "\n";
  }
  waitForState.cancel();
  manager.reset();
  io.shutdown();
  return answered ? 0 : 1;
}

}  // namespace quorel
