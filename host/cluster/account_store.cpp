#include "host/cluster/account_store.h"

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
  return Error(ErrorCode::kNotFound, base::IsValidAccountName(name) ? "There is no user '" + name + "'"
                                                                    : std::string("The user name is invalid"));
}

Error NoUserWithUid(std::uint32_t uid) {
  return Error(ErrorCode::kNotFound, "There is no user with the uid " + std::to_string(uid));
}

// For an account that was not found: the damaged record may be about it.
Error NotFoundOrDamaged(const AccountIndex& accounts, Error error) {
  return accounts.damage ? Unavailable(*accounts.damage) : std::move(error);
}

Status CheckNewUser(const AccountStore::NewUser& user) {
  if (!base::IsValidAccountName(user.name)) return Error(ErrorCode::kInvalid, "A user cannot have that name");
  // (uid_t)-1 means "no id" to system calls.
  if (user.uid == UINT32_MAX) return Error(ErrorCode::kInvalid, "A user cannot have that uid");
  return base::CheckNewPassword(user.password);
}

Status CheckGroupNames(const std::vector<std::string>& groups) {
  for (const std::string& group : groups) {
    if (!base::IsValidAccountName(group)) return Error(ErrorCode::kInvalid, "A group cannot have that name");
  }
  return {};
}

Result<std::uint32_t> ChooseUid(AccountEdit& edit, const AccountStore::NewUser& user) {
  if (!user.uid) return edit.TakeId();
  const auto is_free = edit.IsFree(AccountKind::kUser, *user.uid);
  if (!is_free) return is_free.error();
  if (*is_free) return *user.uid;
  const std::string number = std::to_string(*user.uid);
  const auto found = edit.accounts().users.find(*user.uid);
  if (found != edit.accounts().users.end()) {
    return Error(ErrorCode::kConflict, "The user '" + found->second.user.name + "' has the uid " + number);
  }
  return Error(ErrorCode::kConflict,
               "The uid " + number + " was given before, and no id is given twice: choose another one");
}

// The account that a change is about, in the state that the change replaces.
Result<Account> AccountOf(const AccountEdit& edit, const PrincipalWord& user) {
  const AccountIndex& accounts = edit.accounts();
  if (const auto* const name = std::get_if<std::string>(&user)) {
    const Account* const found = accounts.FindUser(*name);
    return found != nullptr ? Result<Account>(*found) : UnknownUser(*name);
  }
  const std::uint32_t uid = std::get<std::uint32_t>(user);
  const auto found = accounts.users.find(uid);
  if (found != accounts.users.end()) return found->second;
  return accounts.damaged_users.contains(uid) ? *accounts.damage : NoUserWithUid(uid);
}

// Assigns the groups to the user, creating missing ones, without duplicates and after the primary one.
Status AssignGroups(AccountEdit& edit, const std::vector<std::string>& names, base::User& user) {
  user.groups.erase(std::remove_if(user.groups.begin(), user.groups.end(),
                                   [&](const base::Group& group) { return group.gid != user.gid; }),
                    user.groups.end());
  for (const std::string& name : names) {
    const auto group = edit.GroupFor(name);
    if (!group) return group.error();
    const bool is_in = std::any_of(user.groups.begin(), user.groups.end(),
                                   [&](const base::Group& own) { return own.gid == group->gid; });
    if (!is_in) user.groups.push_back(*group);
  }
  return {};
}

bool IsIn(const base::User& user, std::string_view group_name) {
  return std::ranges::any_of(user.groups, [&](const base::Group& group) { return group.name == group_name; });
}

// Of two that take the last two administrators away at the same time, one is planned again and finds the other's.
Status CheckIsNotLastAdministrator(const AccountEdit& edit, const base::User& user) {
  const bool is_last = user.is_administrator && std::ranges::none_of(edit.accounts().users, [&](const auto& entry) {
                         return entry.first != user.uid && entry.second.user.is_administrator;
                       });
  if (!is_last) return {};
  return Error(
      ErrorCode::kDenied,
      "The user '" + user.name + "' is the last one in the group 'administrators'. Put another user into it first");
}

