// Polling tasks: clients ask about them until a longer job is done.
#include <syslog.h>

#include "host/api/peer/rows.h"
#include "host/store/key.h"

namespace vexa::services {
namespace {

using webapi::Call;

bool IsTaskId(const std::string& id) { return !id.empty() && store::IsKey(store::MakeKey({"poll", id})); }

Result<bool> Exists(const store::Store& store, const std::string& key) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const auto value = (*snapshot)->Get(key);
  if (!value) return value.error();
  return value->has_value();
}

// Deleting a missing key would still wait for the disk.
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
  if (id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  const Status removed = Remove(store, store::MakeKey({"poll", id.Get()}));
  if (!removed) {
    ::syslog(LOG_ERR, "A polling task cannot be cleared: %s", removed.error().ToString().c_str());
    return Fail(call, webapi::kErrorInternal);
  }
  call.response->SetSuccess(Json::Value(Json::objectValue));
}

}  // namespace

std::vector<webapi::ApiRow> PollTaskRows(const ServiceParts& parts) {
  return {HostRow("VEXA.Virtualization.Cluster", "clear_poll_task", webapi::LaneKind::kQuick,
                  [store = parts.store](const Call& call) { ClearPollTask(*store, call); },
                  "Forget a polling task; one that does not exist is forgotten already.",
                  {Text("task_id", "The task's id.")}, {webapi::kErrorBadParameter})};
}

}  // namespace vexa::services
