#include "host/base/rooted_file.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "host/base/descriptor.h"

namespace vexa {
namespace {

// Whether `path` is a slash followed by names that are separated by single slashes.
bool IsPlain(std::string_view path) {
  if (!path.starts_with('/') || path.find('\0') != std::string_view::npos) return false;
  while (!path.empty()) {
    path.remove_prefix(1);
    const std::string_view segment = path.substr(0, path.find('/'));
    if (segment.empty() || segment == "." || segment == "..") return false;
    path.remove_prefix(segment.size());
  }
  return true;
}

// One segment after another. O_PATH, so that opening never waits and has no side effects.
Descriptor OpenByWalking(int root, const std::string& below) {
  Descriptor at(::openat(root, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  for (std::size_t begin = 0; at.get() >= 0 && begin < below.size();) {
    const std::size_t end = std::min(below.find('/', begin), below.size());
    const int folder = end == below.size() ? 0 : O_DIRECTORY;
    const std::string name = below.substr(begin, end - begin);
    at = Descriptor(::openat(at.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC | folder));
    begin = end + 1;
  }
  return at;
}

Descriptor Open(int root, const std::string& below, ResolvePath resolve) {
  if (resolve == ResolvePath::kByWalking) return OpenByWalking(root, below);
  open_how how{};
  how.flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  const long fd = ::syscall(SYS_openat2, root, below.c_str(), &how, sizeof how);
  // EPERM: the answer of system call filters that do not know this call. EAGAIN: something was renamed meanwhile.
  if (fd < 0 && (errno == ENOSYS || errno == EPERM || errno == EAGAIN)) return OpenByWalking(root, below);
  return Descriptor(static_cast<int>(fd));
}

std::optional<std::uint64_t> SizeOfRegularFile(const std::string& root, const std::string& below, ResolvePath resolve) {
  const Descriptor top(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (top.get() < 0) return std::nullopt;
  const Descriptor file = Open(top.get(), below, resolve);
  struct stat info {};
  if (file.get() < 0 || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  return static_cast<std::uint64_t>(info.st_size);
}

}  // namespace

bool IsRegularFileBelow(const std::vector<std::string>& roots, const std::string& path, ResolvePath resolve) {
  return SizeOfRegularFileBelow(roots, path, resolve).has_value();
}

std::optional<std::uint64_t> SizeOfRegularFileBelow(const std::vector<std::string>& roots, const std::string& path,
                                                    ResolvePath resolve) {
  if (!IsPlain(path)) return std::nullopt;
  for (std::string root : roots) {
    if (!root.starts_with('/') || root.find('\0') != std::string::npos) continue;
    if (!root.ends_with('/')) root += '/';
    if (!path.starts_with(root)) continue;
    if (const auto size = SizeOfRegularFile(root, path.substr(root.size()), resolve)) return size;
  }
  return std::nullopt;
}

}  // namespace vexa
