#include "host/storage/storage_watch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <optional>
#include <thread>

#include "host/base/json_parse.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/matchers.h"
#include "tests/support/require.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"
#include "tests/unit/storage/mount_point.h"
#include "tests/unit/storage/storage_watch_fixture.h"
#include "webapi/platform/ccc.h"

namespace vexa::storage {
namespace {

using ::testing::Key;

namespace fs = std::filesystem;

constexpr char kOther[] = "aaaaaaaa-0000-4000-8000-000000000002";

class StorageWatchTest : public WatchedStorage {
 protected:
  StorageWatchTest() { test::ClearCapturedSyslog(); }

  void PutDisk(const std::string& id, const std::string& path, const std::string& repository_id = kPool) {
    Json::Value record(Json::objectValue);
    record["path"] = path;
    record["repository_id"] = repository_id;
    host_.Put("vdisk", id, record);
  }
  // Makes the file, below the root, of a disk as well.
  void MakeDisk(const std::string& id, const std::string& file, const std::string& repository_id = kPool) {
    test::WriteImage(mount_.File(file));
    PutDisk(id, mount_.File(file), repository_id);
  }
  void Write(const std::string& key, const std::optional<std::string>& text) {
    (void)test::Require(host_.store().Commit({{}, {{key, text}}}));
  }
  std::optional<std::string> TextOf(const std::string& key) {
    const auto snapshot = test::Require(host_.store().Read());
    const auto value = test::Require(snapshot->Get(key));
    return value ? std::optional(std::string(value->text)) : std::nullopt;
  }
  Storage StorageOf(const std::string& id = kPool) {
    return test::Require(ReadStorage(*test::Require(host_.store().Read()), id));
  }
  // As callers that ask for the repository see it.
  static std::string StateOf(const std::string& id = kPool) {
    std::string state;
    VexaCCC::DB::Dashboard(VexaCCC::DB::DashCate::Repository, id).Get(state, VexaCCC::DB::_k::state);
    return state;
  }
  std::string Root() const { return mount_.path() + "/"; }
  static std::vector<std::string> Logged() {
    std::vector<std::string> lines;
    for (const test::SyslogLine& line : test::CapturedSyslog()) lines.push_back(line.text);
    return lines;
  }

