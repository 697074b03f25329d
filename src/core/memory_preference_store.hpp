#pragma once
// A preference domain that lives only as long as the process: for tests and for one-shot tools
// that must not touch the user's file. Thread-safe; observers run on the writing thread, after
// the write, outside any lock.

#include <map>
#include <mutex>

#include "core/preference_store.hpp"

namespace quorel {

class MemoryPreferenceStore final : public PreferenceStore {
 public:
  MemoryPreferenceStore() = default;
  MemoryPreferenceStore(const MemoryPreferenceStore&) = delete;
  MemoryPreferenceStore& operator=(const MemoryPreferenceStore&) = delete;

  std::optional<nlohmann::json> value(const std::string& key) const override;
  void setValue(const std::string& key, const nlohmann::json& value) override;
  void removeValue(const std::string& key) override;
  std::uint64_t addObserver(Observer observer) override;
  void removeObserver(std::uint64_t id) override;

  // Number of writes that changed a key; lets tests check that a component saves only when it
  // has something new to say.
  std::size_t changeCount() const;

 private:
  void notify();

  mutable std::mutex mutex_;
  std::map<std::string, nlohmann::json> values_;
  std::map<std::uint64_t, Observer> observers_;
  std::uint64_t nextObserverId_ = 1;
  std::size_t changeCount_ = 0;
};

}  // namespace quorel
