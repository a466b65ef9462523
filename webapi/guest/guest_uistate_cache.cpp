#include "webapi/guest/guest_uistate_cache.h"

#include <utility>

#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/utils/log.h"

namespace VexaVirtualization {
namespace {

namespace key = VexaCCC::DB::_k;
using VexaCCC::DB::DashCate;

constexpr int kValidSeconds = 5;

// List() returns this for a category that was never created.
constexpr int kNeverCreated = 2;

bool ListGuests(std::vector<std::string>& ids) {
  const int result = DashCate::Guest.List(ids);
  return result == 0 || result == kNeverCreated;
}

// Calls `set_status` with the configuration and the status of every guest whose configuration can be read, and appends
// the results.
template <class SetStatus>
void AppendGuests(const std::vector<std::string>& ids, Json::Value& guests, const SetStatus& set_status) {
  for (const std::string& id : ids) {
    Json::Value conf(Json::objectValue);
    if (vgConfGet(id, conf) != 0) continue;
    GuestUIStatus status(id);
    set_status(conf, status);
    guests.append(status.ToJson());
  }
}

}  // namespace

GuestUIStatus::GuestUIStatus(const std::string& id) : guest_id(id) {
  GetStateType(STATE_CATE_GUEST, VexaCCC::State::Guest::running, status, status_type);
}

Json::Value GuestUIStatus::ToJson() const {
  Json::Value v(Json::objectValue);
  v[key::guest_id] = guest_id;
  v["status"] = status;
  v["status_type"] = status_type;
  return v;
}

bool GuestUIStatus::FromJson(const Json::Value& v) {
  using VexaDR::Utils::ParseJsonValueFromField;
  return !v.isNull() && ParseJsonValueFromField(v, key::guest_id, guest_id) &&
         ParseJsonValueFromField(v, "status", status) && ParseJsonValueFromField(v, "status_type", status_type);
}

GuestUIStatusCache::GuestUIStatusCache() : DRCache("virtualization", "guest_ui_status", kValidSeconds, 0) {}

GuestUIStatusCache::~GuestUIStatusCache() = default;

bool GuestUIStatusCache::IsValidData(const Json::Value& v) {
  return !v.isNull() && VexaDR::Utils::JsonFieldIsArray(v, "guests");
}

Json::Value GuestUIStatusCache::GetDefaultValue() const {
  Json::Value value(Json::objectValue);
  Json::Value& guests = value["guests"] = Json::Value(Json::arrayValue);
  std::vector<std::string> ids;
  if (!ListGuests(ids)) return value;
  AppendGuests(ids, guests, [](const Json::Value& conf, GuestUIStatus& guest) {
    GetStateType(STATE_CATE_GUEST, json::String(json::Member(conf, key::state)), guest.status, guest.status_type);
  });
  return value;
}

bool GuestUIStatusCache::GetUpdatedData(Json::Value& data) const {
  // GetDefaultValue may be overridden by a derived cache.
  data = GetDefaultValue();
  std::vector<std::string> ids;
  if (!ListGuests(ids)) return true;
  Json::Value& guests = json::EnsureObject(data)["guests"] = Json::Value(Json::arrayValue);
  std::map<std::string, int> connected;
  GetGuestsConnectedMap(connected);
  AppendGuests(ids, guests, [&connected](const Json::Value& conf, GuestUIStatus& guest) {
    GetGuestStateType(conf, connected, guest.guest_id, guest.status, guest.status_type);
  });
  return true;
}

bool GuestUIStatusCache::IsValid(const Json::Value& v) const { return IsValidData(v); }

bool ParseGuestUIStatusCache(const Json::Value& v, std::vector<GuestUIStatus>& out) {
  if (!GuestUIStatusCache::IsValidData(v)) {
    VEXA_LOG("guest_uistate_cache", "Invalid cached guest ui status");
    return false;
  }
  for (const Json::Value& guest : json::Elements(json::Member(v, "guests"))) {
    GuestUIStatus status;
    if (status.FromJson(guest)) out.push_back(std::move(status));
  }
  return true;
}

bool GetCachedGuestUIStateDict(std::map<std::string, UIState>& dict) {
  std::vector<GuestUIStatus> guests;
  if (!ParseGuestUIStatusCache(GuestUIStatusCache().NonBlockedRead(), guests)) return false;
  for (GuestUIStatus& guest : guests) {
    dict.insert_or_assign(std::move(guest.guest_id), UIState{std::move(guest.status), std::move(guest.status_type)});
  }
  return true;
}

}  // namespace VexaVirtualization
