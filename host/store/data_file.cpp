#include "host/store/data_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace vexa::store {

DataFile::DataFile(const std::string& path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW)) {}

std::uint64_t DataFile::size() const {
  struct stat info {};
  if (::fstat(fd_.get(), &info) == 0) return static_cast<std::uint64_t>(info.st_size);
  error_ = errno;
  return 0;
}

bool DataFile::ReadBytes(std::uint64_t offset, char* out, std::size_t bytes) const {
  while (bytes > 0) {
    const ssize_t got = ::pread(fd_.get(), out, bytes, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) error_ = errno;
    if (got <= 0) return false;
    out += got;
    bytes -= static_cast<std::size_t>(got);
    offset += static_cast<std::uint64_t>(got);
  }
  return true;
}

}  // namespace vexa::store
