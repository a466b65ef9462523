// The embedded store: one LMDB environment in a folder.
#pragma once

#include <memory>
#include <string>

#include "host/store/store.h"

namespace vexa::store {

// How to detect that the files of an open store are gone; see store_place.h.
enum class PlaceCheck {
  kPath,  // another file, or none, is in their place
  kFile,  // also a file that cannot be read within 1.5 s: for stores with a fallback to read from
};

struct LmdbOptions {
  std::string directory;                                 // created (0700) when missing; its files are 0600
  std::size_t initial_map_bytes = std::size_t{1} << 30;  // address space, not memory or disk; grows automatically
  std::size_t change_log_length = 100'000;               // commits that a watch can look back on
  PlaceCheck place_check = PlaceCheck::kFile;
};

// Opens the store, creating it when the folder is empty. Clears reader slots that dead processes left behind. One
// environment per folder and process: opening a folder that this process already has open returns the same store, with
// its original options. After fork(2), the child must not use a store of its parent, whose calls return kUnavailable
// there; it must open the folder itself.
// Errors: kCorrupt (not a store of ours, or a damaged head; deeper damage is found when it is read), kDenied,
// kNoSpace, kInvalid (no folder given), kConflict (a file is in the folder's place), kInternal.
Result<std::shared_ptr<Store>> OpenLmdbStore(const LmdbOptions& options);

}  // namespace vexa::store
