// The local guest configuration: the guests' records in this host's copy of the cluster database, with the live state
// instead of the record's state. The copy is read even while the cluster database cannot be reached.
#include <json/value.h>

#include <optional>
#include <utility>

#include "host/records/environment.h"
#include "host/records/host_liveness.h"
#include "host/records/keys.h"
#include "host/records/last_finding.h"
#include "host/records/live_state.h"
#include "host/records/request_scope.h"
#include "host/records/shutdown_reason.h"
#include "host/records/unstored_states.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using vexa::records::FindingScope;
using vexa::records::Reader;
using vexa::records::ReaderOfRequest;
using VexaCCC::DB::DashCate;

constexpr int kFailed = -1;
constexpr int kNoHost = -2;

int NoHost() {
  FindingScope::Add({"The guest is not assigned to a host.", true});
  return kNoHost;
}

std::string GuestKey(const std::string& id) { return vexa::records::ObjectKey(DashCate::Guest.name(), id); }

// Returns a copy of the record, always a JSON object. Not cached, because it is called for every guest of a list.
vexa::Result<Json::Value> ReadGuest(const Reader& reader, const std::string& id) {
  const auto unreadable = [&id](vexa::Error error) {
    FindingScope::AddUnreadable(vexa::records::ObjectForUsers(keys::guest, id), error);
    return error;
  };
  auto record = reader.ReadUncached(GuestKey(id));
  if (!record) return unreadable(record.error());
  if (!*record) {
    FindingScope::AddMissing(keys::guest, id, keys::object);
    return vexa::Error(vexa::ErrorCode::kNotFound, "There is no such guest");
  }
  if (!(*record)->isObject()) {
    return unreadable(vexa::Error(vexa::ErrorCode::kCorrupt, "The guest's record is not an object"));
  }
  return *std::move(*record);
}

// Returns a string, or nothing if the guest has no live state. An invalid live state is an error: the record's state,
// the alternative, may be long outdated.
vexa::Result<std::optional<Json::Value>> ReadLiveState(const Reader& reader, const std::string& guest_id) {
  auto state = reader.ReadUncached(vexa::records::LiveStateKey(guest_id));
  if (!state || !*state || (*state)->isString()) return state;
  return vexa::Error(vexa::ErrorCode::kCorrupt, "The live state is not a string");
}

// Returns the state of the guest that this host has observed since the cluster database was lost. Nothing if the
// database is not lost, or no state was observed.
std::optional<std::string> UnstoredLiveState(const std::string& guest_id) {
  auto state = vexa::records::UnstoredState(guest_id);
  if (!state) return state;
  const vexa::records::Environment* const environment = vexa::records::CurrentEnvironment();
  const bool is_lost = environment && environment->store->health() == vexa::store::Health::kInaccessible;
  return is_lost ? state : std::nullopt;
}

}  // namespace

int vgConfGet(const std::string& guest_id, Json::Value& conf) {
  const auto reader = ReaderOfRequest();
  if (!reader) return kFailed;
  auto record = ReadGuest(**reader, guest_id);
  if (!record) return kFailed;
  auto state = ReadLiveState(**reader, guest_id);
  if (!state) return kFailed;
  if (*state) (*record)[Json::StaticString(keys::state)] = *std::move(*state);
  const Json::Value& stored = json::Member(*record, keys::state);
  const auto effective =
      vexa::records::GuestStateIfHostGone(**reader, *record, stored.isString() ? json::String(stored) : std::string());
  if (!effective) return kFailed;
  if (*effective) (*record)[Json::StaticString(keys::state)] = std::string(**effective);
  if (!vexa::records::PutShutdownReason(**reader, guest_id, *record)) return kFailed;
  conf = std::move(*record);
  return 0;
}

int vgConfStateGet(const std::string& guest_id, std::string& state) {
  if (auto unstored = UnstoredLiveState(guest_id)) {
    state = *std::move(unstored);
    return 0;
  }
  const auto reader = ReaderOfRequest();
  if (!reader) return kFailed;
  const auto live = ReadLiveState(**reader, guest_id);
  if (!live) return kFailed;
  const auto record = ReadGuest(**reader, guest_id);
  // A live state is valid even if the record is damaged, but not for a guest that no longer exists.
  const bool guest_exists = record || record.error().code() == vexa::ErrorCode::kCorrupt;
  if (!guest_exists || (!record && !*live)) return kFailed;
  const Json::Value& found = *live ? **live : json::Member(*record, keys::state);
  if (!found.isString()) return kFailed;
  std::string text = json::String(found);
  if (record) {
    const auto effective = vexa::records::GuestStateIfHostGone(**reader, *record, text);
    if (!effective) return kFailed;
    if (*effective) text = **effective;
  }
  state = std::move(text);
  return 0;
}

int vgConfHostGet(const std::string& guest_id, std::string& host) {
  const auto reader = ReaderOfRequest();
  if (!reader) return kFailed;
  const auto record = ReadGuest(**reader, guest_id);
  if (!record) return kFailed;
  const Json::Value& found = json::Member(*record, keys::host_id);
  if (found.isNull()) return NoHost();
  if (!found.isString()) return kFailed;
  std::string id = json::String(found);
  if (id.empty()) return NoHost();
  host = std::move(id);
  return 0;
}

int vgConfRepoHostIdGet(const std::string& guest_id, std::string& host) {
  const auto reader = ReaderOfRequest();
  if (!reader) return kFailed;
  const auto guest = ReadGuest(**reader, guest_id);
  if (!guest) return kFailed;
  const Json::Value& repository = json::Member(*guest, keys::repository_id);
  if (!repository.isString()) return kFailed;
  const auto record = (*reader)->ReadObject(DashCate::Repository.name(), json::String(repository));
  if (!record) return kFailed;
  const Json::Value& found = json::Member(**record, keys::host_id);
  if (!found.isString()) return kFailed;
  std::string id = json::String(found);
  if (id.empty()) return kFailed;
  host = std::move(id);
  return 0;
}
