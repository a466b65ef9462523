// Changes records that are JSON objects: they are read, changed and committed with compares, and the change is repeated
// when another writer was first. Unknown members are kept.
#pragma once

#include <json/value.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "host/base/mutex.h"
#include "host/base/result.h"
#include "host/records/request_scope.h"
#include "host/store/store.h"

namespace vexa::records {

struct StoredObject {
  store::Revision revision = 0;  // 0: absent
  Json::Value record{Json::objectValue};
};

// The object under `key`; revision 0 and an empty object when absent. Errors: those of the store; kCorrupt when the
// stored value is not an object: it is not overwritten, because what it contained is unknown.
Result<StoredObject> LoadObject(const store::Snapshot& snapshot, const std::string& key);

// Adds to `transaction` a write of the record, and a compare that fails when it has changed since it was loaded.
void PutObject(store::Transaction& transaction, const std::string& key, const StoredObject& stored);

// A writer that never pauses wins most races against the others, so many attempts are needed. The pauses between them
// grow by a millisecond every 16 attempts: 2 s in all.
inline constexpr int kMaxCommitAttempts = 256;

// Held by a thread of this process while it retries. Without it, one of many threads that change the same record could
// starve.
Mutex& RetryMutex();

// The result of `plan` for the latest state of `store`; the reader passed to it is closed on return.
template <class Plan>
Result<store::Transaction> PlanOnLatestState(const store::Store& store, const Plan& plan) {
  const Result<Reader> reader = Reader::Open(store);
  if (!reader) return reader.error();
  return plan(*reader);
}

// One attempt of CommitWithRetry. Not set: a conflict, which is stored in `conflict`.
template <class Plan>
std::optional<Status> TryCommit(store::Store& store, const Plan& plan, std::optional<Error>& conflict) {
  const Result<store::Transaction> transaction = PlanOnLatestState(store, plan);
  if (!transaction) return transaction.error();
  if (transaction->operations.empty()) return Status();
  const Result<store::Revision> committed = store.Commit(*transaction);
  if (committed) return Status();
  if (committed.error().code() != ErrorCode::kConflict) return committed.error();
  conflict = committed.error();
  return std::nullopt;
}

// Commits the result of `plan` (a Result<store::Transaction>(const Reader&)) for the latest state, and calls it again
// with a new reader after a conflict. A transaction without operations ends the loop without a commit. No reader is
// open during a commit: the plan's is closed before it, and the thread's RequestScope is paused. Errors: those of
// `plan` and the store; kConflict when the record keeps changing.
template <class Plan>
Status CommitWithRetry(store::Store& store, const Plan& plan) {
  const RequestPause pause;
  std::optional<Error> conflict;
  if (std::optional<Status> done = TryCommit(store, plan, conflict)) return *std::move(done);
  const MutexLock turn(RetryMutex());
  for (int i = 1; i < kMaxCommitAttempts; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(i / 16));
    if (std::optional<Status> done = TryCommit(store, plan, conflict)) return *std::move(done);
  }
  return *conflict;
}

}  // namespace vexa::records
