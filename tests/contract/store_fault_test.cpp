// The LMDB store on a disk that fails, or on a system without threads left. This program replaces the functions that
// write and read its files and start threads.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <future>
#include <new>
#include <thread>

#include "host/base/descriptor.h"
#include "host/store/lmdb_store.h"
#include "host/store/mirrored_store.h"
#include "host/store/open_once.h"
#include "tests/contract/store_contract.h"

namespace {

// The errno with which the calls fail; 0: they succeed.
std::atomic<int> page_write_error{0};
std::atomic<int> header_write_error{0};
std::atomic<int> sync_error{0};
std::atomic<int> reserve_error{0};
std::atomic<int> page_read_error{0};
std::atomic<int> header_read_error{0};

// While they are set, a read waits.
std::atomic<bool> page_reads_hang{false};
std::atomic<bool> header_reads_hang{false};
std::atomic<int> hanging_reads{0};
std::atomic<int> page_reads{0};

// How many threads can be started; negative: any number.
std::atomic<int> threads_left{-1};

// The header of the file is written alone and is smaller than a page.
bool IsHeader(std::size_t bytes) { return bytes < 512; }

}  // namespace

extern "C" ssize_t pwrite(int fd, const void* bytes, size_t count, off_t offset) {
  const int error_number = IsHeader(count) ? header_write_error : page_write_error;
  if (error_number == 0) return ::syscall(SYS_pwrite64, fd, bytes, count, offset);
  errno = error_number;
  return -1;
}

extern "C" ssize_t pread(int fd, void* bytes, size_t count, off_t offset) {
  constexpr off_t kHeaderPages = 2 * 4096;
  const bool is_header = offset < kHeaderPages;
  if (!is_header) ++page_reads;
  const std::atomic<bool>& hangs = is_header ? header_reads_hang : page_reads_hang;
  ++hanging_reads;
  while (hangs) ::usleep(1000);
  --hanging_reads;
  const int error_number = is_header ? header_read_error : page_read_error;
  if (error_number == 0) return ::syscall(SYS_pread64, fd, bytes, count, offset);
  errno = error_number;
  return -1;
}

extern "C" ssize_t writev(int fd, const struct iovec* parts, int count) {
  if (page_write_error == 0) return ::syscall(SYS_writev, fd, parts, count);
  errno = page_write_error;
  return -1;
}

extern "C" int fallocate(int fd, int mode, off_t offset, off_t length) {
  if (reserve_error == 0) return static_cast<int>(::syscall(SYS_fallocate, fd, mode, offset, length));
  errno = reserve_error;
  return -1;
}

extern "C" int fdatasync(int fd) {
  if (sync_error == 0) return static_cast<int>(::syscall(SYS_fdatasync, fd));
  errno = sync_error;
  return -1;
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                              void* argument) noexcept {
  static const auto create = reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
  if (threads_left == 0) return EAGAIN;
  if (threads_left > 0) --threads_left;
  return create(thread, attributes, run, argument);
}

