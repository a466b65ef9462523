// Caches: what is stored, which files count as stored, and who computes a value.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/base/files.h"
#include "host/cache/cache_entry.h"
#include "host/cache/cache_paths.h"
#include "host/records/environment.h"
#include "json/readers.h"
#include "tests/support/counting_cache.h"
#include "tests/support/require.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_host.h"

namespace vexa::test {
namespace {

namespace fs = std::filesystem;

// Caches without a database.
// time(2) may still return the last second when other clocks have begun the next.
std::time_t UnixNow() { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()); }

class Cache : public ::testing::Test {
 protected:
  Cache() {
    Install(folder_.File("cache"));
    ClearCapturedSyslog();
  }
  ~Cache() override { records::RemoveEnvironment(); }

  static void Install(const std::string& directory, std::chrono::milliseconds wait = std::chrono::seconds(60)) {
    records::RemoveEnvironment();
    records::Environment environment;
    environment.cache_directory = directory;
    environment.cache_wait = wait;
    records::InstallEnvironment(std::move(environment));
  }

  std::string File(const std::string& name = "counting.json") const { return folder_.File("cache/test/" + name); }

  void Write(const std::string& text) const {
    Require(CreateDirectories(folder_.File("cache/test"), 0700));
    Require(WriteFileAtomically(File(), text, 0600));
  }

  static std::string Record(const std::string& time, const std::string& data) {
    return R"({"group":"test","name":"counting","time":)" + time + R"(,"valid_s":3600,"data":)" + data + "}";
  }
  static std::string Now(int plus = 0) { return std::to_string(UnixNow() + plus); }

  static int Number(const Json::Value& value) { return json::Int(json::Member(value, "number")); }

  // The names in the cache's folder.
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder_.File("cache/test"))) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  TempDir folder_;
  RefreshCounters refreshes_;
};

