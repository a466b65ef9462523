#include "host/store/data_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "host/base/files.h"

namespace vexa::store {
namespace {

constexpr long kMaxPageBytes = 32768;  // of LMDB

}  // namespace

Status CreateDataFile(const std::string& path, std::uint64_t map_bytes) {
  const auto page_bytes = static_cast<std::size_t>(std::min(::sysconf(_SC_PAGESIZE), kMaxPageBytes));
  std::string content(2 * page_bytes, '\0');
  for (std::uint64_t number = 0; number < 2; ++number) {
    DataMetaPage page{};
    page.header.number = number;
    page.header.flags = kMetaPage;
    page.magic = kDataMagic;
    page.version = kDataVersion;
    page.map_bytes = map_bytes;
    page.free_pages.page_bytes = static_cast<std::uint32_t>(page_bytes);
    page.free_pages.flags = kIntegerKeys;
    page.free_pages.root = kNoDataPage;
    page.main.root = kNoDataPage;
    page.last_page = 1;
    std::memcpy(content.data() + number * page_bytes, &page, sizeof page);
  }
  return WriteFileAtomically(path, content, S_IRUSR | S_IWUSR);
}

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
