#include "app/app_delegate.hpp"

#include <spdlog/logger.h>

#include "core/logging.hpp"
#include "energy/energy_tracker.hpp"
#include "mcp/mcp_server.hpp"
#include "mcp/mcp_server_switch.hpp"
#include "store/quorel_database.hpp"

namespace quorel {

AppDelegate::AppDelegate(Dependencies deps, const Clock& clock, Options options)
    : deps_(std::move(deps)),
      clock_(clock),
      options_(options),
      log_(logging::get("AppDelegate")),
      self_(std::make_shared<AppDelegate*>(this)) {}

AppDelegate::~AppDelegate() {
  if (settingsSubscription_ != 0) deps_.settings->unsubscribe(settingsSubscription_);
  maintenanceTimer_.cancel();
  pendingWakeWork_.cancel();
  if (deps_.sleepWake) deps_.sleepWake->stop();
}

void AppDelegate::launch() {
  const TimePoint now = clock_.now();
  prune(now);

  std::weak_ptr<AppDelegate*> weak = self_;
  maintenanceTimer_ =
      deps_.mainQueue->every(options_.maintenancePeriod, options_.maintenancePeriod, [weak] {
        if (auto self = weak.lock()) {
          (*self)->runDailyDatabaseMaintenanceIfNeeded((*self)->clock_.now());
        }
      });

  if (deps_.sleepWake) {
    deps_.sleepWake->start({[weak](SleepPermit permit) {
                              if (auto self = weak.lock()) (*self)->handleSleep(std::move(permit));
                            },
                            [weak] {
                              if (auto self = weak.lock()) (*self)->handleWake();
                            }});
  }
  if (deps_.mcpSwitch) deps_.mcpSwitch->activate();

  // A settings change (another process saving, say) may move the polling intervals.
  settingsSubscription_ = deps_.settings->subscribe([weak](const QuorelSettings&) {
    if (auto self = weak.lock()) {
      (*self)->updatePollingState();
      (*self)->followEnergySamplingInterval();
    }
  });
  followEnergySamplingInterval();

  const auto intervals = pollingIntervals(deps_.settings->settings(), options_.intervalOverride);
  deps_.monitor->setPollingInterval(watched_ ? intervals.focused : intervals.idle);
  deps_.monitor->start();
  updatePollingState();
}

void AppDelegate::terminate() {
  maintenanceTimer_.cancel();
  if (deps_.mcpServer) deps_.mcpServer->stop();
  flushEnergy({});
}

void AppDelegate::followEnergySamplingInterval() {
  const double interval = deps_.settings->settings().processEnergySamplingInterval;
  if (energySamplingInterval_ == interval) return;
  const bool running = energySamplingInterval_.has_value();
  energySamplingInterval_ = interval;
  for (EnergyTracker* tracker : deps_.energyTrackers) {
    if (running) {
      tracker->updateInterval(interval);
    } else {
      tracker->start(interval, deps_.database);
    }
  }
}

void AppDelegate::flushEnergy(SleepPermit permit) {
  bool written = false;
  for (EnergyTracker* tracker : deps_.energyTrackers) written = tracker->flush() || written;
  // The store writes in order, so this runs once the rows are in.
  if (written && deps_.database) {
    deps_.database->queue().async([permit = std::move(permit)] {});
  }
}

void AppDelegate::setWatched(bool watched) {
  if (watched_ == watched) return;
  watched_ = watched;
  updatePollingState();
}

void AppDelegate::updatePollingState() {
  // Headless, nothing is on screen but what a watching client shows; that client is focused.
  const bool uiVisible = watched_;
  const bool risingEdge = uiVisible && !lastUIVisible_;
  lastUIVisible_ = uiVisible;
  const bool focused = uiVisible;

  auto& monitor = *deps_.monitor;
  monitor.setPopoverOpen(focused);
  monitor.setComponentCardVisible(uiVisible);
  const auto intervals = pollingIntervals(deps_.settings->settings(), options_.intervalOverride);
  const Seconds interval = focused ? intervals.focused : intervals.idle;
  if (interval != monitor.pollingInterval()) {
    monitor.setPollingInterval(interval);
    monitor.restartTimer();
  }
  // What somebody has just started to look at should be current, not up to 30 s old.
  if (risingEdge || (focused && lastAppliedFocused_ != true)) monitor.powerSourceChanged();
  lastAppliedFocused_ = focused;
}

void AppDelegate::prune(TimePoint now) {
  lastPruneDate_ = now;
  if (deps_.database) {
    deps_.database->pruneOldData(deps_.settings->settings().dataRetentionDays,
                                 kCapacityRetentionDays);
  }
}

void AppDelegate::runDailyDatabaseMaintenanceIfNeeded(TimePoint now) {
  if (lastPruneDate_ && secondsBetween(*lastPruneDate_, now) < kMaintenanceAgeSeconds) return;
  prune(now);
}

void AppDelegate::handleSleep(SleepPermit permit) {
  pendingWakeWork_.cancel();
  sleepBeganAt_ = clock_.now();
  deps_.monitor->stop();
  if (deps_.mcpServer) deps_.mcpServer->stop();
  flushEnergy(std::move(permit));
}

void AppDelegate::handleWake() {
  pendingWakeWork_.cancel();
  const TimePoint now = clock_.now();
  // A clock set back past the sleep's start writes nothing rather than a negative interval.
  if (sleepBeganAt_ && now >= *sleepBeganAt_) {
    if (deps_.database) {
      deps_.database->insertCollectionInterval(
          *sleepBeganAt_, now, CollectionIntervalStatus::sleep,
          deps_.sleepWake ? std::optional(deps_.sleepWake->sourceName()) : std::nullopt);
    }
    sleepBeganAt_.reset();
  }
  for (const auto& observer : deps_.wakeObservers) observer();
  std::weak_ptr<AppDelegate*> weak = self_;
  pendingWakeWork_ = deps_.mainQueue->after(options_.wakeSettleDelay, [weak] {
    auto self = weak.lock();
    if (!self) return;
    AppDelegate& d = **self;
    ++d.wakeResumeCount_;
    d.deps_.monitor->resumeAfterWake();
    if (d.deps_.mcpSwitch) d.deps_.mcpSwitch->apply();
    d.runDailyDatabaseMaintenanceIfNeeded(d.clock_.now());
  });
}

}  // namespace quorel