  // Simulates another file system mounted at the root.
  void Replace() {
    fs::rename(mount_.path(), mount_.folder().File("away"));
    fs::create_directory(mount_.path());
  }
  void PutBack() {
    fs::remove_all(mount_.path());
    fs::rename(mount_.folder().File("away"), mount_.path());
  }
  std::string NotMounted() const {
    return "The storage of the repository 'pool' is not mounted: the folder '" + Root() +
           "' is not the folder that holds its disks.";
  }
};

TEST_F(StorageWatchTest, Refresh_FilesExist_LearnsTheirFolders) {
  MakeDisk("d1", "a/disk");
  fs::create_directory(mount_.File("b"));
  PutDisk("d2", mount_.File("b/missing"));
  PutDisk("d3", "/elsewhere/disk");
  PutDisk("d4", mount_.File("c/disk"), kOther);
  test::WriteImage(mount_.File("n/vars"));
  host_.PutText("guest", "g",
                R"({"repository_id":")" + std::string(kPool) + R"(","nvram":")" + mount_.File("n/vars") + R"("})");
  StorageWatch watch(Options());
  watch.Refresh();
  EXPECT_THAT(StorageOf().folders, UnorderedElementsAre(Key(Root()), Key(mount_.File("a")), Key(mount_.File("n"))));
  EXPECT_EQ(StorageOf().host_id, kHost);
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  EXPECT_THAT(Logged(), IsEmpty());
  test::WriteImage(mount_.File("b/missing"));
  watch.Refresh();
  EXPECT_TRUE(StorageOf().folders.contains(mount_.File("b")));
}

TEST_F(StorageWatchTest, Refresh_NothingChanged_WritesNothing) {
  MakeDisk("d1", "a/disk");
  StorageWatch watch(Options());
  watch.Refresh();
  const store::Revision learned = Revision();
  watch.Refresh();
  EXPECT_EQ(Revision(), learned);
  Replace();
  watch.Refresh();
  const store::Revision unavailable = Revision();
  EXPECT_GT(unavailable, learned);
  watch.Refresh();
  EXPECT_EQ(Revision(), unavailable);
  StorageWatch(Options()).Refresh();
  EXPECT_EQ(Revision(), unavailable) << "of a watch that has seen nothing yet";
  EXPECT_THAT(Logged(), ElementsAre(NotMounted()));
}

TEST_F(StorageWatchTest, Refresh_EmptyRepository_WritesItsSpaceOnce) {
  StorageWatch watch(Options());
  watch.Refresh();
  const store::Revision written = Revision();
  watch.Refresh();
  EXPECT_EQ(Revision(), written);
  EXPECT_FALSE(TextOf(RepositoryStateKey(kPool)));
}

TEST_F(StorageWatchTest, Refresh_OtherFolder_IsUnavailableUntilRestored) {
  MakeDisk("d1", "a/disk");
  StorageWatch watch(Options());
  watch.Refresh();
  const FolderChain known = StorageOf().folders;
  Replace();
  MakeDisk("d2", "new/disk");
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::unavailable);
  EXPECT_EQ(StorageOf().folders, known) << "nothing is learned meanwhile";
  ASSERT_TRUE(StorageOf().problem);
  EXPECT_THAT(StorageOf().problem->folders, ElementsAre(Root()));
  PutBack();
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  EXPECT_EQ(TextOf(RepositoryStateKey(kPool)), std::nullopt);
  EXPECT_FALSE(StorageOf().problem);
  EXPECT_THAT(Logged(), ElementsAre(NotMounted(), "The storage of the repository 'pool' can be used again."));
}

TEST_F(StorageWatchTest, Refresh_Unmounted_IsUnavailableUntilMounted) {
  if (!test::CanMount()) GTEST_SKIP() << test::kCannotMount;
  const test::MountPoint kept("kept");
  ASSERT_TRUE(kept.MountTmpfs() && mount_.Bind(kept.path()));
  MakeDisk("d1", "a/disk");
  StorageWatch watch(Options());
  watch.Refresh();
  ASSERT_TRUE(mount_.Unmount());
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::unavailable);
  ASSERT_TRUE(mount_.Bind(kept.path()));
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
}

TEST_F(StorageWatchTest, Refresh_AdministratorsState_IsKept) {
  MakeDisk("d1", "disk");
  const std::string degraded = "\"" + std::string(VexaCCC::State::Repo::degraded) + "\"";
  Write(RepositoryStateKey(kPool), degraded);
  const auto record = TextOf(test::TestHost::ObjectKey("repository", kPool));
  StorageWatch watch(Options());
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::degraded);
  Replace();
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::unavailable);
  PutBack();
  watch.Refresh();
  EXPECT_EQ(TextOf(RepositoryStateKey(kPool)), degraded);
  EXPECT_EQ(TextOf(test::TestHost::ObjectKey("repository", kPool)), record);
}

TEST_F(StorageWatchTest, Refresh_StateChangedElsewhereDuringProblem_IsRestored) {
  MakeDisk("d1", "disk");
  StorageWatch watch(Options());
  watch.Refresh();
  Replace();
  watch.Refresh();
  const std::string crashed = "\"" + std::string(VexaCCC::State::Repo::crashed) + "\"";
  Write(RepositoryStateKey(kPool), crashed);
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::unavailable);
  PutBack();
  watch.Refresh();
  EXPECT_EQ(TextOf(RepositoryStateKey(kPool)), crashed);
}

TEST_F(StorageWatchTest, Refresh_FolderMissingButParentSame_IsAvailable) {
  MakeDisk("d1", "a/disk");
  StorageWatch watch(Options());
  watch.Refresh();
  fs::rename(mount_.File("a"), mount_.folder().File("a"));
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  EXPECT_TRUE(StorageOf().folders.contains(mount_.File("a"))) << "a disk still names a file in it";
  test::WriteImage(mount_.File("a/disk"));
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::unavailable) << "made again";
}

