#include "host/disks/disk_locks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace vexa::disks {
namespace {

// QEMU locks a byte from 100 on for each permission that it uses, and one from 200 on for each that it does not share.
constexpr std::uint64_t kFirstByte = 100;
constexpr std::uint64_t kLastByte = 299;
constexpr char kLockTable[] = "/proc/locks";

template <class Number>
std::optional<Number> ParseNumber(std::string_view text, int base) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::vector<std::string_view> SplitAtSpaces(std::string_view line) {
  std::vector<std::string_view> fields;
  for (std::size_t begin = 0; (begin = line.find_first_not_of(' ', begin)) != std::string_view::npos;) {
    const std::size_t end = std::min(line.find(' ', begin), line.size());
    fields.push_back(line.substr(begin, end - begin));
    begin = end;
  }
  return fields;
}

// Whether `text` is the file's device and inode, as in "08:01:131079": major and minor number in hexadecimal, and the
// inode.
bool IsOfFile(std::string_view text, dev_t device, ino_t inode) {
  const std::size_t first = text.find(':');
  const std::size_t second = first == std::string_view::npos ? first : text.find(':', first + 1);
  if (second == std::string_view::npos) return false;
  return ParseNumber<unsigned>(text.substr(0, first), 16) == major(device) &&
         ParseNumber<unsigned>(text.substr(first + 1, second - first - 1), 16) == minor(device) &&
         ParseNumber<std::uint64_t>(text.substr(second + 1), 10) == std::uint64_t{inode};
}

// A line is "1: OFDLCK ADVISORY READ -1 08:01:131079 100 101"; the last field may be "EOF". A waiting lock has "->"
// after its number.
bool IsImageLock(std::string_view line, dev_t device, ino_t inode) {
  const std::vector<std::string_view> fields = SplitAtSpaces(line);
  if (fields.size() != 8 || (fields[1] != "OFDLCK" && fields[1] != "POSIX")) return false;
  if (!IsOfFile(fields[5], device, inode)) return false;
  const auto first = ParseNumber<std::uint64_t>(fields[6], 10);
  const auto last = fields[7] == "EOF" ? UINT64_MAX : ParseNumber<std::uint64_t>(fields[7], 10);
  // A line that cannot be parsed counts as a lock, so that the file is not touched.
  return !first || !last || (*first <= kLastByte && *last >= kFirstByte);
}

int FindInLockTable(int folder, const char* name, bool* is_open_in_vm) {
  struct stat info {};
  if (::fstatat(folder, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  if (!S_ISREG(info.st_mode)) return 0;
  std::ifstream in(kLockTable);
  const std::string table{std::istreambuf_iterator<char>(in), {}};
  // The lock table may be hidden from this process. The file is then not touched.
  if (!in.is_open() || in.bad()) return EACCES;
  *is_open_in_vm = HasImageLock(table, info.st_dev, info.st_ino);
  return 0;
}

int TestLocks(int file, bool* is_open_in_vm) {
  struct stat info {};
  if (::fstat(file, &info) != 0) return errno;
  if (!S_ISREG(info.st_mode)) return 0;
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = kFirstByte;
  lock.l_len = kLastByte - kFirstByte + 1;
  if (::fcntl(file, F_OFD_GETLK, &lock) == 0) {
    *is_open_in_vm = lock.l_type != F_UNLCK;
    return 0;
  }
  switch (errno) {
    case EINVAL:
    case ENOLCK:
    case ENOSYS:
    case ENOTTY:
    case EOPNOTSUPP:
      return 0;
    default:
      return errno;
  }
}

}  // namespace

bool HasImageLock(std::string_view table, dev_t device, ino_t inode) {
  while (!table.empty()) {
    const std::size_t end = std::min(table.find('\n'), table.size());
    if (IsImageLock(table.substr(0, end), device, inode)) return true;
    table.remove_prefix(std::min(end + 1, table.size()));
  }
  return false;
}

int IsOpenInVm(int folder, const char* name, bool* is_open_in_vm) {
  *is_open_in_vm = false;
  // Non-blocking: opening a FIFO would wait for its other end.
  const int file = ::openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (file < 0) {
    if (errno == ELOOP) return 0;  // a symbolic link
    return errno == EACCES || errno == EPERM ? FindInLockTable(folder, name, is_open_in_vm) : errno;
  }
  const int error_number = TestLocks(file, is_open_in_vm);
  ::close(file);
  return error_number;
}

}  // namespace vexa::disks
