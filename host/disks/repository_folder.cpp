#include "host/disks/repository_folder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "host/base/descriptor.h"

namespace vexa::disks {
namespace {

constexpr mode_t kClosed = 0700;
constexpr mode_t kPassable = 0711;

}  // namespace

Status MakeRepositoryFolder(const std::string& path) {
  if (::mkdir(path.c_str(), kClosed) != 0 && errno != EEXIST) {
    return SystemError(ErrorCode::kInternal, fmt::format("Cannot create the folder '{}'", path), errno);
  }
  const Descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  // Not a folder that this process can open: the first use of a file in it reports why.
  if (folder.get() < 0 || ::fstat(folder.get(), &status) != 0) return {};
  if (status.st_uid != ::geteuid() || (status.st_mode & 07777U) != kClosed) return {};
  if (::fchmod(folder.get(), kPassable) != 0) {
    return SystemError(ErrorCode::kInternal, fmt::format("Cannot let QEMU reach the folder '{}'", path), errno);
  }
  return {};
}

}  // namespace vexa::disks
