#include "host/guests/edit/edit.h"

#include <syslog.h>

#include <utility>

#include "host/base/log_text.h"
#include "host/guests/edit/edit_job.h"
#include "host/guests/jobs/edit_record.h"
#include "host/store/key.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kShownId = 64;
constexpr std::size_t kShownReason = 1024;

Result<std::optional<StoredEdit>> ReadOne(const store::Store& store, const std::string& guest_id) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  return ReadEdit(**snapshot, guest_id);
}

Result<std::vector<std::string>> ReadGuestIds(const store::Store& store) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  return (*snapshot)->Children(store::MakeKey({"edit"}));
}

void LogNotFinished(const std::string& guest_id, const std::string& reason) {
  ::syslog(LOG_ERR, "The edit of guest[%s] that was begun is not finished: %s",
           cluster::LogText(guest_id, kShownId).c_str(), cluster::LogText(reason, kShownReason).c_str());
}

void FinishOne(const EditOptions& options, const std::string& guest_id) {
  const auto stored = ReadOne(*options.store, guest_id);
  if (!stored) return LogNotFinished(guest_id, stored.error().ToString());
  if (!*stored) return;
  if (!(*stored)->record) return LogNotFinished(guest_id, "the record of it is damaged and is left as it is");
  if ((*stored)->record->host_id != options.host_id) return;
  if (const Refused refused = EditJob(options, guest_id).Resume(**stored)) LogNotFinished(guest_id, refused->reason);
}

}  // namespace

Refused Edits::Edit(const std::string& guest_id, const Json::Value& edit, const Requester& requester) {
  return EditJob(options_, guest_id).Start(edit, requester);
}

void Edits::FinishAll() {
  const auto ids = ReadGuestIds(*options_.store);
  if (!ids) {
    ::syslog(LOG_ERR, "Edits that were begun cannot be finished: %s", ids.error().ToString().c_str());
    return;
  }
  for (const std::string& id : *ids) FinishOne(options_, id);
}

void Edits::Finish(const std::string& guest_id) { FinishOne(options_, guest_id); }

std::vector<std::string> Edits::Begun() const {
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

}  // namespace vexa::guests
