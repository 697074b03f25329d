#pragma once
// The preference domain: text keys holding booleans, integers, dates and data blobs (the
// settings document). One implementation keeps it in a JSON file shared by the agent and the
// command line; tests use an in-memory one. Thread-safe.

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace quorel {

class PreferenceStore {
 public:
  virtual ~PreferenceStore() = default;

  // The stored JSON value, absent when the key is not set.
  virtual std::optional<nlohmann::json> value(const std::string& key) const = 0;
  // Writes one key (a per-key read-modify-write where the storage is shared between processes).
  virtual void setValue(const std::string& key, const nlohmann::json& value) = 0;
  virtual void removeValue(const std::string& key) = 0;

  // Called, on an unspecified thread, after any key changed, whether by this process or by
  // another one writing the same storage. Returns an id for removeObserver.
  using Observer = std::function<void()>;
  virtual std::uint64_t addObserver(Observer observer) = 0;
  virtual void removeObserver(std::uint64_t id) = 0;

  // Typed reads with the platform's conventions: absent or mistyped reads as false / 0.
  bool boolValue(const std::string& key) const {
    auto v = value(key);
    return v && v->is_boolean() && v->get<bool>();
  }
  std::int64_t integerValue(const std::string& key) const {
    auto v = value(key);
    if (v && v->is_number_integer()) return v->get<std::int64_t>();
    if (v && v->is_number_float()) return static_cast<std::int64_t>(v->get<double>());
    return 0;
  }
  // A data blob (the settings document is stored as its JSON text).
  std::optional<std::string> dataValue(const std::string& key) const {
    auto v = value(key);
    if (v && v->is_string()) return v->get<std::string>();
    return std::nullopt;
  }
  bool hasValue(const std::string& key) const { return value(key).has_value(); }
};

}  // namespace quorel
