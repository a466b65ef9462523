#include "host/cluster/account_store.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "host/accounts/account_password.h"
#include "host/cluster/account_commit.h"
#include "host/cluster/account_edit.h"
#include "host/cluster/account_groups.h"
#include "host/records/guest_admin.h"
#include "host/records/guest_admin_record.h"
#include "json/readers.h"

namespace vexa::cluster {
namespace {

Error Unavailable(const Error& cause) {
  return Error(ErrorCode::kUnavailable, "The accounts cannot be read", cause.ToString());
}

Error UnknownUser(const std::string& name) {
  return Error(ErrorCode::kNotFound, accounts::IsValidAccountName(name) ? fmt::format("There is no user '{}'", name)
                                                                        : std::string("The user name is invalid"));
}

Error UnknownUid(std::uint32_t uid) {
  return Error(ErrorCode::kNotFound, fmt::format("There is no user with the uid {}", uid));
}

// For an account that was not found: a damaged record may be its record.
Error NotFoundOrDamaged(const records::AccountIndex& accounts, Error error) {
  return accounts.damage ? Unavailable(*accounts.damage) : std::move(error);
}

Status CheckNewUser(const AccountStore::NewUser& user) {
  if (!accounts::IsValidAccountName(user.name)) return Error(ErrorCode::kInvalid, "A user cannot have that name");
  // (uid_t)-1 means "no id" to system calls.
  if (user.uid == UINT32_MAX) return Error(ErrorCode::kInvalid, "A user cannot have that uid");
  return accounts::CheckNewPassword(user.password);
}

Status CheckGroupNames(const std::vector<std::string>& groups) {
  for (const std::string& group : groups) {
    if (!accounts::IsValidAccountName(group)) return Error(ErrorCode::kInvalid, "A group cannot have that name");
  }
  return {};
}

Result<std::uint32_t> ChooseUid(AccountEdit& edit, const AccountStore::NewUser& user) {
  if (!user.uid) return edit.AllocateId();
  const auto is_free = edit.IsFree(records::AccountKind::kUser, *user.uid);
  if (!is_free) return is_free.error();
  if (*is_free) return *user.uid;
  const std::string number = std::to_string(*user.uid);
  const auto found = edit.accounts().users.find(*user.uid);
  if (found != edit.accounts().users.end()) {
    return Error(ErrorCode::kConflict, fmt::format("The user '{}' has the uid {}", found->second.user.name, number));
  }
  return Error(
      ErrorCode::kConflict,
      fmt::format("The uid {} was assigned before, and ids are never assigned again. Choose another one", number));
}

// The account that a change is about, in the state that the change replaces.
Result<records::Account> AccountOf(const AccountEdit& edit, const PrincipalNameOrId& user) {
  const records::AccountIndex& accounts = edit.accounts();
  if (const auto* const name = std::get_if<std::string>(&user)) {
    const records::Account* const found = accounts.FindUser(*name);
    return found != nullptr ? Result<records::Account>(*found) : UnknownUser(*name);
  }
  const std::uint32_t uid = std::get<std::uint32_t>(user);
  const auto found = accounts.users.find(uid);
  if (found != accounts.users.end()) return found->second;
  return accounts.damaged_users.contains(uid) ? *accounts.damage : UnknownUid(uid);
}

// Assigns the groups to the user, creating missing ones, without duplicates and after the primary one.
Status AssignGroups(AccountEdit& edit, const std::vector<std::string>& names, accounts::User& user) {
  user.groups.erase(std::remove_if(user.groups.begin(), user.groups.end(),
                                   [&](const accounts::Group& group) { return group.gid != user.gid; }),
                    user.groups.end());
  for (const std::string& name : names) {
    const auto group = edit.FindOrCreateGroup(name);
    if (!group) return group.error();
    const bool is_in = std::any_of(user.groups.begin(), user.groups.end(),
                                   [&](const accounts::Group& own) { return own.gid == group->gid; });
    if (!is_in) user.groups.push_back(*group);
  }
  return {};
}

bool IsIn(const accounts::User& user, std::string_view group_name) {
  return std::ranges::any_of(user.groups, [&](const accounts::Group& group) { return group.name == group_name; });
}

// Of two concurrent removals of the last two administrators, one conflicts, is planned again and is refused.
Status CheckIsNotLastAdministrator(const AccountEdit& edit, const accounts::User& user) {
  const bool is_last = user.is_administrator && std::ranges::none_of(edit.accounts().users, [&](const auto& entry) {
                         return entry.first != user.uid && entry.second.user.is_administrator;
                       });
  if (!is_last) return {};
  return Error(
      ErrorCode::kDenied,
      fmt::format("The user '{}' is the last one in the group 'administrators'. Put another user into it first",
                  user.name));
}

Status PlanNewUser(AccountEdit& edit, const AccountStore::NewUser& user, const std::string& hash) {
  if (Status intact = edit.CheckIntact(); !intact) return intact;
  if (const records::Account* taken = edit.accounts().FindUser(user.name)) {
    return Error(ErrorCode::kConflict, fmt::format("There is a user '{}' already", taken->user.name));
  }
  if (Status made = edit.EnsureWellKnownGroups(); !made) return made;
  const auto uid = ChooseUid(edit, user);
  if (!uid) return uid.error();
  const auto primary = edit.FindOrCreateGroup(std::string(accounts::kUsersGroup));
  if (!primary) return primary.error();
  records::Account account{{user.name, *uid, primary->gid, {*primary}, false}, hash};
  if (Status assigned = AssignGroups(edit, user.groups, account.user); !assigned) return assigned;
  edit.PutUser(account);
  edit.DropGrantsOf(*uid);
  if (user.level == AccountStore::Level::kAdvanced) {
    edit.transaction().operations.push_back(
        {records::GuestAdminKey(records::GuestAdminIdentifier(records::kUsersKind, *uid)),
         json::ToText(records::NewGrantRecord(user.name, records::kAdvancedLevel))});
  }
  return {};
}

}  // namespace

AccountStore::AccountStore(std::shared_ptr<store::Store> store) : store_(std::move(store)) {}
AccountStore::~AccountStore() = default;

// The index of the latest state: the cached one, or loaded after a change. No snapshot is open while waiting.
Result<AccountStore::Accounts> AccountStore::Current() const {
  const auto find = [this](store::Revision revision) {
    const MutexLock lock(mutex_);
    return current_ && current_->revision == revision ? current_ : nullptr;
  };
  {
    const auto snapshot = store_->Read();
    if (!snapshot) return Unavailable(snapshot.error());
    const auto revision = records::AccountRevision(**snapshot);
    if (!revision) return Unavailable(revision.error());
    if (Accounts accounts = find(*revision)) return accounts;
  }
  // Wait without a snapshot. All threads but the first find the index loaded.
  const MutexLock turn(load_mutex_);
  const auto snapshot = store_->Read();
  if (!snapshot) return Unavailable(snapshot.error());
  const auto revision = records::AccountRevision(**snapshot);
  if (!revision) return Unavailable(revision.error());
  if (Accounts accounts = find(*revision)) return accounts;
  auto loaded = records::LoadAccounts(**snapshot);
  if (!loaded) return Unavailable(loaded.error());
  const auto accounts = std::make_shared<const records::AccountIndex>(std::move(*loaded));
  const MutexLock lock(mutex_);
  current_ = accounts;
  return accounts;
}

// `change` (a Status(AccountEdit&)) plans the change. It is called again after another change of an account.
template <class Change>
Status AccountStore::Edit(const Change& change) {
  return CommitAccountChange(*store_, [&](const records::Reader& reader) -> Result<store::Transaction> {
    auto edit = AccountEdit::Begin(reader);
    if (!edit) return edit.error();
    if (Status planned = change(*edit); !planned) return planned.error();
    return std::move(*edit).Finish();
  });
}

Result<accounts::User> AccountStore::FindUser(const std::string& name) const {
  const auto accounts = Current();
  if (!accounts) return accounts.error();
  if (const records::Account* found = (*accounts)->FindUser(name)) return found->user;
  return NotFoundOrDamaged(**accounts, UnknownUser(name));
}

Result<accounts::User> AccountStore::FindUserByUid(std::uint32_t uid) const {
  const auto accounts = Current();
  if (!accounts) return accounts.error();
  const auto found = (*accounts)->users.find(uid);
  if (found != (*accounts)->users.end()) return found->second.user;
  if ((*accounts)->damaged_users.contains(uid)) return Unavailable(*(*accounts)->damage);
  return UnknownUid(uid);
}

Result<accounts::Group> AccountStore::FindGroup(const std::string& name) const {
  const auto accounts = Current();
  if (!accounts) return accounts.error();
  if (const accounts::Group* found = (*accounts)->FindGroup(name)) return *found;
  return NotFoundOrDamaged(**accounts, UnknownGroup(name));
}

Result<accounts::Group> AccountStore::FindGroupByGid(std::uint32_t gid) const {
  const auto accounts = Current();
  if (!accounts) return accounts.error();
  const auto found = (*accounts)->groups.find(gid);
  if (found != (*accounts)->groups.end()) return found->second;
  if ((*accounts)->damaged_groups.contains(gid)) return Unavailable(*(*accounts)->damage);
  return UnknownGid(gid);
}

Result<accounts::User> AccountStore::VerifyPassword(const std::string& name, const std::string& password) const {
  const auto account = VerifyAccount(name, password);
  if (!account) return account.error();
  return account->user;
}

Result<records::Account> AccountStore::VerifyAccount(const std::string& name, const std::string& password) const {
  const auto accounts = Current();
  if (!accounts) return accounts.error();
  const records::Account* account = (*accounts)->FindUser(name);
  switch (accounts::CheckPassword(account == nullptr ? nullptr : &account->password, password)) {
    case accounts::PasswordCheck::kMatches:
      return *account;
    case accounts::PasswordCheck::kMismatch: {
      Error denied(ErrorCode::kDenied, "The name or the password is wrong");
      return account == nullptr ? NotFoundOrDamaged(**accounts, std::move(denied)) : denied;
    }
    case accounts::PasswordCheck::kUnavailable:
      break;
  }
  return Error(ErrorCode::kUnavailable, "The password cannot be checked now");
}

Status AccountStore::AddUser(const NewUser& user) {
  if (Status valid = CheckNewUser(user); !valid) return valid;
  if (Status valid = CheckGroupNames(user.groups); !valid) return valid;
  // Hashing is slow, so it is not repeated when the commit is retried.
  const auto hash = accounts::HashPassword(user.password);
  if (!hash) return hash.error();
  return Edit([&](AccountEdit& edit) { return PlanNewUser(edit, user, *hash); });
}

Status AccountStore::CheckMachineUid(std::uint32_t uid) {
  if (uid != 0 && uid != ::geteuid()) return {};
  return Error(ErrorCode::kInvalid, fmt::format("The uid {} is that of root or of the daemon, who are administrators "
                                                "of the machine without an account. Choose another uid, or none",
                                                uid));
}

Result<std::string> AccountStore::SetPassword(const PrincipalNameOrId& user, const std::string& password,
                                              const std::optional<std::string>& verified_hash,
                                              const std::function<Status(const std::string& stamp)>& before_commit) {
  if (Status valid = accounts::CheckNewPassword(password); !valid) return valid.error();
  const auto hash = accounts::HashPassword(password);
  if (!hash) return hash.error();
  std::string stamp = accounts::StampOfHash(*hash);
  if (before_commit) {
    if (Status ready = before_commit(stamp); !ready) return ready.error();
  }
  const Status changed = Edit([&](AccountEdit& edit) -> Status {
    const Result<records::Account> found = AccountOf(edit, user);
    if (!found) return found.error();
    if (verified_hash && found->password != *verified_hash) {
      return Error(ErrorCode::kDenied, "The password has been changed since the old one was checked");
    }
    edit.PutUser({found->user, *hash});
    return {};
  });
  return changed ? Result<std::string>(std::move(stamp)) : changed.error();
}

Status AccountStore::SetGroups(const PrincipalNameOrId& user, const std::vector<std::string>& groups) {
  if (Status valid = CheckGroupNames(groups); !valid) return valid;
  return Edit([&](AccountEdit& edit) -> Status {
    Result<records::Account> account = AccountOf(edit, user);
    if (!account) return account.error();
    const accounts::User before = account->user;
    if (Status assigned = AssignGroups(edit, groups, account->user); !assigned) return assigned;
    if (!IsIn(account->user, accounts::kAdministratorsGroup)) {
      if (Status other = CheckIsNotLastAdministrator(edit, before); !other) return other;
    }
    edit.PutUser(*account);
    return {};
  });
}

Status AccountStore::DeleteUser(const PrincipalNameOrId& user) {
  return Edit([&](AccountEdit& edit) -> Status {
    const Result<records::Account> found = AccountOf(edit, user);
    if (!found) return found.error();
    if (Status other = CheckIsNotLastAdministrator(edit, found->user); !other) return other;
    edit.DeleteUser(found->user.uid);
    return {};
  });
}

Result<std::vector<accounts::User>> AccountStore::ListUsers() const {
  const auto accounts = Current();
  if (!accounts) return accounts.error();
  if ((*accounts)->damage) return Unavailable(*(*accounts)->damage);
  std::vector<accounts::User> users;
  users.reserve((*accounts)->users.size());
  for (const auto& [uid, account] : (*accounts)->users) users.push_back(account.user);
  std::sort(users.begin(), users.end(),
            [](const accounts::User& a, const accounts::User& b) { return a.name < b.name; });
  return users;
}

Result<std::vector<AccountStore::GroupWithMembers>> AccountStore::ListGroups() const {
  const auto accounts = Current();
  if (!accounts) return accounts.error();
  if ((*accounts)->damage) return Unavailable(*(*accounts)->damage);
  auto members = MembersOfGroups(**accounts);
  std::vector<GroupWithMembers> groups;
  groups.reserve((*accounts)->groups.size());
  for (const auto& [gid, group] : (*accounts)->groups) {
    groups.push_back({group, std::move(members[gid])});
  }
  std::sort(groups.begin(), groups.end(), [](const auto& a, const auto& b) { return a.group.name < b.group.name; });
  return groups;
}

Status AccountStore::DeleteGroup(const PrincipalNameOrId& group) {
  return Edit([&](AccountEdit& edit) { return PlanGroupDeletion(edit, group); });
}

}  // namespace vexa::cluster
