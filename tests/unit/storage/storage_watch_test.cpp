#include "host/storage/storage_watch.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <optional>
#include <thread>

#include "host/base/json_parse.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"
#include "tests/unit/storage/storage_ground.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::UnorderedElementsAre;

namespace fs = std::filesystem;

constexpr char kHost[] = "11111111-2222-4333-8444-555555555555";
constexpr char kPool[] = "aaaaaaaa-0000-4000-8000-000000000001";
constexpr char kOther[] = "aaaaaaaa-0000-4000-8000-000000000002";

class StorageWatchTest : public ::testing::Test {
 protected:
  StorageWatchTest() {
    PutRepository(kPool, "pool", kHost);
    test::ClearCapturedSyslog();
  }

  StorageOptions Options() {
    StorageOptions options;
    options.store = std::shared_ptr<store::Store>(&host_.store(), [](store::Store*) {});
    options.host_id = kHost;
    options.roots = {ground_.path()};
    options.deadline = std::chrono::seconds(60);
    return options;
  }
  void PutRepository(const std::string& id, const std::string& name, const std::string& host_id) {
    Json::Value record(Json::objectValue);
    record["name"] = name;
    record["host_id"] = host_id;
    record["state"] = VexaCCC::State::Repo::online;
    host_.Put("repository", id, record);
  }
  void PutDisk(const std::string& id, const std::string& path, const std::string& repository_id = kPool) {
    Json::Value record(Json::objectValue);
    record["path"] = path;
    record["repository_id"] = repository_id;
    host_.Put("vdisk", id, record);
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
  store::Revision Revision() { return test::Require(host_.store().Read())->revision(); }
  std::string Root() const { return ground_.path() + "/"; }
  static std::vector<std::string> Logged() {
    std::vector<std::string> lines;
    for (const test::SyslogLine& line : test::CapturedSyslog()) lines.push_back(line.text);
    return lines;
  }

  // What stands for another file system in the place of the root.
  void Replace() {
    fs::rename(ground_.path(), ground_.folder().File("away"));
    fs::create_directory(ground_.path());
  }
  void PutBack() {
    fs::remove_all(ground_.path());
    fs::rename(ground_.folder().File("away"), ground_.path());
  }
  std::string NotMounted() const {
    return "The storage of the repository 'pool' is not mounted: the folder '" + Root() +
           "' is not the folder that holds its disks.";
  }

  test::MountGround ground_{"images"};
  test::TestHost host_;
};

TEST_F(StorageWatchTest, Refresh_LearnsFoldersOfFilesThatAreThere) {
  test::WriteImage(ground_.File("a/disk"));
  PutDisk("d1", ground_.File("a/disk"));
  fs::create_directory(ground_.File("b"));
  PutDisk("d2", ground_.File("b/missing"));
  PutDisk("d3", "/elsewhere/disk");
  PutDisk("d4", ground_.File("c/disk"), kOther);
  test::WriteImage(ground_.File("n/vars"));
  host_.PutText("guest", "g",
                R"({"repository_id":")" + std::string(kPool) + R"(","nvram":")" + ground_.File("n/vars") + R"("})");
  StorageWatch watch(Options());
  watch.Refresh();
  EXPECT_THAT(StorageOf().folders, UnorderedElementsAre(Key(Root()), Key(ground_.File("a")), Key(ground_.File("n"))));
  EXPECT_EQ(StorageOf().host_id, kHost);
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  EXPECT_THAT(Logged(), IsEmpty());
  test::WriteImage(ground_.File("b/missing"));
  watch.Refresh();
  EXPECT_TRUE(StorageOf().folders.contains(ground_.File("b")));
}

TEST_F(StorageWatchTest, Refresh_WritesOnlyWhatHasChanged) {
  test::WriteImage(ground_.File("a/disk"));
  PutDisk("d1", ground_.File("a/disk"));
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

TEST_F(StorageWatchTest, Refresh_EmptyRepository_WritesNothing) {
  const store::Revision before = Revision();
  StorageWatch watch(Options());
  watch.Refresh();
  EXPECT_EQ(Revision(), before);
}

TEST_F(StorageWatchTest, Refresh_OtherFolder_IsUnavailableUntilItIsTheSameAgain) {
  test::WriteImage(ground_.File("a/disk"));
  PutDisk("d1", ground_.File("a/disk"));
  StorageWatch watch(Options());
  watch.Refresh();
  const Trail known = StorageOf().folders;
  Replace();
  test::WriteImage(ground_.File("new/disk"));
  PutDisk("d2", ground_.File("new/disk"));
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::unavailable);
  EXPECT_EQ(StorageOf().folders, known) << "nothing is learned meanwhile";
  ASSERT_TRUE(StorageOf().trouble);
  EXPECT_THAT(StorageOf().trouble->folders, ElementsAre(Root()));
  PutBack();
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  EXPECT_EQ(TextOf(RepositoryStateKey(kPool)), std::nullopt);
  EXPECT_FALSE(StorageOf().trouble);
  EXPECT_THAT(Logged(), ElementsAre(NotMounted(), "The storage of the repository 'pool' can be used again."));
}

TEST_F(StorageWatchTest, Refresh_Unmounted_IsUnavailableUntilItIsMounted) {
  if (!test::CanMount()) GTEST_SKIP() << test::kCannotMount;
  const test::MountGround kept("kept");
  ASSERT_TRUE(kept.MountTmpfs() && ground_.Bind(kept.path()));
  test::WriteImage(ground_.File("a/disk"));
  PutDisk("d1", ground_.File("a/disk"));
  StorageWatch watch(Options());
  watch.Refresh();
  ASSERT_TRUE(ground_.Unmount());
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::unavailable);
  ASSERT_TRUE(ground_.Bind(kept.path()));
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
}

