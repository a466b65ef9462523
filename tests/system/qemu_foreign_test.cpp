// Domains that users define in libvirt are not changed: beside the host's guests, and after they are imported.
#include "tests/support/qemu_host_test.h"

namespace vexa::test {
namespace {

constexpr char kOwners[] = "11111111-2222-4333-8444-0000000000f1";
constexpr char kOwnersRunning[] = "11111111-2222-4333-8444-0000000000f2";
constexpr char kOwnersSaved[] = "11111111-2222-4333-8444-0000000000f3";
constexpr char kGuest[] = "11111111-2222-4333-8444-000000000001";
constexpr char kFailing[] = "11111111-2222-4333-8444-000000000002";
constexpr char kDeleted[] = "11111111-2222-4333-8444-000000000003";
constexpr char kOurMark[] = "urn:vexa:guest:1";

class QemuForeign : public LibvirtHostTest {
 protected:
  void PutGuest(const char* id, const char* name) const {
    HostGuest guest;
    guest.id = id;
    guest.name = name;
    host_->PutGuest(guest);
  }
  void ExpectUserDomainUnchanged(const UserDomain& domain, const char* after) const {
    ExpectUserElementsKept(domain, after);
    EXPECT_TRUE(user_->IsAutostarting(domain.id)) << after;
  }
  // From its import until its release, the host decides when the guest starts.
  void ExpectTakenOver(const UserDomain& domain, const char* after) const {
    ExpectUserElementsKept(domain, after);
    EXPECT_FALSE(user_->IsAutostarting(domain.id)) << after;
  }