mode_t ModeOf(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

TEST_F(Cache, BlockedRead_NothingCached_ComputesAndStores) {
  const CountingCache cache(refreshes_);
  const std::time_t before = UnixNow();
  EXPECT_EQ(Number(cache.BlockedRead()), 1);
  EXPECT_EQ(Number(cache.BlockedRead()), 1) << "it is current";
  EXPECT_EQ(Number(cache.NonBlockedRead()), 1);
  EXPECT_EQ(Number(cache.ReadCachedData()), 1);
  const Json::Value info = cache.GetInfo();
  EXPECT_EQ(json::MemberNames(info), (std::vector<std::string>{"group", "name", "time", "valid_s"}));
  EXPECT_EQ(json::String(info["group"]), "test");
  EXPECT_EQ(json::String(info["name"]), "counting");
  EXPECT_EQ(json::Int(info["valid_s"]), 3600);
  EXPECT_GE(json::Int64(info["time"]), before);
  EXPECT_LE(json::Int64(info["time"]), UnixNow());
  EXPECT_EQ(ModeOf(File()), 0600u);
  EXPECT_EQ(ModeOf(folder_.File("cache/test")), 0700u);
  EXPECT_EQ(ModeOf(folder_.File("cache")), 0700u);
  EXPECT_EQ(Files(), (std::vector<std::string>{"counting.json", "counting.lock"}));
}

TEST_F(Cache, NonBlockedRead_NothingCached_ReturnsDefault) {
  const CountingCache cache(refreshes_);
  EXPECT_EQ(Number(cache.NonBlockedRead()), 0);
  EXPECT_TRUE(cache.ReadCachedData().isNull());
  EXPECT_TRUE(cache.GetInfo().isNull());
  EXPECT_EQ(refreshes_.started, 0);
  EXPECT_FALSE(fs::exists(folder_.File("cache"))) << "a read stores nothing";
}

TEST_F(Cache, StoredFile_IsOneJsonObject) {
  EXPECT_EQ(Number(CountingCache(refreshes_).BlockedRead()), 1);
  const Json::Value record = Parsed(Require(ReadFile(File(), 1 << 20)));
  EXPECT_EQ(json::MemberNames(record), (std::vector<std::string>{"data", "group", "name", "time", "valid_s"}));
  EXPECT_EQ(Number(record["data"]), 1);
}

TEST_F(Cache, Read_ValueStoredByOtherObject_IsShared) {
  EXPECT_EQ(Number(CountingCache(refreshes_).BlockedRead()), 1);
  Install(folder_.File("cache"));  // forgets what is in memory, as another process does not know it
  EXPECT_EQ(Number(CountingCache(refreshes_).BlockedRead()), 1);
  EXPECT_EQ(Number(CountingCache(refreshes_, 3600, "test", "other").BlockedRead()), 2);
}

TEST_F(Cache, Read_OldValue_IsReturnedWithoutWaitingAndRefreshedByWaiters) {
  Write(Record(Now(-3602), R"({"number":50})"));
  const CountingCache cache(refreshes_);
  EXPECT_EQ(Number(cache.NonBlockedRead()), 50);
  EXPECT_EQ(Number(cache.ReadCachedData()), 50);
  EXPECT_TRUE(cache.IsDataTimeout(cache.GetInfo()));
  EXPECT_EQ(Number(cache.BlockedRead()), 1);
  EXPECT_EQ(Number(cache.NonBlockedRead()), 1);
}

TEST_F(Cache, Timeout_TimeInFuture_IsExpired) {
  Write(Record(Now(1000), R"({"number":50})"));
  const CountingCache cache(refreshes_);
  EXPECT_EQ(Number(cache.NonBlockedRead()), 50);
  EXPECT_TRUE(cache.IsDataTimeout(cache.GetInfo()));
  EXPECT_EQ(Number(cache.BlockedRead()), 1);
}

TEST_F(Cache, Timeout_ByTimeAndLifetime) {
  const auto info = [](Json::Value time) {
    Json::Value value;
    value["time"] = std::move(time);
    return value;
  };
  const Json::Int64 now = UnixNow();
  const CountingCache cache(refreshes_, 100);
  EXPECT_FALSE(cache.IsDataTimeout(info(now)));
  EXPECT_FALSE(cache.IsDataTimeout(info(now - 90)));
  EXPECT_TRUE(cache.IsDataTimeout(info(now - 102)));
  EXPECT_TRUE(cache.IsDataTimeout(info(now + 60)));
  EXPECT_TRUE(cache.IsDataTimeout(info(std::numeric_limits<Json::Int64>::min())));
  EXPECT_TRUE(cache.IsDataTimeout(info(std::numeric_limits<Json::Int64>::max())));
  for (const Json::Value& odd : {Json::Value(), Json::Value("x"), Json::Value(Json::arrayValue), Json::Value(1.5),
                                 Json::Value(std::numeric_limits<Json::UInt64>::max())}) {
    EXPECT_TRUE(cache.IsDataTimeout(info(odd))) << json::ToText(odd);
    EXPECT_TRUE(cache.IsDataTimeout(odd)) << json::ToText(odd);
  }
  for (const int never : {0, -1, std::numeric_limits<int>::min()}) {
    EXPECT_TRUE(CountingCache(refreshes_, never).IsDataTimeout(info(now))) << never;
  }
  EXPECT_FALSE(CountingCache(refreshes_, std::numeric_limits<int>::max()).IsDataTimeout(info(now)));
}

TEST_F(Cache, Timeout_LastSecondOfLifetime_IsCurrent) {
  const CountingCache cache(refreshes_, 100);
  Json::Value info;
  std::time_t before = 0;
  bool is_current = false;
  do {  // until the clock's second is the same throughout
    before = UnixNow();
    info["time"] = static_cast<Json::Int64>(before - 100);
    is_current = !cache.IsDataTimeout(info);
  } while (UnixNow() != before);
  EXPECT_TRUE(is_current);
}

TEST_F(Cache, Read_FileBecameEmpty_CountsAsMissing) {
  const CountingCache cache(refreshes_);
  EXPECT_EQ(Number(cache.BlockedRead()), 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // until its times alone show that it is the same
  EXPECT_EQ(Number(cache.ReadCachedData()), 1);
  fs::resize_file(File(), 0);
  EXPECT_TRUE(cache.ReadCachedData().isNull());
}

TEST_F(Cache, BackgroundRefresh_NotDue_IsNotMade) {
  const CountingCache cache(refreshes_);
  EXPECT_EQ(cache::RefreshCache(cache), cache::RefreshOutcome::kCurrent);
  EXPECT_EQ(cache::RefreshCache(cache), cache::RefreshOutcome::kCurrent);
  EXPECT_EQ(refreshes_.started, 1);
}

TEST_F(Cache, LockFile_IsSymbolicLink_IsNotFollowed) {
  Require(CreateDirectories(folder_.File("cache/test"), 0700));
  fs::create_symlink(folder_.File("elsewhere"), File("counting.lock"));
  EXPECT_EQ(Number(CountingCache(refreshes_).BlockedRead()), 1) << "for this call alone";
  EXPECT_FALSE(fs::exists(folder_.File("elsewhere")));
  EXPECT_FALSE(fs::exists(File()));
}

TEST_F(Cache, Cache_FilesWithoutRecord_CountAsMissing) {
  const std::string good = Record(Now(), R"({"number":50})");
  const std::vector<std::string> texts = {
      "",
      " ",
      "null",
      "[]",
      "7",
      "{}",
      good.substr(0, good.size() - 1),
      good.substr(0, good.size() / 2),
      good + "x",
      std::string(4096, '\0'),
      std::string(1 << 16, '['),
      Record(Now(), std::string(100, '[') + std::string(100, ']')),
      Record("\"1\"", R"({"number":50})"),
      Record("1e300", R"({"number":50})"),
      Record("null", R"({"number":50})"),
      Record(Now(), "\"\xff\""),
      R"({"group":"test","name":"other","time":1,"valid_s":5,"data":{"number":50}})",
      R"({"group":7,"name":"counting","time":1,"valid_s":5,"data":{"number":50}})",
      R"({"group":"test","name":"counting","time":1,"valid_s":"5","data":{"number":50}})",
      R"({"group":"test","name":"counting","time":1,"valid_s":5})",
  };
  const CountingCache cache(refreshes_);
  for (const std::string& text : texts) {
    Write(text);
    EXPECT_EQ(Number(cache.NonBlockedRead()), 0) << text.substr(0, 100);
    EXPECT_TRUE(cache.ReadCachedData().isNull()) << text.substr(0, 100);
    EXPECT_TRUE(cache.GetInfo().isNull()) << text.substr(0, 100);
    Write(good);
    EXPECT_EQ(Number(cache.NonBlockedRead()), 50) << text.substr(0, 100);
  }
  EXPECT_EQ(refreshes_.started, 0);
  Write("garbage");
  EXPECT_EQ(Number(cache.BlockedRead()), 1);
  EXPECT_EQ(Number(cache.NonBlockedRead()), 1);
}

TEST_F(Cache, Cache_InvalidValue_ReturnsDefault) {
  Write(Record(Now(), R"({"no number":1})"));
  const CountingCache cache(refreshes_);
  EXPECT_EQ(Number(cache.NonBlockedRead()), 0);
  EXPECT_TRUE(cache.ReadCachedData().isMember("no number")) << "what is stored, valid or not";
  EXPECT_EQ(Number(cache.BlockedRead()), 1);
}

TEST_F(Cache, Read_FileOfOtherUser_CountsAsMissing) {
  const CountingCache cache(refreshes_);
  Write(Record(Now(), R"({"number":50})"));
  for (const mode_t mode : {0644, 0660, 0606}) {
    ASSERT_EQ(::chmod(File().c_str(), mode), 0);
    EXPECT_EQ(Number(cache.NonBlockedRead()), 0) << mode;
  }
  ASSERT_EQ(::chmod(File().c_str(), 0600), 0);
  EXPECT_EQ(Number(cache.NonBlockedRead()), 50);
  fs::rename(File(), File("elsewhere"));
  fs::create_symlink("elsewhere", File());
  EXPECT_EQ(Number(cache.NonBlockedRead()), 0) << "a symbolic link";
  EXPECT_EQ(Number(cache.BlockedRead()), 1);
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(File()))) << "it is replaced";
  fs::remove(File());
  ASSERT_EQ(::mkfifo(File().c_str(), 0600), 0);
  EXPECT_EQ(Number(cache.NonBlockedRead()), 0) << "a pipe that nobody writes";
  fs::remove(File());
  fs::create_directory(File());
  EXPECT_EQ(Number(cache.NonBlockedRead()), 0) << "a folder";
}

