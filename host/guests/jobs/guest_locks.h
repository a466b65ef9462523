// Who holds a guest. Conflicting jobs begin with a commit that compares that the guest is free, so that of two hosts
// that begin at the same time one fails.
//
//   /run/<guest id>       a host has the guest: it runs there, or its saved memory is there (run_record.h)
//   /deletion/<guest id>  a deletion of the guest is not finished (deletion_record.h)
//   /edit/<guest id>      an edit of the guest that touches files is not finished (edit_record.h)
#pragma once

#include <initializer_list>
#include <string>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::guests {

enum class GuestLock { kRun, kDeletion, kEdit };

// Adds compares that the guest is free of all locks except those in `except`, which the caller compares, or which may
// be held.
void CompareFree(store::Transaction& transaction, const std::string& guest_id,
                 std::initializer_list<GuestLock> except = {});

// Whether any lock of the guest is held. Errors: those of the store.
Result<bool> IsHeld(const store::Snapshot& snapshot, const std::string& guest_id);

// Why no job can begin on a guest while a deletion or an edit of it is not finished: 915; the reason names the user and
// the time. Not set: there is no such job. Errors: those of the store.
Result<Refused> FindJob(const store::Snapshot& snapshot, const std::string& guest_id);

// The same for the current state of the store; 901 when that cannot be read.
Refused JobUnderWay(const store::Store& store, const std::string& guest_id);

}  // namespace vexa::guests
