#include "cli/owner.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "host/base/become_account.h"
#include "host/base/descriptor.h"
#include "host/base/files.h"

namespace vexa::cli {
namespace {

std::string AccountName(uid_t uid) {
  const passwd* entry = ::getpwuid(uid);
  return entry && entry->pw_name ? entry->pw_name : fmt::format("#{}", uid);
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
  const uid_t user = entry->pw_uid;
  const gid_t group = entry->pw_gid;
  const auto failed = [](const std::string& path) {
    return SystemError(ErrorCode::kDenied, fmt::format("Cannot give '{}' to another account", path), errno);
  };
  struct stat info {};
  if (::lstat(folder.c_str(), &info) != 0) {
    if (Status made = CreateDirectories(folder, 0755); !made) return made;
    if (::chmod(folder.c_str(), mode) != 0) return failed(folder);
  }
  // The account may write in the folder: links that it has made must not lead to files of root elsewhere.
  const auto give = [&](const std::string& path) -> Status {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat found {};
    if (file.get() < 0 || ::fstat(file.get(), &found) != 0 || found.st_uid != 0) return {};
    if (!S_ISDIR(found.st_mode) && (!S_ISREG(found.st_mode) || found.st_nlink != 1)) return {};
    return ::fchown(file.get(), user, group) == 0 ? Status() : failed(path);
  };
  for (const std::string& place : {folder, folder + "/store"}) {
    if (Status given = give(place); !given) return given;
    std::error_code unreadable;
    std::filesystem::directory_iterator file(place, unreadable);
    for (const std::filesystem::directory_iterator end; !unreadable && file != end; file.increment(unreadable)) {
      if (Status given = give(file->path()); !given) return given;
    }
  }
  return {};
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
