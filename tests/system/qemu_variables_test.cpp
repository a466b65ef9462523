// UEFI variables belong to the guest: they survive every way a run can end, and are deleted with the guest.
#include <thread>

#include "tests/support/qemu_host_test.h"

namespace vexa::test {
namespace {

constexpr char kGuest[] = "11111111-2222-4333-8444-000000000001";

class QemuVariables : public EmbeddedHostTest {
 protected:
  void MakeHost() override {
    EmbeddedHostTest::MakeHost();
    HostGuest guest;
    guest.id = kGuest;
    guest.name = "firmware";
    guest.has_uefi = true;
    host_->PutGuest(guest);
    host_->Start();
  }

  // Of the only guest there is; fails when it has none, or several.
  std::string File() const {
    const std::vector<std::string> files = FindNvramFiles(environment_->folder());
    EXPECT_THAT(files, testing::SizeIs(1));
    return files.empty() ? "" : files[0];
  }
  std::string FileByRecord() const { return host_->Record("guest", kGuest)["nvram"].asString(); }

  void PowerOn() const { ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log(); }
  void PowerOff() const {
    EXPECT_EQ(host_->Power(kGuest, "poweroff"), 0);
    EXPECT_TRUE(host_->AwaitOff(kGuest));
  }
  // Starts the guest for the first time, and writes what must stay into its variables once it is off.
  void MakeMarked() const {
    PowerOn();
    PowerOff();
    Mark(File());
  }
  void ExpectMarked(const std::string& file, const char* after) const {
    EXPECT_EQ(File(), file) << after;
    EXPECT_TRUE(HasNvramMark(file)) << after;
  }
};

TEST_F(QemuVariables, Nvram_AfterPowerCycle_IsUnchangedAndDeletedWithGuest) {
  PowerOn();
  const std::string file = File();
  EXPECT_NE(file.find(kGuest), std::string::npos) << file << " is not named by the guest's id";
  EXPECT_EQ(FileByRecord(), file);
  const std::string fresh = Content(kFirmwareVariables);
  ASSERT_TRUE(Await([&] { return Content(file) != fresh; })) << "the firmware has written nothing";
  PowerOff();
  const std::string written = Content(file);
  ASSERT_FALSE(written.empty()) << "the power-off has removed the variables";
  host_->Restart();
  // The firmware writes again only after several seconds.
  PowerOn();
  EXPECT_EQ(Content(file), written);
  PowerOff();
  EXPECT_EQ(host_->Delete(kGuest), 0);
  EXPECT_THAT(FindNvramFiles(environment_->folder()), testing::IsEmpty());
  EXPECT_FALSE(host_->Has(kGuest));
}

TEST_F(QemuVariables, Nvram_GuestOrHostKilled_IsKept) {
  MakeMarked();
  const std::string file = File();
  PowerOn();
  ExpectMarked(file, "after a start");
  KillQemus(environment_->folder());
  EXPECT_TRUE(host_->AwaitOff(kGuest));
  ExpectMarked(file, "after a crash");
  PowerOn();
  // libvirt ends a machine that was half started when it was killed.
  std::this_thread::sleep_for(std::chrono::seconds(2));
  host_->Restart();
  EXPECT_TRUE(host_->AwaitState(kGuest, "guest_running"));
  PowerOff();
  ExpectMarked(file, "after a power-off by the host that follows a killed one");
  PowerOn();
  host_->Kill();
  KillQemus(environment_->folder());
  host_->Start();
  EXPECT_TRUE(host_->AwaitOff(kGuest));
  ExpectMarked(file, "after guest and host were killed");
}

TEST_F(QemuVariables, Nvram_GuestRenamedAndEdited_KeepsItsFileName) {
  MakeMarked();
  const std::string file = File();
  Json::Value edit(Json::objectValue);
  edit["name"] = "renamed";
  edit["vcpu_num"] = 2;
  EXPECT_EQ(host_->Set(kGuest, edit), 0);
  PowerOn();
  ExpectMarked(file, "after it was renamed");
  PowerOff();
  edit = Json::Value(Json::objectValue);
  edit["use_ovmf"] = false;
  EXPECT_EQ(host_->Set(kGuest, edit), 0);
  PowerOn();
  PowerOff();
  ExpectMarked(file, "after a run with another firmware");
  edit["use_ovmf"] = true;
  EXPECT_EQ(host_->Set(kGuest, edit), 0);
  PowerOn();
  ExpectMarked(file, "after the change back");
}

}  // namespace
}  // namespace vexa::test