Status PlanNewUser(AccountEdit& edit, const AccountStore::NewUser& user, const std::string& hash) {
  if (Status whole = edit.CheckWhole(); !whole) return whole;
  if (const Account* taken = edit.accounts().FindUser(user.name)) {
    return Error(ErrorCode::kConflict, "There is a user '" + taken->user.name + "' already");
  }
  if (Status made = edit.MakeWellKnownGroups(); !made) return made;
  const auto uid = ChooseUid(edit, user);
  if (!uid) return uid.error();
  const auto primary = edit.GroupFor(std::string(base::kUsersGroup));
  if (!primary) return primary.error();
  Account account{{user.name, *uid, primary->gid, {*primary}, false}, hash};
  if (Status assigned = AssignGroups(edit, user.groups, account.user); !assigned) return assigned;
  edit.PutUser(account);
  edit.ForgetGrants(*uid);
  if (user.level == AccountStore::Level::kAdvanced) {
    edit.transaction().operations.push_back({GuestAdminKey(GuestAdminIdentifier(kUsersKind, *uid)),
                                             json::ToText(NewGrantRecord(user.name, kAdvancedLevel))});
  }
  return {};
}

}  // namespace

AccountStore::AccountStore(std::shared_ptr<store::Store> store) : store_(std::move(store)) {}
AccountStore::~AccountStore() = default;

// The index of the newest state. The snapshot lives for one look-up, or while all accounts are loaded after a change.
Result<AccountStore::Accounts> AccountStore::Current() const {
  const auto find = [this](store::Revision revision) {
    const std::lock_guard lock(mutex_);
    return current_ && current_->revision == revision ? current_ : nullptr;
  };
  {
    const auto snapshot = store_->Read();
    if (!snapshot) return Unavailable(snapshot.error());
    const auto revision = AccountRevision(**snapshot);
    if (!revision) return Unavailable(revision.error());
    if (Accounts accounts = find(*revision)) return accounts;
  }
  // Wait without a snapshot. The second thread finds what the first has loaded.
  const std::lock_guard turn(load_mutex_);
  const auto snapshot = store_->Read();
  if (!snapshot) return Unavailable(snapshot.error());
  const auto revision = AccountRevision(**snapshot);
  if (!revision) return Unavailable(revision.error());
  if (Accounts accounts = find(*revision)) return accounts;
  auto loaded = LoadAccounts(**snapshot);
  if (!loaded) return Unavailable(loaded.error());
  const auto accounts = std::make_shared<const AccountIndex>(std::move(*loaded));
  const std::lock_guard lock(mutex_);
  current_ = accounts;
  return accounts;
}

// `change` (a Status(AccountEdit&)) plans the change. It is called again after another change of an account.
template <class Change>
Status AccountStore::Edit(const Change& change) {
  return CommitAccountChange(*store_, [&]() -> Result<store::Transaction> {
    const auto snapshot = store_->Read();
    if (!snapshot) return StoreFailure(snapshot.error());
    auto edit = AccountEdit::Begin(**snapshot);
    if (!edit) return edit.error();
    if (Status planned = change(*edit); !planned) return planned.error();
    return std::move(*edit).Finish();
  });
}

Result<base::User> AccountStore::FindUser(const std::string& name) const {
  const auto accounts = Current();
  if (!accounts) return accounts.error();
  if (const Account* found = (*accounts)->FindUser(name)) return found->user;
  return NotFoundOrDamaged(**accounts, UnknownUser(name));
}

Result<base::User> AccountStore::FindUserByUid(std::uint32_t uid) const {
  const auto accounts = Current();
  if (!accounts) return accounts.error();
  const auto found = (*accounts)->users.find(uid);
  if (found != (*accounts)->users.end()) return found->second.user;
  if ((*accounts)->damaged_users.contains(uid)) return Unavailable(*(*accounts)->damage);
  return NoUserWithUid(uid);
}

Result<base::Group> AccountStore::FindGroup(const std::string& name) const {
  const auto accounts = Current();
  if (!accounts) return accounts.error();
  if (const base::Group* found = (*accounts)->FindGroup(name)) return *found;
  return NotFoundOrDamaged(**accounts, NoGroup(name));
}

Result<base::Group> AccountStore::FindGroupByGid(std::uint32_t gid) const {
  const auto accounts = Current();
  if (!accounts) return accounts.error();
  const auto found = (*accounts)->groups.find(gid);
  if (found != (*accounts)->groups.end()) return found->second;
  if ((*accounts)->damaged_groups.contains(gid)) return Unavailable(*(*accounts)->damage);
  return NoGroupWithGid(gid);
}

