#include "control/helper_service_controller.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>

#include "core/enum_text.hpp"

namespace quorel {

namespace {

constexpr EnumTextTable kStatusTexts{std::array{
    std::pair{HelperServiceStatus::notRegistered, std::string_view{"notRegistered"}},
    std::pair{HelperServiceStatus::enabled, std::string_view{"enabled"}},
    std::pair{HelperServiceStatus::requiresApproval, std::string_view{"requiresApproval"}},
    std::pair{HelperServiceStatus::notFound, std::string_view{"notFound"}},
}};

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(" \t\r");
  return text.substr(first, last - first + 1);
}

}  // namespace

std::string_view helperServiceStatusText(HelperServiceStatus status) {
  return kStatusTexts.text(status, "unknown");
}

std::vector<uid_t> parseAllowedUids(std::string_view text) {
  std::vector<uid_t> uids;
  while (!text.empty()) {
    const auto newline = text.find('\n');
    std::string_view line = text.substr(0, newline);
    text = newline == std::string_view::npos ? std::string_view{} : text.substr(newline + 1);
    line = trimmed(line.substr(0, line.find('#')));
    if (line.empty()) continue;
    std::uint64_t value = 0;
    const auto [end, ec] = std::from_chars(line.data(), line.data() + line.size(), value);
    // (uid_t)-1 means "no user" to the kernel's calls; it never names one.
    if (ec != std::errc() || end != line.data() + line.size() ||
        value >= static_cast<std::uint64_t>(static_cast<uid_t>(-1))) {
      continue;
    }
    const auto uid = static_cast<uid_t>(value);
    if (std::find(uids.begin(), uids.end(), uid) == uids.end()) uids.push_back(uid);
  }
  return uids;
}

Result<std::vector<uid_t>> readAllowedUids(const std::filesystem::path& file) {
  std::ifstream in(file);
  if (!in) {
    if (errno == ENOENT) return std::vector<uid_t>{};
    return Error{file.string() + ": " + std::strerror(errno)};
  }
  std::ostringstream text;
  text << in.rdbuf();
  return parseAllowedUids(text.str());
}

std::string formatAllowedUids(const std::vector<uid_t>& uids) {
  std::string out = "# Users who may change the battery through quorel-helper, one uid a line.\n";
  std::vector<uid_t> written;
  for (uid_t uid : uids) {
    if (std::find(written.begin(), written.end(), uid) != written.end()) continue;
    written.push_back(uid);
    out += std::to_string(uid) + "\n";
  }
  return out;
}

bool isMaskedUnitFileState(std::string_view unitFileState) {
  return unitFileState == "masked" || unitFileState == "masked-runtime";
}

HelperServiceStatus helperServiceStatusFrom(const std::optional<std::string>& unitFileState,
                                            const std::vector<uid_t>& allowedUids, uid_t uid) {
  if (!unitFileState || unitFileState->empty() || *unitFileState == "bad") {
    return HelperServiceStatus::notFound;
  }
  // An enabled socket unit is what makes the helper reachable; "static", "indirect" and
  // "generated" units are started by something else and count as enabled too, as does a unit
  // enabled for this boot only.
  static constexpr std::array<std::string_view, 5> kEnabledStates{
      "enabled", "enabled-runtime", "static", "indirect", "generated"};
  const bool enabled = std::find(kEnabledStates.begin(), kEnabledStates.end(), *unitFileState) !=
                       kEnabledStates.end();
  if (!enabled) return HelperServiceStatus::notRegistered;
  const bool allowed =
      uid == 0 || std::find(allowedUids.begin(), allowedUids.end(), uid) != allowedUids.end();
  return allowed ? HelperServiceStatus::enabled : HelperServiceStatus::requiresApproval;
}

}  // namespace quorel
