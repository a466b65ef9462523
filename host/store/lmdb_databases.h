// The databases of a store in its LMDB environment (lmdb_format.h), and the version of their format.
#pragma once

#include <lmdb.h>

#include <string>

#include "host/base/result.h"

namespace vexa::store {

struct LmdbDatabases {
  MDB_dbi data = 0;
  MDB_dbi changes = 0;
  MDB_dbi meta = 0;
};

// Opens them, and creates them in an environment that is empty, while no other process opens `directory`. Errors:
// kCorrupt (other databases, or another version of the format, which the error names), kUnavailable (FolderLock), those
// of LmdbError.
Result<LmdbDatabases> OpenDatabases(MDB_env* environment, const std::string& directory);

}  // namespace vexa::store
