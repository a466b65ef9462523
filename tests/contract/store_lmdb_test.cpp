// Properties of the LMDB store beyond the contract of every store: its folder, its memory map, damaged files.
#include <fcntl.h>
#include <lmdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <random>
#include <thread>

#include "host/store/data_file.h"
#include "host/store/lmdb_keyspace.h"
#include "host/store/lmdb_store.h"
#include "tests/contract/store_contract.h"

namespace vexa::store {
namespace {

LmdbOptions SmallMap(const std::string& directory) { return {directory, std::size_t{64} << 20, 1000}; }

std::shared_ptr<Store> Open(const LmdbOptions& options) {
  auto store = OpenLmdbStore(options);
  if (!store.ok()) ADD_FAILURE() << store.error().ToString();
  return store.ok() ? *store : nullptr;
}

ErrorCode OpenError(const std::string& directory) {
  const auto store = OpenLmdbStore(SmallMap(directory));
  EXPECT_FALSE(store.ok());
  return store.ok() ? ErrorCode::kInvalid : store.error().code();
}

mode_t ModeOf(const std::string& path) {
  struct stat info {};
  EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

TEST(LmdbStore, Open_NewFolder_IsPrivate) {
  const TemporaryFolder folder;
  const std::string directory = folder.path() + "/new/store";
  const mode_t before = ::umask(0);
  const auto store = Open(SmallMap(directory));
  ::umask(before);
  EXPECT_EQ(ModeOf(directory), 0700u);
  EXPECT_EQ(ModeOf(directory + "/data.mdb"), 0600u);
  EXPECT_EQ(ModeOf(directory + "/lock.mdb"), 0600u);
}

TEST(LmdbStore, Open_FilesWithLooseModes_AreTightened) {
  const TemporaryFolder folder;
  Open(SmallMap(folder.path()));
  ::chmod((folder.path() + "/data.mdb").c_str(), 0644);
  ::chmod((folder.path() + "/lock.mdb").c_str(), 0666);
  Open(SmallMap(folder.path()));
  EXPECT_EQ(ModeOf(folder.path() + "/data.mdb"), 0600u);
  EXPECT_EQ(ModeOf(folder.path() + "/lock.mdb"), 0600u);
}

TEST(LmdbStore, Open_SameFolderTwice_IsTheSameStore) {
  const TemporaryFolder folder;
  const std::string other_name = folder.path() + "/link";
  const std::string directory = folder.path() + "/store";
  const auto first = Open(SmallMap(directory));
  std::filesystem::create_directory_symlink(directory, other_name);
  EXPECT_EQ(Open(SmallMap(directory)), first);
  EXPECT_EQ(Open(SmallMap(other_name)), first);
}

TEST(LmdbStore, Open_AndCloseFromManyThreads_NeverOpensTwice) {
  const TemporaryFolder folder;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 25; ++i) {
        const auto store = OpenLmdbStore(SmallMap(folder.path()));
        if (!store.ok() || Increment(**store, "/shared") < 0) ++failures;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(TextOf(*Open(SmallMap(folder.path())), "/shared"), "150");
}

TEST(LmdbStore, Snapshots_TwoInOneThreadUnderLoad_NeverFail) {
  const TemporaryFolder folder;
  const auto store = Open(SmallMap(folder.path()));
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      while (!stop) {
        const auto outer = store->Read();
        const auto inner = store->Read();  // two in one thread must not lock each other out
        if (!outer.ok() || !inner.ok() || !inner.value()->Children("/w").ok()) ++failures;
      }
    });
  }
  std::vector<std::thread> writers;
  for (int w = 0; w < 4; ++w) {
    writers.emplace_back([&, w] {
      for (int i = 0; i < 40; ++i) {
        const std::string key = MakeKey({"w", std::to_string(w), std::to_string(i)});
        if (!store->Commit({{}, {{key, std::string(20'000, 'w')}}}).ok()) ++failures;
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  stop = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(failures, 0);
  for (int w = 0; w < 4; ++w) EXPECT_EQ(ReadOf(*store)->Children(MakeKey({"w", std::to_string(w)}))->size(), 40u);
}

TEST(LmdbStore, Map_Full_RefusesAndReopensWithALargerMap) {
  const TemporaryFolder folder;
  auto store = Open({folder.path(), std::size_t{1} << 20, 1000});
  Put(*store, "/kept", "1");
  int written = 0;
  ErrorCode refusal = ErrorCode::kInternal;
  for (; written < 100; ++written) {
    const auto done = store->Commit({{}, {{MakeKey({"fill", std::to_string(written)}), std::string(50'000, 'f')}}});
    if (done.ok()) continue;
    refusal = done.error().code();
    break;
  }
  EXPECT_EQ(refusal, ErrorCode::kNoSpace);
  EXPECT_EQ(store->health(), Health::kReadOnly);
  EXPECT_GT(written, 5);
  EXPECT_EQ(TextOf(*store, "/kept"), "1");
  EXPECT_EQ(ReadOf(*store)->Children("/fill")->size(), static_cast<std::size_t>(written));
  store.reset();
  store = Open(SmallMap(folder.path()));
  Put(*store, "/large", std::string(2'000'000, 'l'));
  EXPECT_EQ(ReadOf(*store)->Children("/fill")->size(), static_cast<std::size_t>(written));
}

TEST(LmdbStore, Map_SmallerThanFile_StillContainsAllValues) {
  const TemporaryFolder folder;
  auto store = Open(SmallMap(folder.path()));
  Put(*store, "/large", std::string(4'000'000, 'l'));
  Put(*store, "/small", "1");
  store.reset();
  store = Open({folder.path(), std::size_t{1} << 20, 1000});
  EXPECT_EQ(TextOf(*store, "/large"), std::string(4'000'000, 'l'));
  EXPECT_EQ(TextOf(*store, "/small"), "1");
}

TEST(LmdbStore, Map_LargerThanAddressSpace_IsRefusedNamingTheLimit) {
  const TemporaryFolder folder;
  const auto refused = OpenLmdbStore({folder.path(), std::size_t{1} << 48, 1000});
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code(), ErrorCode::kNoSpace);
  EXPECT_NE(refused.error().ToString().find("ulimit -v"), std::string::npos) << refused.error().ToString();
  Put(*Open(SmallMap(folder.path())), "/a", "1");
}

TEST(LmdbStore, Snapshots_MoreThanReaderSlots_AreBusyAndThenWork) {
  const TemporaryFolder folder;
  const auto store = Open(SmallMap(folder.path()));
  Put(*store, "/a", "1");
  std::vector<std::unique_ptr<Snapshot>> held;
  ErrorCode refusal = ErrorCode::kInternal;
  for (int i = 0; i < 5000; ++i) {
    auto snapshot = store->Read();
    if (!snapshot.ok()) {
      refusal = snapshot.error().code();
      break;
    }
    held.push_back(std::move(snapshot).value());
  }
  EXPECT_EQ(refusal, ErrorCode::kBusy);
  EXPECT_GT(held.size(), 500u);
  EXPECT_EQ(store->health(), Health::kReady);
  held.clear();
  EXPECT_EQ(TextOf(*store, "/a"), "1");
}

TEST(LmdbStore, Open_FolderWithForeignFiles_IsCorruptAndTouchesNothing) {
  const TemporaryFolder folder;
  std::ofstream(folder.path() + "/notes.txt") << "mine";
  EXPECT_EQ(OpenError(folder.path()), ErrorCode::kCorrupt);
  EXPECT_FALSE(std::filesystem::exists(folder.path() + "/data.mdb"));
  EXPECT_FALSE(std::filesystem::exists(folder.path() + "/lock.mdb"));
}

// What a power failure can leave of the creation of a store.
TEST(LmdbStore, Open_UnfinishedDataFile_IsIgnored) {
  const TemporaryFolder folder;
  std::ofstream(folder.path() + "/data.mdb.3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6") << "unfinished";
  const auto store = Open(SmallMap(folder.path()));
  ASSERT_TRUE(store);
  EXPECT_EQ(Increment(*store, "/shared"), 0);
}

TEST(LmdbStore, CreateDataFile_NewFile_EqualsTheFileThatLmdbCreates) {
  const TemporaryFolder folder;
  constexpr std::size_t kMapBytes = std::size_t{64} << 20;
  MDB_env* environment = nullptr;
  ASSERT_EQ(mdb_env_create(&environment), 0);
  ASSERT_EQ(mdb_env_set_mapsize(environment, kMapBytes), 0);
  ASSERT_EQ(mdb_env_open(environment, folder.path().c_str(), MDB_NOTLS, 0600), 0);
  mdb_env_close(environment);
  const std::string own = folder.path() + "/own";
  ASSERT_TRUE(CreateDataFile(own, kMapBytes));
  const auto content_of = [](const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  EXPECT_EQ(content_of(own), content_of(folder.path() + "/data.mdb"));
  EXPECT_EQ(ModeOf(own), 0600u);
}

TEST(LmdbStore, Open_DataFileNotRegular_IsCorrupt) {
  const TemporaryFolder folder;
  std::filesystem::create_symlink("/dev/null", folder.path() + "/data.mdb");
  EXPECT_EQ(OpenError(folder.path()), ErrorCode::kCorrupt);
  std::filesystem::remove(folder.path() + "/data.mdb");
  ASSERT_EQ(::mkfifo((folder.path() + "/data.mdb").c_str(), 0600), 0);
  EXPECT_EQ(OpenError(folder.path()), ErrorCode::kCorrupt);
}

TEST(LmdbStore, Open_NoFolder_IsAnError) {
  EXPECT_FALSE(OpenLmdbStore({}).ok());
  const TemporaryFolder folder;
  std::ofstream(folder.path() + "/file") << "x";
  EXPECT_FALSE(OpenLmdbStore(SmallMap(folder.path() + "/file")).ok());
  EXPECT_FALSE(OpenLmdbStore(SmallMap(folder.path() + "/file/store")).ok());
}

class DamagedStore : public testing::Test {
 protected:
  void SetUp() override {
    const auto store = Open(SmallMap(folder_.path()));
    for (int i = 0; i < 50; ++i) Put(*store, MakeKey({"k", std::to_string(i)}), std::string(500, 'v'));
    std::ifstream in(data_file_, std::ios::binary);
    content_.assign(std::istreambuf_iterator<char>(in), {});
    ASSERT_GT(content_.size(), 4u * 4096);
  }
  void Write(const std::string& content) const {
    std::ofstream(data_file_, std::ios::binary | std::ios::trunc)
        .write(content.data(), static_cast<long>(content.size()));
  }

  TemporaryFolder folder_;
  const std::string data_file_ = folder_.path() + "/data.mdb";
  std::string content_;
};

TEST_F(DamagedStore, Header_IsGarbage_IsCorrupt) {
  std::mt19937 random(7);
  for (int round = 0; round < 20; ++round) {
    std::string damaged = content_;
    for (std::size_t i = 0; i < 8192; ++i) damaged[i] = static_cast<char>(random());
    Write(damaged);
    EXPECT_EQ(OpenError(folder_.path()), ErrorCode::kCorrupt);
  }
  Write(std::string(content_.size(), '\0'));
  EXPECT_EQ(OpenError(folder_.path()), ErrorCode::kCorrupt);
  Write("this is a text");
  EXPECT_EQ(OpenError(folder_.path()), ErrorCode::kCorrupt);
  Write(content_);
  EXPECT_EQ(TextOf(*Open(SmallMap(folder_.path())), "/k/49"), std::string(500, 'v'));
}

TEST_F(DamagedStore, File_CutShort_IsCorrupt) {
  for (const std::size_t size :
       {std::size_t{1}, std::size_t{100}, std::size_t{4096}, std::size_t{8191}, std::size_t{8192}}) {
    Write(content_.substr(0, size));
    EXPECT_EQ(OpenError(folder_.path()), ErrorCode::kCorrupt) << size;
  }
}

TEST_F(DamagedStore, Header_AnyByteChanged_OpensOrFailsCleanly) {
  int refused = 0;
  for (std::size_t page = 0; page < 2; ++page) {
    for (std::size_t offset = 0; offset < 152; ++offset) {
      for (const unsigned char mask : {0x01, 0x80, 0xFF}) {
        std::string damaged = content_;
        char& byte = damaged[page * 4096 + offset];
        byte = static_cast<char>(byte ^ mask);
        Write(damaged);
        const auto store = OpenLmdbStore(SmallMap(folder_.path()));
        if (!store.ok()) ++refused;
      }
    }
  }
  EXPECT_GT(refused, 100);
}

TEST(LmdbKeyspace, Apply_GivenRevisions_AreKeptWithTheirGaps) {
  const TemporaryFolder folder;
  auto opened = LmdbKeyspace::Open(SmallMap(folder.path()));
  ASSERT_TRUE(opened.ok()) << opened.error().ToString();
  LmdbKeyspace& keyspace = **opened;
  const std::vector<RevisionedOperations> commits = {
      {7, {{"/a", "7"}, {"/b", "7"}}}, {12, {{"/a", "12"}}}, {40, {{"/b", std::nullopt}}}};
  ASSERT_TRUE(keyspace.Apply(commits).ok());
  const auto snapshot = std::move(keyspace.Read()).value();
  EXPECT_EQ(snapshot->revision(), 40u);
  EXPECT_EQ(snapshot->Get("/a").value()->revision, 12u);
  EXPECT_FALSE(snapshot->Get("/b").value().has_value());
  const auto batch = keyspace.Watch("", 7, std::chrono::milliseconds(0));
  ASSERT_TRUE(batch.ok());
  EXPECT_FALSE(batch->lost);
  ASSERT_EQ(batch->changes.size(), 2u);
  EXPECT_EQ(batch->changes[1].revision, 40u);
  EXPECT_TRUE(batch->changes[1].deleted);
}

TEST(LmdbKeyspace, Apply_RevisionNotGreater_IsInvalidAndAppliesNothing) {
  const TemporaryFolder folder;
  auto opened = LmdbKeyspace::Open(SmallMap(folder.path()));
  ASSERT_TRUE(opened.ok());
  LmdbKeyspace& keyspace = **opened;
  ASSERT_TRUE(keyspace.Apply(std::vector<RevisionedOperations>{{7, {{"/a", "7"}}}}).ok());
  for (const Revision bad : {Revision{0}, Revision{6}, Revision{7}}) {
    const Status applied = keyspace.Apply(std::vector<RevisionedOperations>{{8, {{"/a", "8"}}}, {bad, {{"/a", "9"}}}});
    ASSERT_FALSE(applied.ok());
    EXPECT_EQ(applied.error().code(), ErrorCode::kInvalid);
  }
  const auto snapshot = std::move(keyspace.Read()).value();
  EXPECT_EQ(snapshot->revision(), 7u);
  EXPECT_EQ(snapshot->Get("/a").value()->text, "7");
  EXPECT_EQ(keyspace.health(), Health::kReady);
}

}  // namespace
}  // namespace vexa::store
