#include "host/api/user/gone_host.h"

#include <algorithm>
#include <utility>

#include "host/api/reason.h"
#include "host/base/time_text.h"
#include "host/records/reading.h"
#include "host/records/run_record.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
using std::chrono::seconds;
using std::chrono::system_clock;

// Lower codes are about the request, the caller's rights, or records that cannot be read.
constexpr int kFirstCodeOfActions = 900;

bool IsKnown(system_clock::time_point seen) { return seen != system_clock::time_point(); }

seconds AgeOf(system_clock::time_point seen, system_clock::time_point now) {
  return std::max(std::chrono::duration_cast<seconds>(now - seen), seconds(0));
}

// The host that has the guest; empty when absent, or when that cannot be read.
std::string HolderOf(const std::string& guest_id) {
  const Result<cluster::Record> run = cluster::ReadRecord(guests::RunKey(guest_id));
  if (!run || !*run) return {};
  const Json::Value& host_id = json::Member(**run, "host_id");
  return host_id.isString() ? json::String(host_id) : std::string();
}

std::string Sentence(const std::string& host_id, const cluster::HostLife& life) {
  std::string name;
  if (!VexaCCC::Utils::GetHostNameById(host_id, name) || name.empty()) name = host_id;
  const std::string since =
      IsKnown(life.seen) ? "has been inaccessible since " + TimeText(life.seen) : "is inaccessible";
  return "The guest's host '" + name + "' " + since +
         "; when its machine is off, release the guest with 'vexa guest recover'.";
}

}  // namespace

void ShowLife(const cluster::HostLife& life, system_clock::time_point now, seconds age, Json::Value& shown) {
  if (IsKnown(life.seen)) age = std::max(age, AgeOf(life.seen, now));
  shown["age_s"] = static_cast<Json::Int64>(age.count());
  if (life.is_gone && IsKnown(life.seen)) {
    shown["inaccessible_since"] = static_cast<Json::Int64>(system_clock::to_time_t(life.seen));
  }
}

cluster::HostLife LifeOrAlive(const std::string& host_id) {
  if (host_id.empty()) return {};
  const Result<cluster::HostLife> life = cluster::LifeOf(host_id);
  return life ? *life : cluster::HostLife();
}

std::string GoneHostReason(const std::string& guest_id, NeededHost needed) {
  const cluster::CallScope scope;
  std::string named;
  if (needed == NeededHost::kHolderOrNamed) (void)vgConfHostGet(guest_id, named);
  for (const std::string& host_id : {HolderOf(guest_id), named}) {
    const cluster::HostLife life = LifeOrAlive(host_id);
    if (life.is_gone) return Sentence(host_id, life);
  }
  return {};
}

webapi::Handler WithGoneHostReason(webapi::Handler handler, NeededHost needed) {
  return [handler = std::move(handler), needed](const webapi::Call& call) {
    handler(call);
    if (!call.further || !call.response->IsSet() || call.response->IsSuccess()) return;
    if (call.response->ErrorCode() < kFirstCodeOfActions) return;
    cluster::RequestScope::ReleaseSnapshot();
    const std::string reason = GoneHostReason(json::String(call.request->GetParam("guest_id", Json::Value())), needed);
    if (!reason.empty()) webapi::SetReason(call, reason);
  };
}

}  // namespace vexa::services
