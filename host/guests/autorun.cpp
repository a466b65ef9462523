#include "host/guests/autorun.h"

#include <algorithm>
#include <map>
#include <utility>

#include "host/base/json_parse.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/records/reader.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;

constexpr int kAlways = 1;
constexpr int kAsBefore = 2;

struct StoredList {
  AutorunList list;
  store::Revision revision = 0;
};

Result<StoredList> LoadList(const store::Snapshot& snapshot, const std::string& host_id) {
  const auto value = snapshot.Get(AutorunKey(host_id));
  if (!value) return value.error();
  StoredList stored;
  if (!*value) return stored;
  stored.revision = (*value)->revision;
  const Result<Json::Value> parsed = ParseJson((*value)->text);
  if (!parsed) return stored;
  stored.list.booted = json::UInt64(json::Member(*parsed, "booted"));
  for (const Json::Value& guest_id : json::Elements(json::Member(*parsed, "guests"))) {
    if (guest_id.isString()) stored.list.guest_ids.push_back(json::String(guest_id));
  }
  return stored;
}

void PutList(const std::string& host_id, const StoredList& stored, store::Transaction& transaction) {
  Json::Value record(Json::objectValue);
  record["booted"] = static_cast<Json::UInt64>(stored.list.booted);
  record["guests"] = Json::Value(Json::arrayValue);
  for (const std::string& guest_id : stored.list.guest_ids) record["guests"].append(guest_id);
  transaction.compares.push_back({AutorunKey(host_id), stored.revision});
  transaction.operations.push_back({AutorunKey(host_id), json::ToText(record)});
}

// The guests of the host that start after a boot, by name. One with a damaged record does not.
Result<std::vector<std::string>> FindGuests(const records::Reader& reader, const std::string& host_id) {
  const std::string category = VexaCCC::DB::DashCate::Guest.name();
  const auto runs = records::RunsOf(reader, host_id);
  if (!runs) return runs.error();
  std::map<std::string, BeforeBoot> before;
  for (const auto& [guest_id, stored] : *runs) {
    before[guest_id] = stored.run.saved ? BeforeBoot::kSaved : BeforeBoot::kRan;
  }
  const auto guest_ids = reader.Children(records::CategoryKey(category));
  if (!guest_ids) return guest_ids.error();
  std::vector<std::pair<std::string, std::string>> found;  // names and ids
  for (const std::string& guest_id : *guest_ids) {
    const auto guest = reader.ReadUncached(records::GuestObjectKey(guest_id));
    if (!guest && guest.error().code() == ErrorCode::kCorrupt) continue;
    if (!guest) return guest.error();
    if (!*guest || json::StringMember(**guest, keys::host_id) != host_id) continue;
    const auto known = before.find(guest_id);
    const BeforeBoot was = known == before.end() ? BeforeBoot::kOff : known->second;
    if (!StartsAfterBoot(json::Int(json::Member(**guest, keys::autorun)), was)) continue;
    found.emplace_back(json::StringMember(**guest, keys::name), guest_id);
  }
  std::ranges::sort(found);
  std::vector<std::string> ordered;
  ordered.reserve(found.size());
  for (auto& [name, guest_id] : found) ordered.push_back(std::move(guest_id));
  return ordered;
}

}  // namespace

bool StartsAfterBoot(int autorun, BeforeBoot before) {
  return autorun == kAlways || (autorun == kAsBefore && before == BeforeBoot::kRan);
}

std::string AutorunKey(const std::string& host_id) { return store::MakeKey({"autorun", host_id}); }

Result<AutorunList> ReadAutoruns(const store::Store& store, const std::string& host_id) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  Result<StoredList> stored = LoadList(**snapshot, host_id);
  if (!stored) return stored.error();
  return std::move(stored->list);
}

Status PlanAutoruns(store::Store& store, const std::string& host_id, const cluster::HostClaim& claim) {
  return records::CommitWithRetry(store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    Result<StoredList> stored = LoadList(reader, host_id);
    if (!stored) return stored.error();
    store::Transaction transaction;
    if (stored->list.booted == claim.booted()) return transaction;
    const bool is_first_since_boot = claim.incarnation() == claim.booted();
    const bool is_new_boot = stored->list.booted != 0 || is_first_since_boot;
    stored->list = {claim.booted(), {}};
    if (is_new_boot) {
      auto guest_ids = FindGuests(reader, host_id);
      if (!guest_ids) return guest_ids.error();
      stored->list.guest_ids = std::move(*guest_ids);
    }
    PutList(host_id, *stored, transaction);
    return transaction;
  });
}

Status RemoveAutorun(store::Store& store, const std::string& host_id, const std::string& guest_id) {
  return records::CommitWithRetry(store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    Result<StoredList> stored = LoadList(reader, host_id);
    if (!stored) return stored.error();
    store::Transaction transaction;
    if (std::erase(stored->list.guest_ids, guest_id) > 0) PutList(host_id, *stored, transaction);
    return transaction;
  });
}

}  // namespace vexa::guests
