// The virtual size of a disk image.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>

#include "host/base/descriptor.h"
#include "host/base/qcow2_header.h"
#include "host/domain_xml/domain_parse.h"

namespace vexa::domain_xml {
namespace {

Error CannotRead(const std::string& path, int error_number) {
  const ErrorCode code = error_number == ENOENT || error_number == ENOTDIR ? ErrorCode::kNotFound
                         : error_number == EACCES || error_number == EPERM ? ErrorCode::kDenied
                                                                           : ErrorCode::kInternal;
  return SystemError(code, fmt::format("Cannot read the image '{}'", path), error_number);
}

// A link could lead to another file by the time the guest starts. Those in /dev are made by the system.
bool MayBeLink(const std::string& path) { return path.starts_with("/dev/"); }

}  // namespace

Result<std::uint64_t> ReadImageSize(const std::string& path, ImageFormat format) {
  // O_NONBLOCK: a FIFO in place of an image must not block the caller.
  const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | (MayBeLink(path) ? 0 : O_NOFOLLOW);
  const Descriptor file(::open(path.c_str(), flags));
  if (file.get() < 0 && errno == ELOOP) {
    return Error(ErrorCode::kInvalid, fmt::format("'{}' is a symbolic link. Name the file that it leads to", path));
  }
  if (file.get() < 0) return CannotRead(path, errno);
  struct stat info {};
  if (::fstat(file.get(), &info) != 0) return CannotRead(path, errno);
  if (!S_ISREG(info.st_mode) && !S_ISBLK(info.st_mode)) {
    return Error(ErrorCode::kInvalid, fmt::format("'{}' is neither a file nor a block device", path));
  }
  if (format == ImageFormat::kQcow2) {
    const Result<Qcow2Header> header = ReadStandaloneQcow2(file.get(), path);
    if (!header) return header.error();
    return header->size;
  }
  // For a block device, the end is the size as well.
  const off_t end = ::lseek(file.get(), 0, SEEK_END);
  if (end < 0) return CannotRead(path, errno);
  return static_cast<std::uint64_t>(end);
}

}  // namespace vexa::domain_xml
