// What is known of the storage that a repository's disks are in.
//
//   /dash/repository/<id>/storage   {"host_id": whose folders these are, "folders": {folder: identity} (a trail),
//                                    and while something is wrong with it: "trouble" (the state that it makes),
//                                    "reason": a clause, "since" (Unix seconds), "not_mounted": [folder, …] of a
//                                    repository that is unavailable, "written" (the state that was put under the next
//                                    key, if any), "state_before" (the text of the next key before, if any)}
//   /dash/repository/<id>/state     the state as long. It goes before the state in the repository's record, which is an
//                                    administrator's and stays as it is. A state that is worse already stays, but for
//                                    storage that cannot be used at all.
//
// Only the host of the repository writes these keys. Any host takes them back when an administrator accepts the storage
// as it is, or removes the repository (repository_records.h). Knowledge of a host whose repository it no longer is
// counts as none.
// Threads: any, at the same time; processes as well.
#pragma once

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/storage/storage_trail.h"
#include "host/store/store.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::guests {

std::string StorageKey(const std::string& repository_id);
std::string RepositoryStateKey(const std::string& repository_id);

// What is wrong with a repository's storage.
struct StorageTrouble {
  std::vector<std::string> folders;  // that it was found by; none when nothing answers
  std::string reason;                // a clause: "the folder '…' is not the one that its disks are in"
  std::chrono::system_clock::time_point since;
  std::string state = VexaCCC::State::Repo::unavailable;  // that the repository is in
};

struct Storage {
  store::Revision revision = 0;  // 0: nothing is known
  std::string host_id;
  Trail folders;
  std::optional<StorageTrouble> trouble;
  std::optional<std::string> written;       // the state that was put under RepositoryStateKey() for the trouble
  std::optional<std::string> state_before;  // the text that it took the place of
};

// The record without the host and the earlier state, for people.
Json::Value StorageJson(const Storage& storage);

// Errors: kCorrupt (the record is not an object; `vexa repository accept` removes it), and what the store says.
Result<Storage> ReadStorage(const store::Snapshot& snapshot, const std::string& repository_id);
// The folders of the repository as `host_id` knows them. Errors: as ReadStorage.
Result<Trail> KnownFolders(const store::Store& store, const std::string& repository_id, const std::string& host_id);

// What a look at a repository's storage has brought.
struct StorageNews {
  store::Revision seen = 0;                 // Storage::revision that it is about
  Trail learned;                            // folders that files are in and that were not known
  std::set<std::string, std::less<>> used;  // of what is known, what disks and guests still use; all else is forgotten
  std::optional<StorageTrouble> trouble;    // `since` counts when it is new
};

// Writes what has changed, and nothing when somebody else has written meanwhile, or the repository is no longer this
// host's: the next look is about that. What it returns is the storage before and after, which are equal when nothing
// was written. Errors: as ReadStorage; what the store says.
struct StorageChange {
  Storage before;
  Storage after;
  std::string state;  // of the repository, as readers see it now; "" when it is not this host's
};
Result<StorageChange> UpdateStorage(store::Store& store, const std::string& repository_id, const std::string& host_id,
                                    const StorageNews& news);

// Forgets all of it, also of a damaged record, and takes the state back: the next look learns the folders that files
// are in by then. Not an error: nothing is known. Errors: what the store says.
Status ForgetStorage(store::Store& store, const std::string& repository_id);

}  // namespace vexa::guests
