// The virtual size of a disk image.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <array>
#include <cerrno>

#include "host/base/descriptor.h"
#include "host/domain_xml/domain_parse.h"

namespace vexa::domain_xml {
namespace {

// The header of a qcow2 image according to QEMU's description of the format: magic, version, …, the virtual size at 24.
constexpr std::size_t kHeaderBytes = 32;
constexpr std::uint64_t kMagic = 0x514649FB;  // "QFI\xfb"

Error CannotRead(const std::string& path, int error_number) {
  const ErrorCode code = error_number == ENOENT || error_number == ENOTDIR ? ErrorCode::kNotFound
                         : error_number == EACCES || error_number == EPERM ? ErrorCode::kDenied
                                                                           : ErrorCode::kInternal;
  return SystemError(code, fmt::format("Cannot read the image '{}'", path), error_number);
}

std::uint64_t BigEndian(const unsigned char* bytes, std::size_t count) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < count; ++i) value = value << 8 | bytes[i];
  return value;
}

Result<std::uint64_t> Qcow2Size(const Descriptor& file, const std::string& path) {
  std::array<unsigned char, kHeaderBytes> header{};
  const ssize_t count = ::pread(file.get(), header.data(), header.size(), 0);
  if (count < 0) return CannotRead(path, errno);
  if (count < static_cast<ssize_t>(header.size()) || BigEndian(header.data(), 4) != kMagic) {
    return Error(ErrorCode::kInvalid, fmt::format("'{}' is not a qcow2 image", path));
  }
  const std::uint64_t version = BigEndian(header.data() + 4, 4);
  if (version != 2 && version != 3) {
    return Error(ErrorCode::kInvalid, fmt::format("'{}' is a qcow2 image of the unknown version {}", path, version));
  }
  return BigEndian(header.data() + 24, 8);
}

}  // namespace

Result<std::uint64_t> ReadImageSize(const std::string& path, ImageFormat format) {
  // O_NONBLOCK: a FIFO in place of an image must not block the caller.
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (file.get() < 0) return CannotRead(path, errno);
  struct stat info {};
  if (::fstat(file.get(), &info) != 0) return CannotRead(path, errno);
  if (!S_ISREG(info.st_mode) && !S_ISBLK(info.st_mode)) {
    return Error(ErrorCode::kInvalid, fmt::format("'{}' is neither a file nor a block device", path));
  }
  if (format == ImageFormat::kQcow2) return Qcow2Size(file, path);
  // For a block device, the end is the size as well.
  const off_t end = ::lseek(file.get(), 0, SEEK_END);
  if (end < 0) return CannotRead(path, errno);
  return static_cast<std::uint64_t>(end);
}

}  // namespace vexa::domain_xml