TEST_F(Cache, Read_FileAboveLimit_CountsAsMissing) {
  Write(Record(Now(), R"({"number":50})"));
  const CountingCache cache(refreshes_);
  EXPECT_EQ(Number(cache.NonBlockedRead()), 50);
  fs::resize_file(File(), cache::kMaxCacheBytes + 1);  // sparse
  EXPECT_EQ(Number(cache.NonBlockedRead()), 0);
  EXPECT_EQ(Number(cache.BlockedRead()), 1);
}

TEST_F(Cache, Read_FileReplacedWithSameSize_SeesNewContent) {
  const CountingCache cache(refreshes_);
  for (int i = 100; i < 400; ++i) {
    // As a stranger may write it: in place, so that the inode stays, and the time's granularity is the kernel's.
    if (i == 100) Write(Record(Now(), R"({"number":100})"));
    std::ofstream(File(), std::ios::trunc) << Record("1000000000", R"({"number":)" + std::to_string(i) + "}");
    ASSERT_EQ(Number(cache.ReadCachedData()), i);
  }
}

TEST_F(Cache, Cache_InvalidNames_NeverBecomePaths) {
  const std::vector<std::string> names = {"",
                                          ".",
                                          "..",
                                          "../x",
                                          "a/b",
                                          "a.b",
                                          "a b",
                                          "a\nb",
                                          "a%b",
                                          "\xc3\xa4",
                                          "/",
                                          std::string("a\0b", 3),
                                          std::string(65, 'a')};
  for (const std::string& name : names) {
    for (const auto& [group, own] : {std::pair{std::string("test"), name}, std::pair{name, std::string("counting")}}) {
      const CountingCache cache(refreshes_, 3600, group, own);
      refreshes_.started = 0;
      EXPECT_EQ(Number(cache.NonBlockedRead()), 0);
      EXPECT_EQ(Number(cache.BlockedRead()), 1);
      EXPECT_EQ(Number(cache.BlockedRead()), 2) << "it was not stored";
      EXPECT_TRUE(cache.GetInfo().isNull());
    }
  }
  EXPECT_FALSE(fs::exists(folder_.File("cache")));
  const std::string longest(64, 'Z');
  EXPECT_EQ(Number(CountingCache(refreshes_, 5, "A-b_9", longest).BlockedRead()), 3);
  EXPECT_TRUE(fs::exists(folder_.File("cache/A-b_9/" + longest + ".json")));
}

