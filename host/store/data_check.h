// Checks LMDB's data file before LMDB relies on it.
#pragma once

#include <lmdb.h>

#include <string>

#include "host/base/result.h"

namespace vexa::store {

// Whether the header of the data file at `path` is that of a store and undamaged, so that LMDB may open it. An empty
// file is one that is being created. Errors: kCorrupt; kUnavailable (the disk cannot be read); those of LmdbError.
Status CheckDataHeader(const std::string& path);

// Checks every page of the newest state (page_check.h) in an environment that has just been opened; `path` is its data
// file. Takes a reader slot meanwhile, which keeps writers from using the pages again. Errors: kCorrupt, which names
// the page and says whether the state before the last commit is intact; kUnavailable (the disk cannot be read); those
// of LmdbError.
Status CheckDataPages(MDB_env* environment, const std::string& path);

}  // namespace vexa::store
