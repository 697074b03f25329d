#pragma once
// Holds the one QuorelSettings of the process and keeps it in the preference domain under
// "QuorelSettings". The composition root owns the single instance.
//
// Threading: belongs to the main queue. Construct, read, change and save it there. When another
// process rewrites the document (the command line while the agent runs), the store's observer
// posts a reload to the main queue, so the running agent adopts the change instead of
// overwriting it at its next save().

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "app/settings.hpp"
#include "core/clock.hpp"
#include "core/preference_store.hpp"
#include "core/serial_queue.hpp"

namespace quorel {

class SettingsManager {
 public:
  static constexpr const char* key = "QuorelSettings";
  static constexpr const char* kContainerBordersMigrationKey =
      "Quorel.migration.containerBordersDefaultOff.v1";
  static constexpr const char* kCollapsedSectionsMigrationKey =
      "Quorel.migration.collapsedByDefault.v1";

  // Reads the document (defaults, silently, when it is missing or does not decode), opens the
  // history charts on the ten-minute scale, and runs the two one-time migrations.
  SettingsManager(PreferenceStore& store, SerialQueue& mainQueue, const Clock& clock);
  ~SettingsManager();
  SettingsManager(const SettingsManager&) = delete;
  SettingsManager& operator=(const SettingsManager&) = delete;

  const QuorelSettings& settings() const { return settings_; }

  // Changes the settings in memory and tells subscribers when anything differs. Writers call
  // save() themselves; the manager does not save on every change.
  void update(const std::function<void(QuorelSettings&)>& change);
  void setSettings(QuorelSettings settings);

  // Stores the encoded settings under `key`. A value that cannot be encoded stores nothing and
  // reports nothing.
  void save();

  struct CardTierRequirement {
    std::string id;
    std::vector<CardTier> supported;
    CardTier defaultTier = CardTier::s1x1;
  };
  // Heals dashboardCardTiers: an entry of a listed card that is no CardTier, or one the card does
  // not support, becomes the card's default. Saves once, only when something changed.
  void reconcileTiers(const std::vector<CardTierRequirement>& cards);

  // Subscribers see every published value, on the main queue.
  using Subscriber = std::function<void(const QuorelSettings&)>;
  std::uint64_t subscribe(Subscriber subscriber);
  void unsubscribe(std::uint64_t id);

  // Adopts the stored document if another process changed it since this manager last read or
  // wrote it. Runs by itself on the main queue after the store reports a change.
  void reloadFromStore();

 private:
  void publish();
  // Encodes the settings and stores them under `key`; stores nothing when encoding fails.
  void storeDocument();

  PreferenceStore& store_;
  const Clock& clock_;
  QuorelSettings settings_;
  // The document as this manager last saw it in the store: a change notice for any other key,
  // or for this manager's own write, leaves the settings alone.
  std::optional<std::string> lastKnownDocument_;
  std::map<std::uint64_t, Subscriber> subscribers_;
  std::uint64_t nextSubscriberId_ = 1;
  std::uint64_t storeObserverId_ = 0;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace quorel
