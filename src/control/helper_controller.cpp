#include "control/helper_controller.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "control/charge_gate_policy.hpp"
#include "core/enum_text.hpp"
#include "core/logging.hpp"

namespace quorel {

namespace {

constexpr EnumTextTable kBehaviourTexts{std::array{
    std::pair{ChargeBehaviour::automatic, std::string_view{"auto"}},
    std::pair{ChargeBehaviour::inhibitCharge, std::string_view{"inhibit-charge"}},
    std::pair{ChargeBehaviour::forceDischarge, std::string_view{"force-discharge"}},
}};

QuorelHelperError failure(QuorelHelperErrorCode code, std::string message) {
  return QuorelHelperError{code, std::move(message)};
}

std::optional<std::int64_t> integerAt(const JSONValue& v, std::string_view key) {
  const JSONValue* m = v.find(key);
  auto n = m ? m->numberValue() : std::nullopt;
  if (!n || *n != static_cast<double>(static_cast<std::int64_t>(*n))) return std::nullopt;
  return static_cast<std::int64_t>(*n);
}

bool boolAt(const JSONValue& v, std::string_view key) {
  const JSONValue* m = v.find(key);
  return m && m->boolValue().value_or(false);
}

// Written beside the target and renamed over it, so that a crash leaves the old file or the new
// one, never half of either.
std::optional<std::string> writeAtomically(const std::filesystem::path& target,
                                           const std::string& text) {
  std::error_code ec;
  std::filesystem::create_directories(target.parent_path(), ec);
  const auto temporary = target.string() + ".tmp";
  const int fd =
      ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return std::string(std::strerror(errno));
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      const std::string reason = std::strerror(errno);
      ::close(fd);
      ::unlink(temporary.c_str());
      return reason;
    }
    written += static_cast<std::size_t>(n);
  }
  const bool synced = ::fsync(fd) == 0;
  ::close(fd);
  if (!synced || ::rename(temporary.c_str(), target.c_str()) != 0) {
    const std::string reason = std::strerror(errno);
    ::unlink(temporary.c_str());
    return reason;
  }
  return std::nullopt;
}

}  // namespace

std::string_view chargeBehaviourText(ChargeBehaviour behaviour) {
  return kBehaviourTexts.text(behaviour, "auto");
}

std::optional<ChargeBehaviour> parseChargeBehaviour(std::string_view text) {
  return kBehaviourTexts.parse(text);
}

JSONValue HelperSettings::toJSON() const {
  JSONValue::Object o{{"ceiling", JSONValue(ceiling_percent)},
                      {"band", JSONValue(band_percent)},
                      {"forceDischarge", JSONValue(forceDischarge)},
                      {"topUp", JSONValue(topUp)},
                      {"ownsBehaviour", JSONValue(ownsBehaviour)},
                      {"lastWriteAt", JSONValue(toUnixSeconds(lastWriteAt))},
                      {"lastWriteVerified", JSONValue(lastWriteVerified)}};
  if (original) {
    o.emplace("originalEnd", JSONValue(original->end_percent));
    if (original->start_percent) o.emplace("originalStart", JSONValue(*original->start_percent));
  }
  if (lastDischargeAbortReason) o.emplace("abortReason", JSONValue(*lastDischargeAbortReason));
  if (lastDischargeAbortAt) o.emplace("abortAt", JSONValue(toUnixSeconds(*lastDischargeAbortAt)));
  return JSONValue(std::move(o));
}

std::optional<HelperSettings> HelperSettings::fromJSON(const JSONValue& value) {
  auto ceiling = integerAt(value, "ceiling");
  auto band = integerAt(value, "band");
  // A file edited by hand to hold what no command would accept is not applied.
  if (!ceiling || !band || *ceiling < HelperController::kMinimumChargeLimit ||
      *ceiling > HelperController::kMaximumChargeLimit || *band < 0 ||
      *band > HelperController::kMaximumSailingBand) {
    return std::nullopt;
  }
  HelperSettings s;
  s.ceiling_percent = *ceiling;
  s.band_percent = *band;
  s.forceDischarge = boolAt(value, "forceDischarge");
  s.topUp = boolAt(value, "topUp");
  s.ownsBehaviour = boolAt(value, "ownsBehaviour");
  s.lastWriteVerified = boolAt(value, "lastWriteVerified");
  if (auto at = value.find("lastWriteAt"); at && at->numberValue()) {
    s.lastWriteAt = fromUnixSeconds(*at->numberValue());
  }
  if (auto end = integerAt(value, "originalEnd")) {
    s.original = ChargeThresholds{*end, integerAt(value, "originalStart")};
  }
  if (auto reason = value.find("abortReason"); reason && reason->isString()) {
    s.lastDischargeAbortReason = *reason->stringValue();
  }
  if (auto at = value.find("abortAt"); at && at->numberValue()) {
    s.lastDischargeAbortAt = fromUnixSeconds(*at->numberValue());
  }
  return s;
}

