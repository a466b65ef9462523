// What is stored about the storage of a repository's disks.
//
//   /dash/repository/<id>/storage   {"host_id": whose folders these are, "folders": {folder: identity} (a FolderChain),
//                                    and while something is wrong with it: "trouble" (the resulting state),
//                                    "reason": a clause, "since" (Unix seconds), "not_mounted": [folder, …] of a
//                                    repository that is unavailable, "written" (the state stored under the next
//                                    key, if any), "state_before" (the earlier text of the next key, if any)}
//   /dash/repository/<id>/state     the state while the problem lasts. It overrides the state in the repository's
//   record,
//                                    which belongs to an administrator and stays unchanged. A state that is already
//                                    worse is kept, except for storage that cannot be used at all.
//
// Only the repository's host writes these keys. Any host deletes them when an administrator accepts the storage as it
// is, or removes the repository (repository_records.h). The knowledge of a former host of the repository is ignored.
// Threads: any, at the same time; processes as well.
#pragma once

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/storage/folder_chain.h"
#include "host/store/store.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::storage {

std::string StorageKey(const std::string& repository_id);
std::string RepositoryStateKey(const std::string& repository_id);

// What is wrong with a repository's storage.
struct StorageProblem {
  std::vector<std::string> folders;  // where it was found; empty when the storage does not respond
  std::string reason;                // a clause: "the folder '…' is not the folder that holds its disks"
  std::chrono::system_clock::time_point since;
  std::string state = VexaCCC::State::Repo::unavailable;  // of the repository
};

// The record at StorageKey().
struct Storage {
  store::Revision revision = 0;  // 0: nothing is known
  std::string host_id;
  FolderChain folders;
  std::optional<StorageProblem> problem;
  std::optional<std::string> written;       // the state that was stored under RepositoryStateKey() for the problem
  std::optional<std::string> state_before;  // the value that it replaced, as JSON text
};

// The record without the host and the earlier state, for display.
Json::Value StorageJson(const Storage& storage);

// Errors: kCorrupt (the record is not an object; `vexa repository accept` removes it), and those of the store.
Result<Storage> ReadStorage(const store::Snapshot& snapshot, const std::string& repository_id);
// The folders of the repository as `host_id` knows them. Errors: those of ReadStorage.
Result<FolderChain> KnownFolders(const store::Store& store, const std::string& repository_id,
                                 const std::string& host_id);

// The result of a check of a repository's storage.
struct StorageUpdate {
  store::Revision based_on = 0;             // the Storage::revision that was checked
  FolderChain learned;                      // folders with files whose identities were not stored yet
  std::set<std::string, std::less<>> used;  // the stored folders that disks and guests still use; all others are
                                            // forgotten
  std::optional<StorageProblem> problem;    // its `since` is ignored when the problem already existed
};

// Writes the changes. Writes nothing when the record has changed since `update.based_on`, or the repository no longer
// belongs to the host: the next check starts from the new record. Returns the storage before and after, which are equal
// when nothing was written. Errors: those of ReadStorage and the store.
struct StorageChange {
  Storage before;
  Storage after;
  std::string state;  // of the repository, as readers see it now; "" when it does not belong to this host
};
Result<StorageChange> UpdateStorage(store::Store& store, const std::string& repository_id, const std::string& host_id,
                                    const StorageUpdate& update);

// Removes the stored knowledge, even a damaged record, and restores the state. The next check learns the folders that
// contain files by then. It is not an error when nothing is known. Errors: those of the store.
Status ForgetStorage(store::Store& store, const std::string& repository_id);

}  // namespace vexa::storage
