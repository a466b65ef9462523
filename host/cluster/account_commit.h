// Commits changes of accounts and grants. A failure of the store itself is always kUnavailable: its own kDenied
// would be read as grants of another name, its kConflict as a name that is taken.
#pragma once

#include "host/base/result.h"
#include "host/records/object_edit.h"
#include "host/store/store.h"

namespace vexa::cluster {

// kUnavailable, with the store's error as the cause.
inline Error StoreFailure(const Error& cause) {
  return Error(ErrorCode::kUnavailable, "The accounts and grants cannot be read or written", cause.ToString());
}

// As CommitWithRetry: errors of `plan` are returned as they are, those of the commits as StoreFailure.
template <class Plan>
Status CommitAccountChange(store::Store& store, const Plan& plan) {
  bool is_refused = false;
  const Status committed = records::CommitWithRetry(store, [&](const records::Reader& reader) {
    Result<store::Transaction> transaction = plan(reader);
    is_refused = !transaction.ok();
    return transaction;
  });
  return committed || is_refused ? committed : StoreFailure(committed.error());
}

}  // namespace vexa::cluster
