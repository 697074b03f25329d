#include "platform/linux/systemd_helper_service_controller.hpp"

#include <systemd/sd-bus.h>

#include "control/helper_manager.hpp"

namespace quorel {

SystemdHelperServiceController::SystemdHelperServiceController(std::filesystem::path allowFile,
                                                               uid_t uid)
    : allowFile_(std::move(allowFile)), uid_(uid) {}

HelperServiceStatus SystemdHelperServiceController::status() {
  // An unreadable file allows nobody but root; the helper reads the same file the same way.
  return helperServiceStatusFrom(unitFileState(kHelperSocketUnit),
                                 readAllowedUids(allowFile_).valueOr({}), uid_);
}

bool SystemdHelperServiceController::masked() {
  const auto state = unitFileState(kHelperSocketUnit);
  return state && isMaskedUnitFileState(*state);
}

std::optional<Error> SystemdHelperServiceController::registerHelper() {
  return Error{helper_texts::kNotInstalled};
}

std::optional<Error> SystemdHelperServiceController::unregisterHelper() {
  return Error{helper_texts::kNeedsRootToRemove};
}

std::optional<std::string> SystemdHelperServiceController::unitFileState(std::string_view unit) {
  sd_bus* bus = nullptr;
  if (sd_bus_open_system(&bus) < 0) return std::nullopt;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  const std::string name(unit);
  std::optional<std::string> state;
  if (sd_bus_call_method(bus, "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                         "org.freedesktop.systemd1.Manager", "GetUnitFileState", &error, &reply,
                         "s", name.c_str()) >= 0) {
    const char* text = nullptr;
    if (sd_bus_message_read(reply, "s", &text) >= 0 && text != nullptr) state = text;
  }
  sd_bus_error_free(&error);
  sd_bus_message_unref(reply);
  sd_bus_flush_close_unref(bus);
  return state;
}

bool SystemdHelperServiceController::systemdRunning(const std::filesystem::path& root) {
  std::error_code ec;
  return std::filesystem::is_directory(root / "run/systemd/system", ec);
}

}  // namespace quorel
