#include "host/guests/deletion/deletion.h"

#include <syslog.h>

#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/guests/deletion/deletion_job.h"
#include "host/guests/deletion/leftovers.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/guests/jobs/job_record.h"
#include "host/guests/jobs/unfinished_jobs.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kMaxLoggedReasonBytes = 1024;

ResumeJob ResumeDeletion(const DeletionOptions& options) {
  return [&options](const std::string& guest_id, const StoredJob& unfinished) {
    return DeletionJob(options, guest_id).Resume(unfinished);
  };
}

}  // namespace

Result<void, Refusal> Deletion::Delete(const std::string& guest_id, const Requester& requester) {
  return DeletionJob(options_, guest_id).Start(requester);
}

void Deletion::FinishAll() {
  FinishJobs(*options_.store, kDeletionKind, options_.host_id, ResumeDeletion(options_));
  RemoveLeftovers();
}

void Deletion::Finish(const std::string& guest_id) {
  FinishJob(*options_.store, kDeletionKind, options_.host_id, guest_id, ResumeDeletion(options_));
}

std::vector<std::string> Deletion::Unfinished() const {
  return UnfinishedJobs(*options_.store, kDeletionKind, options_.host_id);
}

// Called repeatedly, so the same problem is not logged each time.
void Deletion::RemoveLeftovers() {
  std::map<std::string, std::string> obstacles = guests::RemoveLeftovers(options_);
  const MutexLock lock(logged_mutex_);
  for (const auto& [guest_id, reason] : obstacles) {
    const auto logged = logged_.find(guest_id);
    if (logged != logged_.end() && logged->second == reason) continue;
    ::syslog(LOG_ERR, "The remaining files of the deleted guest[%s] could not be removed: %s",
             SanitizeForLog(guest_id, kMaxLoggedIdBytes).c_str(),
             SanitizeForLog(reason, kMaxLoggedReasonBytes).c_str());
  }
  logged_ = std::move(obstacles);
}

}  // namespace vexa::guests
