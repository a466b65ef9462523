// Storage that is not mounted when a host starts: unfinished jobs on it are finished or undone once it is mounted.
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
  std::string UnavailableReason() override {
    const std::string why_not = RemovableStorage::Enter();
    return why_not.empty() ? QemuUnavailableReason() : why_not;
  }
  void MakeHost() override {
    QemuHostOptions options;
    options.image_root = environment_->folder() + "/disks";
    fs::create_directory(options.image_root);
    ASSERT_TRUE(MountStorage(options.image_root));
    for (const auto& entry : fs::directory_iterator(options.image_root)) fs::remove_all(entry.path());
    host_ = std::make_unique<QemuHost>(*environment_, options);
    PutGuest();
    host_->Start();
    // The host learns which storage the disks are in soon after its start.
    const std::string key = store::MakeKey({"dash", "repository", kHostRepository, "storage"});
    (void)Await([&] { return !host_->Stored(key).empty(); }, 6s);
  }
  void TearDown() override {
    host_.reset();
    if (environment_) EndPrograms(environment_->folder());
    EXPECT_TRUE(!is_mounted_ || UnmountStorage());
    environment_.reset();
  }

  void PutGuest() const {
    HostGuest guest;
    guest.id = kGuest;
    guest.name = "stored";
    guest.disks = kDisks;
    host_->PutGuest(guest);
  }
  bool MountStorage(const std::string& folder) { return is_mounted_ = RemovableStorage::Get().Mount(folder); }
  bool MountStorage() { return MountStorage(host_->options().image_root); }
  bool UnmountStorage() {
    is_mounted_ = !RemovableStorage::Get().Unmount(environment_->folder() + "/disks");
    return !is_mounted_;
  }

  // Asks from another process, and kills the host as soon as something happens to a file, or after `timeout`.
  void AskAndKill(const std::function<void()>& ask, std::uint32_t event, std::chrono::milliseconds timeout = 20s) {
    const int watch = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    ASSERT_GE(::inotify_add_watch(watch, host_->DiskFolder().c_str(), event), 0);
    const pid_t asker = ::fork();
    ASSERT_GE(asker, 0);
    if (asker == 0) {
      environment_->ReleaseInChild();
      ask();
      ::_exit(0);
    }
    pollfd news{watch, POLLIN, 0};
    (void)::poll(&news, 1, static_cast<int>(timeout.count()));
    host_->Kill();
    ::close(watch);
    ::waitpid(asker, nullptr, 0);
  }

  bool HasUnfinishedJobs() const {
    return !host_->Stored(records::DeletionKey(kGuest)).empty() || !host_->Stored(records::EditKey(kGuest)).empty();
  }
  std::string Journals() const {
    return host_->Stored(records::DeletionKey(kGuest)) + host_->Stored(records::EditKey(kGuest));
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
  void RestartWithLateStorage(const std::string& what) {
    const bool was_under_way = HasUnfinishedJobs();
    ASSERT_TRUE(UnmountStorage());
    host_->Start();
    std::this_thread::sleep_for(kRecovery);
    EXPECT_EQ(HasUnfinishedJobs(), was_under_way) << what << ": settled without the storage\n" << host_->Log();
    EXPECT_THAT(FilesIn(host_->options().image_root), testing::IsEmpty())
        << what << ": a file where nothing is mounted";
    ASSERT_TRUE(MountStorage());
    EXPECT_TRUE(Await([&] { return !HasUnfinishedJobs(); }, 45s))
        << what << ": not settled: " << Journals() << host_->Log();
    ExpectWhole(what);
  }

  bool is_mounted_ = false;
};

// The programs that write to the storage are ended before it goes.
TEST_F(QemuStorage, Kill_WhileHidingDisks_LosesNothing) {
  AskAndKill([this] { (void)host_->Delete(kGuest); }, IN_MOVED_TO);
  RestartWithLateStorage("killed while it hides");
}

TEST_F(QemuStorage, Kill_WhileRemovingDisks_OrphansNothing) {
  AskAndKill([this] { (void)host_->Delete(kGuest); }, IN_DELETE);
  EXPECT_FALSE(host_->Has(kGuest));
  RestartWithLateStorage("killed while it removes");
}

TEST_F(QemuStorage, Kill_DuringEdits_DisksMatchRecordsAfterwards) {
  Json::Value edit(Json::objectValue);
  for (Json::ArrayIndex i = 0; i < 6; ++i) edit["vdisks_add"][i]["vdisk_size"] = 1;
  AskAndKill([&] { (void)host_->Set(kGuest, edit); }, IN_CREATE | IN_MOVED_TO);
  RestartWithLateStorage("killed while it adds disks");
  edit = Json::Value(Json::objectValue);
  for (int i = 0; i < 6; ++i) edit["vdisks_del"][i]["vdisk_id"] = QemuHost::DiskId(kGuest, i + 3);
  AskAndKill([&] { (void)host_->Set(kGuest, edit); }, IN_MOVED_TO);
  RestartWithLateStorage("killed while it deletes disks");
}

TEST_F(QemuStorage, Storage_Unmounted_CreatesAndForgetsNothingUntilMounted) {
  host_->Kill();
  ASSERT_TRUE(UnmountStorage());
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
  ASSERT_TRUE(MountStorage());
  ASSERT_TRUE(host_->Has(kGuest));
  ExpectWhole("once it is there");
  EXPECT_TRUE(Await([&] { return host_->Power(kGuest, "poweron") == 0; }, 30s)) << host_->Log();
  EXPECT_EQ(host_->Power(kGuest, "poweroff"), 0);
  EXPECT_TRUE(host_->AwaitOff(kGuest));
  EXPECT_EQ(host_->Delete(kGuest), 0);
  EXPECT_THAT(FilesIn(host_->options().image_root), testing::IsEmpty());
}

// VEXA_STORAGE_ROUNDS says how often.
TEST_F(QemuStorage, Storage_UnmountedAtAnyMoment_LosesAndOrphansNothing) {
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
    RestartWithLateStorage("round " + std::to_string(round) + ", killed after " + std::to_string(milliseconds) + " ms");
  }
}

}  // namespace
}  // namespace vexa::test
