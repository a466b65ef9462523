// Storage that is away when a host starts, and comes later: what was begun on it is finished or undone when it is back.
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <set>
#include <thread>

#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/late_storage.h"
#include "tests/support/qemu_host_test.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr char kGuest[] = "11111111-2222-4333-8444-000000000001";
constexpr int kDisks = 12;
// A host has looked at what it left behind by then, and has tried again.
constexpr auto kRecovery = 3s;
// An event that does not come while the storage is used: the host is killed when the time is over.
constexpr std::uint32_t kNothing = IN_UNMOUNT;

int RoundsOf(const char* variable, int otherwise) {
  const char* const text = std::getenv(variable);
  return text != nullptr ? std::atoi(text) : otherwise;
}

class QemuStorage : public EmbeddedHostTest {
 protected:
  std::string WhyNot() override {
    const std::string why_not = LateStorage::Enter();
    return why_not.empty() ? WhyNoQemuGuests() : why_not;
  }
  void MakeHost() override {
    QemuHostOptions options;
    options.image_root = ground_->folder() + "/disks";
    fs::create_directory(options.image_root);
    ASSERT_TRUE(Bring(options.image_root));
    for (const auto& entry : fs::directory_iterator(options.image_root)) fs::remove_all(entry.path());
    host_ = std::make_unique<QemuHost>(*ground_, options);
    PutGuest();
    host_->Start();
    // The host learns which storage the disks are in soon after its start.
    const std::string key = store::MakeKey({"dash", "repository", kHostRepository, "storage"});
    (void)Await([&] { return !host_->Stored(key).empty(); }, 6s);
  }
  void TearDown() override {
    host_.reset();
    if (ground_) EndPrograms(ground_->folder());
    EXPECT_TRUE(!is_there_ || TakeAway());
    ground_.reset();
  }

  void PutGuest() const {
    HostGuest guest;
    guest.id = kGuest;
    guest.name = "stored";
    guest.disks = kDisks;
    host_->PutGuest(guest);
  }
  bool Bring(const std::string& folder) { return is_there_ = LateStorage::Get().Mount(folder); }
  bool Bring() { return Bring(host_->options().image_root); }
  bool TakeAway() {
    is_there_ = !LateStorage::Get().Unmount(ground_->folder() + "/disks");
    return !is_there_;
  }

  // Asks from another process, and kills the host as soon as something happens to a file, or after `patience`.
  void AskAndKill(const std::function<void()>& ask, std::uint32_t event, std::chrono::milliseconds patience = 20s) {
    const int watch = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    ASSERT_GE(::inotify_add_watch(watch, host_->DiskFolder().c_str(), event), 0);
    const pid_t asker = ::fork();
    ASSERT_GE(asker, 0);
    if (asker == 0) {
      ground_->LetGo();
      ask();
      ::_exit(0);
    }
    pollfd news{watch, POLLIN, 0};
    (void)::poll(&news, 1, static_cast<int>(patience.count()));
    host_->Kill();
    ::close(watch);
    ::waitpid(asker, nullptr, 0);
  }

  bool IsUnderWay() const {
    return !host_->Stored(guests::DeletionKey(kGuest)).empty() || !host_->Stored(guests::EditKey(kGuest)).empty();
  }
  std::string Journals() const {
    return host_->Stored(guests::DeletionKey(kGuest)) + host_->Stored(guests::EditKey(kGuest));
  }
  static std::multiset<std::string> FilesIn(const std::string& folder) {
    std::multiset<std::string> files;
    std::error_code ignored;
    for (const auto& entry : fs::recursive_directory_iterator(folder, ignored)) {
      if (entry.is_regular_file(ignored)) files.insert(entry.path().string());
    }
    return files;
  }
  // The guest's disks by its record, and nothing but them, are in the storage.
  void ExpectWhole(const std::string& after) const {
    std::multiset<std::string> named;
    const Json::Value disks = host_->Record("guest", kGuest)["vdisks"];
    for (const Json::Value& id : json::Elements(disks)) {
      const std::string path = host_->Record("vdisk", id.asString())["path"].asString();
      named.insert(path);
      for (int disk = 0; disk < kDisks; ++disk) {
        if (path == host_->DiskFile(kGuest, disk)) {
          EXPECT_TRUE(Content(path).starts_with(QemuHost::DiskText(kGuest, disk))) << after << ": " << path;
        }
      }
    }
    EXPECT_EQ(FilesIn(host_->options().image_root), named) << after << "\n" << Journals() << "\n" << host_->Log();
  }

