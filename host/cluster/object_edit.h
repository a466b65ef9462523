// Changes of records that are JSON objects: read, changed and committed with compares, and made anew when somebody else
// was first. Members that are not known stay.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/cluster/reading.h"
#include "host/store/store.h"

namespace vexa::cluster {

struct StoredObject {
  store::Revision revision = 0;  // 0: there is none
  Json::Value record{Json::objectValue};
};

// kCorrupt when what is stored is no object: others' members may be in it, so it is not overwritten with a guess.
Result<StoredObject> LoadObject(const store::Snapshot& snapshot, const std::string& key);

// Adds to `transaction` that the record is written, unless somebody else has changed it since it was loaded.
void PutObject(store::Transaction& transaction, const std::string& key, const StoredObject& stored);

inline constexpr int kCommitTries = 64;

// Commits what `plan` (a Result<store::Transaction>()) makes of the current state, and asks it again after a conflict.
// A transaction without operations ends it without a commit. The request's snapshot is given back before a commit.
// Errors: what `plan` and the store say; kConflict when others change the same all the time.
template <class Plan>
Status CommitPlanned(store::Store& store, const Plan& plan) {
  std::optional<Error> conflict;
  for (int i = 0; i < kCommitTries; ++i) {
    const Result<store::Transaction> transaction = plan();
    if (!transaction) return transaction.error();
    if (transaction->operations.empty()) return {};
    RequestScope::ReleaseSnapshot();
    const Result<store::Revision> committed = store.Commit(*transaction);
    if (committed) return {};
    if (committed.error().code() != ErrorCode::kConflict) return committed.error();
    conflict = committed.error();
  }
  return *conflict;
}

}  // namespace vexa::cluster
