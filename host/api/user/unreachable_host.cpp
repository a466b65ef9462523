#include "host/api/user/unreachable_host.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "host/api/reason.h"
#include "host/base/error_help.h"
#include "host/base/time_text.h"
#include "host/records/keys.h"
#include "host/records/object_members.h"
#include "host/records/request_scope.h"
#include "host/records/run_record.h"
#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::api {
namespace {

using std::chrono::seconds;
using std::chrono::system_clock;

bool IsKnown(system_clock::time_point last_heartbeat) { return last_heartbeat != system_clock::time_point(); }

seconds AgeOf(system_clock::time_point last_heartbeat, system_clock::time_point now) {
  return std::max(std::chrono::duration_cast<seconds>(now - last_heartbeat), seconds(0));
}

std::string Sentence(const records::Reader& reader, const std::string& host_id, const records::HostLiveness& life) {
  std::string name = records::ReadStringOrEmpty(reader, VexaCCC::DB::DashCate::Host, host_id, keys::name);
  if (name.empty()) name = host_id;
  if (!IsKnown(life.last_heartbeat)) {
    return fmt::format(
        "The guest's host '{}' is inaccessible; when its machine is off, release the guest with 'vexa guest recover'.",
        name);
  }
  return fmt::format(
      "The guest's host '{}' has been inaccessible since {}; when its machine is off, release the guest with "
      "'vexa guest recover'.",
      name, FormatUtcTime(life.last_heartbeat));
}

}  // namespace

void AddLiveness(const records::HostLiveness& life, system_clock::time_point now, seconds age, Json::Value& shown) {
  if (IsKnown(life.last_heartbeat)) age = std::max(age, AgeOf(life.last_heartbeat, now));
  shown["age_s"] = static_cast<Json::Int64>(age.count());
  if (life.is_gone && IsKnown(life.last_heartbeat)) {
    shown["inaccessible_since"] = static_cast<Json::Int64>(system_clock::to_time_t(life.last_heartbeat));
  }
}

records::HostLiveness LivenessOrAlive(const records::Reader& reader, const std::string& host_id) {
  if (host_id.empty()) return {};
  const Result<records::HostLiveness> life = records::LivenessOf(reader, host_id);
  return life ? *life : records::HostLiveness();
}

std::string HolderOf(const records::Reader& reader, const std::string& guest_id) {
  const Result<records::Record> run = reader.ReadRecord(records::RunKey(guest_id));
  if (!run || !*run) return {};
  const Json::Value& host_id = json::Member(**run, "host_id");
  return host_id.isString() ? json::String(host_id) : std::string();
}

std::string GoneHostReason(const std::string& guest_id, NeededHost needed) {
  const records::RequestScope newest;
  const auto reader = records::ReaderOfRequest();
  if (!reader) return {};
  std::string assigned;
  if (needed == NeededHost::kHolderOrAssigned) (void)vgConfHostGet(guest_id, assigned);
  for (const std::string& host_id : {HolderOf(**reader, guest_id), assigned}) {
    const records::HostLiveness life = LivenessOrAlive(**reader, host_id);
    if (life.is_gone) return Sentence(**reader, host_id, life);
  }
  return {};
}

Handler WithGoneHostReason(Handler handler, NeededHost needed) {
  return [handler = std::move(handler), needed](const Call& call) {
    handler(call);
    if (!call.extra_members || !call.response->IsSet() || call.response->IsSuccess()) return;
    if (call.response->ErrorCode() < user_error::kFirstGuestOperationCode) return;
    const std::string reason = GoneHostReason(json::String(call.request->GetParam("guest_id", Json::Value())), needed);
    if (reason.empty()) return;
    SetReason(call, reason);
    SetHint(call, HintFor(user_error::kUnreachable));
  };
}

}  // namespace vexa::api
