#include "host/store/data_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <thread>

#include "host/store/data_file.h"
#include "host/store/lmdb_error.h"
#include "host/store/page_check.h"

namespace vexa::store {
namespace {

// Another process may be in the middle of a commit, so a bad result is rechecked before it counts.
constexpr int kMaxAttempts = 5;
constexpr std::chrono::milliseconds kPause{5};
constexpr int kMaxPinAttempts = 1000;
constexpr std::uint64_t kMaxPages = std::uint64_t{1} << 36;

enum class Header { kValid, kDamaged, kOtherVersion };

bool IsPageSize(std::uint32_t bytes) { return bytes >= 512 && bytes <= 32768 && (bytes & (bytes - 1)) == 0; }

// `slot` is the number of its page: commits write them in turn.
bool IsValidMetaPage(const DataMetaPage& meta, std::uint64_t slot) {
  const bool is_new = meta.transaction == 0;
  return (meta.header.flags & kMetaPage) != 0 && meta.magic == kDataMagic && IsPageSize(meta.free_pages.page_bytes) &&
         meta.last_page < kMaxPages && (is_new || meta.transaction % 2 == slot) &&
         meta.free_pages.flags == kIntegerKeys && meta.main.flags == 0;
}

bool HasValidRoot(const DataFile& file, const DataMetaPage& meta, const DataTree& tree) {
  if (tree.root == kNoDataPage) return true;
  const std::uint64_t page_bytes = meta.free_pages.page_bytes;
  return tree.root >= 2 && tree.root <= meta.last_page && (tree.root + 1) * page_bytes <= file.size();
}

bool IsOtherVersion(const DataMetaPage& meta) { return meta.magic == kDataMagic && meta.version != kDataVersion; }

Header ReadHeader(const DataFile& file, std::uint32_t& version) {
  DataMetaPage first{};
  DataMetaPage second{};
  if (!file.Read(0, first)) return Header::kDamaged;
  version = first.version;
  const std::uint32_t page_bytes = first.free_pages.page_bytes;
  if (!IsValidMetaPage(first, 0) || !file.Read(page_bytes, second) || !IsValidMetaPage(second, 1))
    return Header::kDamaged;
  if (IsOtherVersion(first) && second.version == first.version) return Header::kOtherVersion;
  if (IsOtherVersion(first) || IsOtherVersion(second)) return Header::kDamaged;
  const DataMetaPage& newest = second.transaction > first.transaction ? second : first;
  const DataMetaPage& previous = second.transaction > first.transaction ? first : second;
  const bool follows =
      newest.transaction == previous.transaction + 1 || (newest.transaction == 0 && previous.transaction == 0);
  const bool is_valid = follows && second.free_pages.page_bytes == page_bytes &&
                        HasValidRoot(file, newest, newest.main) && HasValidRoot(file, newest, newest.free_pages);
  return is_valid ? Header::kValid : Header::kDamaged;
}

// A read transaction, which keeps the pages of its state.
class PinnedState {
 public:
  explicit PinnedState(MDB_env* environment) : environment_(environment) {}
  ~PinnedState() {
    if (transaction_ != nullptr) mdb_txn_abort(transaction_);
  }
  PinnedState(const PinnedState&) = delete;
  PinnedState& operator=(const PinnedState&) = delete;

  // Begins it and finds its meta page. 0, or LMDB's code; MDB_CORRUPTED when no meta page has its number.
  int Pin(const DataFile& file) {
    int code = mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &transaction_);
    for (int attempt = 0; code == 0 && attempt < kMaxPinAttempts; ++attempt) {
      const std::uint64_t number = mdb_txn_id(transaction_);
      const bool found = ReadMeta(file, number % 2, meta_) && meta_.transaction == number;
      // The commit after the next one overwrites this meta page. As long as the next one has not ended, it was read
      // whole.
      mdb_txn_reset(transaction_);
      code = mdb_txn_renew(transaction_);
      if (code == 0 && found && mdb_txn_id(transaction_) == number) return 0;
    }
    return code == 0 ? MDB_CORRUPTED : code;
  }

  const DataMetaPage& meta() const { return meta_; }

  // The state before the last change; not set when its page is unreadable or has an even older one.
  std::optional<DataMetaPage> Previous(const DataFile& file) const {
    DataMetaPage previous{};
    if (meta_.transaction < 2 || !ReadMeta(file, (meta_.transaction + 1) % 2, previous)) return std::nullopt;
    return previous.transaction + 1 == meta_.transaction ? std::optional(previous) : std::nullopt;
  }

 private:
  static bool ReadMeta(const DataFile& file, std::uint64_t slot, DataMetaPage& meta) {
    DataMetaPage first{};
    return file.Read(0, first) && IsPageSize(first.free_pages.page_bytes) &&
           file.Read(slot * first.free_pages.page_bytes, meta);
  }

  MDB_env* const environment_;
  MDB_txn* transaction_ = nullptr;
  DataMetaPage meta_{};
};

Error Unreadable(const std::string& path, int error_number) {
  return SystemError(ErrorCode::kUnavailable,
                     fmt::format("The database file '{}' cannot be read. Check its disk", path), error_number);
}

}  // namespace

Status CheckDataHeader(const std::string& path) {
  const DataFile file(path);
  if (!file.open()) return LmdbError(fmt::format("Cannot open '{}'", path), errno);
  Header header = Header::kDamaged;
  std::uint32_t version = 0;
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    const bool is_empty = file.size() == 0;
    if (!is_empty) header = ReadHeader(file, version);
    if (file.error() != 0) return Unreadable(path, file.error());
    if (is_empty) return {};
    if (header == Header::kValid) return {};
    std::this_thread::sleep_for(kPause);
  }
  if (header == Header::kOtherVersion) {
    return Error(ErrorCode::kCorrupt,
                 fmt::format("'{}' has version {} of the file format. This program can read version {}", path, version,
                             kDataVersion));
  }
  return Error(ErrorCode::kCorrupt,
               fmt::format("'{}' is damaged or not the data file of a store. Restore a backup of it", path));
}

Status CheckDataPages(MDB_env* environment, const std::string& path) {
  const DataFile file(path);
  if (!file.open()) return LmdbError(fmt::format("Cannot open '{}'", path), errno);
  PinnedState state(environment);
  const int code = state.Pin(file);
  if (file.error() != 0) return Unreadable(path, file.error());
  if (code != 0) return LmdbError(fmt::format("Cannot check '{}'", path), code);
  const auto newest = CheckPagesOf(file, state.meta());
  if (file.error() != 0) return Unreadable(path, file.error());
  if (newest) return {};
  const std::optional<DataMetaPage> previous = state.Previous(file);
  const bool only_newest = previous && CheckPagesOf(file, *previous);
  return Error(ErrorCode::kCorrupt,
               fmt::format("Page {} of the database '{}' is damaged: {}. {}. Restore a backup of the file",
                           newest.error().page, path, newest.error().what,
                           only_newest ? "Only the last change is affected, the state before it is intact"
                                       : "The state before the last change is damaged too"));
}

}  // namespace vexa::store