TEST_F(StorageWatchTest, Refresh_FolderNoLongerUsed_IsForgotten) {
  test::WriteImage(mount_.File("a/disk"));
  test::WriteImage(mount_.File("b/disk"));
  PutDisk("d1", mount_.File("a/disk"));
  PutDisk("d2", mount_.File("b/disk"));
  StorageWatch watch(Options());
  watch.Refresh();
  host_.Remove("vdisk", "d1");
  watch.Refresh();
  EXPECT_THAT(StorageOf().folders, UnorderedElementsAre(Key(Root()), Key(mount_.File("b"))));
  host_.Remove("vdisk", "d2");
  watch.Refresh();
  EXPECT_THAT(StorageOf().folders, IsEmpty());
}

TEST_F(StorageWatchTest, Refresh_RepositoryFolder_IsLearnedUnlessRecordedFilesAreMissing) {
  const std::string own = mount_.File(kPool);
  fs::create_directory(own);
  PutDisk("d1", own + "/missing");
  StorageWatch watch(Options());
  watch.Refresh();
  EXPECT_THAT(StorageOf().folders, IsEmpty());
  host_.Remove("vdisk", "d1");
  watch.Refresh();
  EXPECT_THAT(StorageOf().folders, UnorderedElementsAre(Key(Root()), Key(own)));
  Replace();
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::unavailable);
  PutBack();
  fs::remove(own);
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  EXPECT_THAT(StorageOf().folders, IsEmpty());
}

TEST_F(StorageWatchTest, Refresh_RepositoryOfOtherHost_IsUnchanged) {
  PutRepository(kOther, "other", "99999999-2222-4333-8444-555555555555");
  MakeDisk("d1", "a/disk", kOther);
  StorageWatch watch(Options());
  watch.Refresh();
  EXPECT_EQ(TextOf(StorageKey(kOther)), std::nullopt);
}

TEST_F(StorageWatchTest, Refresh_RepositoryTakenOver_IsLearnedFromScratch) {
  MakeDisk("d1", "a/disk");
  Write(StorageKey(kPool),
        R"({"host_id":"h","folders":{"/srv/":"ino=1 fsid=1"},"not_mounted":["/srv/"],"reason":"why","since":1})");
  Write(RepositoryStateKey(kPool), "\"" + std::string(VexaCCC::State::Repo::unavailable) + "\"");
  StorageWatch watch(Options());
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  EXPECT_THAT(StorageOf().folders, UnorderedElementsAre(Key(Root()), Key(mount_.File("a"))));
}

TEST_F(StorageWatchTest, Refresh_AfterAccept_LearnsCurrentFolders) {
  MakeDisk("d1", "a/disk");
  StorageWatch watch(Options());
  watch.Refresh();
  const FolderChain before = StorageOf().folders;
  Replace();
  test::WriteImage(mount_.File("a/disk"));
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::unavailable);
  test::Require(ForgetStorage(host_.store(), kPool));
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  EXPECT_EQ(StorageOf().folders.size(), 2u);
  EXPECT_NE(StorageOf().folders, before);
}

TEST_F(StorageWatchTest, Refresh_DamagedRecord_IsKeptAndLoggedOnce) {
  MakeDisk("d1", "a/disk");
  Write(StorageKey(kPool), "[]");
  StorageWatch watch(Options());
  watch.Refresh();
  watch.Refresh();
  EXPECT_EQ(TextOf(StorageKey(kPool)), "[]");
  ASSERT_EQ(Logged().size(), 1u);
  EXPECT_THAT(Logged()[0], HasSubstr("cannot be checked"));
  const auto refused = watch.CheckFolders(kPool, {mount_.File("a/disk")}, StorageUse::kExisting);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, host_error::kUnavailable);
}

TEST_F(StorageWatchTest, Refresh_StoreFails_IsLoggedOnceAndRetried) {
  MakeDisk("d1", "a/disk");
  StorageWatch watch(Options());
  host_.store().FailSnapshots();
  watch.Refresh();
  watch.Refresh();
  EXPECT_EQ(Logged().size(), 1u);
  host_.store().Heal();
  host_.store().FailCommits();
  watch.Refresh();
  host_.store().Heal();
  watch.Refresh();
  EXPECT_EQ(StorageOf().folders.size(), 2u);
}

TEST_F(StorageWatchTest, Refresh_AcceptedDuringCheck_IsNotOverwritten) {
  MakeDisk("d1", "a/disk");
  StorageWatch(Options()).Refresh();
  Replace();
  StorageOptions options = Options();
  options.probe = [&](const ProbeRequest& request) {
    ProbeResult result = ProbeStorage(request);
    test::Require(ForgetStorage(host_.store(), kPool));
    return result;
  };
  StorageWatch watch(options);
  watch.Refresh();
  EXPECT_EQ(TextOf(StorageKey(kPool)), std::nullopt);
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  EXPECT_THAT(Logged(), IsEmpty());
}

