#include "host/guests/deletion/deletion.h"

#include <syslog.h>

#include <utility>

#include "host/base/log_text.h"
#include "host/guests/deletion/deletion_job.h"
#include "host/guests/deletion/leftovers.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/store/key.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kShownId = 64;
constexpr std::size_t kShownReason = 1024;

Result<std::optional<StoredDeletion>> ReadOne(const store::Store& store, const std::string& guest_id) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  return ReadDeletion(**snapshot, guest_id);
}

Result<std::vector<std::string>> ReadGuestIds(const store::Store& store) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  return (*snapshot)->Children(store::MakeKey({"deletion"}));
}

void LogNotFinished(const std::string& guest_id, const std::string& reason) {
  ::syslog(LOG_ERR, "The deletion of guest[%s] that was begun is not finished: %s",
           cluster::LogText(guest_id, kShownId).c_str(), cluster::LogText(reason, kShownReason).c_str());
}

void FinishOne(const DeletionOptions& options, const std::string& guest_id) {
  const auto stored = ReadOne(*options.store, guest_id);
  if (!stored) return LogNotFinished(guest_id, stored.error().ToString());
  if (!*stored) return;
  if (!(*stored)->record) return LogNotFinished(guest_id, "the record of it is damaged and is left as it is");
  if ((*stored)->record->host_id != options.host_id) return;
  if (const Refused refused = DeletionJob(options, guest_id).Resume(**stored)) {
    LogNotFinished(guest_id, refused->reason);
  }
}

}  // namespace

Refused Deletion::Delete(const std::string& guest_id, const Requester& requester) {
  return DeletionJob(options_, guest_id).Start(requester);
}

void Deletion::FinishAll() {
  const auto ids = ReadGuestIds(*options_.store);
  if (!ids) {
    ::syslog(LOG_ERR, "Deletions that were begun cannot be finished: %s", ids.error().ToString().c_str());
  } else {
    for (const std::string& id : *ids) FinishOne(options_, id);
  }
  RemoveLeftovers();
}

void Deletion::Finish(const std::string& guest_id) { FinishOne(options_, guest_id); }

std::vector<std::string> Deletion::Begun() const {
  std::vector<std::string> begun;
  const auto ids = ReadGuestIds(*options_.store);
  if (!ids) return begun;
  for (const std::string& id : *ids) {
    const auto stored = ReadOne(*options_.store, id);
    const bool is_ours = stored && *stored && (*stored)->record && (*stored)->record->host_id == options_.host_id;
    if (is_ours) begun.push_back(id);
  }
  return begun;
}

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
