#include "host/records/object_members.h"

#include <string_view>
#include <utility>

#include "host/records/host_liveness.h"
#include "host/records/keys.h"
#include "host/records/shutdown_reason.h"
#include "json/readers.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::records {
namespace {

using VexaCCC::DB::DashCate;

// A value, and the record that owns it.
struct Found {
  Record record;
  const Json::Value* value = nullptr;  // null: absent
};

// The value of `key`: under a key of its own, otherwise among the members of the record.
Result<Found> Find(const Reader& reader, const DashCate& category, const std::string& id, const std::string& key) {
  // Not encoded: a key such as "nics/<id>" has several segments.
  Result<Record> own = reader.ReadRecord(RecordKey(category.name(), id) + '/' + key);
  if (!own) return own.error();
  if (*own) return Found{*own, own->get()};
  if (key == keys::object) return Found();
  Result<Record> record = reader.ReadRecord(ObjectKey(category.name(), id));
  if (!record) return record.error();
  return Found{*record, *record ? json::FindMember(**record, key) : nullptr};
}

bool IsCategory(const DashCate& category, const DashCate& wanted) {
  return category.name() == std::string_view(wanted.name());
}

bool HasState(const DashCate& category) {
  return IsCategory(category, DashCate::Host) || IsCategory(category, DashCate::Repository) ||
         IsCategory(category, DashCate::Guest);
}

// The state that replaces `stored` when the object's host is gone.
Result<std::optional<std::string_view>> EffectiveState(const Reader& reader, const DashCate& category,
                                                       const std::string& id, const Json::Value& record,
                                                       const std::string& stored) {
  if (IsCategory(category, DashCate::Host)) return HostStateIfGone(reader, id);
  if (IsCategory(category, DashCate::Repository)) return RepositoryStateIfHostGone(reader, record);
  return GuestStateIfHostGone(reader, record, stored);
}

// Puts the state, which has a key of its own, into the whole record.
Status PutLiveState(const Reader& reader, const DashCate& category, const std::string& id, Json::Value& record) {
  const Result<Record> state = reader.ReadRecord(MemberKey(category.name(), id, keys::state));
  if (!state && state.error().code() != ErrorCode::kCorrupt) return state.error();
  if (state && !*state) return {};
  const bool is_readable = state && (*state)->isString();
  if (!record.isObject() || (!is_readable && !IsCategory(category, DashCate::Guest))) return {};
  // The state in a guest's record may be long outdated.
  record[Json::StaticString(keys::state)] = is_readable ? **state : Json::Value(VexaCCC::State::Guest::unknown);
  return {};
}

Status PutEffectiveState(const Reader& reader, const DashCate& category, const std::string& id, Json::Value& record) {
  if (!IsCategory(category, DashCate::Host)) {
    if (Status put = PutLiveState(reader, category, id, record); !put) return put;
  }
  const Json::Value& stored = json::Member(record, keys::state);
  const auto effective =
      EffectiveState(reader, category, id, record, stored.isString() ? json::String(stored) : std::string());
  if (!effective) return effective.error();
  if (*effective && record.isObject()) record[Json::StaticString(keys::state)] = std::string(**effective);
  return IsCategory(category, DashCate::Guest) ? PutShutdownReason(reader, id, record) : Status();
}

}  // namespace

Result<std::optional<Json::Value>> ReadMember(const Reader& reader, const DashCate& category, const std::string& id,
                                              const std::string& key) {
  const Result<Found> found = Find(reader, category, id, key);
  if (!found) return found.error();
  if (!found->value) return std::optional<Json::Value>();
  std::optional<Json::Value> value = *found->value;
  if (key != keys::object || !HasState(category)) return value;
  if (Status put = PutEffectiveState(reader, category, id, *value); !put) return put.error();
  return value;
}

Result<std::optional<std::string>> ReadText(const Reader& reader, const DashCate& category, const std::string& id,
                                            const std::string& key) {
  const Result<Found> found = Find(reader, category, id, key);
  if (!found) return found.error();
  if (!found->value || !found->value->isString()) return std::optional<std::string>();
  std::optional<std::string> text = json::String(*found->value);
  if (key != keys::state || !HasState(category)) return text;
  const Result<Record> record = reader.ReadRecord(ObjectKey(category.name(), id));
  if (!record && record.error().code() != ErrorCode::kCorrupt) return record.error();
  const Json::Value& object = record && *record ? **record : Json::Value::nullSingleton();
  const auto effective = EffectiveState(reader, category, id, object, *text);
  if (!effective) return effective.error();
  if (*effective) text = **effective;
  return text;
}

std::string ReadStringOrEmpty(const Reader& reader, const DashCate& category, const std::string& id,
                              const std::string& key) {
  const auto text = ReadText(reader, category, id, key);
  return text ? text->value_or("") : std::string();
}

}  // namespace vexa::records
