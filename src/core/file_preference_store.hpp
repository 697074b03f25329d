#pragma once
// The preference domain kept as one JSON object in a file (defaults.json in the configuration
// directory). The agent and the command line share it, so:
//  - every write is a per-key read-modify-write of the whole file under an exclusive flock on a
//    lock file beside it ("<file>.lock"), and lands by temporary file, fsync and rename, mode 0600;
//  - a process notices another's writes through an inotify watch on the directory, either by
//    calling poll() or by letting watchOn() run the watch on a SerialQueue; observers then fire;
//  - a file that does not hold a JSON object is moved aside, never deleted, with a warning that
//    names both paths, and the domain starts empty.
// Thread-safe. Reads are served from memory; they see another process's write once it has been
// picked up.

#include <filesystem>
#include <memory>

#include "core/preference_store.hpp"

namespace quorel {

class SerialQueue;

class FilePreferenceStore final : public PreferenceStore {
 public:
  // Loads `file`, creating its directory (mode 0700) when missing. A directory that cannot be
  // made or a file that cannot be written is logged; the store then keeps changes in memory.
  explicit FilePreferenceStore(std::filesystem::path file);
  ~FilePreferenceStore() override;
  FilePreferenceStore(const FilePreferenceStore&) = delete;
  FilePreferenceStore& operator=(const FilePreferenceStore&) = delete;

  std::optional<nlohmann::json> value(const std::string& key) const override;
  void setValue(const std::string& key, const nlohmann::json& value) override;
  void removeValue(const std::string& key) override;
  std::uint64_t addObserver(Observer observer) override;
  void removeObserver(std::uint64_t id) override;

  const std::filesystem::path& path() const;

  // Picks up what other processes wrote since the last look; observers fire, on the calling
  // thread, when the domain changed. Returns whether it did. Cheap when nothing happened: one
  // non-blocking read of the watch descriptor.
  bool poll();

  // Runs the watch on `queue`: other processes' writes are picked up there as they land, and
  // observers fire on that queue. Call at most once. The queue must outlive this store, or be
  // shut down before the store is destroyed.
  void watchOn(SerialQueue& queue);

 private:
  struct Impl;
  struct Watch;
  std::shared_ptr<Impl> impl_;
  std::shared_ptr<Watch> watch_;
  SerialQueue* watchQueue_ = nullptr;
};

}  // namespace quorel