HelperController::HelperController(BatteryControls& controls, const Clock& clock,
                                   std::filesystem::path stateDirectory, std::string version)
    : controls_(controls),
      clock_(clock),
      stateDirectory_(std::move(stateDirectory)),
      version_(std::move(version)) {}

bool HelperController::canInhibit() const {
  const auto caps = controls_.capabilities();
  return caps.tahoeCharging || caps.preTahoeCharging;
}

void HelperController::start() {
  const auto log = logging::get("HelperController");
  std::error_code ec;
  if (!std::filesystem::exists(stateFile(), ec)) {
    const auto reading = controls_.read();
    if (nativeThresholds() && reading.thresholds) {
      settings_.ceiling_percent = reading.thresholds->end_percent;
    }
    return;
  }
  std::ifstream in(stateFile());
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  auto parsed = JSONValue::parse(text);
  auto loaded = parsed ? HelperSettings::fromJSON(*parsed) : std::nullopt;
  if (!loaded) {
    log->error("helper state in {} is unreadable; starting without it", stateFile().string());
    return;
  }
  settings_ = *loaded;
  configured_ = true;
  log->info("restoring charge limit {}% (band {})", settings_.ceiling_percent,
            settings_.band_percent);
  if (auto error = applyAndSave(controls_.read())) {
    log->error("could not restore the helper state: {}", error->message);
  }
}

void HelperController::tick() {
  if (!configured_) return;
  const auto reading = controls_.read();
  if (settings_.forceDischarge) {
    if (reading.externalConnected == false) {
      endDischarge("adapterDisconnected");
    } else if (!reading.capacity_percent) {
      endDischarge("batteryUnreadable");
    } else if (*reading.capacity_percent <= settings_.ceiling_percent) {
      endDischarge(std::nullopt);
    }
  }
  if (settings_.topUp && (reading.full || reading.capacity_percent.value_or(0) >= 100)) {
    settings_.topUp = false;
    logging::get("HelperController")->info("top-up reached full; restoring the ceiling");
  }
  // Saved only on a change: this runs every few seconds for as long as the machine is up.
  const HelperSettings before = settings_;
  auto error = apply(reading);
  if (!error && settings_ != before) error = save();
  if (error) {
    logging::get("HelperController")
        ->error("keeping the battery's settings failed: {}", error->message);
  }
}

void HelperController::endDischarge(std::optional<std::string> abortReason) {
  settings_.forceDischarge = false;
  if (abortReason) {
    logging::get("HelperController")->warn("discharge ended early: {}", *abortReason);
    settings_.lastDischargeAbortReason = std::move(abortReason);
    settings_.lastDischargeAbortAt = clock_.now();
  }
}

HelperState HelperController::state() const {
  HelperState s;
  s.chargeLimit = settings_.ceiling_percent;
  // What the firmware holds, once it has been read back, rather than what was asked for.
  if (nativeThresholds() && readBack_ && !settings_.topUp) s.chargeLimit = readBack_->end_percent;
  s.sailingBand = settings_.band_percent;
  s.forceDischargeActive = settings_.forceDischarge;
  s.lastWriteAt = settings_.lastWriteAt;
  s.lastWriteVerified = settings_.lastWriteVerified;
  s.lastDischargeAbortReason = settings_.lastDischargeAbortReason;
  s.lastDischargeAbortAt = settings_.lastDischargeAbortAt;
  s.topUpActive = settings_.topUp;
  s.sleepDisabledByQuorel = keepAwake_;
  s.helperVersion = version_;
  return s;
}

std::optional<ChargeThresholds> HelperController::wantedThresholds() const {
  if (!nativeThresholds()) return std::nullopt;
  const std::int64_t end = settings_.topUp ? 100 : settings_.ceiling_percent;
  std::optional<std::int64_t> start;
  // Drivers refuse a start at or above the end, so the start sits at least a point below.
  if (controls_.hasStartThreshold()) {
    start = std::max<std::int64_t>(end - std::max<std::int64_t>(settings_.band_percent, 1), 0);
  }
  return ChargeThresholds{end, start};
}

