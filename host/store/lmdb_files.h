// The folder of a store: what must hold for its files before LMDB maps them.
#pragma once

#include <string>

#include "host/base/descriptor.h"
#include "host/base/result.h"

namespace vexa::store {

// Whether LMDB may open `directory`: it is empty, or holds a data file of ours whose head is intact. LMDB trusts the
// head of its file, so a damaged one would end this process; deeper damage is found, if at all, when it is read. A
// folder that holds anything except a data file is not ours. Errors: kCorrupt, and kDenied or kInternal when a file
// cannot be read.
Status CheckStoreFiles(const std::string& directory);

// Keeps other processes from opening the store in `directory` meanwhile: two that create it at the same time would each
// find the other's half-finished work. The lock is on the folder itself and leaves no file behind.
class FolderLock {
 public:
  explicit FolderLock(const std::string& directory);
  // 0 when locked, otherwise errno(3).
  int code() const { return code_; }
  // Makes the names of the folder's files, and its own in its parent, survive a power failure. 0 or errno(3).
  int SyncNames() const;

 private:
  Descriptor fd_;
  int code_ = 0;
};

// Sets the mode of the store's files to 0600, whatever it was.
void TightenStoreFiles(const std::string& directory);

// Whether the disk under `directory` is completely full.
bool DiskIsFull(const std::string& directory);

}  // namespace vexa::store
