#include "control/battery_control_rules_engine.hpp"

#include <locale.h>
#include <spdlog/logger.h>
#include <wctype.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <set>

#include "control/helper_contract.hpp"
#include "core/logging.hpp"
#include "core/uuid.hpp"

namespace quorel {

namespace {

// The longest lead a stored rule may meaningfully ask for; beyond it the poll looks a day ahead.
constexpr std::int64_t kLongestLeadMinutes = 1439;

std::string trimmed(const std::string& text) {
  const auto isSpace = [](unsigned char c) { return std::isspace(c) != 0; };
  auto first = std::find_if_not(text.begin(), text.end(), isSpace);
  auto last = std::find_if_not(text.rbegin(), std::reverse_iterator(first), isSpace).base();
  return std::string(first, last);
}

void appendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

// The process's own locale may be "C", whose case tables stop at ASCII; titles are not ASCII.
// Without a UTF-8 locale on the machine, letters beyond ASCII keep their case.
std::wint_t lowerCodePoint(std::wint_t c) {
  static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
  if (utf8 != static_cast<locale_t>(nullptr)) return towlower_l(c, utf8);
  return c < 0x80 ? static_cast<std::wint_t>(std::tolower(static_cast<int>(c))) : c;
}

// Lower case by code point, so that "RÉUNION" matches a rule for "réunion". Bytes that are not
// well-formed UTF-8 pass through unchanged.
std::string lowercased(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const std::size_t length = lead < 0x80         ? 1
                               : (lead >> 5) == 6  ? 2
                               : (lead >> 4) == 14 ? 3
                               : (lead >> 3) == 30 ? 4
                                                   : 0;
    bool wellFormed = length != 0 && i + length <= text.size();
    char32_t c = length == 1 ? lead : lead & (0x7F >> length);
    for (std::size_t k = 1; wellFormed && k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      wellFormed = (next & 0xC0) == 0x80;
      c = (c << 6) | (next & 0x3F);
    }
    if (!wellFormed) {
      out += text[i++];
      continue;
    }
    appendUtf8(out, static_cast<char32_t>(lowerCodePoint(static_cast<std::wint_t>(c))));
    i += length;
  }
  return out;
}

}  // namespace

BatteryControlRulesEngine::BatteryControlRulesEngine(TopOffRulesSource& rules,
                                                     BatteryControlCalendarServicing& calendar,
                                                     BatteryControlLocationMonitoring& location,
                                                     PreferenceStore& userDefaults,
                                                     const Clock& clock, SerialQueue& mainQueue)
    : rulesSource_(rules),
      calendar_(calendar),
      location_(location),
      userDefaults_(userDefaults),
      clock_(clock),
      mainQueue_(mainQueue),
      log_(logging::get("BatteryControl")),
      self_(std::make_shared<BatteryControlRulesEngine*>(this)) {}

BatteryControlRulesEngine::~BatteryControlRulesEngine() {
  pollTimer_.cancel();
  if (rulesSubscription_ != 0) rulesSource_.unsubscribe(rulesSubscription_);
}

std::string BatteryControlRulesEngine::cooldownKey(std::string_view ruleId) {
  return std::string(kCooldownKeyPrefix) + std::string(ruleId);
}

void BatteryControlRulesEngine::addFireHandler(FireHandler handler) {
  fireHandlers_.push_back(std::move(handler));
}

void BatteryControlRulesEngine::start() {
  if (started_) return;
  started_ = true;
  connectLocationCallbacks();

  std::weak_ptr<BatteryControlRulesEngine*> weak = self_;
  rulesSubscription_ = rulesSource_.subscribe([weak](std::vector<TopOffRule> rules) {
    if (auto self = weak.lock()) (*self)->applyRules(std::move(rules));
  });
  applyRules(rulesSource_.currentRules());

  pollTimer_ = mainQueue_.every(kPollInterval, kPollInterval, [weak] {
    if (auto self = weak.lock()) (*self)->pollCalendarRules();
  });
  // An agent started during the meeting is in the same position as a machine woken during it:
  // the event began before anyone was polling, and only the two-minute grace window catches it.
  pollCalendarRules();
}

void BatteryControlRulesEngine::connectLocationCallbacks() {
  // The monitor calls from its own thread; engine state is touched on the main queue only.
  std::weak_ptr<BatteryControlRulesEngine*> weak = self_;
  SerialQueue* main = &mainQueue_;
  auto onMain = [weak, main](std::function<void(BatteryControlRulesEngine&)> work) {
    main->async([weak, work = std::move(work)] {
      if (auto self = weak.lock()) work(**self);
    });
  };
  BatteryControlLocationMonitoring::Callbacks callbacks;
  callbacks.onRegionEntry = [onMain](const std::string& identifier) {
    onMain([identifier](BatteryControlRulesEngine& e) { e.handleRegionEntry(identifier); });
  };
  callbacks.onAuthorizationChange = [onMain](LocationAuthorization) {
    onMain([](BatteryControlRulesEngine& e) { e.reconcileGeofences(); });
  };
  callbacks.onDetermineState = [onMain](const std::string& identifier, RegionState state) {
    onMain([identifier, state](BatteryControlRulesEngine& e) {
      e.handleDeterminedState(identifier, state);
    });
  };
  callbacks.onMonitoringFailed = [onMain](const std::string& identifier) {
    onMain([identifier](BatteryControlRulesEngine& e) {
      e.log_->warn("region monitoring failed id={}", identifier);
    });
  };
  location_.setCallbacks(std::move(callbacks));
}

