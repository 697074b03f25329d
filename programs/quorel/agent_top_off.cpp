#include "agent_top_off.hpp"

#include <spdlog/logger.h>

#include "core/logging.hpp"

namespace quorel {

namespace {

std::string_view kindText(TopOffRule::Kind kind) {
  return kind == TopOffRule::Kind::calendar ? "calendar" : "geofence";
}

}  // namespace

AgentTopOff::AgentTopOff(Services services, const Clock& clock, SerialQueue& mainQueue)
    : services_(services),
      mainQueue_(mainQueue),
      log_(logging::get("AppDelegate")),
      rules_(services.settings),
      engine_(rules_, services.calendar, services.location, services.userDefaults, clock,
              mainQueue),
      self_(std::make_shared<AgentTopOff*>(this)) {
  std::weak_ptr<AgentTopOff*> weak = self_;
  engine_.addFireHandler([this, weak](const TopOffRule& rule) {
    // Its own turn of the main queue, so the engine's poll is done before the helper is asked.
    mainQueue_.async([weak, rule] {
      if (auto self = weak.lock()) (*self)->topOff(rule);
    });
  });
}

AgentTopOff::~AgentTopOff() = default;

void AgentTopOff::topOff(const TopOffRule& rule) {
  HelperProxy* proxy = services_.helper.controlAvailable() ? services_.helper.proxy() : nullptr;
  if (proxy == nullptr) {
    log_->error("topOff fired but helper proxy unavailable — top-off skipped (ruleId={} kind={})",
                rule.id(), kindText(rule.kind()));
    postFailureNotice();
    return;
  }
  std::weak_ptr<AgentTopOff*> weak = self_;
  proxy->releaseLimitUntilFullThenRestore([weak](std::optional<QuorelHelperError> error) {
    auto self = weak.lock();
    if (!self || !error) return;
    (*self)->log_->error("releaseLimitUntilFullThenRestore failed — error={}", error->message);
    (*self)->postFailureNotice();
  });
}

void AgentTopOff::postFailureNotice() {
  services_.notices.post(Notice{
      .identifier = kFailureNoticeIdentifier,
      .title = "Scheduled top-off couldn't start",
      .body = "Quorel couldn't release the charge limit for your scheduled top-off. Open the "
              "dashboard to top up manually.",
      .category = {},
      .actions = {},
  });
}

}  // namespace quorel
