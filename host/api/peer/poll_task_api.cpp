// Polling tasks: records that clients poll until a longer job is done.
#include <syslog.h>

#include "host/api/peer/rows.h"
#include "host/store/key.h"

namespace vexa::api {
namespace {

bool IsTaskId(const std::string& id) { return !id.empty() && store::IsValidKey(store::MakeKey({"poll", id})); }

Result<bool> Exists(const store::Store& store, const std::string& key) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const auto value = (*snapshot)->Get(key);
  if (!value) return value.error();
  return value->has_value();
}

// Reads first, because even the deletion of a missing key waits for the disk.
Status Remove(store::Store& store, const std::string& key) {
  const Result<bool> exists = Exists(store, key);
  if (!exists) return exists.error();
  if (!*exists) return {};
  const Result<store::Revision> committed = store.Commit({{}, {{key, std::nullopt}}});
  if (!committed) return committed.error();
  return {};
}

void ClearPollTask(store::Store& store, const Call& call) {
  const auto id = call.request->GetAndCheckString("task_id", kRequired, IsTaskId);
  if (id.IsInvalid()) return Fail(call, host_error::kBadParameter);
  const Status removed = Remove(store, store::MakeKey({"poll", id.Get()}));
  if (!removed) {
    ::syslog(LOG_ERR, "A polling task cannot be cleared: %s", removed.error().ToString().c_str());
    return Fail(call, host_error::kInternal);
  }
  call.response->SetSuccess(Json::Value(Json::objectValue));
}

}  // namespace

std::vector<ApiRow> PollTaskRows(const ServiceParts& parts) {
  return {HostRow("VEXA.Virtualization.Cluster", "clear_poll_task", LaneKind::kLong,
                  [store = parts.store](const Call& call) { ClearPollTask(*store, call); },
                  "Forgets a polling task. A task that does not exist is not an error.",
                  {Text("task_id", "The task's id.")}, {host_error::kBadParameter})};
}

}  // namespace vexa::api
