// Refuses to begin with an empty or an old store in place of the right one.
#pragma once

#include <string>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::store {

// Whether `store_directory` contains a store.
bool HasStore(const std::string& store_directory);

// The mark "store-used" in a data folder says that its host has used a store, and names both folders. Marks of older
// versions name none.

// kUnavailable when `store_directory` does not contain a store although `data_directory` has the mark. The error says
// what the mark shows: the store of this host is gone, is in another folder, or the mark is from another data folder.
Status CheckStoreNotLost(const std::string& data_directory, const std::string& store_directory);

// Sets the mark; call it when the store is open. Nothing changes when it names these folders already. Errors: those of
// WriteFileAtomically.
Status MarkStoreUsed(const std::string& data_directory, const std::string& store_directory);

// Whether a store may be opened in `primary_directory`. kUnavailable when it has no store although this host has a copy
// of one in `mirror_directory`: a folder that is not mounted looks empty, and an empty store would be created in it.
Status CheckPrimaryExists(const std::string& primary_directory, const std::string& mirror_directory);

// Refuses an empty database that was created where the right one is not mounted, or an old one: it would be copied over
// the last copy of the right one. Errors: kConflict with what to do. A copy that cannot be read is not an error.
Status CheckPrimaryIsNotOlder(const Store& primary, const std::string& mirror_directory);

}  // namespace vexa::store
