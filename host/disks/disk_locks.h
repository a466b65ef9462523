// Whether a machine has a disk's file open, seen by the locks that QEMU holds on it.
//
// QEMU holds a lock on a byte of each image that it has open for every permission that it uses and for every one that
// it shares with nobody: bytes 100 to 299 of the file, whatever its length. These functions only look at locks. They
// never take one, nor release one of this process or of another.
#pragma once

#include <sys/types.h>

#include <string_view>

namespace vexa::guests {

// Whether another open file description has a lock that stands for an open image on the file `name` in `folder`.
// Answers 0 and sets `has_open`, or an errno(3) value. On file systems without locks, and for anything but a regular
// file, nobody has it open. A file that this process may not open is looked up in /proc/locks.
int MachineHasOpen(int folder, const char* name, bool* has_open);

// The same by `table`, a text in the form of /proc/locks. Waiting locks do not count.
bool HasImageLock(std::string_view table, dev_t device, ino_t inode);

}  // namespace vexa::guests
