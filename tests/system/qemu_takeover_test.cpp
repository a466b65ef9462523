// A host that returns does not act on a guest that was recovered from it meanwhile, although the guest's QEMU still
// runs there.
#include <signal.h>

#include <future>
#include <thread>

#include "json/readers.h"
#include "tests/support/qemu_host_test.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr char kGuest[] = "11111111-2222-4333-8444-000000000001";
// 15 s by the promise, and what a machine that is busy with other tests takes.
constexpr auto kGoneTimeout = 20s;

class QemuTakeover : public EmbeddedHostTest {
 protected:
  void MakeHost() override {
    QemuHostOptions options;
    options.store = environment_->folder() + "/store";
    options.runtime = environment_->folder() + "/run-a";
    first_ = std::make_unique<QemuHost>(*environment_, options);
    options.suffix = "-b";
    options.embed_root = environment_->folder() + "/qemu-b";
    options.runtime = environment_->folder() + "/run-b";
    // The repository is the second host's from now on, so that only the guest's host is gone.
    second_ = std::make_unique<QemuHost>(*environment_, options);
    HostGuest guest;
    guest.id = kGuest;
    guest.name = "web-1";
    guest.disks = 0;  // the locks of images on one machine would hide what is to be seen
    first_->PutGuest(guest);
    first_->Start();
    second_->Start();
    ASSERT_EQ(first_->Power(kGuest, "poweron"), 0) << first_->Log();
    ASSERT_TRUE(first_->AwaitState(kGuest, "guest_running"));
    ASSERT_EQ(first_->Qemus(kGuest), 1);
  }
  void TearDown() override {
    if (first_ && first_->pid() > 0) ::kill(first_->pid(), SIGCONT);
    first_.reset();
    second_.reset();
    EmbeddedHostTest::TearDown();
  }

  // Stops the first host where it is not in the middle of a commit, which would keep the other from its own.
  void Suspend() const {
    while (true) {
      ::kill(first_->pid(), SIGSTOP);
      auto commit = std::async(std::launch::async, [this] { second_->Put("test", "freeze", Json::Value(true)); });
      if (commit.wait_for(1s) == std::future_status::ready) return;
      ::kill(first_->pid(), SIGCONT);
    }
  }

  std::string Shown() const {
    const Json::Value data = json::Member(second_->Ask("VEXA.Virtualization.Guest/status", kGuest), "data");
    return json::String(json::Member(data, "status")) + " " + json::String(json::Member(data, "status_type"));
  }
  int Recover(bool is_confirmed) const {
    Json::Value parameters(Json::objectValue);
    parameters["machine_is_off"] = is_confirmed;
    return second_->Code("VEXA.Virtualization.Guest/recover", kGuest, parameters);
  }
  // The second host takes the guest over and starts it.
  void TakeOver() {
    EXPECT_TRUE(Await([&] { return Shown() == "inaccessible error"; }, kGoneTimeout)) << Shown();
    EXPECT_EQ(first_->Qemus(kGuest), 1) << "its machine runs on";
    EXPECT_NE(second_->Power(kGuest, "poweron"), 0) << "the host that is gone has the guest";
    EXPECT_EQ(Recover(false), 972);
    EXPECT_EQ(Recover(true), 0);
    EXPECT_EQ(Shown().substr(0, 8), "shutdown");
    ASSERT_EQ(second_->Power(kGuest, "poweron"), 0) << second_->Log();
    ASSERT_TRUE(second_->AwaitState(kGuest, "guest_running"));
    EXPECT_EQ(first_->Qemus(kGuest), 2) << "on one machine each, were they two machines";
  }
  // The host that was gone ends its machine and leaves the other's alone.
  void ExpectTakenOver() {
    const auto begin = Clock::now();
    bool is_touched = false;
    EXPECT_TRUE(Await([&] {
      is_touched = is_touched || second_->State(kGuest) != "guest_running" ||
                   second_->Stored("/run/" + std::string(kGuest)).find(second_->id()) == std::string::npos;
      return first_->Qemus(kGuest) == 1;
    })) << first_->Log();
    EXPECT_LT(Clock::now() - begin, 30s);
    while (Clock::now() - begin < 10s) {  // the first host has looked at everything by then
      is_touched = is_touched || second_->State(kGuest) != "guest_running";
      std::this_thread::sleep_for(100ms);
    }
    EXPECT_FALSE(is_touched);
    EXPECT_EQ(first_->Qemus(kGuest), 1);
    EXPECT_NE(first_->Log().find("The guest " + std::string(kGuest) +
                                 " was taken from this host while it was gone: its domain here has been stopped."),
              std::string::npos)
        << first_->Log();
    EXPECT_EQ(Shown().substr(0, 7), "running");
    EXPECT_EQ(first_->Stored("/fence/" + first_->id() + "/" + kGuest), "");
    // The host is one like all others again.
    EXPECT_EQ(second_->Power(kGuest, "poweroff"), 0);
    EXPECT_EQ(first_->Qemus(kGuest), 0) << "the remaining domain is the second host's";
  }

  std::unique_ptr<QemuHost> first_;
  std::unique_ptr<QemuHost> second_;
};

TEST_F(QemuTakeover, Takeover_HungHost_EndsTakenDomain) {
  Suspend();
  ASSERT_NO_FATAL_FAILURE(TakeOver());
  ::kill(first_->pid(), SIGCONT);
  ExpectTakenOver();
  EXPECT_NE(first_->Log().find("This host is back, as its incarnation"), std::string::npos) << first_->Log();
}

TEST_F(QemuTakeover, Takeover_KilledHost_EndsTakenDomain) {
  first_->Kill();
  ASSERT_NO_FATAL_FAILURE(TakeOver());
  first_->Start();
  ExpectTakenOver();
}

// A host that was removed from the cluster does not start any more, and still ends what others have now.
TEST_F(QemuTakeover, Takeover_RemovedHost_EndsTakenDomain) {
  first_->Kill();
  EXPECT_TRUE(Await([&] { return Shown() == "inaccessible error"; }, kGoneTimeout)) << Shown();
  Json::Value parameters(Json::objectValue);
  parameters["host_id"] = first_->id();
  parameters["machine_is_off"] = true;
  EXPECT_EQ(second_->Code("VEXA.Virtualization.Host/forget", "", parameters), 973);
  parameters["recover_guests"] = true;
  ASSERT_EQ(second_->Code("VEXA.Virtualization.Host/forget", "", parameters), 0);
  ASSERT_EQ(second_->Power(kGuest, "poweron"), 0) << second_->Log();
  EXPECT_EQ(first_->Qemus(kGuest), 2);
  EXPECT_EQ(first_->StartExpectingFailure(), 1);
  EXPECT_NE(first_->Log().find("was removed from the cluster by root"), std::string::npos) << first_->Log();
  EXPECT_EQ(first_->Qemus(kGuest), 1);
  EXPECT_EQ(second_->Power(kGuest, "poweroff"), 0);
  EXPECT_EQ(first_->Qemus(kGuest), 0) << "the remaining domain is the second host's";
}

// A call that was in progress when the host hung is not carried out when the host resumes.
TEST_F(QemuTakeover, HungHost_ResumedCall_ChangesNothing) {
  Suspend();
  std::thread late([&] { (void)first_->Power(kGuest, "reboot"); });
  ASSERT_NO_FATAL_FAILURE(TakeOver());
  ::kill(first_->pid(), SIGCONT);
  late.join();
  ExpectTakenOver();
}

}  // namespace
}  // namespace vexa::test