namespace vexa::store {
namespace {

using namespace std::chrono_literals;

bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

class StoreOnAFailingDisk : public testing::Test {
 protected:
  void SetUp() override {
    Reopen();
    before_ = Put(*store_, "/a", "1");
  }
  void TearDown() override { RepairDisk(); }
  void Reopen() {
    store_.reset();
    auto store = OpenLmdbStore({folder_.path(), kStoreMapBytes, 1000});
    ASSERT_TRUE(store.ok()) << store.error().ToString();
    store_ = *store;
  }
  static void RepairDisk() {
    page_write_error = 0;
    header_write_error = 0;
    sync_error = 0;
    reserve_error = 0;
    page_read_error = 0;
    header_read_error = 0;
    page_reads_hang = false;
    header_reads_hang = false;
    threads_left = -1;
  }
  // Expects that a commit fails with `code`.
  void ExpectRefused(ErrorCode code) {
    const Result<Revision> done = store_->Commit({{}, {{"/a", "2"}, {"/b", std::string(20'000, 'b')}}});
    ASSERT_FALSE(done.ok());
    EXPECT_EQ(done.error().code(), code) << done.error().ToString();
    EXPECT_EQ(store_->health(), Health::kReadOnly);
  }
  void ExpectUnchanged() {
    EXPECT_EQ(TextOf(*store_, "/a"), "1");
    EXPECT_EQ(TextOf(*store_, "/b"), "(absent)");
    EXPECT_EQ(ReadOf(*store_)->revision(), before_);
  }
  void ExpectWorksAgain() {
    EXPECT_EQ(Put(*store_, "/a", "3"), before_ + 1);
    EXPECT_EQ(store_->health(), Health::kReady);
    EXPECT_EQ(TextOf(*store_, "/a"), "3");
    Reopen();
    EXPECT_EQ(TextOf(*store_, "/a"), "3");
  }
  void ExpectRefusesAndRecovers(std::atomic<int>& fault, int error_number, ErrorCode code) {
    fault = error_number;
    ExpectRefused(code);
    ExpectUnchanged();
    RepairDisk();
    ExpectWorksAgain();
  }

  TemporaryFolder folder_;
  std::shared_ptr<Store> store_;
  Revision before_ = 0;
};

TEST_F(StoreOnAFailingDisk, Pages_NoSpace_RefusesAndRecovers) {
  ExpectRefusesAndRecovers(page_write_error, ENOSPC, ErrorCode::kNoSpace);
}

TEST_F(StoreOnAFailingDisk, Pages_InputOutputError_RefusesAndRecovers) {
  ExpectRefusesAndRecovers(page_write_error, EIO, ErrorCode::kInternal);
}

// LMDB reports a write that the system cut short as an input/output error.
TEST_F(StoreOnAFailingDisk, Pages_CutShortByQuota_RefusesAndRecovers) {
  reserve_error = EDQUOT;
  ExpectRefusesAndRecovers(page_write_error, EIO, ErrorCode::kNoSpace);
}

TEST_F(StoreOnAFailingDisk, Sync_Fails_RefusesAndRecovers) {
  ExpectRefusesAndRecovers(sync_error, EIO, ErrorCode::kInternal);
}

TEST_F(StoreOnAFailingDisk, Header_CannotBeWritten_IsReopenedAndRecovers) {
  header_write_error = EIO;
  ExpectRefused(ErrorCode::kInternal);
  ExpectUnchanged();
  ExpectRefused(ErrorCode::kInternal);
  RepairDisk();
  ExpectUnchanged();
  ExpectWorksAgain();
}

TEST_F(StoreOnAFailingDisk, Header_CannotBeWrittenWhileASnapshotIsOpen_WaitsForItsEnd) {
  auto snapshot = ReadOf(*store_);
  header_write_error = EIO;
  const Result<Revision> failed = store_->Commit({{}, {{"/a", "2"}}});
  EXPECT_FALSE(failed.ok());
  RepairDisk();
  EXPECT_EQ(snapshot->Get("/a").value()->text, "1");
  const auto refused = store_->Read();
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code(), ErrorCode::kUnavailable);
  EXPECT_EQ(store_->health(), Health::kInaccessible);
  snapshot.reset();
  ExpectUnchanged();
  ExpectWorksAgain();
}

TEST_F(StoreOnAFailingDisk, Health_WithoutCommits_RecoversAutomatically) {
  sync_error = EIO;
  ExpectRefused(ErrorCode::kInternal);
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  EXPECT_EQ(store_->health(), Health::kReadOnly);
  RepairDisk();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (store_->health() != Health::kReady && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_EQ(store_->health(), Health::kReady);
  ExpectUnchanged();
}

TEST_F(StoreOnAFailingDisk, Commits_FailingDiskManyThreads_AllReturn) {
  sync_error = EIO;
  std::atomic<int> refused{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] { refused += store_->Commit({{}, {{"/b", "1"}}}).ok() ? 0 : 1; });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(refused, 8);
  ExpectUnchanged();
  RepairDisk();
  ExpectWorksAgain();
}

// A disk that cannot be read is not a damaged database.
TEST_F(StoreOnAFailingDisk, Open_FileCannotBeRead_IsUnavailableUntilItCan) {
  store_.reset();
  for (std::atomic<int>* const fault : {&page_read_error, &header_read_error}) {
    *fault = EIO;
    const auto refused = OpenLmdbStore({folder_.path(), kStoreMapBytes, 1000});
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().code(), ErrorCode::kUnavailable);
    EXPECT_EQ(refused.error().ToString(),
              "The database file '" + folder_.path() + "/data.mdb' cannot be read. Check its disk: Input/output error");
    RepairDisk();
    Reopen();
    ExpectUnchanged();
    store_.reset();
  }
  Reopen();
  ExpectWorksAgain();
}

TEST_F(StoreOnAFailingDisk, Copy_CannotBeRead_IsKept) {
  const std::string copy = folder_.path() + "/mirror";
  const auto make = [&] { return MirroredStore::Make(store_, {.directory = copy}); };
  ASSERT_TRUE(make().ok());
  for (std::atomic<int>* const fault : {&page_read_error, &header_read_error}) {
    *fault = EIO;
    const auto refused = make();
    RepairDisk();
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().code(), ErrorCode::kUnavailable) << refused.error().ToString();
  }
  EXPECT_FALSE(std::filesystem::exists(copy + ".damaged-1.mdb"));
  EXPECT_TRUE(make().ok());
}

// The check of all pages.

TEST_F(StoreOnAFailingDisk, Reopened_SameFile_PagesAreNotCheckedAgain) {
  EXPECT_GT(page_reads, 0) << "at the opening";
  page_reads = 0;
  header_write_error = EIO;
  ExpectRefused(ErrorCode::kInternal);
  RepairDisk();
  ExpectUnchanged();
  EXPECT_EQ(page_reads, 0);
  ExpectWorksAgain();
  EXPECT_GT(page_reads, 0) << "at the next opening";
}

TEST_F(StoreOnAFailingDisk, Open_PagesAreBeingChecked_FolderIsNotLocked) {
  store_.reset();
  page_reads_hang = true;
  std::thread opening([this] { Reopen(); });
  EXPECT_TRUE(Eventually([] { return hanging_reads > 0; }));
  const Descriptor folder(::open(folder_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(::flock(folder.get(), LOCK_EX | LOCK_NB), 0) << "another process can open the store";
  ::flock(folder.get(), LOCK_UN);
  page_reads_hang = false;
  opening.join();
  ExpectWorksAgain();
}

// The commit thread is reopening the store, and a search for the holder of the lock would wait for it.
TEST_F(StoreOnAFailingDisk, Commit_RefusedWhileTheStoreIsReopened_IsAnsweredImmediately) {
  store_.reset();
  LmdbOptions options;
  options.directory = folder_.path();
  options.file_check_mode = FileCheckMode::kPath;  // the other one reads the header as well
  options.commit_timeout = 3s;
  store_ = *OpenLmdbStore(options);
  header_write_error = EIO;
  ExpectRefused(ErrorCode::kInternal);
  header_reads_hang = true;
  auto refused = std::async(std::launch::async, [this] { return store_->Commit({{}, {{"/b", "1"}}}); });
  const bool is_answered = refused.wait_for(30s) == std::future_status::ready;
  EXPECT_TRUE(is_answered);
  EXPECT_GT(hanging_reads, 0);
  RepairDisk();
  const Result<Revision> done = refused.get();
  ASSERT_FALSE(done.ok());
  EXPECT_EQ(done.error().ToString(),
            "The database is held by another process, or its disk does not respond, for more than 3000 ms. Let it "
            "continue, or end it. Nothing was changed");
  EXPECT_TRUE(Eventually([this] { return store_->health() == Health::kReady; }));
}

TEST_F(StoreOnAFailingDisk, Open_NoThreadCanBeStarted_IsRefusedUntilOneCan) {
  store_.reset();
  threads_left = 0;
  const auto refused = OpenLmdbStore({folder_.path(), kStoreMapBytes, 1000});
  threads_left = -1;
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code(), ErrorCode::kUnavailable);
  EXPECT_EQ(refused.error().ToString(),
            "The thread that writes to the store in '" + folder_.path() +
                "' cannot be started. Raise the limit on processes (ulimit -u, TasksMax=): Resource temporarily "
                "unavailable");
  Reopen();
  ExpectWorksAgain();
}

TEST_F(StoreOnAFailingDisk, Mirror_NoThreadCanBeStarted_IsRefusedUntilOneCan) {
  const auto make = [this] { return MirroredStore::Make(store_, {.directory = folder_.path() + "/mirror"}); };
  threads_left = 1;  // for the writer of the copy
  const auto refused = make();
  threads_left = -1;
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().ToString(),
            "The thread that copies the cluster database cannot be started. Raise the limit on processes (ulimit -u, "
            "TasksMax=): Resource temporarily unavailable");
  EXPECT_TRUE(make().ok());
}

// An exception, which no error of the store is, must not keep the folder.
TEST(OpenOnce, Open_Throws_NextOneOpens) {
  const FolderId folder(1, 1);
  EXPECT_THROW((void)OpenOnce<int>(folder, []() -> Result<std::unique_ptr<int>> { throw std::bad_alloc(); }),
               std::bad_alloc);
  auto next = std::async(std::launch::async, [&] {
    return OpenOnce<int>(folder, []() -> Result<std::unique_ptr<int>> { return std::make_unique<int>(7); });
  });
  ASSERT_EQ(next.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(**next.get(), 7);
}

// What a quota and a file system that became read-only answer, while 64 threads read and 8 write.
class StoreUnderLoad : public StoreOnAFailingDisk, public testing::WithParamInterface<int> {};

TEST_P(StoreUnderLoad, Writes_Refused_ReadsGoOnUntilTheyWork) {
  const ErrorCode expected = GetParam() == EDQUOT ? ErrorCode::kNoSpace : ErrorCode::kDenied;
  page_write_error = header_write_error = GetParam();
  std::atomic<bool> ends{false};
  std::atomic<int> refused{0};
  std::atomic<int> committed{0};
  std::atomic<int> reads{0};
  std::vector<std::thread> threads;
  threads.reserve(64 + 8);
  for (int i = 0; i < 64; ++i) {
    threads.emplace_back([&] {
      while (!ends) {
        const auto snapshot = store_->Read();
        ASSERT_TRUE(snapshot.ok()) << snapshot.error().ToString();
        EXPECT_TRUE((*snapshot)->Get("/a").value().has_value());
        ++reads;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
  }
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      while (!ends) {
        const auto done = store_->Commit({{}, {{"/w" + std::to_string(i), std::string(20'000, 'w')}}});
        ++(done.ok() ? committed : refused);
        if (!done.ok()) {
          EXPECT_EQ(done.error().code(), expected) << done.error().ToString();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
  }
  const auto is_reached = [](const std::atomic<int>& count, int goal) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (count < goal && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    return count >= goal;
  };
  EXPECT_TRUE(is_reached(refused, 80) && is_reached(reads, 500));
  EXPECT_EQ(committed, 0);
  RepairDisk();
  EXPECT_TRUE(is_reached(committed, 80));
  ends = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(store_->health(), Health::kReady);
}

INSTANTIATE_TEST_SUITE_P(Errors, StoreUnderLoad, testing::Values(EDQUOT, EROFS),
                         [](const auto& row) { return row.param == EDQUOT ? "Quota" : "ReadOnly"; });

}  // namespace
}  // namespace vexa::store
