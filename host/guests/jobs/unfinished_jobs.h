// Finds and resumes unfinished jobs of one kind. A host does that when it starts, and periodically.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/guests/jobs/job_record.h"
#include "host/store/store.h"

namespace vexa::guests {

// Resumes a job of this host whose record is intact. Refuses with the reason when the job is still not finished.
using ResumeJob = std::function<Result<void, Refusal>(const std::string& guest_id, const StoredJob& unfinished)>;

// Resumes the job of the guest when `host_id` started it. Failures are logged and remain for the next time.
void FinishJob(const store::Store& store, const JobKind& kind, const std::string& host_id, const std::string& guest_id,
               const ResumeJob& resume);
// The same for all guests.
void FinishJobs(const store::Store& store, const JobKind& kind, const std::string& host_id, const ResumeJob& resume);

// The guests with jobs of this kind that `host_id` started. Empty when they cannot be read.
std::vector<std::string> UnfinishedJobs(const store::Store& store, const JobKind& kind, const std::string& host_id);

}  // namespace vexa::guests
