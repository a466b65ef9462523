// Guests on QEMU that are suspended and resumed, saved and restored.
#include <filesystem>
#include <functional>
#include <random>
#include <sstream>
#include <thread>

#include "tests/support/qemu_host_test.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr char kGuest[] = "11111111-2222-4333-8444-000000000002";
constexpr char kFrozen[] = "guest_freeze";
constexpr char kRunning[] = "guest_running";
constexpr char kSaved[] = "guest_saved";
constexpr int kAlreadyRunning = 939;
constexpr int kFailed = 901;
constexpr int kDiskOfSuspended = 946;
// The host looks at its guests more often.
constexpr auto kSeveralLooks = 7s;

// The address that is another at each start of the guest's system; empty when it does not answer.
std::string AddressOfThisRun(const QemuHost& host) {
  std::string found;
  (void)Await([&] {
    std::istringstream addresses(host.Addresses(kGuest));
    for (std::string address; addresses >> address;) {
      if (address.starts_with("10.")) found = address;
    }
    return !found.empty();
  });
  return found;
}

int Ask(const QemuHost& host, const std::string& method) {
  return host.Code("VEXA.Virtualization.Guest/" + method, kGuest);
}

class QemuSuspend : public LibvirtHostTest {
 protected:
  void MakeHost() override {
    LibvirtHostTest::MakeHost();
    StartHostWith(kGuest, "sleeper");
  }
  std::chrono::milliseconds GuestTime() const {
    std::optional<std::chrono::milliseconds> time;
    EXPECT_TRUE(Await([&] { return (time = user_->GuestTime(kGuest)).has_value(); }));
    return time.value_or(0ms);
  }
};

TEST_F(QemuSuspend, SuspendedGuest_HostKilled_StandsStillUntilResumed) {
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  const std::string address = AddressOfThisRun(*host_);
  EXPECT_EQ(user_->State(kGuest), "running");
  const auto guest_before = GuestTime();
  const auto begin = steady_clock::now();
  ASSERT_EQ(Ask(*host_, "suspend"), 0) << host_->Log();
  const auto suspended = steady_clock::now();
  EXPECT_EQ(user_->State(kGuest), "paused");
  EXPECT_EQ(host_->State(kGuest), kFrozen);
  EXPECT_EQ(Ask(*host_, "suspend"), 0) << "again succeeds";
  EXPECT_EQ(user_->GuestTime(kGuest), std::nullopt) << "its system answers";

  host_->Restart();
  std::this_thread::sleep_for(kSeveralLooks);
  EXPECT_EQ(user_->State(kGuest), "paused") << "after the host was killed";
  EXPECT_EQ(host_->State(kGuest), kFrozen);
  EXPECT_EQ(host_->Power(kGuest, "poweron"), kAlreadyRunning);
  EXPECT_NE(host_->Delete(kGuest), 0);
  EXPECT_NE(Ask(*host_, "release"), 0);
  Json::Value edit(Json::objectValue);
  edit["vdisks_del"][0]["vdisk_id"] = QemuHost::DiskId(kGuest, 0);
  EXPECT_EQ(host_->Set(kGuest, edit), kDiskOfSuspended);
  EXPECT_EQ(host_->Qemus(kGuest), 1);
  EXPECT_EQ(host_->ChangedDisks(kGuest, 1), "");

  const auto resuming = steady_clock::now();
  ASSERT_EQ(Ask(*host_, "resume"), 0) << host_->Log();
  EXPECT_EQ(user_->State(kGuest), "running");
  EXPECT_EQ(host_->State(kGuest), kRunning);
  EXPECT_EQ(Ask(*host_, "resume"), 0) << "again succeeds";
  EXPECT_EQ(AddressOfThisRun(*host_), address) << "its system was started afresh";
  const auto passed_for_guest = GuestTime() - guest_before;
  const auto passed = steady_clock::now() - begin;
  EXPECT_LT(passed_for_guest, passed - (resuming - suspended) + 2s) << "its clock went on while it was suspended";
}

TEST_F(QemuSuspend, SavedGuest_HostKilled_IsRestoredWithItsMemory) {
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  const std::string address = AddressOfThisRun(*host_);
  ASSERT_EQ(Ask(*host_, "save"), 0) << host_->Log();
  EXPECT_EQ(host_->State(kGuest), kSaved);
  EXPECT_EQ(user_->State(kGuest), "shut off");
  EXPECT_TRUE(user_->IsSaved(kGuest));
  EXPECT_EQ(host_->Qemus(kGuest), 0);
  host_->Restart();
  EXPECT_EQ(host_->State(kGuest), kSaved);
  ASSERT_EQ(Ask(*host_, "restore"), 0) << host_->Log();
  EXPECT_EQ(host_->State(kGuest), kRunning);
  EXPECT_EQ(user_->State(kGuest), "running");
  EXPECT_EQ(AddressOfThisRun(*host_), address) << "its system was started afresh";
  EXPECT_NE(Ask(*host_, "restore"), 0) << "it runs";

  ASSERT_EQ(Ask(*host_, "suspend"), 0);
  ASSERT_EQ(Ask(*host_, "save"), 0) << host_->Log();
  EXPECT_EQ(host_->State(kGuest), kSaved);
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  EXPECT_EQ(user_->State(kGuest), "running");
  EXPECT_EQ(AddressOfThisRun(*host_), address) << "its system was started afresh";
  ASSERT_EQ(host_->Power(kGuest, "poweroff"), 0);
  EXPECT_TRUE(host_->AwaitOff(kGuest));
  EXPECT_NE(Ask(*host_, "restore"), 0) << "nothing is saved";
  EXPECT_EQ(host_->Qemus(kGuest), 0);
}

