// Guests in libvirt beyond their runs: saved memory, and definitions made by users.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>

#include "host/records/domain_record.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "tests/support/libvirt_faults.h"
#include "tests/support/matchers.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_control_fixture.h"

namespace vexa::guests {
namespace {

using test::AutostartAsUser;
using test::DefineAsUser;
using test::FailingStarts;
using test::IsAutostartedAsUser;
using test::SaveAsUser;
using test::StartAsUser;
using test::XmlAsUser;

constexpr char kGrantsKey[] = "/dash/guest_admin/users_1000/object";
constexpr char kMark[] = "urn:vexa:guest:1";

// With more in it than the records know.
std::string UserXml(const std::string& id, const std::string& name) {
  return "<domain type='test'><name>" + name + "</name><uuid>" + id +
         "</uuid><title>The owned one</title>"
         "<metadata><app:note xmlns:app='http://example.com/app'>keep me</app:note></metadata>"
         "<memory unit='MiB'>64</memory><vcpu>1</vcpu><os><type>hvm</type></os>"
         "<clock offset='localtime'/></domain>";
}

class GuestDefinition : public GuestControlTest {
 protected:
  // As an import does.
  void PutImported(const std::string& xml, bool autostart = false, bool has_own_images = false) {
    ASSERT_TRUE(host_.store().Commit(
        {{}, {{records::DomainKey(kGuest), records::SerializeDomain({xml, autostart, has_own_images})}}}));
  }
  // A host that looks after its guests often, and a guest that libvirt starts with the machine.
  void StartWithAutostartedGuest(bool is_imported_with_autostart) {
    GuestControlOptions options = Options();
    options.maintenance_interval = 20ms;
    Start(std::move(options));
    const std::string xml = UserXml(kGuest, "web-1");
    ASSERT_TRUE(DefineAsUser(xml));
    ASSERT_TRUE(AutostartAsUser(kGuest));
    PutImported(xml, is_imported_with_autostart);
  }
  bool HasGuest() { return StoredGuest().has_value(); }
  void Save() {
    ASSERT_TRUE(SaveAsUser(kGuest));
    ExpectState(states::saved);
  }
};

// --- saved memory

TEST_F(GuestDefinition, SavedGuest_Observed_IsSavedAndKeepsItsHost) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  Save();
  const auto run = RunOf();
  ASSERT_TRUE(run);
  EXPECT_TRUE(run->saved);
  EXPECT_EQ(run->host_id, HostId());
  EXPECT_FALSE(control_->FindRunningGuest(kGuest));
  EXPECT_REFUSED(control_->SetHost(kGuest, "host-2"), 910, "saved memory");
  EXPECT_REFUSED(control_->PowerOff(kGuest, kAlice), 911, "");
  EXPECT_REFUSED(control_->ShutDown(kGuest, kAlice), 911, "");
  EXPECT_REFUSED(control_->Release(kGuest, kAlice), 910, "saved memory");
  EXPECT_EQ(State(), states::saved);
}

TEST_F(GuestDefinition, SavedGuest_Rated_UsesNoProcessorsOrMemory) {
  StartWithLargeGuest();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_REFUSED(control_->PowerOn(kOther, kAlice), 927, "");
  Save();
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
}

TEST_F(GuestDefinition, PowerOn_SavedGuest_Resumes) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  Save();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(State(), states::running);
  ASSERT_TRUE(RunOf());
  EXPECT_FALSE(RunOf()->saved);
}

TEST_F(GuestDefinition, SavedGuest_StartedByUser_IsRunning) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  Save();
  ASSERT_TRUE(StartAsUser(kGuest));
  ExpectState(states::running);
  EXPECT_FALSE(RunOf()->saved);
}

TEST_F(GuestDefinition, DiscardSaved_SavedGuest_IsShutDown) {
  Start();
  EXPECT_REFUSED(control_->DiscardSaved(kGuest, kAlice), 911, "");
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_REFUSED(control_->DiscardSaved(kGuest, kAlice), 911, "no saved memory");
  Save();
  EXPECT_DONE(control_->DiscardSaved(kGuest, kAlice));
  EXPECT_EQ(State(), states::shutdown);
  EXPECT_EQ(RunOf(), std::nullopt);
  EXPECT_EQ(XmlAsUser(kGuest), "");
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
}