std::optional<ChargeBehaviour> HelperController::wantedBehaviour(
    const BatteryReading& reading) const {
  if (settings_.forceDischarge) return ChargeBehaviour::forceDischarge;
  const bool gate =
      !nativeThresholds() && canInhibit() && settings_.ceiling_percent < 100 && !settings_.topUp;
  if (gate) {
    using ChargeGatePolicy::Action;
    switch (ChargeGatePolicy::action(settings_.ceiling_percent, reading.capacity_percent,
                                     settings_.band_percent, reading.externalConnected)) {
      case Action::pause:
        return ChargeBehaviour::inhibitCharge;
      case Action::resume:
      case Action::allowCharging:
        return ChargeBehaviour::automatic;
      case Action::hold:
        return std::nullopt;
    }
  }
  if (settings_.ownsBehaviour) return ChargeBehaviour::automatic;
  return std::nullopt;
}

void HelperController::recordWrite(bool verified) {
  settings_.lastWriteAt = clock_.now();
  settings_.lastWriteVerified = verified;
}

HelperOutcome HelperController::applyThresholds(const BatteryReading& reading) {
  const auto wanted = wantedThresholds();
  if (!wanted) return std::nullopt;
  if (reading.thresholds) {
    if (*reading.thresholds == *wanted) {
      readBack_ = reading.thresholds;
      return std::nullopt;
    }
    // The firmware still holds what it made of this very request last time: that is rounding,
    // not drift.
    if (lastThresholdWrite_ && lastThresholdWrite_->first == *wanted &&
        lastThresholdWrite_->second == *reading.thresholds) {
      readBack_ = reading.thresholds;
      return std::nullopt;
    }
  }
  if (!settings_.original && reading.thresholds) settings_.original = reading.thresholds;
  auto written = controls_.writeThresholds(*wanted);
  if (!written) {
    recordWrite(false);
    return failure(QuorelHelperErrorCode::codeSMCWriteFailed,
                   "The charge thresholds could not be written (" + written.error().message + ").");
  }
  readBack_ = *written;
  lastThresholdWrite_ = {*wanted, *written};
  recordWrite(*written == *wanted);
  return std::nullopt;
}

HelperOutcome HelperController::applyBehaviour(const BatteryReading& reading) {
  const auto wanted = wantedBehaviour(reading);
  if (!wanted || reading.behaviour == wanted) {
    if (wanted == ChargeBehaviour::automatic) settings_.ownsBehaviour = false;
    return std::nullopt;
  }
  if (*wanted != ChargeBehaviour::automatic) settings_.ownsBehaviour = true;
  auto written = controls_.writeBehaviour(*wanted);
  if (!written) {
    recordWrite(false);
    return failure(QuorelHelperErrorCode::codeSMCWriteFailed,
                   "The charging behaviour could not be set to " +
                       std::string(chargeBehaviourText(*wanted)) + " (" + written.error().message +
                       ").");
  }
  recordWrite(*written == *wanted);
  if (*written == ChargeBehaviour::automatic) settings_.ownsBehaviour = false;
  return std::nullopt;
}

HelperOutcome HelperController::apply(const BatteryReading& reading) {
  if (auto error = applyThresholds(reading)) return error;
  return applyBehaviour(reading);
}

HelperOutcome HelperController::save() {
  auto text = settings_.toJSON().write();
  const auto error = text ? writeAtomically(stateFile(), *text) : std::string("unwritable value");
  if (!error) return std::nullopt;
  return failure(QuorelHelperErrorCode::codePersistenceFailed,
                 "The helper could not save its settings in " + stateDirectory_.string() + " (" +
                     *error + ").");
}

HelperOutcome HelperController::applyAndSave(const BatteryReading& reading) {
  configured_ = true;
  auto applied = apply(reading);
  auto saved = save();
  return applied ? applied : saved;
}

HelperOutcome HelperController::setChargeLimit(std::int64_t percent) {
  if (percent < kMinimumChargeLimit || percent > kMaximumChargeLimit) {
    return failure(
        QuorelHelperErrorCode::codeOutOfRange,
        "A charge limit must be between 20 and 100 percent, not " + std::to_string(percent) + ".");
  }
  if (!capabilities().canControlCharging()) {
    return failure(QuorelHelperErrorCode::codeUnsupportedCapability,
                   "This battery has no charge control the helper can use.");
  }
  settings_.ceiling_percent = percent;
  settings_.topUp = false;
  return applyAndSave(controls_.read());
}

