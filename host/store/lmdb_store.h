// The embedded store: one LMDB environment in a folder.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "host/store/store.h"

namespace vexa::store {

// What StoreFileCheck (store_file_check.h) checks while a store is open.
enum class FileCheckMode {
  kPath,  // the path leads to the file that was opened
  kFile,  // also, the file can be read within 1.5 s: for stores with a copy to fall back to
};

// The size of the memory map, and so the most that a store can hold. LMDB's documentation (lmdb.h,
// mdb_env_set_mapsize) advises to choose it as large as possible, because a map cannot grow while transactions use it.
// The map costs address space only: its file is as long as what was written, pages take memory when they are touched,
// and a container counts those, not the map. 64 GiB are more than ten times what the records of 100,000 guests take,
// and small beside the 128 TiB of a process on amd64 and the 256 TiB on arm64; a few stores still fit into what a
// thread sanitizer leaves of the address space. Only a limit on the address space (`ulimit -v`, LimitAS=) can be in the
// way.
inline constexpr std::size_t kStoreMapBytes = std::size_t{64} << 30;
static_assert(sizeof(std::size_t) == 8, "A 32-bit process has no address space for the map of a store");

struct LmdbOptions {
  std::string directory;                    // created (0700) when missing; its files are 0600
  std::size_t map_bytes = kStoreMapBytes;   // a multiple of the page size; a file that is larger is mapped as a whole
  std::size_t change_log_length = 100'000;  // commits that a watch can look back on
  FileCheckMode file_check_mode = FileCheckMode::kFile;
  std::chrono::milliseconds commit_timeout{10'000};         // until a commit that cannot be started is taken back
  std::chrono::milliseconds reader_check_interval{60'000};  // for slots of readers that were killed
};

// Opens the store, creating it when the folder is empty. Clears reader slots that dead processes left behind. One
// environment per folder and process: opening a folder that this process already has open returns the same store, with
// its original options. A process forks only while it has no store open, or to exec another program.
// Every page in use is checked once, without keeping other processes from opening the store. Errors: kCorrupt (not a
// store of ours, another format, or damaged), kDenied, kNoSpace (the disk is full, or the map does not fit into the
// address space), kInvalid (no folder given), kConflict (a file has the folder's name), kUnavailable (another process
// has been opening it for 10 s, the disk cannot be read, or a thread cannot be started), kInternal.
Result<std::shared_ptr<Store>> OpenLmdbStore(const LmdbOptions& options);

}  // namespace vexa::store
