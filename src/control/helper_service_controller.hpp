#pragma once
// The seam over how the helper is installed on this machine. On Linux the helper is a pair of
// systemd units (quorel-helper.socket activating quorel-helper.service) and a file naming the
// users it serves; the agent, unprivileged, can look at them but not change them.
//
// The four service words: not installed (notFound: no unit file at all; notRegistered: the unit
// exists but is not enabled), enabled, and requiresApproval (installed and enabled, but this user
// is not among the allowed ones, so the helper would refuse everything but a ping). A masked
// socket unit is the override that keeps the helper off whatever else is done; it reads as
// notRegistered and masked() says why.

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.hpp"

namespace quorel {

enum class HelperServiceStatus { notRegistered, enabled, requiresApproval, notFound };

// "notRegistered", "enabled", "requiresApproval", "notFound".
std::string_view helperServiceStatusText(HelperServiceStatus status);

inline constexpr std::string_view kHelperSocketUnit = "quorel-helper.socket";
inline constexpr std::string_view kHelperServiceUnit = "quorel-helper.service";
inline constexpr std::string_view kDefaultHelperSocketPath = "/run/quorel/helper.sock";
inline constexpr std::string_view kDefaultHelperAllowFile = "/etc/quorel/helper-allowed-uids";

// What to run, as a person would type it: the texts below and the install command share them.
inline constexpr std::string_view kHelperInstallCommand = "sudo quorel helper install";
inline constexpr std::string_view kHelperUninstallCommand = "sudo quorel helper uninstall";
inline constexpr std::string_view kHelperUnmaskCommand =
    "sudo systemctl unmask quorel-helper.socket";
inline constexpr std::string_view kHelperRestartCommand =
    "sudo systemctl restart quorel-helper.socket";

class HelperServiceController {
 public:
  virtual ~HelperServiceController() = default;

  // Read afresh on every call: another terminal may have installed or removed the helper.
  virtual HelperServiceStatus status() = 0;
  // The socket unit is masked.
  virtual bool masked() = 0;
  // Installing and removing take root, which the agent never has: these fail with the sentence
  // that tells a person what to run instead.
  virtual std::optional<Error> registerHelper() = 0;
  virtual std::optional<Error> unregisterHelper() = 0;
};

// The allowed users' file: one uid per line; blank lines and text after '#' are ignored. A line
// that is not a uid is skipped, so one typo cannot lock every user out. A missing file is empty.
std::vector<uid_t> parseAllowedUids(std::string_view text);
Result<std::vector<uid_t>> readAllowedUids(const std::filesystem::path& file);
// The file's text for `uids`, in order, without repeats.
std::string formatAllowedUids(const std::vector<uid_t>& uids);

// The status from what systemd says of the socket unit's file (absent: no such unit) and whether
// `uid` may use the helper. Root always may.
HelperServiceStatus helperServiceStatusFrom(const std::optional<std::string>& unitFileState,
                                            const std::vector<uid_t>& allowedUids, uid_t uid);
// "masked" and "masked-runtime".
bool isMaskedUnitFileState(std::string_view unitFileState);

}  // namespace quorel
