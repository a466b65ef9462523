#include "cli/owner.h"

#include <fmt/format.h>

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string_view>

#include "host/base/become_account.h"
#include "host/base/descriptor.h"
#include "host/base/files.h"

namespace vexa::cli {
namespace {

std::string AccountName(uid_t uid) {
  const passwd* entry = ::getpwuid(uid);
  return entry && entry->pw_name ? entry->pw_name : fmt::format("#{}", uid);
}

struct Account {
  uid_t user;
  gid_t group;
};

// The account may write in the folders below: a link that it has made must not lead to files of root elsewhere. So each
// file is opened in its folder, and never by its path.

Result<Descriptor> OpenFolder(std::string folder) {
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();  // a link with a slash behind it is its target
  struct stat info {};
  const bool is_link = ::lstat(folder.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
  if (is_link && info.st_uid != 0) {
    return Error(ErrorCode::kDenied, fmt::format("'{0}' is a symbolic link of another account than root. Remove it, or "
                                                 "run: chown -h root '{0}'",
                                                 folder));
  }
  Descriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (is_link ? 0 : O_NOFOLLOW)));
  if (fd.get() < 0) return SystemError(ErrorCode::kDenied, fmt::format("Cannot use '{}'", folder), errno);
  return fd;
}

// Gives a folder or a file of root, and leaves everything else, such as files with a second name. False: see errno.
bool Give(int fd, const Account& owner) {
  struct stat info {};
  if (::fstat(fd, &info) != 0) return false;
  if (info.st_uid != 0 || !(S_ISDIR(info.st_mode) || (S_ISREG(info.st_mode) && info.st_nlink == 1))) return true;
  return ::fchown(fd, owner.user, owner.group) == 0;
}

// False: see errno.
bool GiveContents(int folder, const Account& owner) {
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(::dup(folder)), &::closedir);
  if (!entries) return false;
  while (const dirent* const entry = ::readdir(entries.get())) {
    if (std::string_view(entry->d_name) == "..") continue;
    const Descriptor file(::openat(folder, entry->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.get() >= 0 && !Give(file.get(), owner)) return false;
  }
  return true;
}

bool GiveStore(int folder, const Account& owner) {
  const Descriptor store(::openat(folder, "store", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return store.get() < 0 || GiveContents(store.get(), owner);
}

}  // namespace

Status CheckOwner(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    return SystemError(errno == ENOENT ? ErrorCode::kNotFound : ErrorCode::kDenied,
                       fmt::format("Cannot use '{}'", path), errno);
  }
  if (info.st_uid == ::geteuid()) return {};
  return Error(ErrorCode::kDenied,
               fmt::format("'{0}' belongs to '{1}'. Run the command as that account: sudo -u '{1}' vexa …", path,
                           AccountName(info.st_uid)));
}

Status BecomeOwner(const std::string& folder) {
  struct stat info {};
  if (::geteuid() != 0 || ::stat(folder.c_str(), &info) != 0 || info.st_uid == 0) return {};
  return BecomeAccount(AccountName(info.st_uid));
}

Status MakeServiceFolder(const std::string& folder) {
  const bool is_missing = ::access(folder.c_str(), F_OK) != 0;
  if (::geteuid() != 0 || folder != kServiceFolder || !is_missing || !::getpwnam(kServiceAccount)) return {};
  return GiveFolder(folder, kServiceAccount, 0700);
}

Status GiveFolder(const std::string& folder, const std::string& account, mode_t mode) {
  const passwd* const entry = ::getpwnam(account.c_str());
  if (!entry) return Error(ErrorCode::kNotFound, fmt::format("There is no account '{}'", account));
  const Account owner{entry->pw_uid, entry->pw_gid};
  struct stat info {};
  const bool is_new = ::lstat(folder.c_str(), &info) != 0;
  if (is_new) {
    if (Status made = CreateDirectories(folder, 0755); !made) return made;
  }
  const Result<Descriptor> opened = OpenFolder(folder);
  if (!opened) return opened.error();
  const int fd = opened->get();
  const bool given =
      (!is_new || ::fchmod(fd, mode) == 0) && Give(fd, owner) && GiveContents(fd, owner) && GiveStore(fd, owner);
  if (given) return {};
  return SystemError(ErrorCode::kDenied, fmt::format("Cannot give '{}' to another account", folder), errno);
}

Status CheckOwnerOrFolder(const std::string& path) {
  const Status owner = CheckOwner(path);
  if (owner.ok() || owner.error().code() != ErrorCode::kNotFound) return owner;
  std::filesystem::path plain(path);
  if (!plain.has_filename()) plain = plain.parent_path();  // of a path that ends with a slash: the same without it
  const std::string folder = plain.parent_path();
  return CheckOwner(folder.empty() ? "." : folder);
}

}  // namespace vexa::cli
