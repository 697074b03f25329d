#include "app/settings_manager.hpp"

#include <algorithm>

namespace quorel {

SettingsManager::SettingsManager(PreferenceStore& store, SerialQueue& mainQueue, const Clock& clock)
    : store_(store), clock_(clock) {
  lastKnownDocument_ = store_.dataValue(key);
  if (lastKnownDocument_) {
    // A document that does not decode costs the user's settings, silently: the defaults apply
    // and the next save() replaces it.
    if (auto decoded = decodeSettings(*lastKnownDocument_, clock_)) settings_ = std::move(*decoded);
  }
  // Charts always open on the ten-minute scale, whatever was stored.
  settings_.historyTimeScale = HistoryTimeScale::tenMinutes;

  if (!store_.boolValue(kContainerBordersMigrationKey)) {
    settings_.showContainerBorders = false;
    store_.setValue(kContainerBordersMigrationKey, true);
    storeDocument();
  }
  if (!store_.boolValue(kCollapsedSectionsMigrationKey)) {
    settings_.collapsedSections = {kPopoverSections.begin(), kPopoverSections.end()};
    store_.setValue(kCollapsedSectionsMigrationKey, true);
    storeDocument();
  }

  std::weak_ptr<bool> alive = alive_;
  storeObserverId_ = store_.addObserver([this, alive, &mainQueue] {
    // The store calls from whatever thread saw the change; the settings live on the main queue.
    mainQueue.async([this, alive] {
      if (alive.lock()) reloadFromStore();
    });
  });
}

SettingsManager::~SettingsManager() {
  store_.removeObserver(storeObserverId_);
  alive_.reset();
}

void SettingsManager::update(const std::function<void(QuorelSettings&)>& change) {
  QuorelSettings next = settings_;
  change(next);
  setSettings(std::move(next));
}

void SettingsManager::setSettings(QuorelSettings settings) {
  if (settings == settings_) return;
  settings_ = std::move(settings);
  publish();
}

void SettingsManager::storeDocument() {
  auto document = encodeSettings(settings_);
  if (!document) return;
  lastKnownDocument_ = *document;
  store_.setValue(key, *document);
}

void SettingsManager::save() {
  storeDocument();
}

void SettingsManager::reconcileTiers(const std::vector<CardTierRequirement>& cards) {
  bool changed = false;
  QuorelSettings next = settings_;
  for (const auto& card : cards) {
    auto entry = next.dashboardCardTiers.find(card.id);
    if (entry == next.dashboardCardTiers.end()) continue;
    const auto tier = kCardTierTexts.parse(entry->second);
    const bool supported = tier && std::find(card.supported.begin(), card.supported.end(), *tier) !=
                                       card.supported.end();
    if (supported) continue;
    entry->second = std::string(kCardTierTexts.text(card.defaultTier));
    changed = true;
  }
  if (!changed) return;
  setSettings(std::move(next));
  save();
}

std::uint64_t SettingsManager::subscribe(Subscriber subscriber) {
  const auto id = nextSubscriberId_++;
  subscribers_.emplace(id, std::move(subscriber));
  return id;
}

void SettingsManager::unsubscribe(std::uint64_t id) {
  subscribers_.erase(id);
}

void SettingsManager::publish() {
  // A copy, so that a subscriber may subscribe or unsubscribe while being told.
  const auto subscribers = subscribers_;
  for (const auto& [id, subscriber] : subscribers) subscriber(settings_);
}

void SettingsManager::reloadFromStore() {
  auto document = store_.dataValue(key);
  if (document == lastKnownDocument_) return;
  lastKnownDocument_ = document;
  QuorelSettings next;
  if (document) {
    if (auto decoded = decodeSettings(*document, clock_)) next = std::move(*decoded);
  }
  // The chart scale is this session's view, not something another program decides.
  next.historyTimeScale = settings_.historyTimeScale;
  setSettings(std::move(next));
}

}  // namespace quorel