  // What a host does that starts without the storage, and then gets it.
  void StartWithoutAndBring(const std::string& what) {
    const bool was_under_way = IsUnderWay();
    ASSERT_TRUE(TakeAway());
    host_->Start();
    std::this_thread::sleep_for(kRecovery);
    EXPECT_EQ(IsUnderWay(), was_under_way) << what << ": settled without the storage\n" << host_->Log();
    EXPECT_THAT(FilesIn(host_->options().image_root), testing::IsEmpty())
        << what << ": a file where nothing is mounted";
    ASSERT_TRUE(Bring());
    EXPECT_TRUE(Await([&] { return !IsUnderWay(); }, 45s)) << what << ": not settled: " << Journals() << host_->Log();
    ExpectWhole(what);
  }

  bool is_there_ = false;
};

// The programs that write to the storage are ended before it goes.
TEST_F(QemuStorage, HostIsKilledWhileItHidesTheDisksOfADeletedGuest_NothingIsLost) {
  AskAndKill([this] { (void)host_->Delete(kGuest); }, IN_MOVED_TO);
  StartWithoutAndBring("killed while it hides");
}

TEST_F(QemuStorage, HostIsKilledWhileItRemovesTheDisksOfADeletedGuest_NothingIsOrphaned) {
  AskAndKill([this] { (void)host_->Delete(kGuest); }, IN_DELETE);
  EXPECT_FALSE(host_->Has(kGuest));
  StartWithoutAndBring("killed while it removes");
}

TEST_F(QemuStorage, HostIsKilledInEdits_DisksAndRecordsAgreeAfterwards) {
  Json::Value edit(Json::objectValue);
  for (Json::ArrayIndex i = 0; i < 6; ++i) edit["vdisks_add"][i]["vdisk_size"] = 1;
  AskAndKill([&] { (void)host_->Set(kGuest, edit); }, IN_CREATE | IN_MOVED_TO);
  StartWithoutAndBring("killed while it adds disks");
  edit = Json::Value(Json::objectValue);
  for (int i = 0; i < 6; ++i) edit["vdisks_del"][i]["vdisk_id"] = QemuHost::DiskId(kGuest, i + 3);
  AskAndKill([&] { (void)host_->Set(kGuest, edit); }, IN_MOVED_TO);
  StartWithoutAndBring("killed while it deletes disks");
}

TEST_F(QemuStorage, StorageIsAway_NothingIsMadeOrForgottenUntilItIsThere) {
  host_->Kill();
  ASSERT_TRUE(TakeAway());
  host_->Start();
  Json::Value edit(Json::objectValue);
  edit["vdisks_add"][0]["vdisk_size"] = 1;
  EXPECT_NE(host_->Set(kGuest, edit), 0) << "a disk was made where nothing is mounted";
  edit = Json::Value(Json::objectValue);
  edit["vdisks_del"][0]["vdisk_id"] = QemuHost::DiskId(kGuest, 0);
  EXPECT_NE(host_->Set(kGuest, edit), 0) << "a disk was forgotten whose file nobody could remove";
  EXPECT_NE(host_->Delete(kGuest), 0) << "a guest was forgotten whose files nobody could remove";
  EXPECT_NE(host_->Power(kGuest, "poweron"), 0);
  EXPECT_THAT(FilesIn(host_->options().image_root), testing::IsEmpty());
  ASSERT_TRUE(Bring());
  ASSERT_TRUE(host_->Has(kGuest));
  ExpectWhole("once it is there");
  EXPECT_TRUE(Await([&] { return host_->Power(kGuest, "poweron") == 0; }, 30s)) << host_->Log();
  EXPECT_EQ(host_->Power(kGuest, "poweroff"), 0);
  EXPECT_TRUE(host_->AwaitOff(kGuest));
  EXPECT_EQ(host_->Delete(kGuest), 0);
  EXPECT_THAT(FilesIn(host_->options().image_root), testing::IsEmpty());
}

// VEXA_STORAGE_ROUNDS says how often.
TEST_F(QemuStorage, StorageGoesAtAnyMoment_NothingIsLostOrOrphaned) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const int rounds = RoundsOf("VEXA_STORAGE_ROUNDS", 2);
  for (int round = 0; round < rounds && !HasFailure(); ++round) {
    if (!host_->Has(kGuest)) PutGuest();
    const auto ask = [&] {
      Json::Value edit(Json::objectValue);
      const Json::Value disks = host_->Record("guest", kGuest)["vdisks"];
      switch (round % 3) {
        case 0:
          edit["vdisks_add"][0]["vdisk_size"] = 1;
          break;
        case 1:
          for (Json::ArrayIndex i = 0; i < disks.size() / 2; ++i) edit["vdisks_del"][i]["vdisk_id"] = disks[i];
          break;
        default:
          (void)host_->Delete(kGuest);
          return;
      }
      (void)host_->Set(kGuest, edit);
    };
    const int milliseconds = static_cast<int>(random() % 60);
    AskAndKill(ask, kNothing, std::chrono::milliseconds(milliseconds));
    StartWithoutAndBring("round " + std::to_string(round) + ", killed after " + std::to_string(milliseconds) + " ms");
  }
}

}  // namespace
}  // namespace vexa::test
