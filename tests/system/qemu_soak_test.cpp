// A host that is killed at any moment while its guests start, stop, are saved and edited beside a user's own domain:
// no part of a guest is lost, the other domain stays unchanged, and no guest runs twice. VEXA_SOAK_ROUNDS says how
// often.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <thread>

#include "host/records/run_record.h"
#include "tests/support/qemu_host_test.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;

constexpr char kOwners[] = "11111111-2222-4333-8444-0000000000f1";
constexpr char kImported[] = "11111111-2222-4333-8444-0000000000f2";
constexpr char kUefi[] = "11111111-2222-4333-8444-000000000001";
constexpr char kPlain[] = "11111111-2222-4333-8444-000000000002";
constexpr char kSaved[] = "11111111-2222-4333-8444-000000000003";
constexpr const char* kBusy[] = {kUefi, kPlain, kImported};
constexpr int kRounds = 3;

class QemuSoak : public LibvirtHostTest {
 protected:
  void MakeHost() override {
    LibvirtHostTest::MakeHost();
    imported_ = MakeUserDomain(kImported, "taken over");
    ASSERT_EQ(user_->Define(UserDomainXml(imported_)), "");
    ASSERT_EQ(user_->EnableAutostart(kImported), "");
    host_->Start();
    ImportAll(host_->id());
    host_->Kill();
    owners_ = MakeUserDomain(kOwners, "not ours");
    ASSERT_EQ(user_->Define(UserDomainXml(owners_)), "");
    ASSERT_EQ(user_->EnableAutostart(kOwners), "");
    foreign_ = user_->Snapshot(kOwners);
    for (const char* const id : {kUefi, kPlain, kSaved}) {
      HostGuest guest;
      guest.id = id;
      guest.name = std::string("guest ") + id;
      guest.disks = 2;
      guest.has_uefi = id == std::string(kUefi);
      host_->PutGuest(guest);
    }
    host_->Start();
    for (const char* const id : {kUefi, kSaved}) ASSERT_EQ(host_->Power(id, "poweron"), 0) << host_->Log();
    ASSERT_EQ(host_->Power(kUefi, "poweroff"), 0);
    ASSERT_TRUE(host_->AwaitOff(kUefi));
    const auto variables = FindNvramFiles(environment_->folder());
    ASSERT_THAT(variables, testing::SizeIs(1));
    variables_ = variables[0];
    Mark(variables_);
    ASSERT_EQ(user_->ManagedSave(kSaved), "");
    ASSERT_TRUE(host_->AwaitState(kSaved, "guest_saved"));
  }

  // Asks without end, until no host answers.
  pid_t StartRandomActions(unsigned seed) const {
    const pid_t asker = ::fork();
    if (asker != 0) return asker;
    environment_->ReleaseInChild();
    std::mt19937 random(seed);
    for (int code = 0; code != -1;) {
      const char* const guest = kBusy[random() % std::size(kBusy)];
      Json::Value edit(Json::objectValue);
      edit["desc"] = std::to_string(random());
      switch (random() % 4) {
        case 0:
        case 1:
          code = host_->Power(guest, "poweron");
          break;
        case 2:
          code = host_->Power(guest, "poweroff");
          break;
        default:
          code = host_->Set(guest, edit);
      }
    }
    ::_exit(0);
  }

  void ExpectNothingLost() const {
    EXPECT_EQ(host_->ChangedDisks(kUefi, 2) + host_->ChangedDisks(kPlain, 2) + host_->ChangedDisks(kSaved, 2), "");
    EXPECT_TRUE(AreDisksIntact(imported_));
    EXPECT_TRUE(HasNvramMark(variables_));
    EXPECT_EQ(FindNvramFiles(environment_->folder()).size(), 1U);
    EXPECT_EQ(CountSavedMemoryFiles(), 1);
    EXPECT_EQ(user_->Snapshot(kOwners), foreign_);
    EXPECT_EQ(MissingUserElements(user_->Xml(kImported)), "");
    const bool is_taken_over = user_->Xml(kImported).find("urn:vexa:guest:1") != std::string::npos;
    EXPECT_FALSE(is_taken_over && user_->IsAutostarting(kImported));
    for (const char* const guest : kBusy) EXPECT_LE(host_->Qemus(guest), 1) << guest;
  }
  // What is stored of a guest, and what runs of it.
  bool RecordsMatchMachines(const char* guest) const {
    const bool runs = host_->Qemus(guest) == 1;
    return runs == (host_->State(guest) == "guest_running") && runs != host_->Stored(records::RunKey(guest)).empty();
  }

  UserDomain imported_;
  UserDomain owners_;
  std::string foreign_;
  std::string variables_;
};

TEST_F(QemuSoak, Kill_AtAnyMoment_NothingIsLostOrRunsTwice) {
  const char* const rounds_text = std::getenv("VEXA_SOAK_ROUNDS");
  const int rounds = rounds_text != nullptr ? std::atoi(rounds_text) : kRounds;
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < rounds && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const pid_t asker = StartRandomActions(static_cast<unsigned>(random()));
    ASSERT_GT(asker, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 4000));
    host_->Kill();
    ::waitpid(asker, nullptr, 0);
    ExpectNothingLost();
    host_->Start();
    for (const char* const guest : kBusy) {
      EXPECT_TRUE(Await([&] { return RecordsMatchMachines(guest); }))
          << guest << ": " << host_->Qemus(guest) << " QEMUs, " << host_->State(guest) << ", "
          << host_->Stored(records::RunKey(guest)) << "\n"
          << host_->Log();
    }
    EXPECT_EQ(host_->State(kSaved), "guest_saved");
    ExpectNothingLost();
  }
  EXPECT_EQ(host_->Power(kSaved, "poweron"), 0) << "what was saved at first is restored at last";
  EXPECT_FALSE(user_->IsSaved(kSaved));
}

}  // namespace
}  // namespace vexa::test
