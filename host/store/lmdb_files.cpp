#include "host/store/lmdb_files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <thread>

#include "host/base/descriptor.h"
#include "host/store/lmdb_error.h"

namespace vexa::store {
namespace {

constexpr std::string_view kDataFile = "data.mdb";
constexpr std::string_view kLockFile = "lock.mdb";
constexpr std::string_view kMountPointFolder = "lost+found";  // in the root of a new file system

// The layout of LMDB's data file (format version 1). Its header consists of two meta pages; the one with the greater
// transaction number is valid.
struct Tree {
  std::uint32_t page_bytes;  // of the file in the first tree, unused in the second
  std::uint16_t flags;
  std::uint16_t depth;
  std::uint64_t branch_pages;
  std::uint64_t leaf_pages;
  std::uint64_t overflow_pages;
  std::uint64_t entries;
  std::uint64_t root;
};
struct PageHeader {
  std::uint64_t number;
  std::uint16_t pad;
  std::uint16_t flags;
  std::uint16_t lower;
  std::uint16_t upper;
};
struct MetaPage {
  PageHeader header;
  std::uint32_t magic;
  std::uint32_t version;
  std::uint64_t address;
  std::uint64_t map_bytes;
  std::array<Tree, 2> trees;
  std::uint64_t last_page;
  std::uint64_t transaction;
};
static_assert(sizeof(PageHeader) == 16 && sizeof(Tree) == 48 && sizeof(MetaPage) == 152);

constexpr std::uint32_t kMagic = 0xBEEFC0DE;
constexpr std::uint32_t kVersion = 1;
constexpr std::uint64_t kNoPage = ~std::uint64_t{0};
constexpr std::uint64_t kMaxPages = std::uint64_t{1} << 36;
constexpr std::uint16_t kBranchFlag = 0x01;
constexpr std::uint16_t kLeafFlag = 0x02;
constexpr std::uint16_t kMetaFlag = 0x08;
constexpr std::uint16_t kMaxDepth = 32;

class DataFile {
 public:
  explicit DataFile(const std::string& path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW)) {}

  bool open() const { return fd_.get() >= 0; }
  std::uint64_t size() const {
    struct stat info {};
    return ::fstat(fd_.get(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
  }
  template <class T>
  bool Read(std::uint64_t offset, T& out) const {
    return ::pread(fd_.get(), &out, sizeof out, static_cast<off_t>(offset)) == static_cast<ssize_t>(sizeof out);
  }

 private:
  Descriptor fd_;
};

bool IsPageSize(std::uint32_t bytes) { return bytes >= 512 && bytes <= 32768 && (bytes & (bytes - 1)) == 0; }

bool IsValidMetaPage(const MetaPage& meta) {
  return (meta.header.flags & kMetaFlag) != 0 && meta.magic == kMagic && meta.version == kVersion &&
         IsPageSize(meta.trees[0].page_bytes) && meta.last_page < kMaxPages;
}

bool HasValidRoot(const DataFile& file, const MetaPage& meta, const Tree& tree) {
  if (tree.root == kNoPage) return true;
  const std::uint64_t page_bytes = meta.trees[0].page_bytes;
  if (tree.root < 2 || tree.root > meta.last_page || tree.depth == 0 || tree.depth > kMaxDepth) return false;
  if ((tree.root + 1) * page_bytes > file.size()) return false;
  PageHeader header{};
  if (!file.Read(tree.root * page_bytes, header) || header.number != tree.root) return false;
  const bool is_tree_page = (header.flags & (kBranchFlag | kLeafFlag)) != 0;
  return is_tree_page && header.lower >= sizeof(PageHeader) && header.lower <= header.upper &&
         header.upper <= page_bytes;
}

bool HasValidHeader(const DataFile& file) {
  MetaPage first{};
  MetaPage second{};
  if (!file.Read(0, first) || !IsValidMetaPage(first)) return false;
  const std::uint32_t page_bytes = first.trees[0].page_bytes;
  if (!file.Read(page_bytes, second) || !IsValidMetaPage(second) || second.trees[0].page_bytes != page_bytes)
    return false;
  const MetaPage& valid = second.transaction > first.transaction ? second : first;
  return HasValidRoot(file, valid, valid.trees[0]) && HasValidRoot(file, valid, valid.trees[1]);
}

Status CheckDataFile(const std::string& path) {
  const DataFile file(path);
  if (!file.open()) return LmdbError(fmt::format("Cannot open '{}'", path), errno);
  // Another process may be in the middle of a commit, so a bad result is rechecked before it counts.
  constexpr int kMaxAttempts = 5;
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    if (file.size() == 0 || HasValidHeader(file)) return {};
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return Error(ErrorCode::kCorrupt, fmt::format("'{}' is damaged or not the data file of a store", path));
}

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
    has_others = has_others || (!ours && name != kMountPointFolder);
  }
  if (failure) return LmdbError(fmt::format("Cannot list the folder '{}'", directory), failure.value());
  if (has_data) return CheckDataFile(directory + "/" + std::string(kDataFile));
  if (!has_others) return {};
  return Error(ErrorCode::kCorrupt,
               fmt::format("The folder '{}' contains files but no store. Choose an empty folder", directory));
}

FolderLock::FolderLock(const std::string& directory)
    : fd_(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (fd_.get() < 0) {
    code_ = errno;
    return;
  }
  while (::flock(fd_.get(), LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    code_ = errno;
    return;
  }
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

bool DiskIsFull(const std::string& directory) {
  constexpr std::uint64_t kFullBelowBytes = 1 << 20;
  struct statvfs info {};
  if (::statvfs(directory.c_str(), &info) != 0) return false;
  return static_cast<std::uint64_t>(info.f_bavail) * info.f_frsize < kFullBelowBytes;
}

}  // namespace vexa::store
