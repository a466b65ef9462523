// The mark that a host has used a store, in its data folder.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa::store {

// Whether `store_directory` contains a store.
bool HasStore(const std::string& store_directory);

// Refuses to begin with an empty store in place of one that has gone. kUnavailable when `store_directory` does not
// contain a store although `data_directory` has the mark.
Status CheckStoreNotLost(const std::string& data_directory, const std::string& store_directory);

// Sets the mark. Nothing changes when it is set already. Errors: those of WriteFileAtomically.
Status MarkStoreUsed(const std::string& data_directory);

}  // namespace vexa::store
