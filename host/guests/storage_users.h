// Which repositories are this host's, and which files their records name.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::guests {

// The repositories whose records name the host, with their names ("" for one without).
Result<std::map<std::string, std::string>> RepositoriesOf(const store::Snapshot& snapshot, const std::string& host_id);

// The paths, as records have them, of disks and of guests' UEFI variables, by repository; records that cannot be read
// name nothing. Reads the records again only when some have changed.
// Threads: one at a time.
class FilesByRepository {
 public:
  using Paths = std::map<std::string, std::vector<std::string>>;
  // Valid until the next call. Errors: what the store says.
  Result<const Paths*> Find(store::Store& store);

 private:
  Result<bool> HasChanged(store::Store& store, store::Revision now);

  Paths paths_;
  std::optional<store::Revision> seen_;
};

}  // namespace vexa::guests
