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
  std::string temporary = path + ".XXXXXX";
  const Descriptor fd(::mkostemp(temporary.data(), O_CLOEXEC));
  if (fd.get() < 0) return Failed("Cannot create a file beside '{}'", path, errno);
  const bool written = WriteAll(fd.get(), content) && ::fchmod(fd.get(), mode) == 0 && ::fsync(fd.get()) == 0 &&
                       ::rename(temporary.c_str(), path.c_str()) == 0;
  if (!written) {
    const int error_number = errno;
    ::unlink(temporary.c_str());
    return Failed("Cannot write '{}'", path, error_number);
  }
  if (::fsync(directory.get()) != 0) return Failed("Cannot sync the folder of '{}'", path, errno);
  return {};
}

Status CreateDirectories(const std::string& path, mode_t mode) {
  if (HasNul(path)) return NulInPathError();
  std::filesystem::path so_far;
  for (const auto& part : std::filesystem::path(path)) {
    so_far /= part;
    if (::mkdir(so_far.c_str(), mode) == 0 || errno == EEXIST) continue;
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

}  // namespace vexa
