// The folder of a store: what must be true of its files before LMDB maps them.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa::store {

// Whether LMDB may open `directory`: it is empty, or holds a data file of ours whose head is sound. LMDB believes the
// head of its file, so a damaged one would end this process; damage that lies deeper is found, if at all, when it is
// read. A folder that holds anything but no data file belongs to somebody else. Errors: kCorrupt, and kDenied or
// kInternal when a file cannot be read.
Status CheckStoreFiles(const std::string& directory);

// Keeps other processes from opening the store in `directory` meanwhile: two that create it at once would each meet
// half of what the other has done. The lock is on the folder itself and leaves no file behind.
class FolderLock {
 public:
  explicit FolderLock(const std::string& directory);
  ~FolderLock();
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;
  // 0 when locked, otherwise errno(3).
  int code() const { return code_; }
  // Makes the names of the folder's files, and its own in its parent, survive a loss of power. 0 or errno(3).
  int SyncNames() const;

 private:
  int fd_;
  int code_ = 0;
};

// Gives the store's files mode 0600, whatever they had.
void TightenStoreFiles(const std::string& directory);

// Whether the disk under `directory` is full to the brim.
bool DiskIsFull(const std::string& directory);

}  // namespace vexa::store
