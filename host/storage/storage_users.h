// Which repositories are this host's, and which files their records name.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/storage/storage_disks.h"
#include "host/store/store.h"

namespace vexa::guests {

// The repositories whose records name the host, with their names ("" for one without).
Result<std::map<std::string, std::string>> RepositoriesOf(const store::Snapshot& snapshot, const std::string& host_id);

// What records name of a repository.
struct RepositoryFiles {
  std::vector<std::string> paths;  // as records have them, of disks and of guests' UEFI variables
  std::vector<DiskFile> disks;
};

// The files by repository; records that cannot be read name nothing. Reads the records again only when some have
// changed; a new state is no such change.
// Threads: one at a time.
class FilesByRepository {
 public:
  using Files = std::map<std::string, RepositoryFiles>;
  // Valid until the next call. Errors: what the store says.
  Result<const Files*> Find(store::Store& store);

 private:
  Result<bool> HasChanged(store::Store& store, store::Revision now);

  Files files_;
  std::optional<store::Revision> seen_;
};

}  // namespace vexa::guests
