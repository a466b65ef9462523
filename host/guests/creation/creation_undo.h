// Removes the records of a guest whose creation, or import with copies, has not reached its point of no return.
#pragma once

#include <chrono>
#include <string>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/guests/jobs/file_job.h"
#include "host/records/reader.h"
#include "host/store/store.h"

namespace vexa::guests {

// Adds to `transaction` that the guest's record goes, with its live state, and that its numbered request has failed
// with `refusal`. False, and adds nothing: there is no record of this guest in the state "creating" or "importing".
// Errors: those of the store.
Result<bool> AddCreationUndo(const store::Snapshot& snapshot, const std::string& guest_id, const Refusal& refusal,
                             std::chrono::system_clock::time_point now, store::Transaction& transaction);

// Commits it, as a step of `job`; does nothing when the job's record was removed or replaced elsewhere: then the
// guest's record is not of this job. Can be repeated.
Status UndoCreation(const FileJob& job, const JobOptions& options, const std::string& guest_id, const Refusal& refusal);

}  // namespace vexa::guests
