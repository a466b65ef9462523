// Changes of records that are JSON objects: read, changed and committed with compares, and made anew when somebody else
// was first. Members that are not known stay.
#pragma once

#include <json/value.h>

#include <mutex>
#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/records/reading.h"
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

// One that writes without a pause is mid-commit nearly always when others read, and wins nine times in ten.
inline constexpr int kCommitTries = 256;

// Held by a thread of this process that tries again. Without it one of many threads that change the same record can
// come second every time.
std::mutex& RetryMutex();

// Commits what `plan` (a Result<store::Transaction>()) makes of the current state, and asks it again after a conflict.
// A transaction without operations ends it without a commit. The request's snapshot is given back before a commit.
// Errors: what `plan` and the store say; kConflict when others change the same all the time.
template <class Plan>
Status CommitPlanned(store::Store& store, const Plan& plan) {
  std::optional<Error> conflict;
  std::unique_lock turn(RetryMutex(), std::defer_lock);
  for (int i = 0; i < kCommitTries; ++i) {
    const Result<store::Transaction> transaction = plan();
    if (!transaction) return transaction.error();
    if (transaction->operations.empty()) return {};
    RequestScope::ReleaseSnapshot();
    const Result<store::Revision> committed = store.Commit(*transaction);
    if (committed) return {};
    if (committed.error().code() != ErrorCode::kConflict) return committed.error();
    conflict = committed.error();
    if (!turn.owns_lock()) turn.lock();
  }
  return *conflict;
}

}  // namespace vexa::cluster
