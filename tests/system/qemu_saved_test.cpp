// A guest whose memory a user has saved with libvirt: it stays saved until it is started, discarded or deleted.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/qemu_host_test.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;

constexpr char kGuest[] = "11111111-2222-4333-8444-000000000002";
constexpr char kSaved[] = "guest_saved";
constexpr int kIsSaved = 946;
// The host looks at its guests more often.
constexpr auto kSeveralLooks = 7s;

class QemuSaved : public LibvirtHostTest {
 protected:
  void MakeHost() override {
    LibvirtHostTest::MakeHost();
    StartHostWith(kGuest, "sleeper");
  }

  // The address that is another at each start of the guest's system.
  std::string AddressOfThisRun() const {
    std::string found;
    EXPECT_TRUE(Await([&] {
      std::istringstream addresses(host_->Addresses(kGuest));
      for (std::string address; addresses >> address;) {
        if (address.starts_with("10.")) found = address;
      }
      return !found.empty();
    }));
    return found;
  }
  void Save() const {
    ASSERT_EQ(user_->ManagedSave(kGuest), "");
    ASSERT_TRUE(host_->AwaitState(kGuest, kSaved)) << "it is " << host_->State(kGuest);
  }
  void ExpectSaved(const char* after) const {
    EXPECT_TRUE(host_->AwaitState(kGuest, kSaved)) << after << ": " << host_->State(kGuest);
    EXPECT_TRUE(user_->IsSaved(kGuest)) << after;
  }
};

TEST_F(QemuSaved, SavedGuest_HostAndLibvirtKilled_IsRestored) {
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  const std::string address = AddressOfThisRun();
  ASSERT_NO_FATAL_FAILURE(Save());
  std::this_thread::sleep_for(kSeveralLooks);
  ExpectSaved("after the host has looked");
  host_->Restart();
  std::this_thread::sleep_for(kSeveralLooks);
  ExpectSaved("after the host was killed");
  libvirtd_->Kill();
  libvirtd_->Start();
  std::this_thread::sleep_for(2s);
  ExpectSaved("after libvirt was killed");
  EXPECT_NE(host_->Power(kGuest, "poweroff"), 0);
  ExpectSaved("after a power-off");

  Json::Value edit(Json::objectValue);
  edit["vdisks_del"][0]["vdisk_id"] = QemuHost::DiskId(kGuest, 0);
  EXPECT_EQ(host_->Set(kGuest, edit), kIsSaved);
  edit = Json::Value(Json::objectValue);
  edit["vdisks_edit"][0]["vdisk_id"] = QemuHost::DiskId(kGuest, 0);
  edit["vdisks_edit"][0]["vdisk_size"] = 1;
  EXPECT_EQ(host_->Set(kGuest, edit), kIsSaved);
  EXPECT_EQ(host_->ChangedDisks(kGuest, 1), "");

  EXPECT_EQ(host_->Power(kGuest, "poweron"), 0);
  EXPECT_TRUE(host_->AwaitState(kGuest, "guest_running"));
  EXPECT_EQ(AddressOfThisRun(), address) << "its system was started afresh";
  EXPECT_FALSE(user_->IsSaved(kGuest));
}

// What QEMU opens then is not what the guest's record names.
TEST_F(QemuSaved, SavedGuest_MediumChangedWhileRunning_IsRestored) {
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  const std::string address = AddressOfThisRun();
  const std::string medium = host_->DiskFolder() + "/other.iso";
  std::ofstream(medium) << std::string(1 << 20, 'm');
  ASSERT_EQ(user_->ChangeMedium(kGuest, environment_->Image(GuestImage::kWithAgent), medium), "");
  ASSERT_NO_FATAL_FAILURE(Save());
  EXPECT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  EXPECT_TRUE(host_->AwaitState(kGuest, "guest_running")) << host_->Log();
  EXPECT_EQ(AddressOfThisRun(), address) << "its system was started afresh";
  EXPECT_FALSE(user_->IsSaved(kGuest));
}

TEST_F(QemuSaved, SavedGuest_DiskReplaced_IsNotStartedAndKeepsItsMemory) {
  namespace fs = std::filesystem;
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  const std::string address = AddressOfThisRun();
  ASSERT_NO_FATAL_FAILURE(Save());
  const std::string disk = host_->DiskFile(kGuest, 0);
  const std::string away = disk + ".away";
  fs::rename(disk, away);
  EXPECT_NE(host_->Power(kGuest, "poweron"), 0) << "the disk is gone";
  ExpectSaved("after a start without its disk");
  fs::create_symlink(away, disk);
  EXPECT_NE(host_->Power(kGuest, "poweron"), 0) << "the disk is a link";
  ExpectSaved("after a start with a link in place of its disk");
  EXPECT_EQ(host_->Qemus(kGuest), 0);
  EXPECT_NE(host_->Log().find("is a symbolic link. Name the file itself. The guest's saved memory was "
                              "kept"),
            std::string::npos)
      << host_->Log();
  fs::rename(away, disk);
  EXPECT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  EXPECT_EQ(AddressOfThisRun(), address) << "its system was started afresh";
}

TEST_F(QemuSaved, SavedMemory_DiscardedOrGuestDeleted_IsRemoved) {
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  ASSERT_NO_FATAL_FAILURE(Save());
  EXPECT_EQ(CountSavedMemoryFiles(), 1);
  EXPECT_EQ(host_->Code("VEXA.Virtualization.Guest/discard_saved", kGuest), 0);
  EXPECT_EQ(CountSavedMemoryFiles(), 0);
  EXPECT_TRUE(host_->AwaitState(kGuest, "guest_shutdown")) << host_->State(kGuest);
  EXPECT_NE(host_->Code("VEXA.Virtualization.Guest/discard_saved", kGuest), 0) << "nothing is saved";
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0);
  EXPECT_NE(host_->Code("VEXA.Virtualization.Guest/discard_saved", kGuest), 0) << "it runs";
  EXPECT_EQ(host_->Qemus(kGuest), 1);

  ASSERT_NO_FATAL_FAILURE(Save());
  EXPECT_EQ(host_->Delete(kGuest), 0);
  EXPECT_EQ(CountSavedMemoryFiles(), 0);
  EXPECT_FALSE(user_->IsKnown(kGuest));
  EXPECT_FALSE(FileExists(host_->DiskFile(kGuest, 0)));
}

}  // namespace
}  // namespace vexa::test
