#pragma once
// How a process is named for people. Two steps: the name a process goes by (the kernel's short
// name, unless argv[0] shows it cut short or renamed), which is what energy history records, and
// the label shown for such a name, which turns helper processes into their application's name.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "energy/process_text.hpp"

namespace quorel {

// The name of a process before its path is dropped: `kernelName`, unless the base of argv[0] is
// present and the kernel name, compared lower-cased, does not start with it; then that base.
// The kernel keeps 15 bytes of a name and a thread may rename the process, so argv[0] holds the
// fuller one. Without arguments the kernel name stands as it is. A retitled argv[0] ("sshd:
// alice@pts/0") counts up to its ": ".
std::string processName(std::string_view kernelName, const std::vector<std::string>& arguments);

// Stateless; safe from any thread.
class ProcessDisplayName {
 public:
  // The friendly name of a known program, else the helper form's label, else `name` itself.
  static std::string label(std::string_view name);

  // "<base> Helper" or "<base> Helper (<role>)" as "<base>" or "<base> (<role>)", with a known
  // base replaced by its friendly name. Absent for any other shape, and when base is empty.
  static std::optional<std::string> parseHelperForm(std::string_view name);
};

}  // namespace quorel
