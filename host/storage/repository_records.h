// The repositories of the cluster, as administrators manage them: where guests' disks are, and on which host.
//
// A record is {"name", "host_id", "state"}. Its state is the one that an administrator gave the repository; what the
// repository's host finds out about the storage is stored beside it, see storage_record.h.
// Threads: any, at the same time; hosts as well.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/storage/repository_space.h"
#include "host/store/store.h"

namespace vexa::storage {

struct NewRepository {
  std::string name;     // see records::IsRecordName
  std::string id;       // a UUID; empty: a random one
  std::string host_id;  // the host that has its disks, a UUID
};

// Checks the form of the members; the host may still be undecided (""). Errors: kInvalid with a sentence. Reads nothing
// from the store.
Status CheckRepository(const NewRepository& repository);

// Adds the record of a repository that CheckRepository accepts and that has a host, and sets `id` to its id.
// Refusals: records::kRecordExists (a repository has the id or the name already); kNotFoundOrUnreadable (the cluster
// has no record of the host, or it is removed before this commits); kRecordFailed.
Result<void, Refusal> AddRepository(store::Store& store, const NewRepository& repository, std::string& id);

struct ListedRepository {
  std::string id;
  std::string name;     // "" when the record has none
  std::string host_id;  // the same
  std::string state;    // the current VexaCCC::State::Repo; the same
  // What is stored about the folders with its disks: StorageJson(), or {"reason"} when it cannot be read. Null
  // when nothing is stored.
  Json::Value storage;
  std::optional<RepositorySpace> space;  // not set: unknown
};

// All repositories, by id. Errors: those of the store.
Result<std::vector<ListedRepository>> ListRepositories(const store::Store& store);

// Removes the record of a repository and what is stored about its storage. Files stay. Sets `name` to the name of
// the repository, also when it refuses, or to "" when there is no such repository.
// Refusals: kNotFoundOrUnreadable (there is no such repository); records::kRecordInUse (guests, disks or deletions that
// are not finished refer to it; the sentence names up to ten of them); kRecordFailed.
Result<void, Refusal> RemoveRepository(store::Store& store, const std::string& id, std::string& name);

// Accepts the storage as it is now: forgets the stored folder identities, which the next check learns from the existing
// files. Sets `name` like RemoveRepository. Having nothing to forget is not an error.
// Refusals: kNotFoundOrUnreadable (there is no such repository); kRecordFailed.
Result<void, Refusal> AcceptStorage(store::Store& store, const std::string& id, std::string& name);

}  // namespace vexa::storage
