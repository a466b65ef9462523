#include "host/api/user/simulated_guests.h"

#include <utility>

#include "host/api/user/unreachable_host.h"
#include "host/records/keys.h"
#include "host/records/object_members.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

void Mark(const Call& call, const records::Reader& reader, const std::string& host_id) {
  if (host_id.empty() || !call.extra_members) return;
  const auto record = records::ReadMember(reader, VexaCCC::DB::DashCate::Host, host_id, keys::object);
  if (!record || !*record || json::Member(**record, "simulated") != Json::Value(true)) return;
  (*call.extra_members)["simulated"] = true;
}

}  // namespace

void MarkSimulatedHost(const Call& call, const std::string& host_id) {
  const auto reader = records::ReaderOfRequest();
  if (reader) Mark(call, **reader, host_id);
}

Handler WithSimulatedMark(Handler handler) {
  return [handler = std::move(handler)](const Call& call) {
    handler(call);
    if (!call.response->IsSet() || !call.response->IsSuccess()) return;
    const std::string action = json::String(call.request->GetParam("action", Json::Value()));
    if (!action.empty() && action != "poweron" && action != "reboot") return;
    const records::RequestScope newest;
    const auto reader = records::ReaderOfRequest();
    if (!reader) return;
    std::string guest_id = json::String(call.request->GetParam("guest_id", Json::Value()));
    if (guest_id.empty()) guest_id = json::String(json::Member(call.response->Data(), "guest_id"));
    Mark(call, **reader, HolderOf(**reader, guest_id));
  };
}

}  // namespace vexa::api