// A file system that does not answer: each check opens a FIFO that nobody writes to.
class HangingStorageTest : public StorageWatchTest {
 protected:
  HangingStorageTest() : fifo_(mount_.folder().File("fifo")) {
    EXPECT_EQ(::mkfifo(fifo_.c_str(), 0600), 0);
    PutRepository(kOther, "other", kHost);
    MakeDisk("d1", "a/disk");
    MakeDisk("d2", "b/disk", kOther);
  }
  ~HangingStorageTest() override { Answer(); }

  StorageOptions HangingOptions() {
    StorageOptions options = Options();
    options.timeout = std::chrono::seconds(1);
    options.probe = [fifo = fifo_, hanging = hanging_](const ProbeRequest& request) {
      if (request.repository_id == kPool && *hanging) Hang(fifo, *hanging);
      return ProbeStorage(request);
    };
    options.check_chain = [fifo = fifo_, hanging = hanging_](const FolderChain& trail) {
      if (*hanging) Hang(fifo, *hanging);
      return CheckFolderChain(trail);
    };
    return options;
  }
  static void Hang(const std::string& fifo, std::atomic<int>& hanging) {
    ++hanging;
    ::close(::open(fifo.c_str(), O_RDONLY | O_CLOEXEC));
    --hanging;
  }
  // Lets the calls that hang continue; returns once they have.
  void Answer() {
    while (*hanging_ > 1) {
      const int writer = ::open(fifo_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      if (writer >= 0) ::close(writer);
    }
    *hanging_ = 0;
  }

  std::string fifo_;
  // 0: everything answers; else 1 and how many hang.
  std::shared_ptr<std::atomic<int>> hanging_ = std::make_shared<std::atomic<int>>(1);
};

TEST_F(HangingStorageTest, Refresh_DeadlinePasses_IsUnavailableAndOthersAreChecked) {
  StorageWatch watch(HangingOptions());
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::unavailable);
  EXPECT_EQ(StorageOf(kOther).folders.size(), 2u);
  EXPECT_EQ(StateOf(kOther), VexaCCC::State::Repo::online);
  watch.Refresh();
  EXPECT_EQ(*hanging_, 2) << "a second thread was left behind";
  EXPECT_THAT(Logged(), ElementsAre("The storage of the repository 'pool' does not answer."));
  Answer();
  for (int i = 0; i < 1000 && StateOf() != VexaCCC::State::Repo::online; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    watch.Refresh();
  }
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  EXPECT_EQ(StorageOf().folders.size(), 2u);
}

TEST_F(HangingStorageTest, Check_DeadlinePasses_IsRefused) {
  *hanging_ = 0;
  StorageWatch watch(HangingOptions());
  watch.Refresh();
  *hanging_ = 1;
  const auto refused = watch.CheckFolders(kPool, {mount_.File("a/disk")}, StorageUse::kExisting);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, host_error::kUnavailable);
  EXPECT_THAT(refused.error().reason, HasSubstr("does not answer"));
  const FolderChain remembered = StorageOf().folders;
  EXPECT_FALSE(watch.CheckStoredFolders(kPool, remembered, StorageUse::kExisting).ok());
  EXPECT_EQ(*hanging_, 2);
}

TEST_F(HangingStorageTest, Stop_RefreshWaiting_EndsIt) {
  StorageOptions options = HangingOptions();
  options.timeout = std::chrono::seconds(600);
  std::optional<StorageWatch> watch(std::in_place, options);
  std::thread refresher([&] { watch->Refresh(); });
  while (*hanging_ < 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  watch->Stop();
  refresher.join();
  watch.reset();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online) << "a stop says nothing about the storage";
  EXPECT_EQ(*hanging_, 2) << "the thread is left behind";
}

