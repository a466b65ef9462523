// The unfinished jobs of a host that is gone for good: nobody else could finish or undo them.
#pragma once

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::guests {

struct AbandonedJobs {
  std::set<std::string> removed_guests;  // while they were created or imported
  std::vector<std::string> notes;        // sentences for the log, about files that may be left
};

// Adds to `transaction` that the creations, edits and deletions which `host_id` has begun end: a guest that was being
// created or imported is removed, and every other guest is free with the records that it has. Files are on the host
// that is gone, and are left alone. Damaged records of jobs stay. Errors: those of the store.
Result<AbandonedJobs> AddAbandonedJobs(const store::Snapshot& snapshot, const std::string& host_id,
                                       std::chrono::system_clock::time_point now, store::Transaction& transaction);

}  // namespace vexa::guests
