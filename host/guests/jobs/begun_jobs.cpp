#include "host/guests/jobs/begun_jobs.h"

#include <syslog.h>

#include <optional>

#include "host/base/log_text.h"
#include "host/guests/jobs/job_record.h"
#include "host/store/key.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kShownReason = 1024;

Result<std::optional<StoredJob>> ReadOne(const store::Store& store, const JobKind& kind, const std::string& guest_id) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  return ReadJob(**snapshot, kind, guest_id);
}

Result<std::vector<std::string>> ReadGuestIds(const store::Store& store, const JobKind& kind) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  return (*snapshot)->Children(store::MakeKey({kind.folder}));
}

void LogNotFinished(const JobKind& kind, const std::string& guest_id, const std::string& reason) {
  ::syslog(LOG_ERR, "The %s of guest[%s] that was begun is not finished: %s", kind.word,
           cluster::LogText(guest_id, kShownId).c_str(), cluster::LogText(reason, kShownReason).c_str());
}

}  // namespace

void FinishJob(const store::Store& store, const JobKind& kind, const std::string& host_id, const std::string& guest_id,
               const ResumeJob& resume) {
  const auto stored = ReadOne(store, kind, guest_id);
  if (!stored) return LogNotFinished(kind, guest_id, stored.error().ToString());
  if (!*stored) return;
  if (!(*stored)->record) {
    return LogNotFinished(kind, guest_id, "the record of it is damaged and is left as it is");
  }
  if ((*stored)->record->host_id != host_id) return;
  if (const Refused refused = resume(guest_id, **stored)) LogNotFinished(kind, guest_id, refused->reason);
}

void FinishJobs(const store::Store& store, const JobKind& kind, const std::string& host_id, const ResumeJob& resume) {
  const auto ids = ReadGuestIds(store, kind);
  if (!ids) {
    ::syslog(LOG_ERR, "%s that were begun cannot be finished: %s", kind.titles, ids.error().ToString().c_str());
    return;
  }
  for (const std::string& id : *ids) FinishJob(store, kind, host_id, id, resume);
}

std::vector<std::string> BegunJobs(const store::Store& store, const JobKind& kind, const std::string& host_id) {
  std::vector<std::string> begun;
  const auto ids = ReadGuestIds(store, kind);
  if (!ids) return begun;
  for (const std::string& id : *ids) {
    const auto stored = ReadOne(store, kind, id);
    const bool is_ours = stored && *stored && (*stored)->record && (*stored)->record->host_id == host_id;
    if (is_ours) begun.push_back(id);
  }
  return begun;
}

}  // namespace vexa::guests
