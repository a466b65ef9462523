#include "host/storage/upload_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <utility>

#include "host/base/access_error.h"
#include "host/base/sanitize_for_log.h"

namespace vexa::storage {
namespace {

constexpr std::size_t kMaxDisplayed = 128;

std::string Quoted(const std::string& text) { return "'" + SanitizeForLog(text, kMaxDisplayed) + "'"; }

}  // namespace

Refusal FileFailed(const Upload& upload, const char* what, int error_number) {
  const bool is_full = error_number == ENOSPC || error_number == EDQUOT;
  const Error error = AccessError(
      ErrorCode::kInternal,
      fmt::format("The upload of the image {} cannot be {} in {}", Quoted(upload.name), what, QuotedPath(upload.root)),
      upload.root + "/" + upload.PartialName(), AccessTo::kEntry, error_number);
  return {is_full ? user_error::kNoRoom : user_error::kUnavailable, error.ToString()};
}

Result<Descriptor, Refusal> OpenUploadRoot(const Upload& upload) {
  const FolderChainCheck check = CheckFolderChain(upload.folders);
  if (check.finding != FolderChainCheck::Finding::kSame) {
    return Refusal{user_error::kUnavailable, fmt::format("The folder of the upload of the image {} is not mounted: {}",
                                                         Quoted(upload.name), check.reason)};
  }
  Descriptor root(::open(upload.root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (root.get() < 0) return FileFailed(upload, "opened", errno);
  return root;
}

Result<Descriptor, int> OpenPartial(const Upload& upload, int root) {
  Descriptor file(::openat(root, upload.PartialName().c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat info {};
  if (file.get() < 0 || ::fstat(file.get(), &info) != 0) return errno;
  if (!S_ISREG(info.st_mode) || info.st_nlink != 1) return EPERM;
  return file;
}

Result<std::uint64_t, Refusal> ReceivedBytes(const Upload& upload, int root) {
  if (upload.inode) return upload.size;
  struct stat info {};
  if (::fstatat(root, upload.PartialName().c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0) {
    return static_cast<std::uint64_t>(info.st_size);
  }
  if (errno != ENOENT) return FileFailed(upload, "examined", errno);
  return std::uint64_t{0};
}

}  // namespace vexa::storage