TEST_F(Cache, Refresh_NoFolder_StoresNothing) {
  for (int round = 0; round < 2; ++round) {
    if (round == 0) {
      Install("");
    } else {
      records::RemoveEnvironment();
    }
    refreshes_.started = 0;
    const CountingCache cache(refreshes_);
    EXPECT_EQ(Number(cache.NonBlockedRead()), 0);
    EXPECT_EQ(Number(cache.BlockedRead()), 1);
    EXPECT_EQ(Number(cache.BlockedRead()), 2);
    EXPECT_TRUE(cache.ReadCachedData().isNull());
    refreshes_.during = [](int, Json::Value&) { return false; };
    EXPECT_EQ(Number(cache.BlockedRead()), 0) << "the refresh failed";
    refreshes_.during = nullptr;
  }
}

TEST_F(Cache, Cache_FolderUnusable_ComputesForCallAndLogsOnce) {
  std::ofstream(folder_.File("cache")) << "a file in its place";
  const CountingCache cache(refreshes_);
  EXPECT_EQ(Number(cache.BlockedRead()), 1);
  EXPECT_EQ(Number(cache.BlockedRead()), 2);
  EXPECT_EQ(Number(cache.NonBlockedRead()), 0);
  EXPECT_EQ(CapturedSyslog().size(), 1u);
  EXPECT_TRUE(SyslogContains("cannot be refreshed"));
  fs::remove(folder_.File("cache"));
  EXPECT_EQ(Number(cache.BlockedRead()), 3);
  EXPECT_EQ(Number(cache.BlockedRead()), 3);
  EXPECT_TRUE(SyslogContains("can be refreshed again"));
}