TEST_F(GuestDefinition, SavedGuest_Deleted_LosesSavedMemory) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  Save();
  EXPECT_DONE(control_->Delete(kGuest, kAlice));
  EXPECT_FALSE(HasGuest());
  EXPECT_EQ(RunOf(), std::nullopt);
  EXPECT_EQ(XmlAsUser(kGuest), "");
  const auto snapshot = test::Require(host_.store().Read());
  EXPECT_FALSE(test::Require(snapshot->Get(records::UndefineKey(HostId(), kGuest))));
}

TEST_F(GuestDefinition, SavedDomain_NotAGuest_IsUnchanged) {
  Start();
  ASSERT_TRUE(DefineAsUser(UserXml(kOther, "foreign")));
  ASSERT_TRUE(StartAsUser(kOther));
  ASSERT_TRUE(SaveAsUser(kOther));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_NE(XmlAsUser(kOther), "");
  EXPECT_EQ(RunOf(kOther), std::nullopt);
}

// --- definitions of others

TEST_F(GuestDefinition, Definition_MadeByHost_IsRemovedAfterRun) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_THAT(XmlAsUser(kGuest), HasSubstr(kMark));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_EQ(XmlAsUser(kGuest), "");
}

TEST_F(GuestDefinition, PowerOn_UserDefinedDomainNotImported_IsRefusedAndKept) {
  Start();
  ASSERT_TRUE(DefineAsUser(UserXml(kGuest, "web-1")));
  ASSERT_TRUE(AutostartAsUser(kGuest));
  const std::string before = XmlAsUser(kGuest);
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 901, "that VEXA did not make");
  EXPECT_EQ(XmlAsUser(kGuest), before);
  EXPECT_TRUE(IsAutostartedAsUser(kGuest));
  EXPECT_EQ(RunOf(), std::nullopt);
  EXPECT_EQ(State(), states::shutdown);
}

TEST_F(GuestDefinition, UserDomain_StartedAndStoppedByUser_KeepsDefinition) {
  Start();
  ASSERT_TRUE(DefineAsUser(UserXml(kGuest, "web-1")));
  const std::string before = XmlAsUser(kGuest);
  ASSERT_TRUE(StartAsUser(kGuest));
  ExpectState(states::running);
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  ExpectNoRun();
  EXPECT_EQ(XmlAsUser(kGuest), before);
}

TEST_F(GuestDefinition, ImportedDefinition_AfterRun_KeepsUnrecordedParts) {
  Start();
  const std::string xml = UserXml(kGuest, "web-1");
  ASSERT_TRUE(DefineAsUser(xml));
  ASSERT_TRUE(AutostartAsUser(kGuest));
  PutImported(xml);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  const std::string after = XmlAsUser(kGuest);
  for (const char* kept : {"The owned one", "keep me", "localtime", kMark}) EXPECT_THAT(after, HasSubstr(kept));
}

