#include "host/disks/disk_files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <utility>

#include "host/base/access_error.h"
#include "host/base/descriptor.h"
#include "host/base/sanitize_for_log.h"

namespace vexa::disks {
namespace {

// The meaning of an error number from opening the folder of a file.
Error LookupError(const std::string& path, int error_number) {
  switch (error_number) {
    case ENOENT:
    case ENOTDIR:
      return Error(ErrorCode::kNotFound, fmt::format("The file '{}' does not exist", SanitizePathForLog(path)));
    case ELOOP:
    case EXDEV:
      return Error(ErrorCode::kInvalid, "it is reached through a symbolic link");
    case ENAMETOOLONG:
      return Error(ErrorCode::kInvalid, "its name is too long");
    default:
      return AccessError(ErrorCode::kInternal, fmt::format("Cannot open the folder of '{}'", SanitizePathForLog(path)),
                         path.substr(0, path.rfind('/')), AccessTo::kContent, error_number);
  }
}

std::string DescribeKind(mode_t mode) {
  if (S_ISLNK(mode)) return "it is a symbolic link";
  if (S_ISBLK(mode)) return "it is a block device";
  return "it is not a regular file";
}

// `sentence` has one placeholder, for the path.
Error FileError(fmt::format_string<const std::string&> sentence, const std::string& path, int error_number,
                AccessTo access = AccessTo::kContent) {
  if (error_number == ENOENT)
    return Error(ErrorCode::kNotFound, fmt::format("The file '{}' does not exist", SanitizePathForLog(path)));
  const std::string displayed = SanitizePathForLog(path);
  const ErrorCode code = error_number == EEXIST ? ErrorCode::kConflict : ErrorCode::kInternal;
  return AccessError(code, fmt::format(sentence, displayed), path, access, error_number);
}

Error ExamineError(const std::string& path, int error_number) {
  return FileError("Cannot examine '{}'", path, error_number);
}

}  // namespace

int RenameInFolder(int folder, const char* from, const char* to) {
  if (::renameat2(folder, from, folder, to, RENAME_NOREPLACE) == 0) return 0;
  if (errno != ENOSYS && errno != EINVAL) return errno;
  // The file system cannot refuse to replace a file: check before renaming.
  struct stat info {};
  if (::fstatat(folder, to, &info, AT_SYMLINK_NOFOLLOW) == 0) return EEXIST;
  if (errno != ENOENT) return errno;
  return ::renameat(folder, from, folder, to) == 0 ? 0 : errno;
}

int UnlinkInFolder(int folder, const char* name) { return ::unlinkat(folder, name, 0) == 0 ? 0 : errno; }

int SyncFolder(int folder) { return ::fsync(folder) == 0 ? 0 : errno; }

int CreateInFolder(int folder, const char* name, int* file) {
  *file = ::openat(folder, name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  return *file >= 0 ? 0 : errno;
}

int SetFileLength(int file, std::uint64_t length) {
  return ::ftruncate(file, static_cast<off_t>(length)) == 0 ? 0 : errno;
}

int WriteToFile(int file, std::string_view bytes, std::uint64_t offset) {
  while (!bytes.empty()) {
    const ssize_t count = ::pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return count < 0 ? errno : EIO;
    bytes.remove_prefix(static_cast<std::size_t>(count));
    offset += static_cast<std::uint64_t>(count);
  }
  return 0;
}

int SyncFile(int file) { return ::fsync(file) == 0 ? 0 : errno; }

std::optional<std::string> NormalPath(std::string_view path) {
  const bool may_be_file = !path.empty() && path.size() < PATH_MAX && path.front() == '/' && path.back() != '/' &&
                           path.find('\0') == std::string_view::npos;
  if (!may_be_file) return std::nullopt;
  std::string normal;
  std::string_view last;
  for (std::size_t begin = 1; begin <= path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    last = path.substr(begin, end - begin);
    if (last == "..") return std::nullopt;
    if (!last.empty() && last != ".") normal.append("/").append(last);
    begin = end + 1;
  }
  if (last == ".") return std::nullopt;
  return normal;
}

std::vector<std::string> NormalRoots(const std::vector<std::string>& roots) {
  constexpr std::string_view kBelow = "/x";
  std::vector<std::string> normal;
  for (const std::string& root : roots) {
    // A folder's path may have forms that a file's path may not.
    std::optional<std::string> below = root.starts_with('/') ? NormalPath(root + std::string(kBelow)) : std::nullopt;
    if (below) normal.push_back(below->substr(0, below->size() - kBelow.size()));
  }
  std::ranges::sort(normal, std::ranges::greater(), &std::string::size);
  return normal;
}

const std::string* FindRoot(const std::vector<std::string>& roots, std::string_view path) {
  const auto root = std::ranges::find_if(roots, [&](const std::string& candidate) {
    return path.size() > candidate.size() + 1 && path.starts_with(candidate) && path[candidate.size()] == '/';
  });
  return root == roots.end() ? nullptr : &*root;
}

struct DiskFiles::OpenedFolder {
  Descriptor folder;
  std::string name;
};

DiskFiles::DiskFiles(const std::vector<std::string>& roots, FileSystemCalls calls)
    : roots_(NormalRoots(roots)), calls_(std::move(calls)) {}

Result<DiskFiles::OpenedFolder> DiskFiles::Open(const std::string& path) const {
  if (calls_.before_lookup) calls_.before_lookup();
  const std::string* const root = FindRoot(roots_, path);
  if (root == nullptr) return Error(ErrorCode::kInvalid, "it is outside the image folders");
  const Descriptor top(::open(root->empty() ? "/" : root->c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (top.get() < 0) return LookupError(path, errno);
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash > root->size() ? path.substr(root->size() + 1, slash - root->size() - 1) : "";
  Descriptor below = OpenBelow(top.get(), folder, O_RDONLY | O_DIRECTORY, calls_.resolve);
  if (below.get() < 0) return LookupError(path, errno);
  return OpenedFolder{std::move(below), path.substr(slash + 1)};
}

Result<DiskFiles::FileInfo> DiskFiles::Examine(const std::string& path) const {
  const Result<OpenedFolder> opened = Open(path);
  if (!opened && opened.error().code() == ErrorCode::kNotFound) return FileInfo{Kind::kMissing, {}, {}};
  if (!opened && opened.error().code() == ErrorCode::kInvalid)
    return FileInfo{Kind::kUntouchable, {}, opened.error().message()};
  if (!opened) return opened.error();
  struct stat info {};
  if (::fstatat(opened->folder.get(), opened->name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return FileInfo{Kind::kMissing, {}, {}};
    if (errno == ENAMETOOLONG) return FileInfo{Kind::kUntouchable, {}, "its name is too long"};
    return ExamineError(path, errno);
  }
  if (!S_ISREG(info.st_mode)) return FileInfo{Kind::kUntouchable, {}, DescribeKind(info.st_mode)};
  return FileInfo{Kind::kRegular, {info.st_dev, info.st_ino}, {}};
}

// Renaming, shrinking or removing an image in use would take the guest's disk away.
Status DiskFiles::CheckNotOpenInVm(const OpenedFolder& opened, const std::string& path, const std::string& name) const {
  bool is_open_in_vm = false;
  if (const int error_number = calls_.is_open_in_vm(opened.folder.get(), name.c_str(), &is_open_in_vm)) {
    return FileError("Cannot read the locks on '{}'", path, error_number);
  }
  if (!is_open_in_vm) return {};
  return Error(ErrorCode::kBusy, fmt::format("A VM process has the file '{}' open", SanitizePathForLog(path)));
}

Status DiskFiles::Rename(const std::string& path, const std::string& from, const std::string& to,
                         LockCheck lock_check) const {
  const Result<OpenedFolder> opened = Open(path);
  if (!opened) return opened.error();
  struct stat info {};
  if (::fstatat(opened->folder.get(), from.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    return ExamineError(path, errno);
  }
  if (!S_ISREG(info.st_mode)) return Error(ErrorCode::kInvalid, DescribeKind(info.st_mode));
  if (lock_check == LockCheck::kNeeded) {
    if (Status refused = CheckNotOpenInVm(*opened, path, from); !refused) return refused;
  }
  if (const int error_number = calls_.rename(opened->folder.get(), from.c_str(), to.c_str())) {
    return FileError("Cannot rename '{}'", path, error_number, AccessTo::kEntry);
  }
  return {};
}

Status DiskFiles::Unlink(const std::string& path, const std::string& name) const {
  const Result<OpenedFolder> opened = Open(path);
  if (!opened) return opened.error();
  struct stat info {};
  if (::fstatat(opened->folder.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    return ExamineError(path, errno);
  }
  if (!S_ISREG(info.st_mode)) return Error(ErrorCode::kInvalid, DescribeKind(info.st_mode));
  if (Status refused = CheckNotOpenInVm(*opened, path, name); !refused) return refused;
  if (const int error_number = calls_.unlink(opened->folder.get(), name.c_str())) {
    return FileError("Cannot remove '{}'", path, error_number, AccessTo::kEntry);
  }
  return {};
}

Status DiskFiles::Hide(const std::string& path, const std::string& hidden) const {
  return Rename(path, path.substr(path.rfind('/') + 1), hidden, LockCheck::kNeeded);
}

Status DiskFiles::Unhide(const std::string& path, const std::string& hidden) const {
  return Rename(path, hidden, path.substr(path.rfind('/') + 1), LockCheck::kNotNeeded);
}

Status DiskFiles::Remove(const std::string& path) const { return Unlink(path, path.substr(path.rfind('/') + 1)); }

Status DiskFiles::RemoveHidden(const std::string& path, const std::string& hidden) const {
  return Unlink(path, hidden);
}

Status DiskFiles::Create(const std::string& path, std::uint64_t length, const std::vector<FilePiece>& pieces) const {
  const Result<OpenedFolder> opened = Open(path);
  if (!opened) return opened.error();
  int created = -1;
  if (const int error_number = calls_.create(opened->folder.get(), opened->name.c_str(), &created)) {
    return FileError("Cannot create '{}'", path, error_number, AccessTo::kEntry);
  }
  const Descriptor file(created);
  int error_number = calls_.set_length(file.get(), length);
  for (const FilePiece& piece : pieces) {
    if (error_number == 0) error_number = calls_.write(file.get(), piece.bytes, piece.offset);
  }
  if (error_number == 0) error_number = calls_.sync_file(file.get());
  if (error_number == 0) return {};
  (void)calls_.unlink(opened->folder.get(), opened->name.c_str());
  return FileError("Cannot create '{}'", path, error_number, AccessTo::kEntry);
}

Status DiskFiles::WithFile(const std::string& path, int access, LockCheck lock_check,
                           const std::function<Status(int file)>& act) const {
  const Result<OpenedFolder> opened = Open(path);
  if (!opened) return opened.error();
  // Non-blocking: opening a FIFO would wait for its other end.
  const int flags = access | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const Descriptor file(::openat(opened->folder.get(), opened->name.c_str(), flags));
  if (file.get() < 0 && errno == ELOOP) return Error(ErrorCode::kInvalid, "it is a symbolic link");
  if (file.get() < 0) {
    const int error_number = errno;
    // libvirt may give a guest's files to another account while the guest runs. Then the lock is the better reason.
    if (lock_check == LockCheck::kNeeded && (error_number == EACCES || error_number == EPERM)) {
      if (Status refused = CheckNotOpenInVm(*opened, path, opened->name); !refused) return refused;
    }
    return FileError("Cannot open '{}'", path, error_number);
  }
  struct stat info {};
  if (::fstat(file.get(), &info) != 0) return ExamineError(path, errno);
  if (!S_ISREG(info.st_mode)) return Error(ErrorCode::kInvalid, DescribeKind(info.st_mode));
  if (lock_check == LockCheck::kNeeded) {
    if (Status refused = CheckNotOpenInVm(*opened, path, opened->name); !refused) return refused;
  }
  return act(file.get());
}

Result<std::uint64_t> DiskFiles::Length(const std::string& path) const {
  std::uint64_t length = 0;
  const Status done = WithFile(path, O_RDONLY, LockCheck::kNotNeeded, [&](int file) -> Status {
    struct stat info {};
    if (::fstat(file, &info) != 0) return ExamineError(path, errno);
    length = static_cast<std::uint64_t>(info.st_size);
    return {};
  });
  if (!done) return done.error();
  return length;
}

Result<std::string> DiskFiles::ReadAt(const std::string& path, std::uint64_t offset, std::size_t count) const {
  std::string bytes(count, '\0');
  const Status done = WithFile(path, O_RDONLY, LockCheck::kNotNeeded, [&](int file) -> Status {
    std::size_t have = 0;
    while (have < count) {
      const ssize_t more = ::pread(file, bytes.data() + have, count - have, static_cast<off_t>(offset + have));
      if (more < 0 && errno == EINTR) continue;
      if (more < 0) return FileError("Cannot read '{}'", path, errno);
      if (more == 0) break;
      have += static_cast<std::size_t>(more);
    }
    bytes.resize(have);
    return {};
  });
  if (!done) return done.error();
  return bytes;
}

Status DiskFiles::SetLength(const std::string& path, std::uint64_t length) const {
  return WithFile(path, O_RDWR, LockCheck::kNeeded, [&](int file) -> Status {
    int error_number = calls_.set_length(file, length);
    if (error_number == 0) error_number = calls_.sync_file(file);
    return error_number == 0 ? Status() : FileError("Cannot resize '{}'", path, error_number);
  });
}

Status DiskFiles::WriteAt(const std::string& path, const FilePiece& piece) const {
  return WithFile(path, O_RDWR, LockCheck::kNeeded, [&](int file) -> Status {
    int error_number = calls_.write(file, piece.bytes, piece.offset);
    if (error_number == 0) error_number = calls_.sync_file(file);
    return error_number == 0 ? Status() : FileError("Cannot write '{}'", path, error_number);
  });
}

Status DiskFiles::Sync(const std::string& path) const {
  const Result<OpenedFolder> opened = Open(path);
  if (!opened && opened.error().code() == ErrorCode::kNotFound) return {};
  if (!opened) return opened.error();
  if (const int error_number = calls_.sync(opened->folder.get())) {
    return FileError("Cannot sync the folder of '{}'", path, error_number);
  }
  return {};
}

}  // namespace vexa::disks
