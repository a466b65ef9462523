#include "host/cluster/account_migration.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "host/accounts/account_file.h"
#include "host/cluster/account_edit.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::cluster {
namespace {

bool IsWellKnown(const std::string& group) {
  return group == accounts::kAdministratorsGroup || group == accounts::kUsersGroup;
}

std::vector<std::uint32_t> SortedIds(const accounts::User& user) {
  std::vector<std::uint32_t> ids;
  for (const accounts::Group& group : user.groups) ids.push_back(group.gid);
  std::sort(ids.begin(), ids.end());
  return ids;
}

// Adds one file to an edit of the accounts.
class Migration {
 public:
  enum class MachineUids { kKept, kReplaced };
  Migration(const accounts::AccountFile& file, std::string path, MachineUids machine_uids, AccountEdit& edit)
      : file_(file.document), path_(std::move(path)), machine_uids_(machine_uids), edit_(edit) {}

  Status Run() {
    if (Status intact = edit_.CheckIntact(); !intact) return intact;
    if (Status found = FindFreeIds(); !found) return found;
    edit_.SkipIdsBelow(file_.next_id);
    // First, so that a group "Administrators" of the file, which had no special meaning, does not become the
    // administrators.
    for (const accounts::Group& group : file_.groups) {
      if (!IsWellKnown(group.name)) continue;
      if (Status added = AddGroup(group); !added) return added;
    }
    if (Status made = edit_.EnsureWellKnownGroups(); !made) return made;
    for (const accounts::Group& group : file_.groups) {
      if (IsWellKnown(group.name)) continue;
      if (Status added = AddGroup(group); !added) return added;
    }
    for (const accounts::AccountRecord& user : file_.users) {
      if (Status added = AddUser(user); !added) return added;
    }
    for (const auto& [name, members] : left_out_) NoteLeftOut(name, members);
    return {};
  }

  const std::vector<std::string>& notes() const { return notes_; }

 private:
  using Id = std::pair<records::AccountKind, std::uint32_t>;

  // Before any id is assigned, so that no new id equals one in the file.
  Status FindFreeIds() {
    std::vector<Id> ids;
    for (const accounts::Group& group : file_.groups) ids.emplace_back(records::AccountKind::kGroup, group.gid);
    for (const accounts::AccountRecord& user : file_.users) ids.emplace_back(records::AccountKind::kUser, user.uid);
    for (const auto& [kind, id] : ids) {
      const auto is_free = edit_.IsFree(kind, id);
      if (!is_free) return is_free.error();
      if (*is_free) free_.emplace(kind, id);
    }
    return {};
  }

  // The id in the store for an id of the file.
  Result<std::uint32_t> ChooseId(records::AccountKind kind, const std::string& name, std::uint32_t id) {
    const bool is_machine_uid = kind == records::AccountKind::kUser && !records::IsAssignedId(id);
    if (is_machine_uid && machine_uids_ == MachineUids::kReplaced) return ReplaceMachineUid(name, id);
    if (free_.contains({kind, id})) {
      if (kind == records::AccountKind::kUser && !records::IsAssignedId(id)) NoteMachineUid(name, id);
      return id;
    }
    const auto chosen = edit_.AllocateId();
    if (!chosen) return chosen.error();
    const std::string what = kind == records::AccountKind::kUser ? "user" : "group";
    notes_.push_back(
        fmt::format("The {} '{}' of '{}' now has the id {}, because the cluster has assigned the id {} to "
                    "another account. Under the new id, the {} has no grants. Grant them again with 'vexa {} grant'",
                    what, name, path_, *chosen, id, what, what));
    return *chosen;
  }

