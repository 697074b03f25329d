#pragma once
// What the battery guards ask of a Linux machine: whether the lid is shut (logind's LidClosed),
// whether a display other than the built-in panel is connected (the DRM connectors in sysfs), and
// whether the battery's driver offers anything the helper could write.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/linux/system_bus.hpp"

struct sd_bus;

namespace quorel {

// DIR/class/drm under a sysfs root.
std::filesystem::path drmClassPath(const std::filesystem::path& sysfsRoot);

// True when a connector under `drmClassDir` ("cardN-<type>-M") reports "connected" and is not a
// built-in panel (eDP, LVDS, DSI). A missing or unreadable directory is false.
bool hasExternalDisplay(const std::filesystem::path& drmClassDir);

// logind's LidClosed property, asked on every call over one system bus connection kept between
// calls. No bus, no logind or no property reads as open: a closed lid is never assumed.
// Threading: one thread at a time (the main queue); a call waits at most about a second.
class LogindLidProbe {
 public:
  // `busAddress` such as "unix:path=/tmp/bus"; absent means the system bus.
  explicit LogindLidProbe(std::optional<std::string> busAddress = std::nullopt);
  ~LogindLidProbe();
  LogindLidProbe(const LogindLidProbe&) = delete;
  LogindLidProbe& operator=(const LogindLidProbe&) = delete;

  bool isLidClosed();

 private:
  bool connect();

  std::optional<std::string> busAddress_;
  SystemBus bus_;
  bool reportedFailure_ = false;
};

}  // namespace quorel
