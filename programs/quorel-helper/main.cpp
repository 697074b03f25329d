// quorel-helper: the privileged helper that writes the battery's charge controls for the agent.
// Run as root by systemd through socket activation, or in the foreground for tests.

#include <sys/socket.h>
#include <systemd/sd-daemon.h>

#include <CLI/CLI.hpp>
#include <asio/signal_set.hpp>
#include <csignal>
#include <iostream>
#include <memory>

#include "control/helper_controller.hpp"
#include "control/helper_service_controller.hpp"
#include "core/logging.hpp"
#include "core/serial_queue.hpp"
#include "core/version.hpp"
#include "helper_server.hpp"
#include "platform/linux/linux_battery_controls.hpp"
#include "platform/sandbox/simulated_battery_controls.hpp"

namespace {

// The socket systemd passed us, if we were started by socket activation.
std::optional<int> activatedSocket() {
  const int count = sd_listen_fds(1);
  if (count <= 0) return std::nullopt;
  const int fd = SD_LISTEN_FDS_START;
  if (count > 1 || sd_is_socket_unix(fd, SOCK_STREAM, 1, nullptr, 0) <= 0) return std::nullopt;
  return fd;
}

int run(int argc, char** argv) {
  CLI::App app{"quorel-helper: writes the battery's charge controls on behalf of Quorel."};
  app.set_version_flag("--version", "quorel-helper " + std::string(quorel::kQuorelVersion));
  std::string socketPath = "/run/quorel/helper.sock";
  std::string sysfsRoot = "/sys";
  std::string stateDir = "/var/lib/quorel";
  std::vector<uid_t> allowedUids;
  bool simulated = false;
  app.add_option("--socket", socketPath, "Unix socket to listen on when not socket-activated")
      ->capture_default_str();
  app.add_option("--sysfs-root", sysfsRoot, "Where sysfs is mounted")->capture_default_str();
  app.add_option("--state-dir", stateDir, "Where the helper keeps its settings")
      ->capture_default_str();
  app.add_option("--allow-uid", allowedUids, "A user who may change the battery (repeatable)");
  std::string allowFile(quorel::kDefaultHelperAllowFile);
  app.add_option("--allow-file", allowFile,
                 "File of users who may change the battery, one uid a line (read at start; a "
                 "missing file names nobody)")
      ->capture_default_str();
  app.add_flag("--simulated", simulated, "Drive an in-memory battery instead of this machine's");
  CLI11_PARSE(app, argc, argv);

  const auto log = quorel::logging::get("quorel-helper");
  auto listed = quorel::readAllowedUids(allowFile);
  if (!listed) {
    log->error("allowed users not read: {}", listed.error().message);
  } else {
    allowedUids.insert(allowedUids.end(), listed->begin(), listed->end());
  }
  quorel::SystemClock clock;
  std::unique_ptr<quorel::BatteryControls> controls;
  if (simulated) {
    controls = std::make_unique<quorel::SimulatedBatteryControls>(clock);
  } else {
    auto linuxControls = quorel::LinuxBatteryControls::open(sysfsRoot);
    if (!linuxControls) {
      log->error("no battery to control: {}", linuxControls.error().message);
      return 1;
    }
    log->info("controlling the battery at {}", (*linuxControls)->batteryDirectory().string());
    controls = std::move(*linuxControls);
  }

  quorel::SerialQueue queue("quorel.helper", clock);
  quorel::HelperController controller(*controls, clock, stateDir,
                                      std::string(quorel::kHelperWireVersion));
  quorel::HelperMethods methods(controller);
  quorel::HelperServerOptions options;
  options.allowedUids = allowedUids;
  quorel::HelperServer server(queue, methods, options);

  int listening = -1;
  const auto activated = activatedSocket();
  if (activated) {
    listening = *activated;
    log->info("serving the socket systemd passed");
  } else {
    auto bound = quorel::listenOnUnixSocket(socketPath);
    if (!bound) {
      log->error("cannot listen: {}", bound.error().message);
      return 1;
    }
    listening = *bound;
    log->info("listening on {}", socketPath);
  }

  const auto stop = [&] {
    server.stop();
    queue.shutdown();
  };
  asio::signal_set signals(queue.context(), SIGINT, SIGTERM);
  signals.async_wait([&](std::error_code ec, int signal) {
    if (ec) return;
    log->info("received {}; stopping", signal == SIGTERM ? "SIGTERM" : "SIGINT");
    stop();
  });
  server.setOnQuit([&] { stop(); });
  std::signal(SIGPIPE, SIG_IGN);

  quorel::TimerHandle ticks;
  queue.async([&] {
    controller.start();
    server.start(listening);
    ticks = queue.every(quorel::HelperController::kTickPeriod,
                        quorel::HelperController::kTickPeriod, [&] { controller.tick(); });
  });
  queue.run();
  ticks.cancel();
  // Socket activation keeps the socket file with systemd; one we made ourselves goes with us.
  if (!activated) ::unlink(socketPath.c_str());
  log->info("stopped");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    quorel::logging::get("quorel-helper")->critical("stopped by an error: {}", e.what());
  }
  return 1;
}
