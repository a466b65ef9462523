// The repositories of the cluster, as administrators manage them: where guests' disks are, and on which host.
//
// A record is {"name", "host_id", "state"}. Its state is the one without a problem; storage_record.h has what the
// repository's host finds out about its storage.
// Threads: any, at the same time; hosts as well.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::guests {

struct NewRepository {
  std::string name;     // see cluster::IsRecordName
  std::string id;       // a UUID; empty: a random one
  std::string host_id;  // the host that has its disks, a UUID
};

// Whether the texts have these forms; kInvalid with a sentence when not. The host may still be open (""). Reads
// nothing.
Status CheckRepository(const NewRepository& repository);

// Adds the record of a repository that CheckRepository accepts and that has a host, and returns its id in `id`.
// Refusals: cluster::kRecordExists (a repository has the id or the name already); kUnreadable (the cluster has no
// record of the host, or not any more when this commits); kRecordFailed.
Refused AddRepository(store::Store& store, const NewRepository& repository, std::string& id);

struct ListedRepository {
  std::string id;
  std::string name;     // "" when the record has none
  std::string host_id;  // the same
  std::string state;    // the text of VexaCCC::State::Repo that holds now; the same
  // What is known of the folders with its disks: StorageJson(), or {"reason"} when that cannot be read. Null: nothing.
  Json::Value storage;
};

// All repositories, by id. Errors: what the store says.
Result<std::vector<ListedRepository>> ListRepositories(const store::Store& store);

// Removes the record of a repository, and what is known of its storage. Files stay. `name` becomes what the repository
// is called, also after a refusal, or "" when there is no such repository.
// Refusals: kUnreadable (there is no such repository); cluster::kRecordInUse (guests, disks or deletions that are not
// finished name it; the sentence names up to ten of them); kRecordFailed.
Refused RemoveRepository(store::Store& store, const std::string& id, std::string& name);

// Has the repository's host take the storage as it is now: what was known of its folders is forgotten, and learned
// again from the files that are there. `name` as above. Not an error: nothing was known.
// Refusals: kUnreadable (there is no such repository); kRecordFailed.
Refused AcceptStorage(store::Store& store, const std::string& id, std::string& name);

}  // namespace vexa::guests