Result<base::User> AccountStore::VerifyPassword(const std::string& name, const std::string& password) const {
  const auto account = VerifyAccount(name, password);
  if (!account) return account.error();
  return account->user;
}

Result<Account> AccountStore::VerifyAccount(const std::string& name, const std::string& password) const {
  const auto accounts = Current();
  if (!accounts) return accounts.error();
  const Account* account = (*accounts)->FindUser(name);
  switch (base::CheckPassword(account == nullptr ? nullptr : &account->password, password)) {
    case base::PasswordCheck::kMatches:
      return *account;
    case base::PasswordCheck::kDiffers: {
      Error denied(ErrorCode::kDenied, "The name or the password is wrong");
      return account == nullptr ? NotFoundOrDamaged(**accounts, std::move(denied)) : denied;
    }
    case base::PasswordCheck::kCannotTell:
      break;
  }
  return Error(ErrorCode::kUnavailable, "The password cannot be checked now");
}

Status AccountStore::AddUser(const NewUser& user) {
  if (Status possible = CheckNewUser(user); !possible) return possible;
  if (Status possible = CheckGroupNames(user.groups); !possible) return possible;
  const auto hash = base::HashPassword(user.password);  // only once, however often the commit is retried: hashing takes
                                                        // long
  if (!hash) return hash.error();
  return Edit([&](AccountEdit& edit) { return PlanNewUser(edit, user, *hash); });
}

Status AccountStore::CheckSharedUid(std::uint32_t uid) {
  if (uid != 0 && uid != ::geteuid()) return {};
  return Error(ErrorCode::kInvalid, "The uid " + std::to_string(uid) +
                                        " is that of root or of the daemon, who are administrators of the machine "
                                        "without an account. Choose another uid, or none");
}

Status AccountStore::SetPassword(const PrincipalWord& user, const std::string& password,
                                 const std::optional<std::string>& verified_hash) {
  if (Status possible = base::CheckNewPassword(password); !possible) return possible;
  const auto hash = base::HashPassword(password);
  if (!hash) return hash.error();
  return Edit([&](AccountEdit& edit) -> Status {
    const Result<Account> found = AccountOf(edit, user);
    if (!found) return found.error();
    if (verified_hash && found->password != *verified_hash) {
      return Error(ErrorCode::kDenied, "The password has been changed since the old one was checked");
    }
    edit.PutUser({found->user, *hash});
    return {};
  });
}

Status AccountStore::SetGroups(const PrincipalWord& user, const std::vector<std::string>& groups) {
  if (Status possible = CheckGroupNames(groups); !possible) return possible;
  return Edit([&](AccountEdit& edit) -> Status {
    Result<Account> account = AccountOf(edit, user);
    if (!account) return account.error();
    const base::User before = account->user;
    if (Status assigned = AssignGroups(edit, groups, account->user); !assigned) return assigned;
    if (!IsIn(account->user, base::kAdministratorsGroup)) {
      if (Status other = CheckIsNotLastAdministrator(edit, before); !other) return other;
    }
    edit.PutUser(*account);
    return {};
  });
}

Status AccountStore::DeleteUser(const PrincipalWord& user) {
  return Edit([&](AccountEdit& edit) -> Status {
    const Result<Account> found = AccountOf(edit, user);
    if (!found) return found.error();
    if (Status other = CheckIsNotLastAdministrator(edit, found->user); !other) return other;
    edit.DeleteUser(found->user.uid);
    return {};
  });
}

Result<std::vector<base::User>> AccountStore::ListUsers() const {
  const auto accounts = Current();
  if (!accounts) return accounts.error();
  if ((*accounts)->damage) return Unavailable(*(*accounts)->damage);
  std::vector<base::User> users;
  users.reserve((*accounts)->users.size());
  for (const auto& [uid, account] : (*accounts)->users) users.push_back(account.user);
  std::sort(users.begin(), users.end(), [](const base::User& a, const base::User& b) { return a.name < b.name; });
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

Status AccountStore::DeleteGroup(const PrincipalWord& group) {
  return Edit([&](AccountEdit& edit) { return PlanGroupDeletion(edit, group); });
}

}  // namespace vexa::cluster