 private:
  void ExpectUserElementsKept(const UserDomain& domain, const char* after) const {
    EXPECT_TRUE(user_->IsKnown(domain.id)) << after;
    EXPECT_EQ(MissingUserElements(user_->Xml(domain.id)), "") << after;
    EXPECT_TRUE(AreDisksIntact(domain)) << after;
  }
};

TEST_F(QemuForeign, ForeignDomains_GuestOperations_AreUnchanged) {
  const UserDomain idle = MakeUserDomain(kOwners, "idle");
  const UserDomain running = MakeUserDomain(kOwnersRunning, "busy");
  const UserDomain saved = MakeUserDomain(kOwnersSaved, "asleep");
  for (const UserDomain* domain : {&idle, &running, &saved}) ASSERT_EQ(user_->Define(UserDomainXml(*domain)), "");
  ASSERT_EQ(user_->EnableAutostart(kOwners), "");
  ASSERT_EQ(user_->Start(kOwnersRunning), "") << libvirtd_->Log();
  ASSERT_EQ(user_->Start(kOwnersSaved), "");
  ASSERT_EQ(user_->ManagedSave(kOwnersSaved), "");
  const auto everything = [&] {
    return user_->Snapshot(kOwners) + user_->Snapshot(kOwnersRunning) + user_->Snapshot(kOwnersSaved);
  };
  const std::string before = everything();
  PutGuest(kGuest, "busy");  // libvirt cannot have two of a name
  PutGuest(kFailing, "failing");
  PutGuest(kDeleted, "deleted");
  // QEMU does not start with a disk that another one writes to.
  Json::Value disk = host_->Record("vdisk", QemuHost::DiskId(kFailing, 0));
  disk["path"] = running.disks[0];
  host_->Put("vdisk", QemuHost::DiskId(kFailing, 0), disk);

  host_->Start();
  EXPECT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  EXPECT_EQ(everything(), before) << "after a start";
  EXPECT_NE(host_->Power(kFailing, "poweron"), 0);
  EXPECT_EQ(everything(), before) << "after a start that failed";
  host_->Restart();
  EXPECT_TRUE(host_->AwaitState(kGuest, "guest_running"));
  EXPECT_EQ(everything(), before) << "after the host was killed";
  EXPECT_EQ(host_->Power(kGuest, "poweroff"), 0);
  EXPECT_TRUE(host_->AwaitOff(kGuest));
  EXPECT_EQ(host_->Delete(kDeleted), 0);
  EXPECT_EQ(host_->Delete(kGuest), 0);
  EXPECT_EQ(everything(), before) << "after deletions";
  EXPECT_FALSE(user_->IsKnown(kGuest));
}

TEST_F(QemuForeign, ForeignDomain_IdOfGuest_IsNeitherReplacedNorRemoved) {
  const UserDomain domain = MakeUserDomain(kOwners, "mine");
  ASSERT_EQ(user_->Define(UserDomainXml(domain)), "");
  ASSERT_EQ(user_->EnableAutostart(kOwners), "");
  const std::string before = user_->Snapshot(kOwners);
  HostGuest guest;
  guest.id = kOwners;
  guest.name = "ours";
  guest.disks = 0;
  host_->PutGuest(guest);
  host_->Start();
  EXPECT_NE(host_->Power(kOwners, "poweron"), 0);
  EXPECT_EQ(user_->Snapshot(kOwners), before) << "after a start";
  host_->Restart();
  EXPECT_NE(host_->Power(kOwners, "poweron"), 0);
  EXPECT_EQ(user_->Snapshot(kOwners), before) << "after the host was killed";
  (void)host_->Delete(kOwners);
  EXPECT_EQ(user_->Snapshot(kOwners), before) << "after a deletion";
  EXPECT_TRUE(AreDisksIntact(domain));
}

TEST_F(QemuForeign, ImportedGuest_RunAndReleased_KeepsUsersDefinition) {
  UserDomain domain = MakeUserDomain(kOwners, "mine");
  domain.firmware = UserDomain::Firmware::kUefi;
  ASSERT_EQ(user_->Define(UserDomainXml(domain)), "");
  ASSERT_EQ(user_->EnableAutostart(kOwners), "");
  ASSERT_EQ(user_->Start(kOwners), "") << libvirtd_->Log();
  ASSERT_EQ(user_->Destroy(kOwners), "");
  const std::vector<std::string> variables = FindNvramFiles(environment_->folder());
  ASSERT_THAT(variables, testing::SizeIs(1));
  Mark(variables[0]);
  host_->Start();
  ImportAll(host_->id());

  ASSERT_EQ(host_->Power(kOwners, "poweron"), 0) << host_->Log();
  ExpectTakenOver(domain, "while it runs");
  EXPECT_NE(user_->Xml(kOwners).find(kOurMark), std::string::npos);
  EXPECT_NE(user_->Xml(kOwners).find("kept="), std::string::npos);
  host_->Restart();
  EXPECT_TRUE(host_->AwaitState(kOwners, "guest_running"));
  EXPECT_EQ(host_->Power(kOwners, "poweroff"), 0);
  EXPECT_TRUE(host_->AwaitOff(kOwners));
  ExpectTakenOver(domain, "after a run");
  Json::Value edit(Json::objectValue);
  edit["vcpu_num"] = 2;
  EXPECT_EQ(host_->Set(kOwners, edit), 0);
  EXPECT_EQ(host_->Power(kOwners, "poweron"), 0);
  KillQemus(environment_->folder());
  EXPECT_TRUE(host_->AwaitOff(kOwners));
  ExpectTakenOver(domain, "after a crash");
  EXPECT_NE(user_->Xml(kOwners).find(">2</vcpu>"), std::string::npos) << user_->Xml(kOwners);
  EXPECT_EQ(FindNvramFiles(environment_->folder()), variables);
  EXPECT_TRUE(HasNvramMark(variables[0]));

  EXPECT_EQ(host_->Code("VEXA.Virtualization.Guest/release", kOwners), 0);
  ExpectUserDomainUnchanged(domain, "after the release");
  EXPECT_EQ(user_->Xml(kOwners).find(kOurMark), std::string::npos);
  EXPECT_FALSE(host_->Has(kOwners));
  EXPECT_EQ(FindNvramFiles(environment_->folder()), variables);
  EXPECT_TRUE(HasNvramMark(variables[0]));
  EXPECT_EQ(user_->Start(kOwners), "");
}

TEST_F(QemuForeign, ImportedGuest_CannotBeStarted_StaysDefined) {
  UserDomain domain = MakeUserDomain(kOwners, "mine");
  domain.screen.clear();
  ASSERT_EQ(user_->Define(UserDomainXml(domain)), "");
  ASSERT_EQ(user_->EnableAutostart(kOwners), "");
  host_->Start();
  ImportAll(host_->id());
  EXPECT_NE(host_->Power(kOwners, "poweron"), 0) << "this machine does not have the address of its screen";
  ExpectTakenOver(domain, "after a start that failed");
  host_->Restart();
  ExpectTakenOver(domain, "after the host was killed");
  EXPECT_EQ(user_->IsActive(kOwners), false);
}

}  // namespace
}  // namespace vexa::test
