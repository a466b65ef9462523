// The embedded store: one LMDB environment in a folder.
#pragma once

#include <memory>
#include <string>

#include "host/store/store.h"

namespace vexa::store {

struct LmdbOptions {
  std::string directory;                                  // created (0700) when missing; its files are 0600
  std::size_t initial_map_bytes = std::size_t{64} << 20;  // grows by itself
  std::size_t change_log_length = 100'000;                // commits that a watch can look back on
};

// Opens the store, creating it when the folder is empty. Clears reader slots that dead processes left behind.
// One environment per folder and process: opening a folder that this process has open returns the same store.
// Errors: kCorrupt (no store of ours, or damaged), kDenied, kNoSpace, kInternal.
Result<std::shared_ptr<Store>> OpenLmdbStore(const LmdbOptions& options);

}  // namespace vexa::store
