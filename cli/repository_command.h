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

// A line each: id, host's id, state, name; or with `as_json` an array of the records with their ids.
enum class RepositoryForm { kLines, kJson };
Status ListRepositories(store::Store& store, RepositoryForm form, std::ostream& out);

}  // namespace vexa::cli
