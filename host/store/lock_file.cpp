#include "host/store/lock_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <string_view>

#include "host/store/lmdb_error.h"

namespace vexa::store {
namespace {

constexpr off_t kMinBytes = 4096;  // what LMDB writes while it opens the file is in the first page
constexpr off_t kBlockBytes = 512;

// The layout of LMDB's lock file: this header, the writers' lock, the slots; each begins a cache line.
struct Header {
  std::uint32_t magic;
  std::uint32_t format;
  pthread_mutex_t readers_lock;
  std::uint64_t transaction;
  std::uint32_t readers;
};
constexpr std::uint32_t kMagic = 0xBEEFC0DE;
constexpr off_t kCacheLine = 64;
constexpr off_t kWritersLock = (static_cast<off_t>(sizeof(Header)) + kCacheLine - 1) / kCacheLine * kCacheLine;
// A robust lock begins with the thread that holds it, so that the kernel can release it when the thread dies
// (linux/futex.h, FUTEX_TID_MASK).
constexpr std::uint32_t kThreadMask = 0x3FFFFFFF;

// The value of a line "name:\tvalue" in /proc/<id>/status.
std::optional<pid_t> ProcessOfThread(std::uint32_t thread) {
  std::ifstream status(fmt::format("/proc/{}/status", thread));
  constexpr std::string_view kName = "Tgid:\t";
  for (std::string line; std::getline(status, line);) {
    if (!line.starts_with(kName)) continue;
    pid_t process = 0;
    const auto [end, error] = std::from_chars(line.data() + kName.size(), line.data() + line.size(), process);
    if (error == std::errc()) return process;
  }
  return std::nullopt;
}

// Thread ids are those of the holder's namespace, so a process of this id counts only if it maps the file.
bool MapsFile(pid_t process, ino_t inode) {
  std::ifstream maps(fmt::format("/proc/{}/maps", process));
  const std::string field = fmt::format(" {} ", inode);
  for (std::string line; std::getline(maps, line);) {
    if (line.find(field) != std::string::npos && line.ends_with("/lock.mdb")) return true;
  }
  return false;
}

}  // namespace

Result<LockFile> LockFile::Open(const std::string& directory) {
  LockFile file;
  file.path_ = directory + "/lock.mdb";
  file.fd_ = Descriptor(::open(file.path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (file.fd_.get() < 0) return LmdbError(fmt::format("Cannot open '{}'", file.path_), errno);
  if (Status reserved = file.Reserve(); !reserved.ok()) return reserved.error();
  return file;
}

Status LockFile::Reserve() const {
  struct stat info {};
  if (::fstat(fd_.get(), &info) != 0) return LmdbError(fmt::format("Cannot examine '{}'", path_), errno);
  const off_t bytes = std::max(info.st_size, kMinBytes);
  if (info.st_size == bytes && info.st_blocks * kBlockBytes >= bytes) return {};
  int code = 0;
  do {
    code = ::posix_fallocate(fd_.get(), 0, bytes);
  } while (code == EINTR);
  if (code == 0 || code == EOPNOTSUPP || code == EINVAL) return {};
  return LmdbError(fmt::format("Cannot reserve the space of '{}'", path_), code);
}

std::optional<pid_t> LockFile::FindWriter() const {
  struct stat info {};
  Header header{};
  std::uint32_t holder = 0;
  if (::fstat(fd_.get(), &info) != 0) return std::nullopt;
  if (::pread(fd_.get(), &header, sizeof header, 0) != static_cast<ssize_t>(sizeof header)) return std::nullopt;
  if (header.magic != kMagic) return std::nullopt;
  if (::pread(fd_.get(), &holder, sizeof holder, kWritersLock) != static_cast<ssize_t>(sizeof holder))
    return std::nullopt;
  if ((holder & kThreadMask) == 0) return std::nullopt;
  const std::optional<pid_t> process = ProcessOfThread(holder & kThreadMask);
  return process && MapsFile(*process, info.st_ino) ? process : std::nullopt;
}

}  // namespace vexa::store
