// The local guest configuration: the guests' records in this host's own copy of the cluster's keyspace, with the live
// state in place of the record's. Nothing here asks how the cluster database is: the copy is read as it is.
#include <json/value.h>

#include <utility>

#include "host/cluster/live_state.h"
#include "host/cluster/reading.h"
#include "host/store/key.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/utils/json.h"

namespace vexa::cluster {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;

// Never null, and an object.
Result<Record> ReadObject(const VexaCCC::DB::DashCate& category, const std::string& id) {
  Result<Record> record = ReadRecord(store::MakeKey({"dash", category.name(), id, keys::object}));
  if (!record) return record;
  if (!*record) return Error(ErrorCode::kNotFound, "There is no such record");
  if (!(*record)->isObject()) return Error(ErrorCode::kCorrupt, "The record is no object");
  return record;
}

Result<Record> ReadGuest(const std::string& id) { return ReadObject(VexaCCC::DB::DashCate::Guest, id); }

// A string; null when the guest has no live state. One that cannot be understood is an error: the record's state may be
// long outdated.
Result<Record> ReadLiveState(const std::string& guest_id) {
  Result<Record> state = ReadRecord(LiveStateKey(guest_id));
  if (state && *state && !(*state)->isString()) return Error(ErrorCode::kCorrupt, "The live state is no text");
  return state;
}

}  // namespace
}  // namespace vexa::cluster

namespace {

using vexa::cluster::keys::host_id;
namespace json = VexaVirtualization::json;

constexpr int kFailed = -1;
constexpr int kNoHost = -2;

}  // namespace

int vgConfGet(const std::string& guest_id, Json::Value& conf) {
  const auto record = vexa::cluster::ReadGuest(guest_id);
  if (!record) return kFailed;
  const auto state = vexa::cluster::ReadLiveState(guest_id);
  if (!state) return kFailed;
  conf = **record;
  if (*state) conf[Json::StaticString(VexaCCC::DB::_k::state)] = **state;
  return 0;
}

int vgConfStateGet(const std::string& guest_id, std::string& state) {
  const auto record = vexa::cluster::ReadGuest(guest_id);
  if (!record) return kFailed;
  const auto live = vexa::cluster::ReadLiveState(guest_id);
  if (!live) return kFailed;
  const Json::Value& found = *live ? **live : json::Member(**record, VexaCCC::DB::_k::state);
  if (!found.isString()) return kFailed;
  state = json::String(found);
  return 0;
}

int vgConfHostGet(const std::string& guest_id, std::string& host) {
  const auto record = vexa::cluster::ReadGuest(guest_id);
  if (!record) return kFailed;
  const Json::Value& found = json::Member(**record, host_id);
  if (found.isNull() || found == "") return kNoHost;
  if (!found.isString()) return kFailed;
  host = json::String(found);
  return 0;
}

int vgConfRepoHostIdGet(const std::string& guest_id, std::string& host) {
  const auto guest = vexa::cluster::ReadGuest(guest_id);
  if (!guest) return kFailed;
  const Json::Value& repository = json::Member(**guest, VexaCCC::DB::_k::repository_id);
  if (!repository.isString()) return kFailed;
  const auto record = vexa::cluster::ReadObject(VexaCCC::DB::DashCate::Repository, json::String(repository));
  if (!record) return kFailed;
  const Json::Value& found = json::Member(**record, host_id);
  if (!found.isString() || found == "") return kFailed;
  host = json::String(found);
  return 0;
}
