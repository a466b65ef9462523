// The base library: user and group look-ups, string lists and hashes, the last error. C style: the caller frees the
// lists and hashes that it receives.
//
// Threads: any number, concurrently, but each list and hash only from one thread at a time.
#pragma once

#include <sys/types.h>

#pragma GCC visibility push(default)

struct HLIBCSzList;
struct HLIBCSzHash;
using PSZLIST = HLIBCSzList*;
using PSZHASH = HLIBCSzHash*;

// Returns an empty list with an initial capacity of `capacity` strings, or null on failure. Freeing a null list does
// nothing.
PSZLIST HLIBCSzListAlloc(int capacity);
void HLIBCSzListFree(PSZLIST list);
int HLIBCSzListCount(PSZLIST list);
// The string at `index`, valid until the list changes; null when `index` is out of range.
const char* HLIBCSzListGet(PSZLIST list, int index);

// The groups of `user`, keyed by the group id as a decimal string; null on failure. Pass 0 for the two numbers. Freeing
// a null hash does nothing.
PSZHASH HLIBGroupInfoHashGet(const char* user, int, int);
// Appends the hash's keys to `list`, smallest group id first. Returns a negative number on failure.
int HLIBCSzHashEnumKey(PSZHASH hash, PSZLIST list);
void HLIBCSzHashFree(PSZHASH hash);

// Sets the user's id and group id. Returns 0, or a negative number when there is no such user or the user cannot be
// looked up; the outputs are unchanged then.
int VEXAUserGetUGID(const char* name, uid_t* uid, gid_t* gid);

// The last failure of the functions above on this thread: its code, and the source file and line that detected it.
unsigned int HLIBCErrGet();
const char* HLIBCErrorGetFile();
int HLIBCErrorGetLine();

#pragma GCC visibility pop
