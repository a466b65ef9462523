// Disks that a VM process writes to are neither removed nor changed, however the VM was started, even if the host has
// no record of it.
#include <thread>

#include "tests/support/qemu_host_test.h"

namespace vexa::test {
namespace {

constexpr char kOwners[] = "11111111-2222-4333-8444-0000000000f1";
constexpr char kGuest[] = "11111111-2222-4333-8444-000000000001";
constexpr char kOther[] = "11111111-2222-4333-8444-000000000002";
constexpr char kOtherHost[] = "11111111-2222-4333-8444-0000000000b1";
constexpr char kImage[] = "11111111-2222-4333-8444-0000000000c1";
constexpr int kNotDeleted = 901;

// What would remove or change the disk; each is refused.
void ExpectDiskRefusals(const QemuHost& host, const std::string& guest, const std::string& disk, const char* when) {
  EXPECT_EQ(host.Delete(guest), kNotDeleted) << when;
  Json::Value edit(Json::objectValue);
  edit["vdisks_del"][0]["vdisk_id"] = disk;
  EXPECT_NE(host.Set(guest, edit), 0) << when << ": the disk was deleted";
  edit = Json::Value(Json::objectValue);
  edit["vdisks_edit"][0]["vdisk_id"] = disk;
  edit["vdisks_edit"][0]["vdisk_size"] = 1;
  EXPECT_NE(host.Set(guest, edit), 0) << when << ": the disk has grown";
}

class QemuRunningDisks : public LibvirtHostTest {
 protected:
  // A domain that its owner has started, with an image that is named twice, becomes a guest of `host_id`.
  void StartAndImport(const std::string& host_id) {
    domain_ = MakeUserDomain(kOwners, "mine");
    domain_.disks.push_back(domain_.disks[0]);
    ASSERT_EQ(user_->Define(UserDomainXml(domain_)), "");
    ASSERT_EQ(user_->Start(kOwners), "") << libvirtd_->Log();
    host_->Start();
    ImportAll(host_id);
  }
  void ExpectRefusals(const char* when) const {
    const Json::Value disks = host_->Record("guest", kOwners)["vdisks"];
    ASSERT_EQ(disks.size(), 3U) << when << ": the guest's record is gone";
    // Not one of the two whose image would stay anyway, since the other names it.
    ExpectDiskRefusals(*host_, kOwners, disks[0].asString(), when);
    EXPECT_TRUE(AreDisksIntact(domain_)) << when;
    EXPECT_EQ(Content(domain_.disks[0]).size(), 1U << 20) << when;
    EXPECT_EQ(CountQemus(environment_->folder(), kOwners), 1) << when;
  }
  // The guest is not deleted, and what QEMU has open stays as it is.
  void ExpectKept(const char* when) const {
    EXPECT_EQ(host_->Delete(kOwners), kNotDeleted) << when;
    EXPECT_TRUE(AreDisksIntact(domain_)) << when;
    EXPECT_EQ(Content(domain_.disks[0]).size(), 1U << 20) << when;
    EXPECT_EQ(CountQemus(environment_->folder(), kOwners), 1) << when;
  }
  UserDomain domain_;
};

TEST_F(QemuRunningDisks, ImportedGuest_StillRunning_KeepsDisksUntilOff) {
  ASSERT_NO_FATAL_FAILURE(StartAndImport(host_->id()));
  ASSERT_NO_FATAL_FAILURE(ExpectKept("right after the import"));
  libvirtd_->Kill();
  ASSERT_NO_FATAL_FAILURE(ExpectKept("while libvirt cannot be asked"));
  libvirtd_->Start();
  ASSERT_TRUE(host_->AwaitState(kOwners, "guest_running")) << "it is not adopted";
  // Now the host can take disks from the running machine, which keeps this one until it is off.
  const std::string removed = host_->Record("guest", kOwners)["vdisks"][0].asString();
  EXPECT_EQ(host_->Delete(kOwners), kNotDeleted);
  Json::Value edit(Json::objectValue);
  edit["apply"] = "next_start";
  edit["vdisks_del"][0]["vdisk_id"] = removed;
  EXPECT_EQ(host_->Set(kOwners, edit), 0) << host_->Log();
  EXPECT_EQ(host_->Record("guest", kOwners)["vdisks"].size(), 2U);
  EXPECT_TRUE(AreDisksIntact(domain_)) << "QEMU has the file open";
  EXPECT_TRUE(user_->IsActive(kOwners));
  // Until libvirt has its machine's monitor again, it says of one that it ends that it does not run.
  std::this_thread::sleep_for(std::chrono::seconds(3));
  EXPECT_TRUE(AreDisksIntact(domain_)) << "QEMU has the file open";
  EXPECT_EQ(host_->Power(kOwners, "poweroff"), 0);
  EXPECT_TRUE(host_->AwaitOff(kOwners));
  EXPECT_TRUE(Await([&] { return !FileExists(domain_.boot_image); }, kStateTimeout)) << host_->Log();
  EXPECT_EQ(host_->Delete(kOwners), 0);
  EXPECT_FALSE(FileExists(domain_.disks[0]));
}

TEST_F(QemuRunningDisks, ImportedGuest_RunsHereButAssignedElsewhere_KeepsDisks) {
  ASSERT_NO_FATAL_FAILURE(StartAndImport(kOtherHost));
  ASSERT_NO_FATAL_FAILURE(ExpectRefusals("right after the import"));
  libvirtd_->Kill();
  ASSERT_NO_FATAL_FAILURE(ExpectRefusals("while libvirt cannot be asked"));
}

class QemuEmbeddedDisks : public EmbeddedHostTest {
 protected:
  std::string UnavailableReason() override { return QemuUnavailableReason(); }
};

TEST_F(QemuEmbeddedDisks, Delete_DomainRunsUnderOldHypervisorFolder_KeepsDisks) {
  HostGuest guest;
  guest.id = kGuest;
  guest.name = "left behind";
  host_->PutGuest(guest);
  host_->Start();
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0);
  host_->Kill();
  host_->options().embed_root = environment_->folder() + "/other";
  host_->Start();
  // It finds that the guest does not run, as far as it can see.
  (void)Await([&] { return host_->State(kGuest) != "guest_running"; }, std::chrono::seconds(10));
  const std::string disk = QemuHost::DiskId(kGuest, 0);
  ASSERT_NO_FATAL_FAILURE(ExpectDiskRefusals(*host_, kGuest, disk, "with another folder"));
  host_->DeleteRunRecord(kGuest);
  ExpectDiskRefusals(*host_, kGuest, disk, "with another folder, and no host that has the guest");
  EXPECT_EQ(host_->ChangedDisks(kGuest, 1), "");
  EXPECT_EQ(Content(host_->DiskFile(kGuest, 0)).size(), 1U << 20);
  EXPECT_EQ(host_->Qemus(kGuest), 1);
  KillQemus(environment_->folder());
  EXPECT_EQ(host_->Delete(kGuest), 0) << "its machine has ended";
}

TEST_F(QemuEmbeddedDisks, Delete_DiskIsImageInOtherGuestsDrive_KeepsFile) {
  const std::string file = host_->options().image_root + "/shared.iso";
  std::filesystem::copy_file(environment_->Image(GuestImage::kWithAgent), file);
  Json::Value image(Json::objectValue);
  image["name"] = "shared";
  image["path"] = file;
  host_->Put("image", kImage, image);
  HostGuest guest;
  guest.id = kGuest;
  guest.name = "has it as a disk";
  host_->PutGuest(guest);
  Json::Value disk = host_->Record("vdisk", QemuHost::DiskId(kGuest, 0));
  disk["path"] = file;
  host_->Put("vdisk", QemuHost::DiskId(kGuest, 0), disk);
  guest.id = kOther;
  guest.name = "has it in its drive";
  host_->PutGuest(guest);
  Json::Value record = host_->Record("guest", kOther);
  record["iso_images"] = Json::Value(Json::arrayValue);
  record["iso_images"].append(kImage);
  host_->Put("guest", kOther, record);
  host_->Start();
  ASSERT_EQ(host_->Power(kOther, "poweron"), 0) << host_->Log();
  EXPECT_EQ(host_->Delete(kGuest), 0);
  EXPECT_FALSE(host_->Has(kGuest));
  EXPECT_TRUE(FileExists(file));
  EXPECT_EQ(host_->Power(kOther, "poweroff"), 0);
  EXPECT_TRUE(host_->AwaitOff(kOther));
  EXPECT_EQ(host_->Power(kOther, "poweron"), 0);
}

}  // namespace
}  // namespace vexa::test
