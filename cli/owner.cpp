#include "cli/owner.h"

#include <fmt/format.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

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

Status CheckOwnerOrFolder(const std::string& path) {
  const Status owner = CheckOwner(path);
  if (owner.ok() || owner.error().code() != ErrorCode::kNotFound) return owner;
  std::filesystem::path plain(path);
  if (!plain.has_filename()) plain = plain.parent_path();  // of a path that ends with a slash: the same without it
  const std::string folder = plain.parent_path();
  return CheckOwner(folder.empty() ? "." : folder);
}

}  // namespace vexa::cli
