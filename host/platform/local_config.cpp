// The local guest configuration: the guests' records in this host's own copy of the cluster's keyspace, with the live
// state in place of the record's. Nothing here checks the health of the cluster database: the copy is read as it is.
#include <json/value.h>

#include <optional>
#include <utility>

#include "host/records/environment.h"
#include "host/records/host_life.h"
#include "host/records/keys.h"
#include "host/records/live_state.h"
#include "host/records/reading.h"
#include "host/records/shutdown_reason.h"
#include "host/records/unstored_states.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using vexa::cluster::CallScope;
using VexaCCC::DB::DashCate;

constexpr int kFailed = -1;
constexpr int kNoHost = -2;

std::string GuestKey(const std::string& id) { return vexa::cluster::ObjectKey(DashCate::Guest.name(), id); }

// A value of the caller's own, and an object: called for every guest of a list.
vexa::Result<Json::Value> ReadGuest(const std::string& id) {
  auto record = vexa::cluster::ReadOnce(GuestKey(id));
  if (!record) return record.error();
  if (!*record) return vexa::Error(vexa::ErrorCode::kNotFound, "There is no such guest");
  if (!(*record)->isObject()) return vexa::Error(vexa::ErrorCode::kCorrupt, "The guest's record is not an object");
  return *std::move(*record);
}

// A string; not set when the guest has no live state. An invalid one is an error, because the record's state may be
// long outdated.
vexa::Result<std::optional<Json::Value>> ReadLiveState(const std::string& guest_id) {
  auto state = vexa::cluster::ReadOnce(vexa::cluster::LiveStateKey(guest_id));
  if (!state || !*state || (*state)->isString()) return state;
  return vexa::Error(vexa::ErrorCode::kCorrupt, "The live state is not a text");
}

// What this host has observed of the guest since the database was lost; nothing when the database is not lost, or
// nothing was observed.
std::optional<std::string> UnstoredLiveState(const std::string& guest_id) {
  auto state = vexa::cluster::UnstoredState(guest_id);
  if (!state) return state;
  const vexa::cluster::Environment* const environment = vexa::cluster::CurrentEnvironment();
  const bool is_lost = environment && environment->store->health() == vexa::store::Health::kInaccessible;
  return is_lost ? state : std::nullopt;
}

}  // namespace

int vgConfGet(const std::string& guest_id, Json::Value& conf) {
  const CallScope scope;
  auto record = ReadGuest(guest_id);
  if (!record) return kFailed;
  auto state = ReadLiveState(guest_id);
  if (!state) return kFailed;
  if (*state) (*record)[Json::StaticString(keys::state)] = *std::move(*state);
  const Json::Value& stored = json::Member(*record, keys::state);
  const auto now = vexa::cluster::GuestStateNow(*record, stored.isString() ? json::String(stored) : std::string());
  if (!now) return kFailed;
  if (*now) (*record)[Json::StaticString(keys::state)] = std::string(**now);
  if (!vexa::cluster::PutShutdown(guest_id, *record)) return kFailed;
  conf = std::move(*record);
  return 0;
}

int vgConfStateGet(const std::string& guest_id, std::string& state) {
  const CallScope scope;
  if (auto unstored = UnstoredLiveState(guest_id)) {
    state = *std::move(unstored);
    return 0;
  }
  const auto live = ReadLiveState(guest_id);
  if (!live) return kFailed;
  const auto record = ReadGuest(guest_id);
  // A live state is valid even if the record is damaged, but not for a guest that no longer exists.
  const bool is_there = record || record.error().code() == vexa::ErrorCode::kCorrupt;
  if (!is_there || (!record && !*live)) return kFailed;
  const Json::Value& found = *live ? **live : json::Member(*record, keys::state);
  if (!found.isString()) return kFailed;
  std::string text = json::String(found);
  if (record) {
    const auto now = vexa::cluster::GuestStateNow(*record, text);
    if (!now) return kFailed;
    if (*now) text = **now;
  }
  state = std::move(text);
  return 0;
}

int vgConfHostGet(const std::string& guest_id, std::string& host) {
  const auto record = ReadGuest(guest_id);
  if (!record) return kFailed;
  const Json::Value& found = json::Member(*record, keys::host_id);
  if (found.isNull()) return kNoHost;
  if (!found.isString()) return kFailed;
  std::string id = json::String(found);
  if (id.empty()) return kNoHost;
  host = std::move(id);
  return 0;
}

int vgConfRepoHostIdGet(const std::string& guest_id, std::string& host) {
  const CallScope scope;
  const auto guest = ReadGuest(guest_id);
  if (!guest) return kFailed;
  const Json::Value& repository = json::Member(*guest, keys::repository_id);
  if (!repository.isString()) return kFailed;
  const auto record = vexa::cluster::ReadObject(DashCate::Repository.name(), json::String(repository));
  if (!record) return kFailed;
  const Json::Value& found = json::Member(**record, keys::host_id);
  if (!found.isString()) return kFailed;
  std::string id = json::String(found);
  if (id.empty()) return kFailed;
  host = std::move(id);
  return 0;
}