TEST_F(StorageWatchTest, Check_ChangedFolders_AreRefused) {
  test::WriteImage(mount_.File("a/disk"));
  test::WriteImage(mount_.File("b/disk"));
  PutDisk("d1", mount_.File("a/disk"));
  PutDisk("d2", mount_.File("b/disk"));
  StorageWatch watch(Options());
  const std::vector<std::string> both{mount_.File("a/disk"), mount_.File("b/disk")};
  EXPECT_TRUE(watch.CheckFolders(kPool, both, StorageUse::kNew).ok()) << "nothing is known yet";
  watch.Refresh();
  const FolderChain remembered = test::Require(ReadFolderChain({mount_.path()}, both[0]));
  EXPECT_TRUE(watch.CheckFolders(kPool, both, StorageUse::kNew).ok());
  EXPECT_TRUE(watch.CheckFolders("", both, StorageUse::kNew).ok());
  EXPECT_TRUE(watch.CheckStoredFolders(kPool, remembered, StorageUse::kNew).ok());
  fs::rename(mount_.File("a"), mount_.folder().File("a"));
  EXPECT_TRUE(watch.CheckFolders(kPool, both, StorageUse::kExisting).ok()) << "the files are gone with their folder";
  EXPECT_FALSE(watch.CheckFolders(kPool, both, StorageUse::kNew).ok());
  EXPECT_TRUE(watch.CheckFolders(kPool, {both[1]}, StorageUse::kNew).ok());
  test::WriteImage(mount_.File("a/disk"));
  const auto refused = watch.CheckFolders(kPool, both, StorageUse::kExisting);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, host_error::kUnavailable);
  EXPECT_EQ(refused.error().reason,
            "The storage of the repository '" + std::string(kPool) + "' is not mounted: the folder '" +
                mount_.File("a") +
                "' is not the folder that holds its disks. Mount it or, when it was replaced for good, "
                "run 'vexa repository accept " +
                kPool + "'");
  EXPECT_FALSE(watch.CheckStoredFolders(kPool, remembered, StorageUse::kExisting).ok());
  EXPECT_TRUE(watch.CheckFolders(kPool, {both[1]}, StorageUse::kExisting).ok());
  EXPECT_TRUE(watch.CheckFolders(kOther, both, StorageUse::kExisting).ok());
}

// What the file systems say, in the place of the machine's own.
class StorageStateTest : public StorageWatchTest {
 protected:
  StorageStateTest() { MakeDisk("d1", "disk"); }
  StorageOptions ScriptedOptions() {
    StorageOptions options = Options();
    options.limits = {85, 95, 0};
    options.now = [this] { return std::chrono::system_clock::time_point(std::chrono::seconds(now_)); };
    options.probe = [this](const ProbeRequest& request) {
      ProbeResult result = ProbeStorage(request);
      result.conditions = {condition_};
      return result;
    };
    return options;
  }
  void Use(std::uint64_t percent) { condition_ = {Root(), 0, false, percent, 100 - percent}; }

  FolderCondition condition_{"", 0, false, 0, 100};
  int now_ = 1000;
};

TEST_F(StorageStateTest, EachTrouble_HasItsStateReasonTimeAndLine) {
  namespace repository = VexaCCC::State::Repo;
  StorageWatch watch(ScriptedOptions());
  const auto expect = [&](const char* state, const std::string& reason, int since) {
    watch.Refresh();
    EXPECT_EQ(StateOf(), state);
    ASSERT_TRUE(StorageOf().problem) << state;
    EXPECT_EQ(StorageOf().problem->state, state);
    EXPECT_EQ(StorageOf().problem->reason, reason);
    EXPECT_EQ(StorageOf().problem->since.time_since_epoch(), std::chrono::seconds(since));
    now_ += 10;
  };
  const std::string system = "the file system of the folder '" + Root() + "' is ";
  Use(90);
  expect(repository::provision_warning, system + "at least 85 % full", 1000);
  expect(repository::provision_warning, system + "at least 85 % full", 1000);
  Use(96);
  expect(repository::full, system + "at least 95 % full", 1020);
  condition_.is_read_only = true;
  expect(repository::full, system + "at least 95 % full", 1020);
  Use(50);
  condition_.is_read_only = true;
  expect(repository::degraded, system + "mounted read-only", 1040);
  condition_.error_number = EIO;
  expect(repository::crashed, "the folder '" + Root() + "' cannot be used: Input/output error", 1050);
  Use(50);
  watch.Refresh();
  EXPECT_EQ(StateOf(), repository::online);
  EXPECT_EQ(TextOf(RepositoryStateKey(kPool)), std::nullopt);
  EXPECT_FALSE(StorageOf().problem);
  const std::string storage = "The storage of the repository 'pool' ";
  EXPECT_THAT(Logged(), ElementsAre(storage + "runs out of space: " + system + "at least 85 % full.",
                                    storage + "is full: " + system + "at least 95 % full.",
                                    storage + "cannot be written: " + system + "mounted read-only.",
                                    storage + "fails: the folder '" + Root() + "' cannot be used: Input/output error.",
                                    storage + "can be used again."));
}

