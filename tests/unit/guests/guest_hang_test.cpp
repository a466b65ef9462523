// Guests and storage that hang, and what fails on the host's own threads: neither holds up or ends the rest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <new>
#include <stdexcept>

#include "host/guests/shut_downs.h"
#include "tests/support/libvirt_faults.h"
#include "tests/unit/guests/guest_control_fixture.h"

namespace vexa::guests {
namespace {

ShutDownsOptions Quick() {
  ShutDownsOptions options;
  options.wait = 10s;
  options.press_interval = 5ms;
  options.on_given_up = [](const std::string&) {};
  return options;
}

TEST(ShutDowns, ShutDowns_GuestHangs_OthersAreStillPressed) {
  std::promise<void> go_on;
  const std::shared_future<void> gate = go_on.get_future().share();
  std::promise<void> pressed;
  ShutDownsOptions options = Quick();
  options.press = [&](const std::string& id) {
    if (id == "hangs") {
      gate.wait();
      return false;
    }
    pressed.set_value();
    return false;
  };
  ShutDowns shut_downs(std::move(options));
  shut_downs.Begin("hangs");
  std::this_thread::sleep_for(20ms);
  shut_downs.Begin("listens");
  EXPECT_EQ(pressed.get_future().wait_for(10s), std::future_status::ready);
  EXPECT_FALSE(shut_downs.Stop(20ms)) << "a press has not ended";
  go_on.set_value();
  EXPECT_TRUE(shut_downs.Stop(10s));
}

TEST(ShutDowns, ShutDowns_PressThrows_IsRetried) {
  std::atomic<int> presses = 0;
  std::promise<void> again;
  ShutDownsOptions options = Quick();
  options.press = [&](const std::string&) -> bool {
    if (++presses == 1) throw std::bad_alloc();
    again.set_value();
    return false;
  };
  ShutDowns shut_downs(std::move(options));
  shut_downs.Begin("guest");
  EXPECT_EQ(again.get_future().wait_for(10s), std::future_status::ready);
}

TEST(ShutDowns, ShutDown_WaitIsOver_IsGivenUpOnce) {
  std::atomic<int> given_up = 0;
  std::promise<void> done;
  ShutDownsOptions options = Quick();
  options.wait = 30ms;
  options.press = [](const std::string&) { return true; };
  options.on_given_up = [&](const std::string&) {
    if (++given_up == 1) done.set_value();
  };
  ShutDowns shut_downs(std::move(options));
  shut_downs.Begin("guest");
  EXPECT_EQ(done.get_future().wait_for(10s), std::future_status::ready);
  EXPECT_FALSE(shut_downs.IsInProgress("guest"));
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(given_up, 1);
}

using GuestHang = GuestControlTest;

TEST_F(GuestHang, Maintenance_Exception_Continues) {
  std::atomic<bool> is_armed = true;
  GuestControlOptions options = Options();
  options.maintenance_interval = 20ms;
  options.before_step = [&](std::string_view step) {
    if (step == "reconcile: off recorded" && is_armed.exchange(false)) throw std::bad_alloc();
  };
  Start(std::move(options));
  PutRun(RunHere());
  const auto end = std::chrono::steady_clock::now() + 20s;
  while (is_armed && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
  EXPECT_FALSE(is_armed);
  ExpectNoRun();
  PutRun(RunHere());
  ExpectNoRun();
}

TEST_F(GuestHang, EventHandler_Throws_LaterEventsAreHandled) {
  std::atomic<bool> is_armed = false;
  GuestControlOptions options = Options();
  options.before_step = [&](std::string_view step) {
    if (step == "reconcile: state stored" && is_armed.exchange(false)) throw std::runtime_error("no");
  };
  Start(std::move(options));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  is_armed = true;
  ASSERT_TRUE(test::SaveAsUser(kGuest));
  const auto end = std::chrono::steady_clock::now() + 20s;
  while (is_armed && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
  EXPECT_FALSE(is_armed);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(State(), states::running);
}

// Storage or networks that hang are asked about outside of the lock that starts take turns on.
TEST_F(GuestHang, PowerOn_NetworkQueryHangs_DelaysNoOtherGuest) {
  std::promise<void> asked;
  std::promise<void> go_on;
  host_.Put("vnic", "nic-1", Parsed(R"({"guest_id":"x","network_name":"br-hangs","mac_address":"02:00:00:00:00:01",
      "vnic_type":1})"));
  PutGuest(kGuest, "web-1", Parsed(R"({"vnics":["nic-1"]})"));
  PutGuest(kOther, "web-2");
  GuestControlOptions options = Options();
  options.has_network = [&](const std::string&) {
    asked.set_value();
    go_on.get_future().wait();
    return false;
  };
  Start(std::move(options));
  std::thread first([&] { EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 917, "br-hangs"); });
  asked.get_future().wait();
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_EQ(State(kOther), states::running);
  // A start that has not come to the hypervisor never will.
  EXPECT_DONE(control_->Fence(kGuest));
  go_on.set_value();
  first.join();
}

// Through whichever host an edit comes.
TEST_F(GuestHang, Set_PinsOfRunningGuest_AreRatedByItsHost) {
  host_.Put("host", "host-2", Parsed(R"({"name":"nas-2","cpu_cores":4})"));
  PutGuest(kGuest, "web-1", Parsed(R"({"host_id":"host-2","vcpu_num":4})"));
  RunRecord run = RunHere();
  run.host_id = "host-2";
  PutRun(run);
  run.pinned_cpus = {2, 3};
  PutRun(run, kOther);
  Start();
  EXPECT_REFUSED(control_->Edit(kGuest, Parsed(R"({"cpu_pin_num":2})"), kAlice), 2101, "dedicated to other guests");
  EXPECT_DONE(control_->Edit(kGuest, Parsed(R"({"cpu_pin_num":1})"), kAlice));
}

}  // namespace
}  // namespace vexa::guests
