#include "cli/grant_command.h"

#include <grp.h>
#include <pwd.h>

#include <chrono>
#include <functional>
#include <iostream>
#include <thread>

#include "cli/owner.h"
#include "cli/printable.h"
#include "host/base/account_file.h"
#include "host/base/json_parse.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"

namespace vexa::cli {
namespace {

constexpr int kMaxTries = 50;

using Edit = std::function<void(Json::Value& record)>;

std::string KeyOf(AccountKind kind, std::uint32_t id) {
  const std::string identifier = (kind == AccountKind::kUser ? "users-" : "groups-") + std::to_string(id);
  return store::MakeKey({"dash", "guest_admin", identifier, "object"});
}

std::string StoreFolder(const std::string& data_directory) { return data_directory + "/store"; }

Result<std::shared_ptr<store::Store>> OpenStore(const std::string& directory) {
  if (const Status owner = CheckOwnerOrFolder(StoreFolder(directory)); !owner) return owner.error();
  store::LmdbOptions options;
  options.directory = StoreFolder(directory);
  return store::OpenLmdbStore(options);
}

struct StoredRecord {
  store::Revision revision = 0;  // 0: there is none
  Json::Value value;
};

Result<StoredRecord> ReadRecord(store::Store& store, const std::string& key) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const auto found = (*snapshot)->Get(key);
  if (!found) return found.error();
  StoredRecord record{0, Json::Value(Json::objectValue)};
  if (!*found) return record;
  const Result<Json::Value> value = ParseJson((*found)->text);
  const bool usable =
      value && value->isObject() && (Member(*value, "guests").isNull() || Member(*value, "guests").isObject());
  // Not overwritten: what is in it may be all that is left of somebody's grants.
  if (!usable) return Error(ErrorCode::kCorrupt, "The guest-admin record '" + key + "' is damaged");
  record.revision = (*found)->revision;
  record.value = *value;
  return record;
}

Status EditRecord(const std::string& directory, const std::string& key, const Edit& edit) {
  const auto store = OpenStore(directory);
  if (!store) return store.error();
  for (int tries = 0; tries < kMaxTries; ++tries) {
    Result<StoredRecord> record = ReadRecord(**store, key);
    if (!record) return record.error();
    if (Member(record->value, "authlevel").isNull()) record->value["authlevel"] = "user";
    if (Member(record->value, "guests").isNull()) record->value["guests"] = Json::Value(Json::objectValue);
    edit(record->value);
    const auto committed =
        (*store)->Commit({{{key, record->revision}}, {{key, RenderJson(record->value, JsonLayout::kOneLine)}}});
    if (committed) return {};
    if (committed.error().code() != ErrorCode::kConflict) return committed.error();
    std::this_thread::sleep_for(std::chrono::milliseconds(tries));
  }
  return Error(ErrorCode::kBusy, "Others keep changing the guest-admin record '" + key + "'; try again");
}

Result<std::uint32_t> FindInSystem(const GrantTarget& target) {
  if (target.kind == AccountKind::kUser) {
    if (const passwd* entry = ::getpwnam(target.name.c_str())) return std::uint32_t{entry->pw_uid};
  } else {
    if (const group* entry = ::getgrnam(target.name.c_str())) return std::uint32_t{entry->gr_gid};
  }
  return Error(ErrorCode::kNotFound, "The system does not know '" + target.name + "'");
}

bool IsUuid(std::string_view id) {
  if (id.size() != 36) return false;
  for (std::size_t i = 0; i < id.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? id[i] != '-' : std::string_view("0123456789abcdefABCDEF").find(id[i]) == std::string_view::npos) {
      return false;
    }
  }
  return true;
}

ExitCode RunEdit(const GlobalOptions& global, const GrantTarget& target, const Edit& edit, const std::string& done) {
  const Result<std::uint32_t> id = FindAccountId(target);
  if (!id) return Report(id.error());
  const Status status = EditRecord(target.data_directory, KeyOf(target.kind, *id), edit);
  if (!status) return Report(status.error());
  if (!global.quiet) std::cout << done << '\n';
  return ExitCode::kOk;
}

ExitCode RunEditGuests(const GlobalOptions& global, const GrantTarget& target,
                       const std::vector<std::string>& guest_ids,
                       const std::function<void(Json::Value& guests, const std::string& id)>& edit,
                       const std::string& done) {
  for (const std::string& id : guest_ids) {
    if (!IsUuid(id)) return Report(Error(ErrorCode::kInvalid, "'" + id + "' is no guest's id (a UUID)"));
  }
  const auto edit_all = [&](Json::Value& record) {
    for (const std::string& id : guest_ids) edit(record["guests"], id);
  };
  return RunEdit(global, target, edit_all, done);
}

}  // namespace

Result<std::uint32_t> FindAccountId(const GrantTarget& target) {
  if (target.source == AccountSource::kSystem) return FindInSystem(target);
  if (const Status owner = CheckOwner(target.accounts_path); !owner) return owner.error();
  const auto accounts = base::AccountFile::Open(target.accounts_path);
  if (!accounts) return accounts.error();
  if (target.kind == AccountKind::kUser) {
    const auto user = (*accounts)->FindUser(target.name);
    if (!user) return user.error();
    return user->uid;
  }
  const auto users = (*accounts)->ListUsers();
  if (!users) return users.error();
  for (const base::User& user : *users) {
    for (const base::Group& group : user.groups) {
      if (group.name == target.name) return group.gid;
    }
  }
  return Error(ErrorCode::kNotFound, "No user is in a group '" + target.name + "'");
}

ExitCode RunGrant(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids) {
  return RunEditGuests(
      global, target, guest_ids, [](Json::Value& guests, const std::string& id) { guests[id] = true; },
      "Granted to '" + Printable(target.name) + "'.");
}

ExitCode RunRevoke(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids) {
  return RunEditGuests(
      global, target, guest_ids, [](Json::Value& guests, const std::string& id) { guests.removeMember(id); },
      "Revoked from '" + Printable(target.name) + "'.");
}

ExitCode RunSetLevel(const GlobalOptions& global, const GrantTarget& target, AuthLevel level) {
  const char* word = level == AuthLevel::kAdvanced ? "advanced" : "user";
  return RunEdit(
      global, target, [&](Json::Value& record) { record["authlevel"] = word; },
      "The level of '" + Printable(target.name) + "' is now '" + word + "'.");
}

Status SetAuthLevel(const std::string& data_directory, AccountKind kind, std::uint32_t id, AuthLevel level) {
  return EditRecord(data_directory, KeyOf(kind, id), [&](Json::Value& record) {
    record["authlevel"] = level == AuthLevel::kAdvanced ? "advanced" : "user";
  });
}

Status DropGrants(const std::string& data_directory, AccountKind kind, std::uint32_t id) {
  // A folder without a store is left without one.
  const Status exists = CheckOwner(StoreFolder(data_directory) + "/data.mdb");
  if (!exists) return exists.error().code() == ErrorCode::kNotFound ? Status() : exists;
  const auto store = OpenStore(data_directory);
  if (!store) return store.error();
  const auto committed = (*store)->Commit({{}, {{KeyOf(kind, id), std::nullopt}}});
  return committed ? Status() : Status(committed.error());
}

}  // namespace vexa::cli
