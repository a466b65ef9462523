// How accounts and grants use the store: a failure of the store itself is always kUnavailable. Its codes would
// otherwise be taken for refusals: kDenied for grants of another name, kConflict for a name that is taken.
#pragma once

#include "host/base/result.h"
#include "host/records/object_edit.h"
#include "host/store/store.h"

namespace vexa::cluster {

// kUnavailable, with what the store says as the cause.
inline Error StoreFailure(const Error& cause) {
  return Error(ErrorCode::kUnavailable, "The accounts and grants cannot be read or written", cause.ToString());
}

// As CommitPlanned: errors of `plan` are returned as they are, those of the commits as StoreFailure.
template <class Plan>
Status CommitAccountChange(store::Store& store, const Plan& plan) {
  bool is_refused = false;
  const Status committed = CommitPlanned(store, [&] {
    Result<store::Transaction> transaction = plan();
    is_refused = !transaction.ok();
    return transaction;
  });
  return committed || is_refused ? committed : StoreFailure(committed.error());
}

}  // namespace vexa::cluster
