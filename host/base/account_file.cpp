#include "host/base/account_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "host/base/account_document.h"
#include "host/base/account_nss.h"
#include "host/base/account_password.h"
#include "host/base/files.h"
#include "host/base/private_file.h"

namespace vexa::base {
namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{16} << 20;
constexpr mode_t kFileMode = 0600;

struct Account {
  User user;
  std::string password;
};

// One state of the file, with what finds things in it. Never changed once made.
struct Snapshot {
  FileStamp stamp;
  bool stamp_may_repeat = false;
  std::unordered_map<std::string, Account> by_name;
  std::unordered_map<std::uint32_t, std::string> name_by_uid;
  std::unordered_map<std::uint32_t, Group> groups;  // by gid
};

User UserFrom(const AccountRecord& record, const std::unordered_map<std::string, Group>& groups_by_name,
              const Group& primary) {
  User user{record.name, record.uid, record.gid, {primary}, false};
  for (const std::string& name : record.groups) {
    if (name != primary.name) user.groups.push_back(groups_by_name.at(name));
  }
  user.is_administrator = std::any_of(user.groups.begin(), user.groups.end(),
                                      [](const Group& group) { return group.name == kAdministratorsGroup; });
  return user;
}

std::shared_ptr<const Snapshot> Index(const AccountDocument& document, const PrivateFile& file) {
  auto snapshot = std::make_shared<Snapshot>();
  snapshot->stamp = file.stamp;
  snapshot->stamp_may_repeat = file.stamp_may_repeat;
  std::unordered_map<std::string, Group> groups_by_name;
  for (const Group& group : document.groups) {
    groups_by_name.emplace(group.name, group);
    snapshot->groups.emplace(group.gid, group);
  }
  for (const AccountRecord& record : document.users) {
    snapshot->name_by_uid.emplace(record.uid, record.name);
    User user = UserFrom(record, groups_by_name, snapshot->groups.at(record.gid));
    snapshot->by_name.emplace(record.name, Account{std::move(user), record.password});
  }
  return snapshot;
}

// The lock of all who change the file, of this process and others. Let go by closing.
class ChangeLock {
 public:
  explicit ChangeLock(int fd) : fd_(fd) {}
  ChangeLock(ChangeLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  ChangeLock& operator=(ChangeLock&&) = delete;
  ~ChangeLock() {
    if (fd_ >= 0) ::close(fd_);
  }

  static Result<ChangeLock> Take(const std::string& account_path) {
    const std::string path = account_path + ".lock";
    ChangeLock lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kFileMode));
    if (lock.fd_ < 0) {
      const bool is_denied = errno == EACCES || errno == EPERM || errno == EROFS || errno == ELOOP;
      return SystemError(is_denied ? ErrorCode::kDenied : ErrorCode::kInternal, "Cannot open '" + path + "'", errno);
    }
    // A holder needs milliseconds; one that was stopped in between must not hold us for ever.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (::flock(lock.fd_, LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK && errno != EINTR) {
        return SystemError(ErrorCode::kInternal, "Cannot lock '" + path + "'", errno);
      }
      if (std::chrono::steady_clock::now() > deadline) {
        return Error(ErrorCode::kBusy, "Another process keeps '" + path + "' locked");
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    return lock;
  }

 private:
  int fd_;
};

Error NoUser(const std::string& name) {
  return Error(ErrorCode::kNotFound, IsValidAccountName(name) ? "There is no user '" + name + "'"
                                                              : std::string("There is no user of an impossible name"));
}

Status CheckGroupNames(const std::vector<std::string>& groups) {
  for (const std::string& group : groups) {
    if (!IsValidAccountName(group)) return Error(ErrorCode::kInvalid, "A group cannot have that name");
  }
  return {};
}

// Gives `record` the groups, made when missing, each once and without the primary one.
Status AssignGroups(AccountDocument& document, const std::vector<std::string>& names, AccountRecord& record) {
  record.groups.clear();
  for (const std::string& name : names) {
    auto group = document.GroupFor(name);
    if (!group.ok()) return group.error();
    const bool is_known =
        group->gid == record.gid || std::find(record.groups.begin(), record.groups.end(), name) != record.groups.end();
    if (!is_known) record.groups.push_back(name);
  }
  return {};
}

