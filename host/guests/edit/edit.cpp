#include "host/guests/edit/edit.h"

#include "host/guests/edit/edit_job.h"
#include "host/guests/jobs/edit_record.h"
#include "host/guests/jobs/unfinished_jobs.h"

namespace vexa::guests {
namespace {

ResumeJob ResumeEdit(const EditOptions& options) {
  return [&options](const std::string& guest_id, const StoredJob& unfinished) {
    return EditJob(options, guest_id).Resume(unfinished);
  };
}

}  // namespace

Result<void, Refusal> Edits::Edit(const std::string& guest_id, const Json::Value& edit, const Requester& requester) {
  return EditJob(options_, guest_id).Start(edit, requester);
}

void Edits::FinishAll() { FinishJobs(*options_.store, kEditKind, options_.host_id, ResumeEdit(options_)); }

void Edits::Finish(const std::string& guest_id) {
  FinishJob(*options_.store, kEditKind, options_.host_id, guest_id, ResumeEdit(options_));
}

std::vector<std::string> Edits::Unfinished() const {
  return UnfinishedJobs(*options_.store, kEditKind, options_.host_id);
}

}  // namespace vexa::guests
