#include "platform/linux/battery_control_probes.hpp"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "core/logging.hpp"
#include "platform/linux/sysfs_attributes.hpp"

namespace quorel {
namespace {

constexpr std::uint64_t kCallTimeout_us = 1'000'000;
constexpr std::array<std::string_view, 3> kBuiltInPanelTypes{"eDP", "LVDS", "DSI"};

// The connector type of "card0-HDMI-A-1" ("HDMI-A"); absent for names that are no connector
// ("card0", "renderD128", "version").
std::optional<std::string_view> connectorType(std::string_view name) {
  if (name.rfind("card", 0) != 0) return std::nullopt;
  const auto first = name.find('-');
  const auto last = name.rfind('-');
  if (first == std::string_view::npos || last <= first + 1) return std::nullopt;
  const auto card = name.substr(4, first - 4);
  const auto index = name.substr(last + 1);
  auto digits = [](std::string_view s) {
    return !s.empty() &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
  };
  if (!digits(card) || !digits(index)) return std::nullopt;
  return name.substr(first + 1, last - first - 1);
}

}  // namespace

std::filesystem::path drmClassPath(const std::filesystem::path& sysfsRoot) {
  return sysfsRoot / "class" / "drm";
}

bool hasExternalDisplay(const std::filesystem::path& drmClassDir) {
  const auto names = sysfs::listDirectory(drmClassDir);
  if (!names) return false;
  for (const auto& name : *names) {
    const auto type = connectorType(name);
    if (!type) continue;
    if (std::find(kBuiltInPanelTypes.begin(), kBuiltInPanelTypes.end(), *type) !=
        kBuiltInPanelTypes.end()) {
      continue;
    }
    const auto status = sysfs::readFile(drmClassDir / name / "status");
    if (status && sysfs::trim(*status) == "connected") return true;
  }
  return false;
}

LogindLidProbe::LogindLidProbe(std::optional<std::string> busAddress)
    : busAddress_(std::move(busAddress)) {}

LogindLidProbe::~LogindLidProbe() = default;

bool LogindLidProbe::connect() {
  auto connection = connectSystemBus(busAddress_, kCallTimeout_us, "quorel-lid");
  if (!connection.bus) {
    if (!reportedFailure_) {
      reportedFailure_ = true;
      logging::get("BatteryControl")
          ->warn("system bus unavailable ({}) — the lid reads as open",
                 std::strerror(-connection.error));
    }
    return false;
  }
  bus_ = std::move(connection.bus);
  return true;
}

bool LogindLidProbe::isLidClosed() {
  if (!bus_ && !connect()) return false;
  sd_bus_error error{};
  int closed = 0;
  const int r = sd_bus_get_property_trivial(
      bus_.get(), "org.freedesktop.login1", "/org/freedesktop/login1",
      "org.freedesktop.login1.Manager", "LidClosed", &error, 'b', &closed);
  sd_bus_error_free(&error);
  if (r < 0) {
    // A dropped connection is opened again at the next question.
    if (sd_bus_is_open(bus_.get()) <= 0) bus_.reset();
    return false;
  }
  return closed != 0;
}

}  // namespace quorel
