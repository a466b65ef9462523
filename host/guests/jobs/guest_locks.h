// The locks of a guest, which are records in the store. Conflicting jobs begin with a commit that compares that the
// guest is free, so that one of two hosts that begin at the same time fails.
//
//   /run/<guest id>       a host holds the guest: it runs there, or its saved memory is there (run_record.h)
//   /deletion/<guest id>  a deletion of the guest is not finished (deletion_record.h)
//   /edit/<guest id>      an edit of the guest that touches files is not finished (edit_record.h)
//   /creation/<guest id>  the guest is being created or imported (creation_record.h)
#pragma once

#include <initializer_list>
#include <optional>
#include <string>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::guests {

enum class GuestLock { kRun, kDeletion, kEdit, kCreation };

// Adds compares that the guest has no locks except for those in `except`, which are not compared.
void CompareFree(store::Transaction& transaction, const std::string& guest_id,
                 std::initializer_list<GuestLock> except = {});

// The first lock of the guest, in the order above, that is held. Not set: the guest is free. Errors: those of the
// store.
Result<std::optional<GuestLock>> FindLock(const store::Snapshot& snapshot, const std::string& guest_id);

// The refusal 915 if a deletion or an edit of the guest is not finished; its reason names the user and the time. Not
// set: there is no unfinished job. Errors: those of the store.
Result<std::optional<Refusal>> FindJob(const store::Snapshot& snapshot, const std::string& guest_id);

// The same for the newest state of the store. Refusals: 915, and 901 when the store cannot be read.
Result<void, Refusal> CheckNoUnfinishedJob(const store::Store& store, const std::string& guest_id);

}  // namespace vexa::guests
