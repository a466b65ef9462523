// The folder of a store: checks of its files before LMDB maps them, and a lock for the time of opening.
#pragma once

#include <string>

#include "host/base/descriptor.h"
#include "host/base/result.h"

namespace vexa::store {

// Whether LMDB may open `directory`: it is empty, or contains a data file of ours whose header (its meta pages) is
// intact. LMDB trusts the header, so a damaged one would end this process. A folder with other files and no data file
// is not ours. Errors: kCorrupt; kUnavailable, kDenied or kInternal when a file cannot be read.
Status CheckStoreFiles(const std::string& directory);

// While it exists, no other process can open the store in `directory`: two that create it at the same time would each
// find the other's half-finished work. The lock is on the folder itself and leaves no file behind.
class FolderLock {
 public:
  explicit FolderLock(const std::string& directory);
  // Whether it is locked. Errors: kUnavailable when another process has had the lock for 10 s; those of LmdbError.
  Status Outcome() const;
  // Syncs the folder and its parent, so that new names in both survive a power failure. Returns 0 or errno(3).
  int SyncDirectories() const;

 private:
  const std::string directory_;
  Descriptor fd_;
  int code_ = 0;  // errno(3)
};

// Sets the mode of the store's files to 0600. Files of another owner keep theirs.
void RestrictStoreFileModes(const std::string& directory);

// Why the system wrote only a part of what the store in `directory` wanted to write: ENOSPC, EDQUOT or EFBIG (the disk,
// a quota or the process's limit leaves less than 1 MiB), or EIO, which may be anything.
int ReasonForShortWrite(const std::string& directory);

}  // namespace vexa::store
