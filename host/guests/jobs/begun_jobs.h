// Jobs of one kind that have begun and are not finished: what a host does with them when it starts, and periodically.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/guests/jobs/job_record.h"
#include "host/store/store.h"

namespace vexa::guests {

// Goes on with a job of this host whose record is whole. A refusal says why it is not finished.
using ResumeJob = std::function<Refused(const std::string& guest_id, const StoredJob& begun)>;

// Resumes the job of the guest when `host_id` began it. Failures are logged and remain for the next time.
void FinishJob(const store::Store& store, const JobKind& kind, const std::string& host_id, const std::string& guest_id,
               const ResumeJob& resume);
// The same for all guests.
void FinishJobs(const store::Store& store, const JobKind& kind, const std::string& host_id, const ResumeJob& resume);

// The guests with jobs of this kind that `host_id` began. Empty when they cannot be read.
std::vector<std::string> BegunJobs(const store::Store& store, const JobKind& kind, const std::string& host_id);

}  // namespace vexa::guests
