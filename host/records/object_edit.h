// Changes records that are JSON objects: they are read, changed and committed with compares, and the change is repeated
// when another writer was first. Unknown members are kept.
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
  store::Revision revision = 0;  // 0: absent
  Json::Value record{Json::objectValue};
};

// kCorrupt when the stored value is not an object: it may contain others' members, so it is not overwritten with a
// guess.
Result<StoredObject> LoadObject(const store::Snapshot& snapshot, const std::string& key);

// Adds to `transaction` that the record is written, unless it has changed since it was loaded.
void PutObject(store::Transaction& transaction, const std::string& key, const StoredObject& stored);

// A writer that never pauses is nearly always in mid-commit when others read, and wins nine times out of ten.
inline constexpr int kCommitTries = 256;

// Held by a thread of this process while it retries. Without it, one of many threads that change the same record could
// lose every time.
std::mutex& RetryMutex();

// Commits the result of `plan` (a Result<store::Transaction>()) for the current state, and calls it again after a
// conflict. A transaction without operations ends the loop without a commit. The request's snapshot is released before
// a commit. Errors: those of `plan` and the store; kConflict when the record keeps changing.
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