Result<std::uint32_t> ChooseUid(AccountDocument& document, const AccountFile::NewUser& user) {
  if (user.uid) {
    if (document.HasUid(*user.uid)) {
      return Error(ErrorCode::kConflict, "Another user has the uid " + std::to_string(*user.uid));
    }
    document.NoteId(*user.uid);
    return *user.uid;
  }
  const auto machine = NssFindUser(user.name);
  // Not guessed: an id of ours would stay wrong when the name service is back.
  if (!machine.ok() && machine.error().code() != ErrorCode::kNotFound) return machine.error();
  if (!machine.ok() || document.HasUid(machine->uid)) return document.TakeId();
  document.NoteId(machine->uid);
  return machine->uid;
}

}  // namespace

class AccountFile::Impl {
 public:
  explicit Impl(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }

  // For readers: the file as it is now, or kUnavailable.
  Result<std::shared_ptr<const Snapshot>> Current() {
    const auto stamp = StampOf(path_);
    if (stamp.ok()) {
      const std::lock_guard lock(mutex_);
      if (snapshot_ != nullptr && !snapshot_->stamp_may_repeat && snapshot_->stamp == *stamp) return snapshot_;
    }
    auto loaded = Load();
    if (!loaded.ok()) {
      return Error(ErrorCode::kUnavailable, "The accounts cannot be read", loaded.error().ToString());
    }
    return loaded;
  }

  // Reads the file, with the reason when it cannot be used.
  Result<std::shared_ptr<const Snapshot>> Load() {
    auto file = ReadPrivateFile(path_, kMaxFileBytes);
    if (!file.ok()) return file.error();
    auto document = ParseAccounts(file->content);
    if (!document.ok()) return Error(document.error().code(), "'" + path_ + "': " + document.error().ToString());
    auto snapshot = Index(*document, *file);
    const std::lock_guard lock(mutex_);
    // Two readers may finish in the wrong order; whichever stays, the next reader compares its stamp again.
    snapshot_ = snapshot;
    return snapshot;
  }

  // For writers: lets `change` edit the file's document, alone.
  Status Change(const std::function<Status(AccountDocument&)>& change) {
    const auto lock = ChangeLock::Take(path_);
    if (!lock.ok()) return lock.error();
    auto file = ReadPrivateFile(path_, kMaxFileBytes);
    if (!file.ok()) return file.error();
    auto document = ParseAccounts(file->content);
    if (!document.ok()) return Error(document.error().code(), "'" + path_ + "': " + document.error().ToString());
    if (Status status = change(*document); !status.ok()) return status;
    return Write(*document);
  }

  Status CreateIfMissing() {
    const auto lock = ChangeLock::Take(path_);
    if (!lock.ok()) return lock.error();
    const auto stamp = StampOf(path_);
    if (stamp.ok()) return {};
    if (stamp.error().code() != ErrorCode::kNotFound) return stamp.error();
    AccountDocument document;
    document.next_id = kFirstOwnId;
    auto group = document.GroupFor(std::string(kAdministratorsGroup));
    if (!group.ok()) return group.error();
    return Write(document);
  }

 private:
  Status Write(const AccountDocument& document) {
    const std::string text = RenderAccounts(document);
    // What cannot be read back would lock everybody out.
    if (text.size() > kMaxFileBytes) return Error(ErrorCode::kNoSpace, "The account file would become too large");
    return WriteFileAtomically(path_, text, kFileMode);
  }

  const std::string path_;
  std::mutex mutex_;  // of snapshot_ alone: held to copy or replace the pointer
  std::shared_ptr<const Snapshot> snapshot_;
};

