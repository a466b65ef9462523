// Which repositories belong to this host, and which files their records name.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/storage/storage_disks.h"
#include "host/store/store.h"

namespace vexa::guests {

// The repositories whose records name the host, with their names ("" without a name).
Result<std::map<std::string, std::string>> RepositoriesOf(const store::Snapshot& snapshot, const std::string& host_id);

// What records name in a repository.
struct RepositoryFiles {
  std::vector<std::string> paths;  // as in the records of disks, and of guests for their UEFI variables
  std::vector<DiskFile> disks;
};

// The files by repository. Unreadable records name nothing. Rereads the records only when some have changed; a new
// state does not count as a change.
// Threads: one at a time.
class FilesByRepository {
 public:
  using Files = std::map<std::string, RepositoryFiles>;
  // Valid until the next call. Errors: those of the store.
  Result<const Files*> Find(store::Store& store);

 private:
  Result<bool> HasChanged(store::Store& store, store::Revision now);

  Files files_;
  std::optional<store::Revision> seen_;
};

}  // namespace vexa::guests
