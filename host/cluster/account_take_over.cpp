#include "host/cluster/account_take_over.h"

#include <fcntl.h>
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

bool IsWellKnown(const std::string& group) { return group == base::kAdministratorsGroup || group == base::kUsersGroup; }

std::vector<std::uint32_t> SortedIds(const base::User& user) {
  std::vector<std::uint32_t> ids;
  for (const base::Group& group : user.groups) ids.push_back(group.gid);
  std::sort(ids.begin(), ids.end());
  return ids;
}

// Adds one file to an edit of the accounts.
class TakeOver {
 public:
  enum class MachineUids { kKept, kReplaced };
  TakeOver(const base::AccountFile& file, std::string path, MachineUids machine_uids, AccountEdit& edit)
      : file_(file.document), path_(std::move(path)), machine_uids_(machine_uids), edit_(edit) {}

  Status Run() {
    if (Status whole = edit_.CheckWhole(); !whole) return whole;
    if (Status found = FindFreeIds(); !found) return found;
    edit_.RaiseNextId(file_.next_id);
    // First, so that a group "Administrators" of the file, which had no special meaning, does not become the
    // administrators.
    for (const base::Group& group : file_.groups) {
      if (!IsWellKnown(group.name)) continue;
      if (Status added = AddGroup(group); !added) return added;
    }
    if (Status made = edit_.MakeWellKnownGroups(); !made) return made;
    for (const base::Group& group : file_.groups) {
      if (IsWellKnown(group.name)) continue;
      if (Status added = AddGroup(group); !added) return added;
    }
    for (const base::AccountRecord& user : file_.users) {
      if (Status added = AddUser(user); !added) return added;
    }
    for (const auto& [name, members] : left_out_) NoteLeftOut(name, members);
    return {};
  }

  const std::vector<std::string>& notes() const { return notes_; }

 private:
  using Id = std::pair<AccountKind, std::uint32_t>;

  // Before any id is assigned, so that no new id equals one in the file.
  Status FindFreeIds() {
    std::vector<Id> ids;
    for (const base::Group& group : file_.groups) ids.emplace_back(AccountKind::kGroup, group.gid);
    for (const base::AccountRecord& user : file_.users) ids.emplace_back(AccountKind::kUser, user.uid);
    for (const auto& [kind, id] : ids) {
      const auto is_free = edit_.IsFree(kind, id);
      if (!is_free) return is_free.error();
      if (*is_free) free_.emplace(kind, id);
    }
    return {};
  }

  // The id in the store for an id of the file.
  Result<std::uint32_t> ChooseId(AccountKind kind, const std::string& name, std::uint32_t id) {
    const bool is_machine_uid = kind == AccountKind::kUser && !IsOwnId(id);
    if (is_machine_uid && machine_uids_ == MachineUids::kReplaced) return ReplaceMachineUid(name, id);
    if (free_.contains({kind, id})) {
      if (kind == AccountKind::kUser && !IsOwnId(id)) NoteMachineUid(name, id);
      return id;
    }
    const auto chosen = edit_.TakeId();
    if (!chosen) return chosen.error();
    const std::string what = kind == AccountKind::kUser ? "user" : "group";
    notes_.push_back("The " + what + " '" + name + "' of '" + path_ + "' has the id " + std::to_string(*chosen) +
                     " from now on, since the cluster has given the id " + std::to_string(id) +
                     " to somebody else. It has no grants: give them again with 'vexa " + what + " grant'");
    return *chosen;
  }

  // On another machine of the cluster, the id may belong to another user, whom the Unix socket would mistake for this
  // one.
  Result<std::uint32_t> ReplaceMachineUid(const std::string& name, std::uint32_t id) {
    const auto chosen = edit_.TakeId();
    if (!chosen) return chosen.error();
    notes_.push_back("The user '" + name + "' of '" + path_ + "' has the id " + std::to_string(*chosen) +
                     " from now on, and not the machine's " + std::to_string(id) +
                     ", which may be somebody else's on another host: the Unix socket does not know the user any more. "
                     "It has no grants: give them again with 'vexa user grant'");
    return *chosen;
  }

  Status AddGroup(const base::Group& group) {
    if (const base::Group* known = edit_.accounts().FindGroup(group.name)) {
      const bool is_same = known->name == group.name && (IsWellKnown(group.name) || known->gid == group.gid);
      if (is_same) groups_.emplace(group.name, *known);
      if (is_same && known->gid != group.gid) {
        notes_.push_back("The group '" + group.name + "' of '" + path_ + "' has the id " + std::to_string(known->gid) +
                         " from now on, as in the whole cluster, and not " + std::to_string(group.gid) +
                         ". Grants of the old id do not apply to it");
      }
      return {};
    }
    const auto id = ChooseId(AccountKind::kGroup, group.name, group.gid);
    if (!id) return id.error();
    const base::Group added{group.name, *id};
    edit_.AddGroup(added);
    groups_.emplace(group.name, added);
    return {};
  }

  Status AddUser(const base::AccountRecord& record) {
    Account account = AccountOf(record);
    if (const Account* known = edit_.accounts().FindUser(record.name)) {
      const bool is_same = known->user.name == record.name && known->user.uid == record.uid &&
                           known->password == record.password && known->user.gid == account.user.gid &&
                           SortedIds(known->user) == SortedIds(account.user);
      if (!is_same) {
        notes_.push_back("The user '" + record.name + "' of '" + path_ +
                         "' was not migrated because the cluster already has a user '" + known->user.name +
                         "' already. If they are one person, that account counts; otherwise add the other one under "
                         "another name with 'vexa user add'");
      }
      return {};
    }
    const auto id = ChooseId(AccountKind::kUser, record.name, record.uid);
    if (!id) return id.error();
    account.user.uid = *id;
    edit_.PutUser(account);
    for (const std::string& name : GroupNames(record)) {
      if (!groups_.contains(name)) left_out_[name].push_back(record.name);
    }
    return {};
  }

