// Detects whether a VM process has a disk's file open, by the locks that QEMU holds on it.
//
// For each image that it has open, QEMU holds a lock on one byte for every permission that it uses and for every one
// that it does not share: bytes 100 to 299 of the file, whatever its length. These functions only inspect locks. They
// never take one, nor release one of this process or of another.
#pragma once

#include <sys/types.h>

#include <string_view>

namespace vexa::disks {

// Whether another open file description has a lock that indicates an open image on the file `name` in `folder`. Returns
// 0 and sets `is_open_in_vm`, or returns an errno(3) value. On file systems without locks, and for anything except
// a regular file, the result is false. A file that this process may not open is looked up in /proc/locks.
int IsOpenInVm(int folder, const char* name, bool* is_open_in_vm);

// The same according to `table`, the content of /proc/locks. Waiting locks do not count.
bool HasImageLock(std::string_view table, dev_t device, ino_t inode);

}  // namespace vexa::disks
