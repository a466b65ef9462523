// Finds the repositories of this host, and the files in them that records refer to.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/storage/storage_disks.h"
#include "host/store/store.h"

namespace vexa::storage {

// The repositories of the host, according to their records: names by id ("" without a name).
Result<std::map<std::string, std::string>> RepositoriesOf(const store::Snapshot& snapshot, const std::string& host_id);

// The files that records refer to in a repository.
struct RepositoryFiles {
  std::vector<std::string> paths;  // as in the records of disks, and of guests for their UEFI variables
  std::vector<DiskFile> disks;
};

// Caches the files by repository. Unreadable records are skipped. Rereads the records only when some have changed; a
// change of a state does not count.
// Threads: one at a time.
class FilesByRepository {
 public:
  using Files = std::map<std::string, RepositoryFiles>;
  // Valid until the next call. Errors: those of the store.
  Result<const Files*> Find(store::Store& store);

 private:
  Result<bool> HasChanged(store::Store& store, store::Revision now);

  Files files_;
  std::optional<store::Revision> read_at_;  // the store's revision that files_ is based on
};

}  // namespace vexa::storage
