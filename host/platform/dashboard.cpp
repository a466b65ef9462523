// The dashboard: "/dash/<category>/<id>/<key…>". A record is stored under the key "object"; a separate key exists only
// where something is written separately.
#include <algorithm>
#include <string_view>

#include "host/records/environment.h"
#include "host/records/host_life.h"
#include "host/records/keys.h"
#include "host/records/reading.h"
#include "host/records/shutdown_reason.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace VexaCCC::DB {
namespace {

namespace json = VexaVirtualization::json;
using vexa::cluster::ReadChildren;
using vexa::cluster::ReadRecord;
using vexa::cluster::Record;

constexpr int kFound = 0;
constexpr int kNotFound = 2;
constexpr int kFailed = -1;

std::string FolderOf(const DashCate& category, const std::string& id) {
  return vexa::cluster::RecordKey(category.name(), id);
}

// Finds the value of `key` in the folder `path`: under its own key, otherwise among the members of the record. Passes
// it to `use` when found.
template <class Use>
int Find(std::string path, const std::string& key, Use use) {
  path += '/';
  const std::size_t folder_size = path.size();
  const vexa::Result<Record> own = ReadRecord(path.append(key));
  if (!own) return kFailed;
  if (*own) return use(**own);
  if (key == _k::object) return kNotFound;
  const vexa::Result<Record> record = ReadRecord(path.replace(folder_size, std::string::npos, _k::object));
  if (!record) return kFailed;
  const Json::Value* member = *record ? json::FindMember(**record, key) : nullptr;
  return member ? use(*member) : kNotFound;
}

bool IsOf(const DashCate& category, const DashCate& wanted) {
  return category.name() == std::string_view(wanted.name());
}

// The state that replaces the one in an object's whole record when its host is gone.
vexa::Result<std::optional<std::string_view>> StateNow(const DashCate& category, const std::string& id,
                                                       const Json::Value& record) {
  if (IsOf(category, DashCate::Host)) return vexa::cluster::HostStateNow(id);
  if (IsOf(category, DashCate::Repository)) return vexa::cluster::RepositoryStateNow(record);
  const Json::Value& state = json::Member(record, _k::state);
  return vexa::cluster::GuestStateNow(record, state.isString() ? json::String(state) : std::string());
}

bool HasState(const DashCate& category) {
  return IsOf(category, DashCate::Host) || IsOf(category, DashCate::Repository) || IsOf(category, DashCate::Guest);
}

// The state has a key of its own, and readers of the whole record must see it as well; `record` is a copy.
int PutLiveState(const DashCate& category, const std::string& folder, Json::Value& record) {
  const vexa::Result<Record> state = ReadRecord(folder + '/' + _k::state);
  if (!state && state.error().code() != vexa::ErrorCode::kCorrupt) return kFailed;
  if (state && !*state) return kFound;
  const bool is_readable = state && (*state)->isString();
  if (!record.isObject() || (!is_readable && !IsOf(category, DashCate::Guest))) return kFound;
  // The state in a guest's record may be long outdated.
  record[Json::StaticString(_k::state)] = is_readable ? **state : Json::Value(VexaCCC::State::Guest::unknown);
  return kFound;
}

// The record with the current state.
int PutStateNow(const DashCate& category, const std::string& id, Json::Value& record) {
  const std::string folder = FolderOf(category, id);
  if (!IsOf(category, DashCate::Host)) {
    if (const int found = PutLiveState(category, folder, record); found != kFound) return found;
  }
  const auto now = StateNow(category, id, record);
  if (!now) return kFailed;
  if (*now && record.isObject()) record[Json::StaticString(_k::state)] = std::string(**now);
  if (IsOf(category, DashCate::Guest) && !vexa::cluster::PutShutdown(id, record)) return kFailed;
  return kFound;
}

}  // namespace

int DashCate::List(std::vector<std::string>& ids) const {
  vexa::Result<std::vector<std::string>> children = ReadChildren(vexa::cluster::CategoryKey(name_));
  if (!children) return kFailed;
  ids = std::move(*children);
  return kFound;
}

Dashboard::Dashboard(const DashCate& category, const std::string& id) : category_(category), id_(id) {}

int Dashboard::Get(Json::Value& out, const std::string& key) {
  const bool is_record = key == _k::object && HasState(category_);
  return Find(FolderOf(category_, id_), key, [&](const Json::Value& value) {
    if (!is_record) {
      out = value;
      return kFound;
    }
    Json::Value record = value;
    const int found = PutStateNow(category_, id_, record);
    if (found == kFound) out = std::move(record);
    return found;
  });
}

int Dashboard::Get(std::string& out, const std::string& key) {
  const vexa::cluster::CallScope scope;
  const std::string folder = FolderOf(category_, id_);
  std::string text;
  const int found = Find(folder, key, [&text](const Json::Value& value) {
    if (!value.isString()) return kNotFound;
    text = value.asString();
    return kFound;
  });
  if (found != kFound) return found;
  if (key == _k::state && HasState(category_)) {
    const vexa::Result<Record> record = ReadRecord(folder + '/' + _k::object);
    if (!record && record.error().code() != vexa::ErrorCode::kCorrupt) return kFailed;
    const Json::Value& object = record && *record ? **record : Json::Value::nullSingleton();
    const auto now = IsOf(category_, DashCate::Guest) ? vexa::cluster::GuestStateNow(object, text)
                                                      : StateNow(category_, id_, object);
    if (!now) return kFailed;
    if (*now) text = **now;
  }
  out = std::move(text);
  return kFound;
}

int Dashboard::Ls(std::vector<std::string>& ids, const std::string& key) {
  vexa::Result<std::vector<std::string>> children = ReadChildren(FolderOf(category_, id_) + "/" + key);
  if (!children) return kFailed;
  ids = std::move(*children);
  return kFound;
}

std::string DBLocalhostID() {
  const vexa::cluster::Environment* environment = vexa::cluster::CurrentEnvironment();
  return environment ? environment->host_id : std::string();
}

}  // namespace VexaCCC::DB