  std::vector<std::string> GroupNames(const base::AccountRecord& record) const {
    std::vector<std::string> names;
    for (const base::Group& group : file_.groups) {
      if (group.gid == record.gid) names.push_back(group.name);
    }
    names.insert(names.end(), record.groups.begin(), record.groups.end());
    return names;
  }

  // The account as it will be in the store, except for the id. A primary group that is a different group there is
  // replaced by the default one.
  Account AccountOf(const base::AccountRecord& record) const {
    Account account{{record.name, record.uid, 0, {}, false}, record.password};
    const auto add = [&account](const base::Group& group) {
      const auto& groups = account.user.groups;
      const bool is_in =
          std::any_of(groups.begin(), groups.end(), [&](const base::Group& own) { return own.gid == group.gid; });
      if (!is_in) account.user.groups.push_back(group);
    };
    const std::vector<std::string> names = GroupNames(record);
    const auto primary = groups_.find(names.front());
    add(primary != groups_.end() ? primary->second : *edit_.accounts().FindGroup(base::kUsersGroup));
    account.user.gid = account.user.groups.front().gid;
    for (const std::string& name : names) {
      if (const auto group = groups_.find(name); group != groups_.end()) add(group->second);
    }
    return account;
  }

  // Until now, this uid was valid on one machine only.
  void NoteMachineUid(const std::string& name, std::uint32_t uid) {
    notes_.push_back(
        "The user '" + name + "' of '" + path_ + "' keeps the uid " + std::to_string(uid) +
        ": on every machine of the cluster, the account with this uid is this user on the machine's Unix socket. If "
        "machines differ in whose it is, delete the user with 'vexa user del' and add it without --uid");
  }

  void NoteLeftOut(const std::string& name, const std::vector<std::string>& members) {
    std::string list;
    for (const std::string& member : members) list += (list.empty() ? "'" : ", '") + member + "'";
    const base::Group* known = edit_.accounts().FindGroup(name);
    notes_.push_back("The group '" + name + "' of '" + path_ + "' is not the cluster's group '" + known->name +
                     "' (id " + std::to_string(known->gid) + "): these users were not put into it: " + list +
                     ". If the two are one group, add them with 'vexa user group'");
  }

  const base::AccountDocument& file_;
  const std::string path_;
  const MachineUids machine_uids_;
  AccountEdit& edit_;
  std::set<Id> free_;                                         // ids of the file that were never assigned
  std::map<std::string, base::Group> groups_;                 // groups of the file, by name, and what they are in the
                                                              // store
  std::map<std::string, std::vector<std::string>> left_out_;  // users by the group that they were not added to
  std::vector<std::string> notes_;
};

Result<store::Transaction> Plan(store::Store& store, const base::AccountFile& file, const std::string& path,
                                std::vector<std::string>& notes) {
  notes.clear();
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const auto taken = (*snapshot)->Get(TakenOverKey(file.fingerprint));
  if (!taken) return taken.error();
  if (taken->has_value()) {
    notes.push_back("The accounts of '" + path + "' were migrated before. The file is only renamed");
    return store::Transaction();
  }
  auto edit = AccountEdit::Begin(**snapshot);
  if (!edit) return edit.error();
  const auto hosts = (*snapshot)->Children(CategoryKey(VexaCCC::DB::DashCate::Host.name()));
  if (!hosts) return hosts.error();
  // A kept uid is valid on all machines, so uids are kept only where there has been one machine.
  const bool is_alone = hosts->size() <= 1 && edit->accounts().users.empty();
  TakeOver take_over(file, path, is_alone ? TakeOver::MachineUids::kKept : TakeOver::MachineUids::kReplaced, *edit);
  if (Status done = take_over.Run(); !done) return done.error();
  notes = take_over.notes();
  Json::Value marker(Json::objectValue);
  marker["users"] = static_cast<Json::UInt64>(file.document.users.size());
  edit->transaction().operations.push_back({TakenOverKey(file.fingerprint), json::ToText(marker)});
  return std::move(*edit).Finish();
}

// Never over an older one: users who were not migrated exist nowhere else.
Status Rename(const std::string& path) {
  constexpr int kMaxNumber = 1000;
  for (int number = 1; number <= kMaxNumber; ++number) {
    const std::string target = path + ".taken-over" + (number == 1 ? "" : "-" + std::to_string(number));
    if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) return {};
    if (errno == ENOENT) return {};  // another process has done the same
    if (errno != EEXIST) {
      return SystemError(
          ErrorCode::kInternal,
          "The accounts of '" + path + "' are in the store, but the file cannot be renamed to '" + target + "'", errno);
    }
  }
  return Error(ErrorCode::kInternal, "The accounts of '" + path +
                                         "' are in the store, but the file cannot be renamed: remove older files that "
                                         "end in .taken-over");
}

}  // namespace

Status TakeOverAccountFile(store::Store& store, const std::string& path, const TakeOverNote& note) {
  const auto file = base::ReadAccountFile(path);
  if (!file) return file.error().code() == ErrorCode::kNotFound ? Status() : Status(file.error());
  std::vector<std::string> notes;
  const Status committed = CommitPlanned(store, [&] { return Plan(store, *file, path, notes); });
  if (!committed) return committed;
  for (const std::string& sentence : notes) note(sentence);
  // The marker in the store prevents a second migration.
  if (const Status renamed = Rename(path); !renamed) note(renamed.error().ToString());
  return {};
}

}  // namespace vexa::cluster