HelperOutcome HelperController::clearChargeLimit() {
  if (!capabilities().canControlCharging()) {
    return failure(QuorelHelperErrorCode::codeUnsupportedCapability,
                   "This battery has no charge control the helper can use.");
  }
  settings_.ceiling_percent = 100;
  settings_.topUp = false;
  if (settings_.forceDischarge) endDischarge(std::nullopt);
  return applyAndSave(controls_.read());
}

HelperOutcome HelperController::setSailingBand(std::int64_t band) {
  if (band < 0 || band > kMaximumSailingBand) {
    return failure(QuorelHelperErrorCode::codeOutOfRange,
                   "A sailing band must be between 0 and 50 percentage points, not " +
                       std::to_string(band) + ".");
  }
  settings_.band_percent = band;
  return applyAndSave(controls_.read());
}

HelperOutcome HelperController::forceDischarge(bool enable) {
  if (!enable) {
    if (!settings_.forceDischarge) return std::nullopt;
    endDischarge(std::nullopt);
    return applyAndSave(controls_.read());
  }
  if (!capabilities().canForceDischarge()) {
    return failure(QuorelHelperErrorCode::codeUnsupportedCapability,
                   "This battery cannot be discharged while the adapter is connected.");
  }
  if (settings_.ceiling_percent >= 100) {
    return failure(QuorelHelperErrorCode::codeOutOfRange,
                   "There is no charge limit to discharge down to; set one first.");
  }
  settings_.forceDischarge = true;
  settings_.topUp = false;
  return applyAndSave(controls_.read());
}

HelperOutcome HelperController::setClamshellKeepAwake(bool enable) {
  if (enable == keepAwake_) return std::nullopt;
  auto held = controls_.setKeepAwake(enable);
  if (!held) {
    return failure(
        QuorelHelperErrorCode::codePMAssertionFailed,
        "The system could not be kept awake with the lid closed (" + held.error().message + ").");
  }
  keepAwake_ = enable;
  return std::nullopt;
}

HelperOutcome HelperController::releaseLimitUntilFullThenRestore() {
  if (!capabilities().canControlCharging()) {
    return failure(QuorelHelperErrorCode::codeUnsupportedCapability,
                   "This battery has no charge control the helper can use.");
  }
  if (settings_.ceiling_percent >= 100) return std::nullopt;
  if (settings_.forceDischarge) endDischarge(std::nullopt);
  settings_.topUp = true;
  return applyAndSave(controls_.read());
}

HelperOutcome HelperController::cancelTopUp() {
  if (!settings_.topUp) return std::nullopt;
  settings_.topUp = false;
  return applyAndSave(controls_.read());
}

HelperOutcome HelperController::resetAll() {
  HelperOutcome outcome;
  if (keepAwake_) outcome = setClamshellKeepAwake(false);
  const auto reading = controls_.read();
  if (configured_ && nativeThresholds() && settings_.original &&
      reading.thresholds != settings_.original) {
    auto written = controls_.writeThresholds(*settings_.original);
    if (!written && !outcome) {
      outcome =
          failure(QuorelHelperErrorCode::codeSMCWriteFailed,
                  "The charge thresholds could not be put back (" + written.error().message + ").");
    }
  }
  if (configured_ && settings_.ownsBehaviour && reading.behaviour &&
      reading.behaviour != ChargeBehaviour::automatic) {
    auto written = controls_.writeBehaviour(ChargeBehaviour::automatic);
    if (!written && !outcome) {
      outcome = failure(QuorelHelperErrorCode::codeSMCWriteFailed,
                        "The charging behaviour could not be put back to auto (" +
                            written.error().message + ").");
    }
  }
  std::error_code ec;
  std::filesystem::remove(stateFile(), ec);
  if (ec && !outcome) {
    outcome = failure(QuorelHelperErrorCode::codePersistenceFailed,
                      "The helper's saved settings could not be removed (" + ec.message() + ").");
  }
  settings_ = HelperSettings{};
  if (auto after = controls_.read(); nativeThresholds() && after.thresholds) {
    settings_.ceiling_percent = after.thresholds->end_percent;
  }
  configured_ = false;
  readBack_.reset();
  lastThresholdWrite_.reset();
  return outcome;
}

}  // namespace quorel