TEST_F(Cache, Refresh_Fails_KeepsValueAndIsLoggedOnce) {
  Write(Record("1000000000", R"({"number":50})"));
  const std::vector<std::function<bool(int, Json::Value&)>> failures = {
      [](int, Json::Value&) { return false; },
      [](int, Json::Value& data) {
        data = "no value";
        return true;
      },
      [](int, Json::Value&) -> bool { throw std::runtime_error("out of order"); },
  };
  const CountingCache cache(refreshes_);
  for (const auto& failure : failures) {
    refreshes_.during = failure;
    EXPECT_EQ(Number(cache.BlockedRead()), 50);
    EXPECT_EQ(Number(cache.ReadCachedData()), 50);
  }
  EXPECT_EQ(refreshes_.started, 3);
  EXPECT_EQ(CapturedSyslog().size(), 1u);
}

TEST_F(Cache, Refresh_ValueNotReadableBack_IsNotStored) {
  Write(Record("1000000000", R"({"number":50})"));
  const CountingCache cache(refreshes_);
  refreshes_.during = [](int, Json::Value& data) {
    data["text"] = "\xff";
    return true;
  };
  EXPECT_EQ(Number(cache.BlockedRead()), 1) << "the caller has it";
  EXPECT_EQ(Number(cache.ReadCachedData()), 50);
  refreshes_.during = [](int, Json::Value& data) {
    Json::Value* place = &data["deep"];
    for (int i = 0; i < 70; ++i) place = &(*place)["x"];
    return true;
  };
  EXPECT_EQ(Number(cache.BlockedRead()), 2);
  EXPECT_EQ(Number(cache.ReadCachedData()), 50);
}

TEST_F(Cache, Cache_AnyJson_IsReadBackUnchanged) {
  refreshes_.during = [](int, Json::Value& data) {
    data["odd"] = Parsed(R"(["\u0000\n\"\\ ä", -1, 18446744073709551615, 1.5, true, null, {}, [], {"": {"a/b": 1}}])");
    return true;
  };
  const CountingCache cache(refreshes_);
  const Json::Value found = cache.BlockedRead();
  EXPECT_EQ(cache.ReadCachedData(), found);
  Install(folder_.File("cache"));
  EXPECT_EQ(cache.ReadCachedData(), found);
}

TEST_F(Cache, Refresh_LeftoversOfKilledWriters_AreRemoved) {
  Write(Record("1000000000", R"({"number":50})"));
  for (const char* name : {"counting.json.AbCdEf", "counting.json.zzzzzz", "counting2.json.AbCdEf", "counting2.json"}) {
    std::ofstream(File(name)) << "half";
  }
  EXPECT_EQ(Number(CountingCache(refreshes_).BlockedRead()), 1);
  EXPECT_EQ(Files(),
            (std::vector<std::string>{"counting.json", "counting.lock", "counting2.json", "counting2.json.AbCdEf"}));
}

