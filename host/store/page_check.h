// Checks every page that a state of the store uses.
#pragma once

#include "host/base/result.h"
#include "host/store/data_file.h"
#include "host/store/tree_page.h"

namespace vexa::store {

// LMDB trusts its data file: a damaged page number or size leads it out of its memory map and ends the process. This
// check reads each page in use once and finds all that LMDB would stumble over: pages outside of the file, of the wrong
// kind, in use twice or both free and in use, entries that do not fit into their page, keys out of order, trees of
// another depth or number of entries than recorded, lists of free pages that are not ones. What it cannot find is a
// changed byte in a value. When the disk cannot be read, `file` has an error, and the result says nothing.
Result<void, PageDamage> CheckPagesOf(const DataFile& file, const DataMetaPage& meta);

}  // namespace vexa::store
