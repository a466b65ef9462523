#include "host/guests/deletion/deletion.h"

#include <syslog.h>

#include <utility>

#include "host/base/log_text.h"
#include "host/guests/deletion/deletion_job.h"
#include "host/guests/deletion/leftovers.h"
#include "host/guests/jobs/begun_jobs.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/guests/jobs/job_record.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kShownReason = 1024;

ResumeJob ResumeDeletion(const DeletionOptions& options) {
  return [&options](const std::string& guest_id, const StoredJob& begun) {
    return DeletionJob(options, guest_id).Resume(begun);
  };
}

}  // namespace

Refused Deletion::Delete(const std::string& guest_id, const Requester& requester) {
  return DeletionJob(options_, guest_id).Start(requester);
}

void Deletion::FinishAll() {
  FinishJobs(*options_.store, kDeletionKind, options_.host_id, ResumeDeletion(options_));
  RemoveLeftovers();
}

void Deletion::Finish(const std::string& guest_id) {
  FinishJob(*options_.store, kDeletionKind, options_.host_id, guest_id, ResumeDeletion(options_));
}

std::vector<std::string> Deletion::Begun() const { return BegunJobs(*options_.store, kDeletionKind, options_.host_id); }

// Called repeatedly, so the same problem is not logged each time.
void Deletion::RemoveLeftovers() {
  std::map<std::string, std::string> in_the_way = guests::RemoveLeftovers(options_);
  const std::lock_guard lock(told_mutex_);
  for (const auto& [guest_id, reason] : in_the_way) {
    const auto told = told_.find(guest_id);
    if (told != told_.end() && told->second == reason) continue;
    ::syslog(LOG_ERR, "Files that are left of the deleted guest[%s] could not be removed: %s",
             cluster::LogText(guest_id, kShownId).c_str(), cluster::LogText(reason, kShownReason).c_str());
  }
  told_ = std::move(in_the_way);
}

}  // namespace vexa::guests