TEST_F(Cache, Cache_Waiters_UseOtherThreadsRefresh) {
  // Never current, so that only what was found while they waited will do.
  const CountingCache cache(refreshes_, 0);
  std::atomic<int> waiting = 0;
  refreshes_.during = [&](int, Json::Value&) {
    while (waiting < 8) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return true;
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      ++waiting;
      EXPECT_EQ(Number(cache.BlockedRead()), 1);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(refreshes_.started, 1);
}

TEST_F(Cache, Cache_NonBlockingReaders_AreNotBlockedByRefresh) {
  Write(Record("1000000000", R"({"number":50})"));
  std::atomic<bool> begun = false;
  std::atomic<bool> release = false;
  refreshes_.during = [&](int, Json::Value&) {
    begun = true;
    while (!release) std::this_thread::yield();
    return true;
  };
  const CountingCache cache(refreshes_);
  std::thread refresher([&] { EXPECT_EQ(Number(cache.BlockedRead()), 1); });
  while (!begun) std::this_thread::yield();
  for (int i = 0; i < 100; ++i) EXPECT_EQ(Number(cache.NonBlockedRead()), 50);
  release = true;
  refresher.join();
  EXPECT_EQ(Number(cache.NonBlockedRead()), 1);
}

TEST_F(Cache, Cache_LockNeverReleased_WaitTimesOut) {
  Install(folder_.File("cache"), std::chrono::milliseconds(100));
  Write(Record("1000000000", R"({"number":50})"));
  const int lock = ::open(File("counting.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(::flock(lock, LOCK_EX), 0);
  const CountingCache cache(refreshes_);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Number(cache.BlockedRead()), 50);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
  EXPECT_EQ(refreshes_.started, 0);
  fs::remove(File());
  EXPECT_EQ(Number(cache.BlockedRead()), 0) << "the default";
  ::close(lock);
  EXPECT_EQ(Number(cache.BlockedRead()), 1);
}

TEST_F(Cache, LockFile_Removed_IsCreatedAgain) {
  std::atomic<bool> release = false;
  std::atomic<bool> begun = false;
  const CountingCache cache(refreshes_);
  EXPECT_EQ(Number(CountingCache(refreshes_).BlockedRead()), 1);
  fs::remove(File("counting.lock"));
  fs::remove(File());
  refreshes_.during = [&](int, Json::Value&) {
    begun = true;
    while (!release) std::this_thread::yield();
    return true;
  };
  std::thread first([&] { EXPECT_EQ(Number(cache.BlockedRead()), 2); });
  while (!begun) std::this_thread::yield();
  std::thread second([&] { EXPECT_EQ(Number(cache.BlockedRead()), 2); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  release = true;
  first.join();
  second.join();
  EXPECT_EQ(refreshes_.max_concurrent, 1);
}

TEST_F(Cache, BaseClass_AllReads_AreNull) {
  const VexaDR::Cache::DRCache cache("test", "base", 5, 0);
  EXPECT_TRUE(cache.NonBlockedRead().isNull());
  EXPECT_TRUE(cache.BlockedRead().isNull());
  EXPECT_TRUE(cache.GetDefaultValue().isNull());
  Json::Value data;
  EXPECT_FALSE(cache.GetUpdatedData(data));
  EXPECT_FALSE(cache.IsValid(Json::Value()));
  EXPECT_TRUE(cache.IsValid(Json::Value(false)));
  EXPECT_EQ(cache.GetErr(), 0);
  EXPECT_EQ(cache.GetErrCodeStr(-5), "-5");
}

// Where a virtual operation stands in the table, by the pointer to it: one more than its place in bytes.
template <class Function>
std::size_t SlotOf(Function function) {
  std::ptrdiff_t words[2];
  static_assert(sizeof function == sizeof words, "the C++ ABI of the platform");
  std::memcpy(words, &function, sizeof words);
  return (static_cast<std::size_t>(words[0]) - 1) / sizeof(void*);
}

TEST(CacheTable, VirtualTable_HasDocumentedOrder) {
  using VexaDR::DRErrRecorder;
  using VexaDR::Cache::DRCache;
  const std::size_t slots[] = {SlotOf(&VexaDRCore::ErrRecorder::GetErr), SlotOf(&DRErrRecorder::GetErrCodeStr),
                               // The destructor takes two: one destroys, the other frees as well.
                               SlotOf(&DRCache::BlockedRead), SlotOf(&DRCache::NonBlockedRead),
                               SlotOf(&DRCache::ReadCachedData), SlotOf(&DRCache::GetInfo),
                               SlotOf(&DRCache::GetDefaultValue), SlotOf(&DRCache::GetUpdatedData),
                               SlotOf(&DRCache::IsValid), SlotOf(&DRCache::IsDataTimeout)};
  const std::size_t expected[] = {0, 1, 4, 5, 6, 7, 8, 9, 10, 11};
  for (std::size_t i = 0; i < std::size(expected); ++i) EXPECT_EQ(slots[i], expected[i]) << i;
}

TEST_F(Cache, VirtualTable_DerivedClass_ContainsItsOperations) {
  // As a caller that was built elsewhere calls it: by place, with nothing but the object.
  const CountingCache cache(refreshes_);
  void* const* table = nullptr;
  std::memcpy(&table, static_cast<const void*>(&cache), sizeof table);
  const auto at = [&](std::size_t slot) { return table[slot]; };
  bool (*is_valid)(const void*, const Json::Value&) = nullptr;
  void* place = at(10);
  std::memcpy(&is_valid, &place, sizeof place);
  EXPECT_FALSE(is_valid(&cache, Json::Value("text")));
  EXPECT_TRUE(is_valid(&cache, cache.GetDefaultValue()));
  bool (*get_updated)(const void*, Json::Value&) = nullptr;
  place = at(9);
  std::memcpy(&get_updated, &place, sizeof place);
  Json::Value data;
  EXPECT_TRUE(get_updated(&cache, data));
  EXPECT_EQ(Number(data), 1);
  int (*get_err)(const void*) = nullptr;
  place = at(0);
  std::memcpy(&get_err, &place, sizeof place);
  EXPECT_EQ(get_err(&cache), 0);
}

TEST(CacheUtils, StringFields_OtherTypes_LeaveOutputUnchanged) {
  const Json::Value object = Parsed(R"({"text": "a", "empty": "", "number": 7, "null": null, "list": ["a"]})");
  std::string out = "before";
  for (const char* field : {"number", "null", "list", "missing", ""}) {
    EXPECT_FALSE(VexaDR::Utils::ParseJsonValueFromField(object, field, out)) << field;
  }
  for (const char* text : {"null", "[]", "7", "\"text\"", "[\"text\"]"}) {
    EXPECT_FALSE(VexaDR::Utils::ParseJsonValueFromField(Parsed(text), "text", out)) << text;
    EXPECT_FALSE(VexaDR::Utils::JsonFieldIsArray(Parsed(text), "text")) << text;
  }
  EXPECT_EQ(out, "before");
  EXPECT_TRUE(VexaDR::Utils::ParseJsonValueFromField(object, "text", out));
  EXPECT_EQ(out, "a");
  EXPECT_TRUE(VexaDR::Utils::ParseJsonValueFromField(object, "empty", out));
  EXPECT_EQ(out, "");
}

TEST(CacheUtils, JsonFieldIsArray_OtherTypes_AreFalse) {
  const Json::Value object = Parsed(R"({"list": [], "object": {}, "text": "[]", "null": null})");
  EXPECT_TRUE(VexaDR::Utils::JsonFieldIsArray(object, "list"));
  for (const char* field : {"object", "text", "null", "missing"}) {
    EXPECT_FALSE(VexaDR::Utils::JsonFieldIsArray(object, field)) << field;
  }
}

}  // namespace
}  // namespace vexa::test
