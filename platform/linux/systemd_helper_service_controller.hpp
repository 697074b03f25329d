#pragma once
// Whether quorel-helper is installed for this user, asked of systemd over the system bus
// (the socket unit's file state) and of the allowed users' file. Read-only: installing and
// removing are `quorel helper install | uninstall`, run as root.

#include <sys/types.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>

#include "control/helper_service_controller.hpp"

namespace quorel {

class SystemdHelperServiceController final : public HelperServiceController {
 public:
  explicit SystemdHelperServiceController(
      std::filesystem::path allowFile = std::filesystem::path(kDefaultHelperAllowFile),
      uid_t uid = ::getuid());

  HelperServiceStatus status() override;
  bool masked() override;
  std::optional<Error> registerHelper() override;
  std::optional<Error> unregisterHelper() override;

  // What systemd says of the unit's file ("enabled", "disabled", "masked", ...); absent when it
  // has no such unit or cannot be asked.
  static std::optional<std::string> unitFileState(std::string_view unit);
  // Whether systemd runs this system (its runtime directory exists under `root`).
  static bool systemdRunning(const std::filesystem::path& root = "/");

 private:
  std::filesystem::path allowFile_;
  uid_t uid_;
};

}  // namespace quorel