TEST_F(StorageWatchTest, Refresh_AdministratorsState_IsKept) {
  test::WriteImage(ground_.File("disk"));
  PutDisk("d1", ground_.File("disk"));
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

TEST_F(StorageWatchTest, Refresh_StateWrittenByOthersMeanwhile_IsTheOneThatComesBack) {
  test::WriteImage(ground_.File("disk"));
  PutDisk("d1", ground_.File("disk"));
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

TEST_F(StorageWatchTest, Refresh_FolderGoneWithItsParentThere_IsNotUnavailable) {
  test::WriteImage(ground_.File("a/disk"));
  PutDisk("d1", ground_.File("a/disk"));
  StorageWatch watch(Options());
  watch.Refresh();
  fs::rename(ground_.File("a"), ground_.folder().File("a"));
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  EXPECT_TRUE(StorageOf().folders.contains(ground_.File("a"))) << "a disk still names a file in it";
  test::WriteImage(ground_.File("a/disk"));
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::unavailable) << "made again";
}

TEST_F(StorageWatchTest, Refresh_FolderThatNoDiskUsesAnyMore_IsForgotten) {
  test::WriteImage(ground_.File("a/disk"));
  test::WriteImage(ground_.File("b/disk"));
  PutDisk("d1", ground_.File("a/disk"));
  PutDisk("d2", ground_.File("b/disk"));
  StorageWatch watch(Options());
  watch.Refresh();
  host_.Remove("vdisk", "d1");
  watch.Refresh();
  EXPECT_THAT(StorageOf().folders, UnorderedElementsAre(Key(Root()), Key(ground_.File("b"))));
  host_.Remove("vdisk", "d2");
  watch.Refresh();
  EXPECT_THAT(StorageOf().folders, IsEmpty());
}

TEST_F(StorageWatchTest, Refresh_OwnFolder_IsKnownWhileItIsThereAndNoMissingFileIsNamedInIt) {
  const std::string own = ground_.File(kPool);
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

TEST_F(StorageWatchTest, Refresh_RepositoryOfAnotherHost_IsLeftAlone) {
  PutRepository(kOther, "other", "99999999-2222-4333-8444-555555555555");
  test::WriteImage(ground_.File("a/disk"));
  PutDisk("d1", ground_.File("a/disk"), kOther);
  StorageWatch watch(Options());
  watch.Refresh();
  EXPECT_EQ(TextOf(StorageKey(kOther)), std::nullopt);
}

TEST_F(StorageWatchTest, Refresh_RepositoryTakenFromAnotherHost_IsLearnedFromScratch) {
  test::WriteImage(ground_.File("a/disk"));
  PutDisk("d1", ground_.File("a/disk"));
  Write(StorageKey(kPool),
        R"({"host_id":"h","folders":{"/srv/":"ino=1 fsid=1"},"not_mounted":["/srv/"],"reason":"why","since":1})");
  Write(RepositoryStateKey(kPool), "\"" + std::string(VexaCCC::State::Repo::unavailable) + "\"");
  StorageWatch watch(Options());
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  EXPECT_THAT(StorageOf().folders, UnorderedElementsAre(Key(Root()), Key(ground_.File("a"))));
}

TEST_F(StorageWatchTest, Refresh_AfterAccept_LearnsCurrentFolders) {
  test::WriteImage(ground_.File("a/disk"));
  PutDisk("d1", ground_.File("a/disk"));
  StorageWatch watch(Options());
  watch.Refresh();
  const Trail before = StorageOf().folders;
  Replace();
  test::WriteImage(ground_.File("a/disk"));
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::unavailable);
  test::Require(ForgetStorage(host_.store(), kPool));
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  EXPECT_EQ(StorageOf().folders.size(), 2u);
  EXPECT_NE(StorageOf().folders, before);
}

TEST_F(StorageWatchTest, Refresh_DamagedRecord_IsLeftAndLoggedOnce) {
  test::WriteImage(ground_.File("a/disk"));
  PutDisk("d1", ground_.File("a/disk"));
  Write(StorageKey(kPool), "[]");
  StorageWatch watch(Options());
  watch.Refresh();
  watch.Refresh();
  EXPECT_EQ(TextOf(StorageKey(kPool)), "[]");
  ASSERT_EQ(Logged().size(), 1u);
  EXPECT_THAT(Logged()[0], HasSubstr("cannot be checked"));
  const Refused refused = watch.Refuse(kPool, {ground_.File("a/disk")}, StorageUse::kExisting);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code, kUnavailable);
}

