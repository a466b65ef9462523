// The base library: user and group look-ups, string lists and hashes, the last error. C style: what it gives out is
// given back by the caller.
#pragma once

#include <sys/types.h>

#pragma GCC visibility push(default)

struct HLIBCSzList;
struct HLIBCSzHash;
using PSZLIST = HLIBCSzList*;
using PSZHASH = HLIBCSzHash*;

// An empty list with room for `capacity` strings at first; null on failure. Freeing a null list does nothing.
PSZLIST HLIBCSzListAlloc(int capacity);
void HLIBCSzListFree(PSZLIST list);
int HLIBCSzListCount(PSZLIST list);
// The string at `index`, valid until the list changes; null outside the list.
const char* HLIBCSzListGet(PSZLIST list, int index);

// The groups of `user`, keyed by the group id in decimal text; null on failure. The two numbers are 0. Freeing a null
// hash does nothing.
PSZHASH HLIBGroupInfoHashGet(const char* user, int, int);
// Appends the hash's keys to `list`, in rising order of their number here. Negative on failure.
int HLIBCSzHashEnumKey(PSZHASH hash, PSZLIST list);
void HLIBCSzHashFree(PSZHASH hash);

// 0, or negative when there is no such user or it cannot be determined; the outputs are untouched then.
int VEXAUserGetUGID(const char* name, uid_t* uid, gid_t* gid);

// The last failure of the functions above on this thread: its code, and the source file and line that found it.
unsigned int HLIBCErrGet();
const char* HLIBCErrorGetFile();
int HLIBCErrorGetLine();

#pragma GCC visibility pop