TEST_F(StorageStateTest, Warning_WorseStateOfAdministrator_IsKept) {
  namespace repository = VexaCCC::State::Repo;
  const auto text = [](const char* state) { return '"' + std::string(state) + '"'; };
  Write(RepositoryStateKey(kPool), text(repository::degraded));
  StorageWatch watch(ScriptedOptions());
  Use(90);
  watch.Refresh();
  EXPECT_EQ(StateOf(), repository::degraded);
  EXPECT_EQ(StorageOf().problem->state, repository::provision_warning) << "it is known all the same";
  Use(96);
  watch.Refresh();
  EXPECT_EQ(StateOf(), repository::full);
  Use(90);
  watch.Refresh();
  EXPECT_EQ(StateOf(), repository::degraded);
  Use(10);
  watch.Refresh();
  EXPECT_EQ(TextOf(RepositoryStateKey(kPool)), text(repository::degraded));
}

TEST_F(StorageStateTest, PowerOn_RepositoryFull_IsRefusedButReadOnlyIsNot) {
  StorageWatch watch(ScriptedOptions());
  watch.Refresh();
  EXPECT_TRUE(watch.CheckStorageForStart(kPool).ok());
  Use(90);
  watch.Refresh();
  EXPECT_TRUE(watch.CheckStorageForStart(kPool).ok());
  Use(96);
  watch.Refresh();
  Result<void, Refusal> refused = watch.CheckStorageForStart(kPool);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, host_error::kUnavailable);
  EXPECT_EQ(refused.error().reason,
            "The storage of the repository '" + std::string(kPool) + "' is full: the file system of the folder '" +
                Root() +
                "' is at least 95 % full. Remove files or disks that are no longer needed, or make its file system "
                "larger, and try again");
  Use(50);
  condition_.is_read_only = true;
  watch.Refresh();
  EXPECT_TRUE(watch.CheckStorageForStart(kPool).ok()) << "a libvirt elsewhere may see a mount that can be written";
  EXPECT_TRUE(watch.CheckStorageForStart("").ok());
  EXPECT_TRUE(watch.CheckStorageForStart(kOther).ok());
}

TEST_F(StorageStateTest, ReadOnlyFileSystem_IsDegradedUntilItCanBeWritten) {
  if (!test::CanMount()) GTEST_SKIP() << test::kCannotMount;
  const test::MountPoint kept("kept");
  ASSERT_TRUE(kept.MountTmpfs() && mount_.Bind(kept.path()));
  MakeDisk("d1", "a/disk");
  StorageWatch watch(Options());
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  const auto remount = [&](unsigned long flags) {
    return ::mount("none", mount_.path().c_str(), nullptr, MS_REMOUNT | MS_BIND | flags, nullptr);
  };
  ASSERT_EQ(remount(MS_RDONLY), 0);
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::degraded);
  ASSERT_EQ(remount(0), 0);
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
}

TEST_F(StorageWatchTest, Refresh_RootNeverSeenButDisksRecorded_IsUnavailable) {
  StorageOptions options = Options();
  options.roots = {mount_.File("away")};
  StorageWatch watch(options);
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online) << "an empty repository makes its folder with its first disk";
  PutDisk("d1", mount_.File("away/p/disk"));
  options.files = StorageOptions::Files::kNotNeeded;
  StorageWatch(options).Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online) << "without files";
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::unavailable);
  EXPECT_THAT(Logged(), ElementsAre("The storage of the repository 'pool' is not mounted: there is no folder '" +
                                    mount_.File("away") + "/'."));
  fs::create_directories(mount_.File("away"));
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
}

}  // namespace
}  // namespace vexa::storage
