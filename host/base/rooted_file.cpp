#include "host/base/rooted_file.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string_view>
#include <utility>

namespace vexa {
namespace {

// Whether `path` is absolute, without empty, "." and ".." segments and without NUL.
bool IsNormalizedPath(std::string_view path) {
  if (!path.starts_with('/') || path.find('\0') != std::string_view::npos) return false;
  while (!path.empty()) {
    path.remove_prefix(1);
    const std::string_view segment = path.substr(0, path.find('/'));
    if (segment.empty() || segment == "." || segment == "..") return false;
    path.remove_prefix(segment.size());
  }
  return true;
}

Descriptor OpenByWalking(int root, const std::string& below, int flags) {
  if (below.empty()) return Descriptor(::openat(root, ".", flags | O_CLOEXEC));
  Descriptor parent;
  for (std::size_t begin = 0; begin < below.size();) {
    const std::size_t end = std::min(below.find('/', begin), below.size());
    const std::string name = below.substr(begin, end - begin);
    const int folder = begin == 0 ? root : parent.get();
    const int open_flags = end == below.size() ? flags : O_PATH | O_DIRECTORY;
    Descriptor next(::openat(folder, name.c_str(), open_flags | O_NOFOLLOW | O_CLOEXEC));
    if (next.get() < 0) {
      const int error_number = errno;
      struct stat info {};
      const bool is_link = ::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(info.st_mode);
      errno = is_link ? ELOOP : error_number;
      return next;
    }
    parent = std::move(next);
    begin = end + 1;
  }
  return parent;
}

std::optional<std::uint64_t> SizeOfRegularFile(const std::string& root, const std::string& below, ResolvePath resolve) {
  const Descriptor root_folder(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (root_folder.get() < 0) return std::nullopt;
  // O_PATH, so that opening never blocks and has no side effects.
  const Descriptor file = OpenBelow(root_folder.get(), below, O_PATH | O_NOFOLLOW, resolve);
  struct stat info {};
  if (file.get() < 0 || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  return static_cast<std::uint64_t>(info.st_size);
}

}  // namespace

Descriptor OpenBelow(int root, const std::string& below, int flags, ResolvePath resolve) {
  if (resolve == ResolvePath::kByWalking) return OpenByWalking(root, below, flags);
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  const long fd = ::syscall(SYS_openat2, root, below.empty() ? "." : below.c_str(), &how, sizeof how);
  // EPERM comes from system call filters that do not know this call, EAGAIN from a rename at the same time.
  if (fd < 0 && (errno == ENOSYS || errno == EPERM || errno == EAGAIN)) return OpenByWalking(root, below, flags);
  return Descriptor(static_cast<int>(fd));
}

bool IsRegularFileBelow(const std::vector<std::string>& roots, const std::string& path, ResolvePath resolve) {
  return SizeOfRegularFileBelow(roots, path, resolve).has_value();
}

std::optional<std::uint64_t> SizeOfRegularFileBelow(const std::vector<std::string>& roots, const std::string& path,
                                                    ResolvePath resolve) {
  if (!IsNormalizedPath(path)) return std::nullopt;
  for (std::string root : roots) {
    if (!root.starts_with('/') || root.find('\0') != std::string::npos) continue;
    if (!root.ends_with('/')) root += '/';
    if (!path.starts_with(root)) continue;
    if (const auto size = SizeOfRegularFile(root, path.substr(root.size()), resolve)) return size;
  }
  return std::nullopt;
}

}  // namespace vexa