TEST_F(QemuSuspend, Save_GuestWithDeviceThatCannotBeSaved_IsRefusedAndGoesOn) {
  constexpr char kImported[] = "11111111-2222-4333-8444-000000000005";
  const UserDomain domain = MakeUserDomain(kImported, "audible");
  std::string xml = UserDomainXml(domain);
  const std::string sound = "<sound model='ich9'/>";
  xml.replace(xml.find(sound), sound.size(), "<sound model='usb'/>");
  ASSERT_EQ(user_->Define(xml), "");
  ImportAll(host_->id());
  ASSERT_EQ(host_->Power(kImported, "poweron"), 0) << host_->Log();
  const Json::Value reply = host_->Ask("VEXA.Virtualization.Guest/save", kImported);
  const std::string text = reply.toStyledString();
  EXPECT_EQ(reply["error"]["code"], kFailed) << text;
  EXPECT_NE(text.find("usb-audio"), std::string::npos) << text;
  EXPECT_EQ(user_->State(kImported), "running");
  EXPECT_EQ(host_->State(kImported), kRunning);
  EXPECT_EQ(CountSavedMemoryFiles(), 0);
  EXPECT_EQ(host_->Power(kImported, "poweroff"), 0);
}

// Whatever was written of its memory when the host was killed, the guest's system is the one from before.
void KillWhileSaving(QemuHost& host, const std::function<std::string()>& state_of_domain) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  ASSERT_EQ(host.Power(kGuest, "poweron"), 0) << host.Log();
  const std::string address = AddressOfThisRun(host);
  ASSERT_NE(address, "");
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    std::thread asker([&] { (void)Ask(host, "save"); });
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 1500));
    host.Kill();
    asker.join();
    host.Start();
    ASSERT_TRUE(Await([&] {
      const std::string state = host.State(kGuest);
      return state == kSaved || (state == kRunning && state_of_domain() != "paused");
    })) << host.State(kGuest)
        << host.Log();
    // A libvirt beside the host may still be saving.
    ASSERT_TRUE(Await([&] {
      if (host.State(kGuest) == kRunning) return true;
      const int code = Ask(host, "restore");
      return code == 0;
    })) << host.State(kGuest)
        << host.Log();
    ASSERT_EQ(AddressOfThisRun(host), address) << "its system was started afresh" << host.Log();
  }
  // An incomplete file is not taken for saved memory.
  ASSERT_EQ(host.Power(kGuest, "poweroff"), 0) << host.Log();
  EXPECT_TRUE(host.AwaitOff(kGuest)) << host.State(kGuest) << host.Log();
  EXPECT_EQ(host.Power(kGuest, "poweron"), 0) << host.Log();
  EXPECT_NE(AddressOfThisRun(host), address);
  EXPECT_EQ(host.ChangedDisks(kGuest, 1), "");
}

// As a libvirt leaves it that was killed after it had written the file. A start would restore it on disks that have
// changed since.
TEST_F(QemuSuspend, RunningGuest_WithFileOfInterruptedSave_LosesTheFile) {
  namespace fs = std::filesystem;
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  const std::string address = AddressOfThisRun(*host_);
  ASSERT_EQ(Ask(*host_, "save"), 0) << host_->Log();
  std::string file;
  for (const auto& entry : fs::recursive_directory_iterator(environment_->folder())) {
    if (entry.path().extension() == ".save") file = entry.path();
  }
  ASSERT_NE(file, "");
  fs::copy_file(file, file + ".copy");
  ASSERT_EQ(Ask(*host_, "restore"), 0) << host_->Log();
  libvirtd_->Kill();
  fs::rename(file + ".copy", file);
  libvirtd_->Start();
  EXPECT_TRUE(Await([&] { return CountSavedMemoryFiles() == 0; })) << host_->Log();
  EXPECT_EQ(AddressOfThisRun(*host_), address);
  EXPECT_TRUE(Await([&] { return host_->Log().find("The file with the memory was removed") != std::string::npos; }));
  ASSERT_EQ(host_->Power(kGuest, "poweroff"), 0);
  EXPECT_TRUE(host_->AwaitOff(kGuest)) << host_->State(kGuest);
  EXPECT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
}

TEST_F(QemuSuspend, Save_HostKilledAtAnyMoment_LosesNothing) {
  KillWhileSaving(*host_, [this] { return user_->State(kGuest); });
}

class QemuSuspendEmbedded : public EmbeddedHostTest {
 protected:
  void MakeHost() override {
    EmbeddedHostTest::MakeHost();
    StartHostWith(kGuest, "sleeper");
  }
};

TEST_F(QemuSuspendEmbedded, Save_HostKilledAtAnyMoment_LosesNothing) {
  KillWhileSaving(*host_, [] { return ""; });
}

TEST_F(QemuSuspendEmbedded, SuspendedGuest_HostKilled_StaysSuspended) {
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  const std::string address = AddressOfThisRun(*host_);
  ASSERT_EQ(Ask(*host_, "suspend"), 0) << host_->Log();
  host_->Restart();
  std::this_thread::sleep_for(kSeveralLooks);
  EXPECT_EQ(host_->State(kGuest), kFrozen);
  ASSERT_EQ(Ask(*host_, "resume"), 0) << host_->Log();
  EXPECT_EQ(AddressOfThisRun(*host_), address);
}

}  // namespace
}  // namespace vexa::test