// libvirt would start it with the machine, whether the guest still belongs to this host or not.
TEST_F(GuestDefinition, ImportedDefinition_WithAutostart_HasNoneUntilItsRelease) {
  test::ClearCapturedSyslog();
  ASSERT_NO_FATAL_FAILURE(StartWithAutostartedGuest(false));
  PutGuest(kGuest, "web-1");  // as an import does
  const auto end = std::chrono::steady_clock::now() + 30s;
  while (IsAutostartedAsUser(kGuest) && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(5ms);
  EXPECT_FALSE(IsAutostartedAsUser(kGuest));
  EXPECT_EQ(Parsed(*StoredGuest())["autorun"], Json::Value(1)) << "VEXA starts it";
  EXPECT_THAT(XmlAsUser(kGuest), Not(HasSubstr(kMark))) << "it is its owner's until the first start";
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_FALSE(IsAutostartedAsUser(kGuest));
  EXPECT_TRUE(test::SyslogContains("libvirt was set to start the guest " + std::string(kGuest) +
                                   " with the machine. The setting was cleared, because VEXA starts its guests"));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_FALSE(IsAutostartedAsUser(kGuest));
  EXPECT_DONE(control_->Release(kGuest, kAlice));
  EXPECT_TRUE(IsAutostartedAsUser(kGuest));
}

TEST_F(GuestDefinition, Release_ImportedGuestNeverStarted_RestoresAutostart) {
  ASSERT_NO_FATAL_FAILURE(StartWithAutostartedGuest(false));
  PutGuest(kGuest, "web-1");
  const auto end = std::chrono::steady_clock::now() + 30s;
  while (IsAutostartedAsUser(kGuest) && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(5ms);
  EXPECT_FALSE(IsAutostartedAsUser(kGuest));
  const std::string before = XmlAsUser(kGuest);
  EXPECT_DONE(control_->Release(kGuest, kAlice));
  EXPECT_TRUE(IsAutostartedAsUser(kGuest));
  EXPECT_EQ(XmlAsUser(kGuest), before);
}

// Otherwise nobody would start the guest.
TEST_F(GuestDefinition, Autostart_CannotBeTakenOver_StaysSetAndIsLogged) {
  test::ClearCapturedSyslog();
  GuestControlOptions options = Options();
  std::atomic<bool> is_set_up = false;
  options.before_step = [&](std::string_view step) {
    if (step != "autostart: found") return;
    while (!is_set_up) std::this_thread::sleep_for(1ms);
    host_.store().FailCommits();
  };
  Start(std::move(options));
  const std::string xml = UserXml(kGuest, "web-1");
  ASSERT_TRUE(DefineAsUser(xml));
  ASSERT_TRUE(AutostartAsUser(kGuest));
  PutImported(xml);
  PutGuest(kGuest, "web-1");
  is_set_up = true;
  const std::string line = "libvirt is set to start the guest " + std::string(kGuest) +
                           " with the machine, and the setting could not be cleared: ";
  const auto end = std::chrono::steady_clock::now() + 30s;
  while (!test::SyslogContains(line) && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(5ms);
  EXPECT_TRUE(test::SyslogContains(line));
  EXPECT_TRUE(IsAutostartedAsUser(kGuest));
  Kill();
  host_.store().Heal();
}

// Set with virsh, or by a version of this program that kept it.
TEST_F(GuestDefinition, Autostart_OfOwnDefinition_IsClearedAtStart) {
  const std::string foreign = "c4a9e7d2-5b31-4f86-a07c-1e2d3f4a5b6d";
  GuestControlOptions options = Options();
  options.hypervisor.mode = "test:///default";  // its domains stay while a connection is open; it has little memory
  PutGuest(kGuest, "web-1", Parsed(R"({"vram_size":1})"));
  Start(options);
  const std::unique_ptr<virConnect, int (*)(virConnectPtr)> connection(virConnectOpen("test:///default"),
                                                                       virConnectClose);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ASSERT_TRUE(DefineAsUser(UserXml(foreign, "another one")));
  ASSERT_TRUE(AutostartAsUser(kGuest));
  ASSERT_TRUE(AutostartAsUser(foreign));
  Kill();
  Start(options);
  EXPECT_FALSE(IsAutostartedAsUser(kGuest));
  EXPECT_TRUE(IsAutostartedAsUser(foreign));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
}

TEST_F(GuestDefinition, ImportedDefinition_StartFails_IsKept) {
  Start();
  const std::string xml = UserXml(kGuest, "web-1");
  ASSERT_TRUE(DefineAsUser(xml));
  PutImported(xml);
  {
    const FailingStarts failing({.code = VIR_ERR_INTERNAL_ERROR, .message = "no"});
    EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 901, "no");
  }
  EXPECT_THAT(XmlAsUser(kGuest), HasSubstr("The owned one"));
  EXPECT_EQ(RunOf(), std::nullopt);
}

// Else the guest would be refused from then on for want of a file that libvirt makes at the first start.
TEST_F(GuestDefinition, Nvram_NotYetCreated_IsNotRecorded) {
  const std::string path = host_.folder().File("made_VARS.fd");
  std::string xml = UserXml(kGuest, "web-1");
  const std::string os = "<os><type>hvm</type></os>";
  xml.replace(
      xml.find(os), os.size(),
      "<os><type>hvm</type><loader readonly='yes' type='pflash'>/firmware.fd</loader><nvram>" + path + "</nvram></os>");
  PutGuest(kGuest, "web-1", Parsed(R"({"use_ovmf":true})"));
  PutImported(xml);
  Start();
  {
    const FailingStarts failing({.code = VIR_ERR_INTERNAL_ERROR, .message = "no"});
    EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 901, "no");
  }
  EXPECT_THAT(*StoredGuest(), Not(HasSubstr("nvram")));
  std::ofstream(path) << "variables";
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_THAT(*StoredGuest(), HasSubstr(R"("nvram":")" + path));
}

// What the user has changed since the import counts, and is what is given back.
TEST_F(GuestDefinition, ImportedDefinition_ChangedByUserBeforeFirstStart_IsUsed) {
  Start();
  PutImported(UserXml(kGuest, "web-1"));
  std::string changed = UserXml(kGuest, "web-1");
  changed.replace(changed.find("The owned one"), 13, "Changed since!");
  ASSERT_TRUE(DefineAsUser(changed));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_THAT(XmlAsUser(kGuest), HasSubstr("Changed since!"));
  const auto snapshot = test::Require(host_.store().Read());
  const auto stored = test::Require(records::ReadDomain(*snapshot, kGuest));
  ASSERT_TRUE(stored);
  EXPECT_THAT(stored->domain.xml, HasSubstr("Changed since!"));
  EXPECT_THAT(stored->domain.xml, Not(HasSubstr(kMark)));
}

// Otherwise a guest whose image was of another format could not be started.
TEST_F(GuestDefinition, ImportedDefinition_ImagesWereCopied_NamesTheCopies) {
  const auto with_disk = [](const std::string& format, const std::string& path) {
    std::string xml = UserXml(kGuest, "web-1");
    xml.insert(xml.find("</domain>"), "<devices><disk type='file' device='disk'><driver name='qemu' type='" + format +
                                          "'/><source file='" + path +
                                          "'/><target dev='vda' bus='virtio'/></disk></devices>");
    return xml;
  };
  Start();
  PutImported(with_disk("qcow2", "/images/copy.qcow2"), false, true);
  std::string changed = with_disk("vmdk", "/old/image.vmdk");
  changed.replace(changed.find("The owned one"), 13, "Changed since!");
  ASSERT_TRUE(DefineAsUser(changed));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  const auto stored = test::Require(records::ReadDomain(*test::Require(host_.store().Read()), kGuest));
  ASSERT_TRUE(stored);
  EXPECT_TRUE(stored->domain.has_own_images);
  EXPECT_THAT(stored->domain.xml, HasSubstr("Changed since!"));
  EXPECT_THAT(stored->domain.xml, HasSubstr("/images/copy.qcow2"));
  EXPECT_THAT(stored->domain.xml, Not(HasSubstr("vmdk")));
}

TEST_F(GuestDefinition, Release_ImportedGuest_RestoresDefinitionAndRemovesGuest) {
  Start();
  const std::string xml = UserXml(kGuest, "web-1");
  ASSERT_TRUE(DefineAsUser(xml));
  PutImported(xml, true);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_REFUSED(control_->Release(kGuest, kAlice), 910, "");
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  ASSERT_TRUE(host_.store().Commit({{}, {{kGrantsKey, R"({"guests":{")" + std::string(kGuest) + R"(":true}})"}}}));
  EXPECT_DONE(control_->Release(kGuest, kAlice));
  EXPECT_FALSE(HasGuest());
  EXPECT_THAT(std::string(test::Require(test::Require(host_.store().Read())->Get(kGrantsKey))->text),
              Not(HasSubstr(kGuest)))
      << "who may use it";
  EXPECT_TRUE(IsAutostartedAsUser(kGuest));
  const std::string after = XmlAsUser(kGuest);
  EXPECT_THAT(after, HasSubstr("The owned one"));
  EXPECT_THAT(after, HasSubstr("keep me"));
  EXPECT_THAT(after, Not(HasSubstr(kMark)));
}

// Whatever ends the host in between, asking again does all of it.
TEST_F(GuestDefinition, Release_Interrupted_RestoresAutostartOnRetry) {
  GuestControlOptions options = Options();
  bool is_armed = true;
  options.before_step = [&](std::string_view step) {
    if (step == "release: marked" && std::exchange(is_armed, false)) throw std::runtime_error("cut off");
  };
  PutImported(UserXml(kGuest, "web-1"), true);
  Start(std::move(options));
  EXPECT_THROW((void)control_->Release(kGuest, kAlice), std::runtime_error);
  EXPECT_TRUE(HasGuest());
  EXPECT_DONE(control_->Release(kGuest, kAlice));
  EXPECT_FALSE(HasGuest());
  EXPECT_TRUE(IsAutostartedAsUser(kGuest));
  EXPECT_THAT(XmlAsUser(kGuest), Not(HasSubstr(kMark)));
}

TEST_F(GuestDefinition, Release_NativeGuest_LeavesUntaggedDefinition) {
  Start();
  EXPECT_DONE(control_->Release(kGuest, kAlice));
  EXPECT_FALSE(HasGuest());
  EXPECT_THAT(XmlAsUser(kGuest), HasSubstr("<name>web-1</name>"));
  EXPECT_THAT(XmlAsUser(kGuest), Not(HasSubstr(kMark)));
}

TEST_F(GuestDefinition, Release_NotPossible_IsRefused) {
  PutGuest(kOther, "web-2", Parsed(R"({"host_id":"host-2"})"));
  Start();
  EXPECT_REFUSED(control_->Release(kOther, kAlice), 912, "host-2");
  EXPECT_REFUSED(control_->Release("c4a9e7d2-5b31-4f86-a07c-000000000000", kAlice), 403, "");
}

TEST_F(GuestDefinition, Delete_ImportedGuest_RemovesDefinitionMadeByHost) {
  Start();
  const std::string xml = UserXml(kGuest, "web-1");
  ASSERT_TRUE(DefineAsUser(xml));
  PutImported(xml);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_NE(XmlAsUser(kGuest), "");
  EXPECT_DONE(control_->Delete(kGuest, kAlice));
  EXPECT_EQ(XmlAsUser(kGuest), "");
}

// Its libvirt would start it with the machine, beside the host that has the guest now.
TEST_F(GuestDefinition, SetHost_OldHost_UndefinesGuest) {
  ASSERT_NO_FATAL_FAILURE(StartWithAutostartedGuest(false));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_DONE(control_->SetHost(kGuest, "host-2"));
  const auto end = std::chrono::steady_clock::now() + 20s;
  while (!XmlAsUser(kGuest).empty() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(5ms);
  EXPECT_EQ(XmlAsUser(kGuest), "");
  EXPECT_TRUE(HasGuest());
}

TEST_F(GuestDefinition, SetHost_GuestReturns_RestoresAutostart) {
  ASSERT_NO_FATAL_FAILURE(StartWithAutostartedGuest(true));
  EXPECT_DONE(control_->SetHost(kGuest, "host-2"));
  // Never started here: it is its owner's, and must not start beside the other host's.
  const auto end = std::chrono::steady_clock::now() + 20s;
  while (IsAutostartedAsUser(kGuest) && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(5ms);
  EXPECT_FALSE(IsAutostartedAsUser(kGuest));
  EXPECT_NE(XmlAsUser(kGuest), "");
  EXPECT_DONE(control_->SetHost(kGuest, HostId()));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_DONE(control_->Release(kGuest, kAlice));
  EXPECT_TRUE(IsAutostartedAsUser(kGuest));
}

TEST_F(GuestDefinition, SavedGuest_BeingDeleted_IsBusy) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  Save();
  ASSERT_TRUE(host_.store().Commit(
      {{},
       {{records::DeletionKey(kGuest),
         R"({"host_id":"host-2","user":"bob","since":1700000000,"stage":"hiding","files":[]})"}}}));
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 915, "bob");
  EXPECT_EQ(State(), states::saved);
}

// --- machines that run although nobody has them

TEST_F(GuestDefinition, Import_DomainRunning_GuestIsRunningImmediately) {
  GuestControlOptions options = Options();
  options.maintenance_interval = 1h;
  Start(std::move(options));
  ASSERT_TRUE(DefineAsUser(UserXml(kOther, "web-2")));
  ASSERT_TRUE(StartAsUser(kOther));
  PutGuest(kOther, "web-2");
  ExpectState(states::running, kOther);
  EXPECT_TRUE(RunOf(kOther));
}

TEST_F(GuestDefinition, RunningDomain_StartedByAnyone_CannotBeDeletedMovedOrEdited) {
  PutGuest(kGuest, "web-1", Parsed(R"({"host_id":"host-2"})"));
  Start();
  ASSERT_TRUE(DefineAsUser(UserXml(kGuest, "web-1")));
  ASSERT_TRUE(StartAsUser(kGuest));
  EXPECT_REFUSED(control_->Delete(kGuest, kAlice), 910, "still runs on this host");
  EXPECT_REFUSED(control_->SetHost(kGuest, HostId()), 910, "still runs on this host");
  EXPECT_TRUE(HasGuest());
}

TEST_F(GuestDefinition, DeleteAndMove_HypervisorUnreachable_AreRefused) {
  Start();
  {
    const test::FailingConnects failing({.code = VIR_ERR_NO_CONNECT, .message = "gone", .domain = VIR_FROM_RPC});
    test::CloseLastConnection();
    EXPECT_REFUSED(control_->Delete(kGuest, kAlice), 949, "unknown whether");
    EXPECT_REFUSED(control_->SetHost(kGuest, "host-2"), 949, "unknown whether");
  }
  EXPECT_TRUE(HasGuest());
}

}  // namespace
}  // namespace vexa::guests
