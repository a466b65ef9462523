#include "host/disks/disk_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <utility>

#include "host/base/descriptor.h"
#include "host/base/log_text.h"

namespace vexa::guests {
namespace {

// The meaning of an error number from a step on the way to a file.
Error LookupError(const std::string& path, int error_number) {
  switch (error_number) {
    case ENOENT:
    case ENOTDIR:
      return Error(ErrorCode::kNotFound, "There is no such file");
    case ELOOP:
    case EXDEV:
      return Error(ErrorCode::kInvalid, "it is reached through a symbolic link");
    case ENAMETOOLONG:
      return Error(ErrorCode::kInvalid, "its name is too long");
    default:
      return SystemError(ErrorCode::kInternal, "Cannot open the folder of '" + cluster::ShownPath(path) + "'",
                         error_number);
  }
}

std::string DescribeKind(mode_t mode) {
  if (S_ISLNK(mode)) return "it is a symbolic link";
  if (S_ISBLK(mode)) return "it is a block device";
  return "it is no regular file";
}

Error Failed(const char* what, const std::string& path, int error_number) {
  if (error_number == ENOENT) return Error(ErrorCode::kNotFound, "There is no such file");
  const ErrorCode code = error_number == EEXIST ? ErrorCode::kConflict : ErrorCode::kInternal;
  return SystemError(code, std::string("Cannot ") + what + " '" + cluster::ShownPath(path) + "'", error_number);
}

}  // namespace

int RenameInFolder(int folder, const char* from, const char* to) {
  if (::renameat2(folder, from, folder, to, RENAME_NOREPLACE) == 0) return 0;
  if (errno != ENOSYS && errno != EINVAL) return errno;
  // For file systems without it.
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
  const bool can_be_one = !path.empty() && path.size() < PATH_MAX && path.front() == '/' && path.back() != '/' &&
                          path.find('\0') == std::string_view::npos;
  if (!can_be_one) return std::nullopt;
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

struct DiskFiles::Place {
  Descriptor folder;
  std::string name;
};

DiskFiles::DiskFiles(const std::vector<std::string>& roots, FileCalls calls) : calls_(std::move(calls)) {
  constexpr std::string_view kBelow = "/x";
  for (const std::string& root : roots) {
    // A folder's path may have forms that a file's path may not.
    std::optional<std::string> below = root.starts_with('/') ? NormalPath(root + std::string(kBelow)) : std::nullopt;
    if (below) roots_.push_back(below->substr(0, below->size() - kBelow.size()));
  }
  std::ranges::sort(roots_, std::ranges::greater(), &std::string::size);
}

Result<DiskFiles::Place> DiskFiles::Open(const std::string& path) const {
  if (calls_.before_lookup) calls_.before_lookup();
  const auto root = std::ranges::find_if(roots_, [&](const std::string& candidate) {
    return path.size() > candidate.size() + 1 && path.starts_with(candidate) && path[candidate.size()] == '/';
  });
  if (root == roots_.end()) return Error(ErrorCode::kInvalid, "it lies outside of the folders of images");
  const Descriptor top(::open(root->empty() ? "/" : root->c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (top.get() < 0) return LookupError(path, errno);
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash > root->size() ? path.substr(root->size() + 1, slash - root->size() - 1) : "";
  Descriptor opened = OpenBelow(top.get(), folder, O_RDONLY | O_DIRECTORY, calls_.resolve);
  if (opened.get() < 0) return LookupError(path, errno);
  return Place{std::move(opened), path.substr(slash + 1)};
}

Result<DiskFiles::Look> DiskFiles::Examine(const std::string& path) const {
  const Result<Place> place = Open(path);
  if (!place && place.error().code() == ErrorCode::kNotFound) return Look{Kind::kMissing, {}, {}};
  if (!place && place.error().code() == ErrorCode::kInvalid) return Look{Kind::kLeft, {}, place.error().message()};
  if (!place) return place.error();
  struct stat info {};
  if (::fstatat(place->folder.get(), place->name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return Look{Kind::kMissing, {}, {}};
    if (errno == ENAMETOOLONG) return Look{Kind::kLeft, {}, "its name is too long"};
    return Failed("look at", path, errno);
  }
  if (!S_ISREG(info.st_mode)) return Look{Kind::kLeft, {}, DescribeKind(info.st_mode)};
  return Look{Kind::kRegular, {info.st_dev, info.st_ino}, {}};
}

// Renaming, shrinking or removing an image under a machine would take its disk away.
Status DiskFiles::RefuseOpen(const Place& place, const std::string& path, const std::string& name) const {
  bool has_open = false;
  if (const int error_number = calls_.has_open(place.folder.get(), name.c_str(), &has_open)) {
    return Failed("look for locks on", path, error_number);
  }
  if (!has_open) return {};
  return Error(ErrorCode::kBusy, "A machine has the file '" + cluster::ShownPath(path) + "' open");
}

Status DiskFiles::Rename(const std::string& path, const std::string& from, const std::string& to, Probe probe) const {
  const Result<Place> place = Open(path);
  if (!place) return place.error();
  struct stat info {};
  if (::fstatat(place->folder.get(), from.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    return Failed("look at", path, errno);
  }
  if (!S_ISREG(info.st_mode)) return Error(ErrorCode::kInvalid, DescribeKind(info.st_mode));
  if (probe == Probe::kNeeded) {
    if (Status refused = RefuseOpen(*place, path, from); !refused) return refused;
  }
  if (const int error_number = calls_.rename(place->folder.get(), from.c_str(), to.c_str())) {
    return Failed("rename", path, error_number);
  }
  return {};
}

Status DiskFiles::Unlink(const std::string& path, const std::string& name) const {
  const Result<Place> place = Open(path);
  if (!place) return place.error();
  struct stat info {};
  if (::fstatat(place->folder.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    return Failed("look at", path, errno);
  }
  if (!S_ISREG(info.st_mode)) return Error(ErrorCode::kInvalid, DescribeKind(info.st_mode));
  if (Status refused = RefuseOpen(*place, path, name); !refused) return refused;
  if (const int error_number = calls_.unlink(place->folder.get(), name.c_str())) {
    return Failed("remove", path, error_number);
  }
  return {};
}

Status DiskFiles::Hide(const std::string& path, const std::string& hidden) const {
  return Rename(path, path.substr(path.rfind('/') + 1), hidden, Probe::kNeeded);
}

Status DiskFiles::Show(const std::string& path, const std::string& hidden) const {
  return Rename(path, hidden, path.substr(path.rfind('/') + 1), Probe::kNotNeeded);
}

Status DiskFiles::Remove(const std::string& path) const { return Unlink(path, path.substr(path.rfind('/') + 1)); }

Status DiskFiles::RemoveHidden(const std::string& path, const std::string& hidden) const {
  return Unlink(path, hidden);
}

Status DiskFiles::Create(const std::string& path, std::uint64_t length, const std::vector<FilePiece>& pieces) const {
  const Result<Place> place = Open(path);
  if (!place) return place.error();
  int created = -1;
  if (const int error_number = calls_.create(place->folder.get(), place->name.c_str(), &created)) {
    return Failed("create", path, error_number);
  }
  const Descriptor file(created);
  int error_number = calls_.set_length(file.get(), length);
  for (const FilePiece& piece : pieces) {
    if (error_number == 0) error_number = calls_.write(file.get(), piece.bytes, piece.offset);
  }
  if (error_number == 0) error_number = calls_.sync_file(file.get());
  if (error_number == 0) return {};
  (void)calls_.unlink(place->folder.get(), place->name.c_str());
  return Failed("create", path, error_number);
}

Status DiskFiles::WithFile(const std::string& path, int access, Probe probe,
                           const std::function<Status(int file)>& act) const {
  const Result<Place> place = Open(path);
  if (!place) return place.error();
  // Non-blocking: opening a FIFO would wait for its other end.
  const int flags = access | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const Descriptor file(::openat(place->folder.get(), place->name.c_str(), flags));
  if (file.get() < 0 && errno == ELOOP) return Error(ErrorCode::kInvalid, "it is a symbolic link");
  if (file.get() < 0) {
    const int error_number = errno;
    // A machine's files can belong to another account while it runs; then that is the better answer.
    if (probe == Probe::kNeeded && (error_number == EACCES || error_number == EPERM)) {
      if (Status refused = RefuseOpen(*place, path, place->name); !refused) return refused;
    }
    return Failed("open", path, error_number);
  }
  struct stat info {};
  if (::fstat(file.get(), &info) != 0) return Failed("look at", path, errno);
  if (!S_ISREG(info.st_mode)) return Error(ErrorCode::kInvalid, DescribeKind(info.st_mode));
  if (probe == Probe::kNeeded) {
    if (Status refused = RefuseOpen(*place, path, place->name); !refused) return refused;
  }
  return act(file.get());
}

Result<std::uint64_t> DiskFiles::Length(const std::string& path) const {
  std::uint64_t length = 0;
  const Status done = WithFile(path, O_RDONLY, Probe::kNotNeeded, [&](int file) -> Status {
    struct stat info {};
    if (::fstat(file, &info) != 0) return Failed("look at", path, errno);
    length = static_cast<std::uint64_t>(info.st_size);
    return {};
  });
  if (!done) return done.error();
  return length;
}

Result<std::string> DiskFiles::ReadAt(const std::string& path, std::uint64_t offset, std::size_t count) const {
  std::string bytes(count, '\0');
  const Status done = WithFile(path, O_RDONLY, Probe::kNotNeeded, [&](int file) -> Status {
    std::size_t have = 0;
    while (have < count) {
      const ssize_t more = ::pread(file, bytes.data() + have, count - have, static_cast<off_t>(offset + have));
      if (more < 0 && errno == EINTR) continue;
      if (more < 0) return Failed("read", path, errno);
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
  return WithFile(path, O_RDWR, Probe::kNeeded, [&](int file) -> Status {
    int error_number = calls_.set_length(file, length);
    if (error_number == 0) error_number = calls_.sync_file(file);
    return error_number == 0 ? Status() : Failed("resize", path, error_number);
  });
}

Status DiskFiles::WriteAt(const std::string& path, const FilePiece& piece) const {
  return WithFile(path, O_RDWR, Probe::kNeeded, [&](int file) -> Status {
    int error_number = calls_.write(file, piece.bytes, piece.offset);
    if (error_number == 0) error_number = calls_.sync_file(file);
    return error_number == 0 ? Status() : Failed("write", path, error_number);
  });
}

Status DiskFiles::Sync(const std::string& path) const {
  const Result<Place> place = Open(path);
  if (!place && place.error().code() == ErrorCode::kNotFound) return {};
  if (!place) return place.error();
  if (const int error_number = calls_.sync(place->folder.get())) {
    return Failed("sync the folder of", path, error_number);
  }
  return {};
}

}  // namespace vexa::guests