  // On another machine of the cluster, the id may belong to another user, whom the Unix socket would mistake for this
  // one.
  Result<std::uint32_t> ReplaceMachineUid(const std::string& name, std::uint32_t id) {
    const auto chosen = edit_.AllocateId();
    if (!chosen) return chosen.error();
    notes_.push_back(
        fmt::format("The user '{}' of '{}' now has the id {} instead of the machine's {}, which may belong to "
                    "another user on another host. The Unix socket no longer recognises the user, who has no grants "
                    "under the new id. "
                    "Grant them again with 'vexa user grant'",
                    name, path_, *chosen, id));
    return *chosen;
  }

  Status AddGroup(const accounts::Group& group) {
    if (const accounts::Group* known = edit_.accounts().FindGroup(group.name)) {
      const bool is_same = known->name == group.name && (IsWellKnown(group.name) || known->gid == group.gid);
      if (is_same) groups_.emplace(group.name, *known);
      if (is_same && known->gid != group.gid) {
        notes_.push_back(
            fmt::format("The group '{}' of '{}' now has the cluster's id {} instead of {}. "
                        "Grants of the old id do not apply to it",
                        group.name, path_, known->gid, group.gid));
      }
      return {};
    }
    const auto id = ChooseId(records::AccountKind::kGroup, group.name, group.gid);
    if (!id) return id.error();
    const accounts::Group added{group.name, *id};
    edit_.AddGroup(added);
    groups_.emplace(group.name, added);
    return {};
  }

  Status AddUser(const accounts::AccountRecord& record) {
    records::Account account = AccountOf(record);
    if (const records::Account* known = edit_.accounts().FindUser(record.name)) {
      const bool is_same = known->user.name == record.name && known->user.uid == record.uid &&
                           known->password == record.password && known->user.gid == account.user.gid &&
                           SortedIds(known->user) == SortedIds(account.user);
      if (!is_same) {
        notes_.push_back(fmt::format(
            "The user '{}' of '{}' was not migrated because the cluster already has a user '{}'. If they are one "
            "person, nothing needs to be done. Otherwise add the other one under another name with 'vexa user add'",
            record.name, path_, known->user.name));
      }
      return {};
    }
    const auto id = ChooseId(records::AccountKind::kUser, record.name, record.uid);
    if (!id) return id.error();
    account.user.uid = *id;
    edit_.PutUser(account);
    for (const std::string& name : GroupNames(record)) {
      if (!groups_.contains(name)) left_out_[name].push_back(record.name);
    }
    return {};
  }

  std::vector<std::string> GroupNames(const accounts::AccountRecord& record) const {
    std::vector<std::string> names;
    for (const accounts::Group& group : file_.groups) {
      if (group.gid == record.gid) names.push_back(group.name);
    }
    names.insert(names.end(), record.groups.begin(), record.groups.end());
    return names;
  }

  // The account as it will be in the store, except for the id. A primary group that is a different group there is
  // replaced by the default one.
  records::Account AccountOf(const accounts::AccountRecord& record) const {
    records::Account account{{record.name, record.uid, 0, {}, false}, record.password};
    const auto add = [&account](const accounts::Group& group) {
      const auto& groups = account.user.groups;
      const bool is_in =
          std::any_of(groups.begin(), groups.end(), [&](const accounts::Group& own) { return own.gid == group.gid; });
      if (!is_in) account.user.groups.push_back(group);
    };
    const std::vector<std::string> names = GroupNames(record);
    const auto primary = groups_.find(names.front());
    add(primary != groups_.end() ? primary->second : *edit_.accounts().FindGroup(accounts::kUsersGroup));
    account.user.gid = account.user.groups.front().gid;
    for (const std::string& name : names) {
      if (const auto group = groups_.find(name); group != groups_.end()) add(group->second);
    }
    return account;
  }

  // Before the migration, this uid was valid on one machine only.
  void NoteMachineUid(const std::string& name, std::uint32_t uid) {
    notes_.push_back(
        fmt::format("The user '{}' of '{}' keeps the uid {}. On every machine of the cluster, the account with this "
                    "uid is this user on the machine's Unix socket. If the uid belongs to different people on "
                    "different machines, delete the user "
                    "with 'vexa user del' and add it without --uid",
                    name, path_, uid));
  }

