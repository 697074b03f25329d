#pragma once
// The tooltip of an energy row: what stands behind a process name (its label, the application it
// belongs to and that application's version, and where its program lives), or that nothing by
// that name runs now and the row comes from history alone.

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "energy/application_catalog.hpp"
#include "energy/process_table.hpp"

namespace quorel {

// Thread-safe. Holds references to the table and the catalog, which must outlive it.
class AppMetadataResolver {
 public:
  AppMetadataResolver(const ProcessTable& table, const ApplicationCatalog& catalog);
  AppMetadataResolver(const AppMetadataResolver&) = delete;
  AppMetadataResolver& operator=(const AppMetadataResolver&) = delete;

  // Lines of text about the program recorded under `processName`, built once per name and then
  // kept: a name's description is asked for again and again while a list is shown. Absent for
  // an empty name and for "Other", which stands for no program.
  std::optional<std::string> describe(std::string_view processName);

 private:
  // A process as the scan saw it.
  struct Live {
    ProcessId pid = 0;
    std::string title;
    std::vector<std::string> arguments;
  };

  std::string build(const std::string& name) const;
  // The first process that goes by `name`; failing that, the first whose argv[0] base matches
  // it regardless of case.
  std::optional<Live> locate(const std::string& name) const;
  // The lines that say where the process's program lives and what it belongs to.
  std::vector<std::string> resolve(const Live& process) const;

  const ProcessTable& table_;
  const ApplicationCatalog& catalog_;

  // Guarded by cacheLock_. Built outside the lock, so two threads may build one entry; the later
  // store wins, and both texts are equally right.
  std::mutex cacheLock_;
  std::unordered_map<std::string, std::string> cache_;
};

}  // namespace quorel