TEST_F(StorageWatchTest, Refresh_StoreThatFails_IsLoggedOnceAndTriedAgain) {
  test::WriteImage(ground_.File("a/disk"));
  PutDisk("d1", ground_.File("a/disk"));
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
  test::WriteImage(ground_.File("a/disk"));
  PutDisk("d1", ground_.File("a/disk"));
  StorageWatch(Options()).Refresh();
  Replace();
  StorageOptions options = Options();
  options.ask = [&](const StorageQuestion& question) {
    StorageAnswer answer = AskStorage(question);
    test::Require(ForgetStorage(host_.store(), kPool));
    return answer;
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
  HangingStorageTest() : fifo_(ground_.folder().File("fifo")) {
    EXPECT_EQ(::mkfifo(fifo_.c_str(), 0600), 0);
    PutRepository(kOther, "other", kHost);
    test::WriteImage(ground_.File("a/disk"));
    PutDisk("d1", ground_.File("a/disk"));
    test::WriteImage(ground_.File("b/disk"));
    PutDisk("d2", ground_.File("b/disk"), kOther);
  }
  ~HangingStorageTest() override { Answer(); }

  StorageOptions HangingOptions() {
    StorageOptions options = Options();
    options.deadline = std::chrono::seconds(1);
    options.ask = [fifo = fifo_, hanging = hanging_](const StorageQuestion& question) {
      if (question.repository_id == kPool && *hanging) Hang(fifo, *hanging);
      return AskStorage(question);
    };
    options.check = [fifo = fifo_, hanging = hanging_](const Trail& trail) {
      if (*hanging) Hang(fifo, *hanging);
      return CheckTrail(trail);
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

TEST_F(HangingStorageTest, Refuse_RefusesAfterTheDeadline) {
  *hanging_ = 0;
  StorageWatch watch(HangingOptions());
  watch.Refresh();
  *hanging_ = 1;
  const Refused refused = watch.Refuse(kPool, {ground_.File("a/disk")}, StorageUse::kExisting);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code, kUnavailable);
  EXPECT_THAT(refused->reason, HasSubstr("does not answer"));
  const Trail remembered = StorageOf().folders;
  EXPECT_TRUE(watch.RefuseTrail(kPool, remembered, StorageUse::kExisting));
  EXPECT_EQ(*hanging_, 2);
}

TEST_F(HangingStorageTest, Stop_EndsARefreshThatWaits) {
  StorageOptions options = HangingOptions();
  options.deadline = std::chrono::seconds(600);
  std::optional<StorageWatch> watch(std::in_place, options);
  std::thread refresher([&] { watch->Refresh(); });
  while (*hanging_ < 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  watch->Stop();
  refresher.join();
  watch.reset();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online) << "a stop says nothing about the storage";
  EXPECT_EQ(*hanging_, 2) << "the thread is left behind";
}

TEST_F(StorageWatchTest, Refuse_OnlyChangedFolders_AreRefused) {
  test::WriteImage(ground_.File("a/disk"));
  test::WriteImage(ground_.File("b/disk"));
  PutDisk("d1", ground_.File("a/disk"));
  PutDisk("d2", ground_.File("b/disk"));
  StorageWatch watch(Options());
  const std::vector<std::string> both{ground_.File("a/disk"), ground_.File("b/disk")};
  EXPECT_FALSE(watch.Refuse(kPool, both, StorageUse::kNew)) << "nothing is known yet";
  watch.Refresh();
  const Trail remembered = test::Require(TrailOf({ground_.path()}, both[0]));
  EXPECT_FALSE(watch.Refuse(kPool, both, StorageUse::kNew));
  EXPECT_FALSE(watch.Refuse("", both, StorageUse::kNew));
  EXPECT_FALSE(watch.RefuseTrail(kPool, remembered, StorageUse::kNew));
  fs::rename(ground_.File("a"), ground_.folder().File("a"));
  EXPECT_FALSE(watch.Refuse(kPool, both, StorageUse::kExisting)) << "the files are gone with their folder";
  EXPECT_TRUE(watch.Refuse(kPool, both, StorageUse::kNew));
  EXPECT_FALSE(watch.Refuse(kPool, {both[1]}, StorageUse::kNew));
  test::WriteImage(ground_.File("a/disk"));
  const Refused refused = watch.Refuse(kPool, both, StorageUse::kExisting);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code, kUnavailable);
  EXPECT_EQ(refused->reason,
            "The storage of the repository '" + std::string(kPool) + "' is not mounted: the folder '" +
                ground_.File("a") +
                "' is not the folder that holds its disks. Mount it or, when it was replaced for good, "
                "run 'vexa repository accept " +
                kPool + "'");
  EXPECT_TRUE(watch.RefuseTrail(kPool, remembered, StorageUse::kExisting));
  EXPECT_FALSE(watch.Refuse(kPool, {both[1]}, StorageUse::kExisting));
  EXPECT_FALSE(watch.Refuse(kOther, both, StorageUse::kExisting));
}

// What the file systems say, in the place of the machine's own.
class StorageStateTest : public StorageWatchTest {
 protected:
  StorageStateTest() {
    test::WriteImage(ground_.File("disk"));
    PutDisk("d1", ground_.File("disk"));
  }
  StorageOptions ScriptedOptions() {
    StorageOptions options = Options();
    options.limits = {85, 95, 0};
    options.now = [this] { return std::chrono::system_clock::time_point(std::chrono::seconds(now_)); };
    options.ask = [this](const StorageQuestion& question) {
      StorageAnswer answer = AskStorage(question);
      answer.conditions = {condition_};
      return answer;
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
    ASSERT_TRUE(StorageOf().trouble) << state;
    EXPECT_EQ(StorageOf().trouble->state, state);
    EXPECT_EQ(StorageOf().trouble->reason, reason);
    EXPECT_EQ(StorageOf().trouble->since.time_since_epoch(), std::chrono::seconds(since));
    now_ += 10;
  };
  const std::string system = "the file system of the folder '" + Root() + "' is ";
  Use(90);
  expect(repository::provision_warning, system + "used to 85 %", 1000);
  expect(repository::provision_warning, system + "used to 85 %", 1000);
  Use(96);
  expect(repository::full, system + "used to 95 %", 1020);
  condition_.is_read_only = true;
  expect(repository::full, system + "used to 95 %", 1020);
  Use(50);
  condition_.is_read_only = true;
  expect(repository::degraded, system + "mounted read-only", 1040);
  condition_.error_number = EIO;
  expect(repository::crashed, "the folder '" + Root() + "' cannot be used: Input/output error", 1050);
  Use(50);
  watch.Refresh();
  EXPECT_EQ(StateOf(), repository::online);
  EXPECT_EQ(TextOf(RepositoryStateKey(kPool)), std::nullopt);
  EXPECT_FALSE(StorageOf().trouble);
  const std::string storage = "The storage of the repository 'pool' ";
  EXPECT_THAT(Logged(), ElementsAre(storage + "runs out of space: " + system + "used to 85 %.",
                                    storage + "is full: " + system + "used to 95 %.",
                                    storage + "cannot be written: " + system + "mounted read-only.",
                                    storage + "fails: the folder '" + Root() + "' cannot be used: Input/output error.",
                                    storage + "can be used again."));
}

TEST_F(StorageStateTest, Warnings_DoNotReplaceAWorseStateOfAnAdministrator) {
  namespace repository = VexaCCC::State::Repo;
  const auto text = [](const char* state) { return '"' + std::string(state) + '"'; };
  Write(RepositoryStateKey(kPool), text(repository::degraded));
  StorageWatch watch(ScriptedOptions());
  Use(90);
  watch.Refresh();
  EXPECT_EQ(StateOf(), repository::degraded);
  EXPECT_EQ(StorageOf().trouble->state, repository::provision_warning) << "it is known all the same";
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

TEST_F(StorageStateTest, FullRefusesStartsWithTheReason_ReadOnlyDoesNot) {
  StorageWatch watch(ScriptedOptions());
  watch.Refresh();
  EXPECT_FALSE(watch.RefuseStart(kPool));
  Use(90);
  watch.Refresh();
  EXPECT_FALSE(watch.RefuseStart(kPool));
  Use(96);
  watch.Refresh();
  Refused refused = watch.RefuseStart(kPool);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code, kUnavailable);
  EXPECT_EQ(refused->reason, "The storage of the repository '" + std::string(kPool) +
                                 "' is full: the file system of the folder '" + Root() +
                                 "' is used to 95 %. Make room in it, or move disks to another repository, and try "
                                 "again");
  Use(50);
  condition_.is_read_only = true;
  watch.Refresh();
  EXPECT_FALSE(watch.RefuseStart(kPool)) << "a libvirt elsewhere may see a mount that can be written";
  EXPECT_FALSE(watch.RefuseStart(""));
  EXPECT_FALSE(watch.RefuseStart(kOther));
}

TEST_F(StorageStateTest, ReadOnlyFileSystem_IsDegradedUntilItCanBeWritten) {
  if (!test::CanMount()) GTEST_SKIP() << test::kCannotMount;
  const test::MountGround kept("kept");
  ASSERT_TRUE(kept.MountTmpfs() && ground_.Bind(kept.path()));
  test::WriteImage(ground_.File("a/disk"));
  PutDisk("d1", ground_.File("a/disk"));
  StorageWatch watch(Options());
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
  const auto remount = [&](unsigned long flags) {
    return ::mount("none", ground_.path().c_str(), nullptr, MS_REMOUNT | MS_BIND | flags, nullptr);
  };
  ASSERT_EQ(remount(MS_RDONLY), 0);
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::degraded);
  ASSERT_EQ(remount(0), 0);
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
}

TEST_F(StorageWatchTest, Refresh_RootThatWasNeverSeen_IsUnavailableWhereDisksAreRecorded) {
  StorageOptions options = Options();
  options.roots = {ground_.File("away")};
  StorageWatch watch(options);
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online) << "an empty repository makes its folder with its first disk";
  PutDisk("d1", ground_.File("away/p/disk"));
  options.files = StorageOptions::Files::kNotNeeded;
  StorageWatch(options).Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online) << "without files";
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::unavailable);
  EXPECT_THAT(Logged(), ElementsAre("The storage of the repository 'pool' is not mounted: there is no folder '" +
                                    ground_.File("away") + "/'."));
  fs::create_directories(ground_.File("away"));
  watch.Refresh();
  EXPECT_EQ(StateOf(), VexaCCC::State::Repo::online);
}

}  // namespace
}  // namespace vexa::guests