  void NoteLeftOut(const std::string& name, const std::vector<std::string>& members) {
    std::string list;
    for (const std::string& member : members) list += (list.empty() ? "'" : ", '") + member + "'";
    const accounts::Group* known = edit_.accounts().FindGroup(name);
    notes_.push_back(
        fmt::format("The group '{}' of '{}' is not the cluster's group '{}' (id {}). These users were not put into it: "
                    "{}. If the two are one group, add them with 'vexa user group'",
                    name, path_, known->name, known->gid, list));
  }

  const accounts::AccountDocument& file_;
  const std::string path_;
  const MachineUids machine_uids_;
  AccountEdit& edit_;
  std::set<Id> free_;                                         // ids of the file that the store has never assigned
  std::map<std::string, accounts::Group> groups_;             // groups of the store, by their names in the file
  std::map<std::string, std::vector<std::string>> left_out_;  // users by the group that they were not added to
  std::vector<std::string> notes_;
};

Result<store::Transaction> Plan(const records::Reader& reader, const accounts::AccountFile& file,
                                const std::string& path, std::vector<std::string>& notes) {
  notes.clear();
  const auto migrated = reader.Get(records::MigratedFileKey(file.fingerprint));
  if (!migrated) return migrated.error();
  if (migrated->has_value()) {
    notes.push_back(fmt::format("The accounts of '{}' were migrated before. The file is only renamed", path));
    return store::Transaction();
  }
  auto edit = AccountEdit::Begin(reader);
  if (!edit) return edit.error();
  const auto hosts = reader.Children(records::CategoryKey(VexaCCC::DB::DashCate::Host.name()));
  if (!hosts) return hosts.error();
  // A kept uid is valid on all machines, so uids are kept only where there has been one machine.
  const bool is_only_host = hosts->size() <= 1 && edit->accounts().users.empty();
  Migration migration(file, path, is_only_host ? Migration::MachineUids::kKept : Migration::MachineUids::kReplaced,
                      *edit);
  if (Status done = migration.Run(); !done) return done.error();
  notes = migration.notes();
  Json::Value marker(Json::objectValue);
  marker["users"] = static_cast<Json::UInt64>(file.document.users.size());
  edit->transaction().operations.push_back({records::MigratedFileKey(file.fingerprint), json::ToText(marker)});
  return std::move(*edit).Finish();
}

// Never replaces an older renamed file: users who were not migrated exist nowhere else.
Status Rename(const std::string& path) {
  constexpr int kMaxNumber = 1000;
  for (int number = 1; number <= kMaxNumber; ++number) {
    const std::string target = path + ".taken-over" + (number == 1 ? "" : "-" + std::to_string(number));
    if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) return {};
    if (errno == ENOENT) return {};  // another process has done the same
    if (errno != EEXIST) {
      return SystemError(
          ErrorCode::kInternal,
          fmt::format("The accounts of '{}' are in the store, but the file cannot be renamed to '{}'", path, target),
          errno);
    }
  }
  return Error(ErrorCode::kInternal, fmt::format("The accounts of '{}' are in the store, but the file cannot be "
                                                 "renamed. Remove older files that end in .taken-over",
                                                 path));
}

}  // namespace

Status MigrateAccountFile(store::Store& store, const std::string& path, const MigrationNote& note) {
  const auto file = accounts::ReadAccountFile(path);
  if (!file) return file.error().code() == ErrorCode::kNotFound ? Status() : Status(file.error());
  std::vector<std::string> notes;
  const Status committed =
      records::CommitWithRetry(store, [&](const records::Reader& reader) { return Plan(reader, *file, path, notes); });
  if (!committed) return committed;
  for (const std::string& sentence : notes) note(sentence);
  // The marker in the store prevents a second migration.
  if (const Status renamed = Rename(path); !renamed) note(renamed.error().ToString());
  return {};
}

}  // namespace vexa::cluster