AccountFile::AccountFile(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
AccountFile::~AccountFile() = default;

Result<std::unique_ptr<AccountFile>> AccountFile::Open(const std::string& path) {
  if (path.find('\0') != std::string::npos) return Error(ErrorCode::kInvalid, "The path of a file contains a NUL");
  auto impl = std::make_unique<Impl>(path);
  const auto stamp = StampOf(path);
  if (!stamp.ok() && stamp.error().code() == ErrorCode::kNotFound) {
    if (Status status = impl->CreateIfMissing(); !status.ok()) return status.error();
  }
  if (auto loaded = impl->Load(); !loaded.ok()) return loaded.error();
  return std::unique_ptr<AccountFile>(new AccountFile(std::move(impl)));
}

Result<User> AccountFile::FindUser(const std::string& name) const {
  const auto snapshot = impl_->Current();
  if (!snapshot.ok()) return snapshot.error();
  const auto found = (*snapshot)->by_name.find(name);
  if (found == (*snapshot)->by_name.end()) return NoUser(name);
  return found->second.user;
}

Result<User> AccountFile::FindUserByUid(std::uint32_t uid) const {
  const auto snapshot = impl_->Current();
  if (!snapshot.ok()) return snapshot.error();
  const auto found = (*snapshot)->name_by_uid.find(uid);
  if (found == (*snapshot)->name_by_uid.end()) {
    return Error(ErrorCode::kNotFound, "There is no user with the uid " + std::to_string(uid));
  }
  return (*snapshot)->by_name.at(found->second).user;
}

Result<Group> AccountFile::FindGroupByGid(std::uint32_t gid) const {
  const auto snapshot = impl_->Current();
  if (!snapshot.ok()) return snapshot.error();
  const auto found = (*snapshot)->groups.find(gid);
  if (found == (*snapshot)->groups.end()) {
    return Error(ErrorCode::kNotFound, "There is no group with the gid " + std::to_string(gid));
  }
  return found->second;
}

Result<User> AccountFile::VerifyPassword(const std::string& name, const std::string& password) const {
  const auto snapshot = impl_->Current();
  if (!snapshot.ok()) return snapshot.error();
  const auto found = (*snapshot)->by_name.find(name);
  const Account* account = found == (*snapshot)->by_name.end() ? nullptr : &found->second;
  switch (CheckPassword(account == nullptr ? nullptr : &account->password, password)) {
    case PasswordCheck::kMatches:
      return account->user;
    case PasswordCheck::kDiffers:
      return Error(ErrorCode::kDenied, "The name or the password is wrong");
    case PasswordCheck::kCannotTell:
      break;
  }
  return Error(ErrorCode::kUnavailable, "The password cannot be checked now");
}

Status AccountFile::AddUser(const NewUser& user) {
  if (!IsValidAccountName(user.name)) return Error(ErrorCode::kInvalid, "A user cannot have that name");
  if (Status status = CheckNewPassword(user.password); !status.ok()) return status;
  if (Status status = CheckGroupNames(user.groups); !status.ok()) return status;
  // (uid_t)-1 means "no id" to system calls.
  if (user.uid == static_cast<std::uint32_t>(-1)) return Error(ErrorCode::kInvalid, "A user cannot have that uid");
  auto hash = HashPassword(user.password);  // before the lock: it takes long
  if (!hash.ok()) return hash.error();
  return impl_->Change([&](AccountDocument& document) -> Status {
    if (document.FindUser(user.name) != nullptr) {
      return Error(ErrorCode::kConflict, "There is a user '" + user.name + "' already");
    }
    const auto uid = ChooseUid(document, user);
    if (!uid.ok()) return uid.error();
    const auto primary = document.GroupFor(std::string(kUsersGroup));
    if (!primary.ok()) return primary.error();
    AccountRecord record{user.name, *uid, primary->gid, *hash, {}};
    if (Status status = AssignGroups(document, user.groups, record); !status.ok()) return status;
    document.users.push_back(std::move(record));
    return {};
  });
}

Status AccountFile::SetPassword(const std::string& name, const std::string& password) {
  if (Status status = CheckNewPassword(password); !status.ok()) return status;
  auto hash = HashPassword(password);
  if (!hash.ok()) return hash.error();
  return impl_->Change([&](AccountDocument& document) -> Status {
    AccountRecord* record = document.FindUser(name);
    if (record == nullptr) return NoUser(name);
    record->password = *hash;
    return {};
  });
}

Status AccountFile::SetGroups(const std::string& name, const std::vector<std::string>& groups) {
  if (Status status = CheckGroupNames(groups); !status.ok()) return status;
  return impl_->Change([&](AccountDocument& document) -> Status {
    AccountRecord* record = document.FindUser(name);
    if (record == nullptr) return NoUser(name);
    return AssignGroups(document, groups, *record);
  });
}

Status AccountFile::DeleteUser(const std::string& name) {
  return impl_->Change([&](AccountDocument& document) -> Status {
    const AccountRecord* record = document.FindUser(name);
    if (record == nullptr) return NoUser(name);
    document.users.erase(document.users.begin() + (record - document.users.data()));
    return {};
  });
}

Result<std::vector<User>> AccountFile::ListUsers() const {
  const auto snapshot = impl_->Current();
  if (!snapshot.ok()) return snapshot.error();
  std::vector<User> users;
  users.reserve((*snapshot)->by_name.size());
  for (const auto& [name, account] : (*snapshot)->by_name) users.push_back(account.user);
  std::sort(users.begin(), users.end(), [](const User& a, const User& b) { return a.name < b.name; });
  return users;
}

}  // namespace vexa::base
