#include "host/base/files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "host/base/descriptor.h"
#include "host/base/uuid.h"
#include "host/base/write_all.h"

namespace vexa {
namespace {

ErrorCode CodeForErrno(int error_number) {
  switch (error_number) {
    case ENOENT:
      return ErrorCode::kNotFound;
    case EACCES:
    case EPERM:
    case EROFS:
      return ErrorCode::kDenied;
    case ENOSPC:
    case EDQUOT:
      return ErrorCode::kNoSpace;
    default:
      return ErrorCode::kInternal;
  }
}

// `sentence` contains one {}, for the path.
Error Failed(fmt::format_string<const std::string&> sentence, const std::string& path, int error_number) {
  return SystemError(CodeForErrno(error_number), fmt::format(sentence, path), error_number);
}

// The system ends a path at the first NUL, so such a path would name another file.
bool HasNul(const std::string& path) { return path.find('\0') != std::string::npos; }

// The new content of the file `path`. It has no name until it is complete, so that a process that is killed meanwhile
// leaves no copy, which may be of secrets. On file systems without unnamed files it has a name from the start.
class TemporaryFile {
 public:
  TemporaryFile(const std::string& folder, const std::string& path)
      : path_(path), fd_(::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, S_IRUSR | S_IWUSR)) {
    if (fd_.get() >= 0) return;
    name_ = path + ".XXXXXX";
    fd_ = Descriptor(::mkostemp(name_.data(), O_CLOEXEC));
    if (fd_.get() < 0) name_.clear();
  }
  ~TemporaryFile() {
    const int error_number = errno;
    if (!name_.empty()) ::unlink(name_.c_str());
    errno = error_number;
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  int fd() const { return fd_.get(); }  // negative: it could not be created, see errno

  // Whether the file is now `path`; if not, see errno.
  bool Rename() {
    if (name_.empty() && !GiveName()) return false;
    if (::rename(name_.c_str(), path_.c_str()) != 0) return false;
    name_.clear();
    return true;
  }

 private:
  // A link cannot replace an existing file, so the file needs another name first.
  bool GiveName() {
    const Result<std::string> uuid = RandomUuid();
    if (!uuid) return false;
    const std::string name = path_ + "." + *uuid;
    const std::string unnamed = fmt::format("/proc/self/fd/{}", fd_.get());
    if (::linkat(AT_FDCWD, unnamed.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) != 0) return false;
    name_ = name;
    return true;
  }

  const std::string& path_;
  std::string name_;  // empty: none
  Descriptor fd_;
};

// Makes the name of a new folder durable.
Status SyncParent(const std::filesystem::path& folder) {
  const std::string parent = folder.has_parent_path() ? folder.parent_path().string() : ".";
  const Descriptor directory(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.get() < 0 || ::fsync(directory.get()) != 0) return Failed("Cannot sync the folder '{}'", parent, errno);
  return {};
}

Error NulInPathError() { return Error(ErrorCode::kInvalid, "The path of a file contains a NUL"); }

}  // namespace

Result<std::string> ReadFile(const std::string& path, std::size_t max_bytes) {
  // O_NONBLOCK: a FIFO in place of the file must not block the caller.
  if (HasNul(path)) return NulInPathError();
  const Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd.get() < 0) return Failed("Cannot open '{}'", path, errno);
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0) return Failed("Cannot read '{}'", path, errno);
  if (!S_ISREG(info.st_mode)) return Error(ErrorCode::kInvalid, fmt::format("'{}' is not a regular file", path));
  std::string content;
  if (Status rest = ReadRest(fd.get(), path, max_bytes, content); !rest) return rest.error();
  return content;
}

Status ReadRest(int fd, const std::string& path, std::size_t max_bytes, std::string& content) {
  std::vector<char> buffer(64 * 1024);
  while (true) {
    const ssize_t count = ::read(fd, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Failed("Cannot read '{}'", path, errno);
    if (count == 0) return {};
    content.append(buffer.data(), static_cast<std::size_t>(count));
    if (content.size() > max_bytes) {
      return Error(ErrorCode::kInvalid, fmt::format("'{}' is larger than {} bytes", path, max_bytes));
    }
  }
}

Status WriteFileAtomically(const std::string& path, std::string_view content, mode_t mode) {
  if (HasNul(path)) return NulInPathError();
  const std::string folder = std::filesystem::path(path).parent_path().string();
  // Opened first: after the rename, only the sync itself can still fail.
  const Descriptor directory(::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.get() < 0) return Failed("Cannot open the folder of '{}'", path, errno);
  TemporaryFile file(folder.empty() ? "." : folder, path);
  if (file.fd() < 0) return Failed("Cannot create a file beside '{}'", path, errno);
  const bool written =
      WriteAll(file.fd(), content) && ::fchmod(file.fd(), mode) == 0 && ::fsync(file.fd()) == 0 && file.Rename();
  if (!written) return Failed("Cannot write '{}'", path, errno);
  if (::fsync(directory.get()) != 0) return Failed("Cannot sync the folder of '{}'", path, errno);
  return {};
}

Status CreateDirectories(const std::string& path, mode_t mode) {
  if (HasNul(path)) return NulInPathError();
  std::filesystem::path so_far;
  for (const auto& part : std::filesystem::path(path)) {
    so_far /= part;
    if (::mkdir(so_far.c_str(), mode) == 0) {
      Status synced = SyncParent(so_far);
      if (synced) continue;
      ::rmdir(so_far.c_str());  // the next caller would take it for durable
      return synced;
    }
    if (errno == EEXIST) continue;
    if (errno == ENOTDIR) {
      return Error(ErrorCode::kConflict, fmt::format("'{}' exists and is not a folder", so_far.parent_path().string()));
    }
    return Failed("Cannot create the folder '{}'", so_far.string(), errno);
  }
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return Failed("Cannot create the folder '{}'", path, errno);
  if (!S_ISDIR(info.st_mode)) return Error(ErrorCode::kConflict, fmt::format("'{}' exists and is not a folder", path));
  return {};
}

Status SyncFolderAndParent(const std::string& path) {
  const Descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.get() < 0 || ::fsync(folder.get()) != 0) return Failed("Cannot sync the folder '{}'", path, errno);
  const Descriptor parent(::openat(folder.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (parent.get() < 0 && errno == EACCES) return {};
  if (parent.get() < 0 || ::fsync(parent.get()) != 0) return Failed("Cannot sync the folder '{}'", path + "/..", errno);
  return {};
}

}  // namespace vexa
