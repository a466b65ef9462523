#include "host/store/lmdb_files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <thread>

#include "host/base/descriptor.h"
#include "host/store/data_check.h"
#include "host/store/lmdb_error.h"

namespace vexa::store {
namespace {

constexpr std::string_view kDataFile = "data.mdb";
constexpr std::string_view kLockFile = "lock.mdb";
constexpr std::string_view kUnfinishedPrefix = "data.mdb.";   // of a data file whose creation was interrupted
constexpr std::string_view kMountPointFolder = "lost+found";  // in the root of a new file system

constexpr std::chrono::seconds kMaxLockWait{10};
constexpr std::chrono::milliseconds kLockRetryInterval{10};

}  // namespace

Status CheckStoreFiles(const std::string& directory) {
  bool has_data = false;
  bool has_others = false;
  std::error_code failure;
  for (std::filesystem::directory_iterator at(directory, failure), end; !failure && at != end; at.increment(failure)) {
    const std::string name = at->path().filename().string();
    const bool ours = name == kDataFile || name == kLockFile;
    if (ours && at->symlink_status(failure).type() != std::filesystem::file_type::regular) {
      return Error(ErrorCode::kCorrupt, fmt::format("'{}' is not a regular file", at->path().string()));
    }
    has_data = has_data || name == kDataFile;
    has_others = has_others || (!ours && name != kMountPointFolder && !name.starts_with(kUnfinishedPrefix));
  }
  if (failure) return LmdbError(fmt::format("Cannot list the folder '{}'", directory), failure.value());
  if (has_data) return CheckDataHeader(directory + "/" + std::string(kDataFile));
  if (!has_others) return {};
  return Error(ErrorCode::kCorrupt,
               fmt::format("The folder '{}' contains files but no store. Choose an empty folder", directory));
}

FolderLock::FolderLock(const std::string& directory)
    : directory_(directory), fd_(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (fd_.get() < 0) {
    code_ = errno;
    return;
  }
  // A process that was stopped while it opened the store must not stop this one.
  const auto deadline = std::chrono::steady_clock::now() + kMaxLockWait;
  while (::flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    code_ = errno;
    if (code_ != EWOULDBLOCK || std::chrono::steady_clock::now() >= deadline) return;
    std::this_thread::sleep_for(kLockRetryInterval);
    code_ = 0;
  }
}

Status FolderLock::Outcome() const {
  if (code_ == 0) return {};
  if (code_ != EWOULDBLOCK) return LmdbError(fmt::format("Cannot lock the folder '{}'", directory_), code_);
  return Error(ErrorCode::kUnavailable,
               fmt::format("Another process is opening the store in '{}' and does not finish. Let it continue, or end "
                           "it",
                           directory_));
}

int FolderLock::SyncDirectories() const {
  const Descriptor parent(::openat(fd_.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // A parent that cannot be opened existed before and has no new name to sync.
  return ::fsync(fd_.get()) != 0 || (parent.get() >= 0 && ::fsync(parent.get()) != 0) ? errno : 0;
}

void RestrictStoreFileModes(const std::string& directory) {
  // A file of another owner that lets us write keeps its mode: it is not ours to change, and not a reason to fail.
  for (const std::string_view name : {kDataFile, kLockFile}) {
    const std::string path = directory + "/" + std::string(name);
    if (::chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0) continue;
  }
}

int ReasonForShortWrite(const std::string& directory) {
  constexpr std::uint64_t kNeededBytes = 1 << 20;
  struct statvfs disk {};
  if (::statvfs(directory.c_str(), &disk) == 0 &&
      static_cast<std::uint64_t>(disk.f_bavail) * disk.f_frsize < kNeededBytes) {
    return ENOSPC;
  }
  struct stat file {};
  rlimit limit{};
  if (::stat((directory + "/" + std::string(kDataFile)).c_str(), &file) == 0 &&
      ::getrlimit(RLIMIT_FSIZE, &limit) == 0 &&
      static_cast<std::uint64_t>(file.st_size) + kNeededBytes > limit.rlim_cur) {
    return EFBIG;
  }
  // A file without a name shows a quota.
  const Descriptor probe(::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (probe.get() < 0) return EIO;
  if (::fallocate(probe.get(), 0, 0, kNeededBytes) == 0) return EIO;
  return errno == ENOSPC || errno == EDQUOT ? errno : EIO;
}

}  // namespace vexa::store
