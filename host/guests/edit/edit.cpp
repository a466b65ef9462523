#include "host/guests/edit/edit.h"

#include <variant>

#include "host/guests/edit/edit_job.h"
#include "host/guests/jobs/edit_record.h"
#include "host/guests/jobs/unfinished_jobs.h"

namespace vexa::guests {
namespace {

ResumeJob ResumeEdit(const EditOptions& options) {
  return [&options](const std::string& guest_id, const StoredJob& unfinished) {
    return EditJob(kEditKind, options, guest_id).Resume(unfinished);
  };
}

}  // namespace

Result<void, Refusal> Edits::Edit(const std::string& guest_id, const Json::Value& edit, const Requester& requester) {
  auto request = ParseEdit(edit);
  if (auto* refusal = std::get_if<Refusal>(&request)) return std::move(*refusal);
  return EditJob(kEditKind, options_, guest_id).Start(std::get<EditRequest>(request), requester);
}

void Edits::FinishAll() { FinishJobs(*options_.store, kEditKind, options_.host_id, ResumeEdit(options_)); }

void Edits::Finish(const std::string& guest_id) {
  FinishJob(*options_.store, kEditKind, options_.host_id, guest_id, ResumeEdit(options_));
}

std::vector<std::string> Edits::Unfinished() const {
  return UnfinishedJobs(*options_.store, kEditKind, options_.host_id);
}

}  // namespace vexa::guests
