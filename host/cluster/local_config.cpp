// The local guest configuration: the guests' records in this host's own copy of the cluster's keyspace, with the live
// state in place of the record's. Nothing here asks how the cluster database is: the copy is read as it is.
#include <json/value.h>

#include "host/cluster/live_state.h"
#include "host/cluster/reading.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/utils/json.h"

namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using vexa::cluster::CallScope;
using vexa::cluster::Record;
using VexaCCC::DB::DashCate;

constexpr int kFailed = -1;
constexpr int kNoHost = -2;

vexa::Result<Record> ReadGuest(const std::string& id) { return vexa::cluster::ReadObject(DashCate::Guest.name(), id); }

// A string; null when the guest has no live state. One that cannot be understood is an error: the record's state may be
// long outdated.
vexa::Result<Record> ReadLiveState(const std::string& guest_id) {
  vexa::Result<Record> state = vexa::cluster::ReadRecord(vexa::cluster::LiveStateKey(guest_id));
  if (!state || !*state || (*state)->isString()) return state;
  return vexa::Error(vexa::ErrorCode::kCorrupt, "The live state is no text");
}

}  // namespace

int vgConfGet(const std::string& guest_id, Json::Value& conf) {
  const CallScope scope;
  const auto record = ReadGuest(guest_id);
  if (!record) return kFailed;
  const auto state = ReadLiveState(guest_id);
  if (!state) return kFailed;
  conf = **record;
  if (*state) conf[Json::StaticString(keys::state)] = **state;
  return 0;
}

int vgConfStateGet(const std::string& guest_id, std::string& state) {
  const CallScope scope;
  const auto record = ReadGuest(guest_id);
  if (!record) return kFailed;
  const auto live = ReadLiveState(guest_id);
  if (!live) return kFailed;
  const Json::Value& found = *live ? **live : json::Member(**record, keys::state);
  if (!found.isString()) return kFailed;
  state = json::String(found);
  return 0;
}

int vgConfHostGet(const std::string& guest_id, std::string& host) {
  const auto record = ReadGuest(guest_id);
  if (!record) return kFailed;
  const Json::Value& found = json::Member(**record, keys::host_id);
  if (found.isNull() || found == "") return kNoHost;
  if (!found.isString()) return kFailed;
  host = json::String(found);
  return 0;
}

int vgConfRepoHostIdGet(const std::string& guest_id, std::string& host) {
  const CallScope scope;
  const auto guest = ReadGuest(guest_id);
  if (!guest) return kFailed;
  const Json::Value& repository = json::Member(**guest, keys::repository_id);
  if (!repository.isString()) return kFailed;
  const auto record = vexa::cluster::ReadObject(DashCate::Repository.name(), json::String(repository));
  if (!record) return kFailed;
  const Json::Value& found = json::Member(**record, keys::host_id);
  if (!found.isString() || found == "") return kFailed;
  host = json::String(found);
  return 0;
}