void BatteryControlRulesEngine::applyRules(std::vector<TopOffRule> rules) {
  if (lastApplied_ && *lastApplied_ == rules) return;
  lastApplied_ = rules;

  std::set<std::string> kept;
  for (const auto& rule : rules) kept.insert(rule.id());
  // A rule deleted and made again under the same id must not inherit the old rest.
  for (const auto& previous : currentRules_) {
    if (!kept.contains(previous.id())) userDefaults_.removeValue(cooldownKey(previous.id()));
  }
  currentRules_ = std::move(rules);

  const auto has = [&](TopOffRule::Kind kind) {
    return std::any_of(currentRules_.begin(), currentRules_.end(),
                       [kind](const TopOffRule& r) { return r.kind() == kind; });
  };
  if (has(TopOffRule::Kind::calendar)) calendar_.requestAccessIfNeeded();
  if (has(TopOffRule::Kind::geofence) &&
      location_.authorization() == LocationAuthorization::notDetermined) {
    location_.requestAlwaysAuthorization();
  }
  reconcileGeofences();
}

void BatteryControlRulesEngine::reconcileGeofences() {
  std::map<std::string, CircularRegion> wanted;
  if (location_.authorization() == LocationAuthorization::authorizedAlways) {
    for (const auto& rule : currentRules_) {
      if (const auto* g = std::get_if<GeofenceTopOffRule>(&rule.rule)) {
        wanted.emplace(g->id, CircularRegion{g->id, g->latitude, g->longitude, g->radiusMeters});
      }
    }
  }
  for (auto it = monitoredRegions_.begin(); it != monitoredRegions_.end();) {
    const auto match = wanted.find(it->first);
    if (match != wanted.end() && match->second == it->second) {
      ++it;
      continue;
    }
    location_.stopMonitoring(it->first);
    it = monitoredRegions_.erase(it);
  }
  for (const auto& [id, region] : wanted) {
    if (monitoredRegions_.contains(id)) continue;
    location_.startMonitoring(region);
    location_.requestState(id);
    monitoredRegions_.emplace(id, region);
  }
}

void BatteryControlRulesEngine::handleDeterminedState(const std::string& identifier,
                                                      RegionState state) {
  if (state != RegionState::inside) return;
  // Already inside when watching began, or when the machine woke: that is an arrival too.
  log_->info("requestState inside id={} — synthetic entry", identifier);
  handleRegionEntry(identifier);
}

void BatteryControlRulesEngine::handleRegionEntry(const std::string& identifier) {
  if (location_.authorization() != LocationAuthorization::authorizedAlways) return;
  const auto id = normalizeUuid(identifier);
  if (!id) return;
  const auto rule = std::find_if(currentRules_.begin(), currentRules_.end(), [&](const auto& r) {
    return r.kind() == TopOffRule::Kind::geofence && r.id() == *id;
  });
  if (rule == currentRules_.end()) return;
  if (!isOnCooldown(*rule)) fire(*rule);
}

void BatteryControlRulesEngine::pollCalendarRules() {
  // A copy: a firing's handler may change the rules under the loop.
  const auto rules = currentRules_;
  for (const auto& rule : rules) {
    const auto* calendarRule = std::get_if<CalendarTopOffRule>(&rule.rule);
    if (calendarRule == nullptr) continue;
    const std::string needle = lowercased(trimmed(calendarRule->eventTitleSubstring));
    if (needle.empty() || calendarRule->leadMinutes < 1) continue;
    const int minutes = calendarRule->leadMinutes > kLongestLeadMinutes
                            ? kFallbackLeadMinutes
                            : static_cast<int>(calendarRule->leadMinutes);
    for (const auto& event : calendar_.upcomingEvents(minutes)) {
      if (lowercased(event.title).find(needle) == std::string::npos) continue;
      if (!isOnCooldown(rule)) fire(rule);
      break;
    }
  }
}

bool BatteryControlRulesEngine::isOnCooldown(const TopOffRule& rule) const {
  const auto stored = userDefaults_.value(cooldownKey(rule.id()));
  if (!stored || !stored->is_number()) return false;
  const double storedSeconds = stored->get<double>();
  // Far beyond any real date the conversion would overflow; such a value is no date at all.
  if (!(std::fabs(storedSeconds) < 1e10)) return false;
  const double elapsed = secondsBetween(fromReferenceDateSeconds(storedSeconds), clock_.now());
  // A date in the future (a clock set back) must not silence the rule.
  return elapsed >= 0 && elapsed < kCooldownSeconds;
}

void BatteryControlRulesEngine::fire(const TopOffRule& rule) {
  // Before anything can fail, so a failed top-off is not retried every minute.
  userDefaults_.setValue(cooldownKey(rule.id()), toReferenceDateSeconds(clock_.now()));
  log_->info("topOffFires {}", rule.id());
  const auto handlers = fireHandlers_;
  for (const auto& handler : handlers) handler(rule);
}

void BatteryControlRulesEngine::systemDidWake() {
  log_->info("system woke — running catch-up calendar poll + geofence state re-check");
  pollCalendarRules();
  for (const auto& [id, region] : monitoredRegions_) location_.requestState(id);
}

}  // namespace quorel
