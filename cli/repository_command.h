// vexa repository: where guests' disks are.
#pragma once

#include <iosfwd>
#include <string>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::cli {

struct NewRepository {
  std::string name;     // 1 to 128 bytes of UTF-8 without control characters
  std::string id;       // a UUID; empty: a random one
  std::string host_id;  // the host that has its disks, a UUID
};

// Writes the record of a repository, in the state "online", and its id to `out`. kInvalid for texts that cannot be;
// kConflict when a repository has the id or the name already.
Status AddRepository(const NewRepository& repository, store::Store& store, std::ostream& out);

// Has the host of the repository with this id, else of this name, take the storage as it is now: what was known of its
// folders is forgotten, and learned again from the files that are there. kNotFound when there is no such repository,
// kConflict when several have the name.
Status AcceptStorage(const std::string& repository, store::Store& store, std::ostream& out);

// A line each: id, host's id, state, name; or an array of the records with their ids, and with what is known of the
// storage: {"folders": {folder: identity}} and, while it cannot be used, "not_mounted": [folder, …], "reason", "since"
// (Unix seconds). The state is the one that the repository is in now, not what its record says.
enum class RepositoryForm { kLines, kJson };
Status ListRepositories(store::Store& store, RepositoryForm form, std::ostream& out);

}  // namespace vexa::cli
