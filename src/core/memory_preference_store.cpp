#include "core/memory_preference_store.hpp"

#include <vector>

namespace quorel {

std::optional<nlohmann::json> MemoryPreferenceStore::value(const std::string& key) const {
  std::lock_guard lock(mutex_);
  if (auto it = values_.find(key); it != values_.end()) return it->second;
  return std::nullopt;
}

void MemoryPreferenceStore::setValue(const std::string& key, const nlohmann::json& value) {
  {
    std::lock_guard lock(mutex_);
    auto [it, inserted] = values_.try_emplace(key, value);
    if (!inserted) {
      if (it->second == value) return;
      it->second = value;
    }
    ++changeCount_;
  }
  notify();
}

void MemoryPreferenceStore::removeValue(const std::string& key) {
  {
    std::lock_guard lock(mutex_);
    if (values_.erase(key) == 0) return;
    ++changeCount_;
  }
  notify();
}

std::uint64_t MemoryPreferenceStore::addObserver(Observer observer) {
  std::lock_guard lock(mutex_);
  const auto id = nextObserverId_++;
  observers_.emplace(id, std::move(observer));
  return id;
}

void MemoryPreferenceStore::removeObserver(std::uint64_t id) {
  std::lock_guard lock(mutex_);
  observers_.erase(id);
}

std::size_t MemoryPreferenceStore::changeCount() const {
  std::lock_guard lock(mutex_);
  return changeCount_;
}

void MemoryPreferenceStore::notify() {
  std::vector<Observer> toCall;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [id, observer] : observers_) toCall.push_back(observer);
  }
  // Outside the lock: an observer commonly reads the store back.
  for (const auto& observer : toCall) observer();
}

}  // namespace quorel
