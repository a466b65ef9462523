#include "host/storage/image_folder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "host/base/access_error.h"
#include "host/base/descriptor.h"
#include "host/base/files.h"
#include "host/base/sanitize_for_log.h"
#include "host/storage/folder_chain.h"
#include "host/storage/repository_files.h"
#include "host/storage/storage_record.h"

namespace vexa::storage {
namespace {

constexpr mode_t kPrivateFolderMode = 0700;
constexpr mode_t kGroupFolderMode = 0750;
constexpr mode_t kGroupFileMode = 0640;
constexpr mode_t kPassableFolderMode = 0711;
constexpr std::size_t kMaxEntryBytes = 16 * 1024;

std::optional<gid_t> GroupOf(const char* account) {
  passwd entry{};
  passwd* found = nullptr;
  std::array<char, kMaxEntryBytes> buffer{};
  if (::getpwnam_r(account, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) return std::nullopt;
  return entry.pw_gid;
}

// The stored identities of the folders that the file `path` is in.
Result<FolderChain> KnownChain(const store::Store& store, const std::string& host_id, const std::string& root,
                               const std::string& path) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const auto repositories = RepositoriesOf(**snapshot, host_id);
  if (!repositories) return repositories.error();
  FolderChain chain;
  for (const auto& [id, name] : *repositories) {
    const Result<Storage> storage = ReadStorage(**snapshot, id);
    if (storage && storage->host_id == host_id) chain.merge(SubChain(storage->folders, {root}, path));
  }
  return chain;
}

Error CannotMake(const std::string& path, int error_number) {
  return AccessError(ErrorCode::kUnavailable, fmt::format("The folder {} cannot be made", QuotedPath(path)), path,
                     AccessTo::kEntry, error_number);
}

// Older versions made the folders of repositories so that QEMU of another account could not use them.
bool IsOfOlderVersion(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == ::geteuid() &&
         (info.st_mode & ALLPERMS) == kPrivateFolderMode;
}

Status GiveFolder(const std::string& path, const QemuAccess& access) {
  const Descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  const bool is_given = folder.get() >= 0 &&
                        (!access.group || ::fchown(folder.get(), static_cast<uid_t>(-1), *access.group) == 0) &&
                        ::fchmod(folder.get(), access.folder_mode) == 0;
  return is_given ? Status() : CannotMake(path, errno);
}

}  // namespace

QemuAccess QemuAccessFor(const std::string& hypervisor, const char* account) {
  const bool is_root = ::geteuid() == 0;
  const bool is_daemon = hypervisor.starts_with("qemu") && hypervisor.ends_with("/system");
  if (!is_daemon && !(is_root && hypervisor == "embed")) return {};
  if (is_root) {
    if (const std::optional<gid_t> group = GroupOf(account)) return {group, kGroupFolderMode, kGroupFileMode};
  }
  return {std::nullopt, kPassableFolderMode};
}

Status MakeFolder(const std::string& path, const QemuAccess& access) {
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0) {
    if (!S_ISDIR(info.st_mode)) return CannotMake(path, ENOTDIR);
    return IsOfOlderVersion(path) && access.folder_mode != kPrivateFolderMode ? GiveFolder(path, access) : Status();
  }
  if (errno != ENOENT) return CannotMake(path, errno);
  // Private until it belongs to the right group.
  if (::mkdir(path.c_str(), kPrivateFolderMode) != 0) return errno == EEXIST ? Status() : CannotMake(path, errno);
  const Status given = GiveFolder(path, access);
  const Status synced = given ? SyncFolderAndParent(path) : given;
  if (!synced) (void)::rmdir(path.c_str());
  return synced;
}

Status MakeImageFolder(const store::Store& store, const std::string& host_id, const std::string& root,
                       const std::string& name, const QemuAccess& access) {
  const std::string folder = name.empty() ? root : root + "/" + name;
  const Result<FolderChain> known = KnownChain(store, host_id, root, folder + "/x");
  if (!known) return known.error();
  const FolderChainCheck check = CheckFolderChain(*known);
  if (check.finding != FolderChainCheck::Finding::kSame) {
    return Error(ErrorCode::kUnavailable, fmt::format("The storage is not mounted: {}", check.reason));
  }
  if (Status made = MakeFolder(root, access); !made) return made;
  return name.empty() ? Status() : MakeFolder(folder, access);
}

}  // namespace vexa::storage
