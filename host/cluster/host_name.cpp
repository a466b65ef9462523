#include "host/cluster/host_name.h"

#include <fmt/format.h>

#include <optional>
#include <utility>

#include "host/records/keys.h"
#include "host/records/named_record.h"
#include "host/records/object_edit.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::cluster {
namespace {

using VexaCCC::DB::DashCate;

std::string SettingKey() { return store::MakeKey({"settings", "host_name"}); }

std::string ObjectKey(const std::string& host_id) {
  return records::MemberKey(DashCate::Host.name(), host_id, keys::object);
}

// Another host that is called `name`, by its record or by the setting; "" without one.
Result<std::string> OtherHostCalled(const records::Reader& reader, const Json::Value& names, const std::string& host_id,
                                    const std::string& name) {
  const auto ids = reader.Children(records::CategoryKey(DashCate::Host.name()));
  if (!ids) return ids.error();
  for (const std::string& id : *ids) {
    if (id == host_id) continue;
    const auto record = reader.ReadObject(DashCate::Host.name(), id);
    const bool has_name = record && json::StringMember(**record, keys::name) == name;
    if (has_name || json::StringMember(names, id.c_str()) == name) return id;
  }
  return std::string();
}

}  // namespace

Result<std::string> ReadHostName(const records::Reader& reader, const std::string& host_id) {
  const Result<records::Record> record = reader.ReadRecord(SettingKey());
  if (!record) return record.error();
  return *record ? json::StringMember(**record, host_id.c_str()) : std::string();
}

Result<void, Refusal> RenameHost(store::Store& store, const std::string& host_id, const std::string& name,
                                 std::string& old_name) {
  if (!records::IsRecordName(name)) {
    return Refusal{user_error::kBadParameter,
                   "The parameter 'name' is not 1 to 128 bytes of UTF-8 without control characters"};
  }
  return records::CommitRecord(
      store, [&](const records::Reader& reader, std::optional<Refusal>& refused) -> Result<store::Transaction> {
        store::Transaction transaction;
        Result<records::StoredObject> host = records::LoadObject(reader, ObjectKey(host_id));
        if (!host) return host.error();
        if (host->revision == 0) {
          refused = Refusal{user_error::kNotFoundOrUnreadable, fmt::format("There is no host '{}'", host_id)};
          return transaction;
        }
        old_name = json::StringMember(host->record, keys::name);
        Result<records::StoredObject> names = records::LoadObject(reader, SettingKey());
        if (!names) return names.error();
        const Result<std::string> other = OtherHostCalled(reader, names->record, host_id, name);
        if (!other) return other.error();
        if (!other->empty()) {
          refused =
              Refusal{user_error::kRecordExists, fmt::format("The host '{}' is called '{}' already", *other, name)};
          return transaction;
        }
        names->record[host_id] = name;
        records::PutObject(transaction, SettingKey(), *names);
        host->record[keys::name] = name;
        records::PutObject(transaction, ObjectKey(host_id), *host);
        return transaction;
      });
}

}  // namespace vexa::cluster
