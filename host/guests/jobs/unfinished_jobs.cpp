#include "host/guests/jobs/unfinished_jobs.h"

#include <syslog.h>

#include <optional>

#include "host/base/sanitize_for_log.h"
#include "host/guests/jobs/job_record.h"
#include "host/store/key.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kMaxLoggedReasonBytes = 1024;

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
  ::syslog(LOG_ERR, "The %s of guest[%s] that was started earlier is not finished: %s", kind.noun,
           SanitizeForLog(guest_id, kMaxLoggedIdBytes).c_str(), SanitizeForLog(reason, kMaxLoggedReasonBytes).c_str());
}

}  // namespace

void FinishJob(const store::Store& store, const JobKind& kind, const std::string& host_id, const std::string& guest_id,
               const ResumeJob& resume) {
  const auto stored = ReadOne(store, kind, guest_id);
  if (!stored) return LogNotFinished(kind, guest_id, stored.error().ToString());
  if (!*stored) return;
  if (!(*stored)->record) {
    return LogNotFinished(kind, guest_id, "the record of it is damaged and was left unchanged");
  }
  if ((*stored)->record->host_id != host_id) return;
  if (const auto allowed = resume(guest_id, **stored); !allowed.ok())
    LogNotFinished(kind, guest_id, allowed.error().reason);
}

void FinishJobs(const store::Store& store, const JobKind& kind, const std::string& host_id, const ResumeJob& resume) {
  const auto ids = ReadGuestIds(store, kind);
  if (!ids) {
    ::syslog(LOG_ERR, "Unfinished %s cannot be completed: %s", kind.plural, ids.error().ToString().c_str());
    return;
  }
  for (const std::string& id : *ids) FinishJob(store, kind, host_id, id, resume);
}

std::vector<std::string> UnfinishedJobs(const store::Store& store, const JobKind& kind, const std::string& host_id) {
  std::vector<std::string> unfinished;
  const auto ids = ReadGuestIds(store, kind);
  if (!ids) return unfinished;
  for (const std::string& id : *ids) {
    const auto stored = ReadOne(store, kind, id);
    const bool is_ours = stored && *stored && (*stored)->record && (*stored)->record->host_id == host_id;
    if (is_ours) unfinished.push_back(id);
  }
  return unfinished;
}

}  // namespace vexa::guests
