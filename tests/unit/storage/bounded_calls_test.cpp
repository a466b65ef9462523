#include "host/storage/bounded_calls.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

namespace vexa::storage {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

// A call that hangs until the test releases it.
class Hang {
 public:
  ~Hang() { Release(); }
  std::function<void()> Call() {
    return [released = released_, count = returned_] {
      released.wait();
      ++*count;
    };
  }
  void Release() {
    if (!is_released_) release_.set_value();
    is_released_ = true;
  }
  int returned() const { return *returned_; }

 private:
  std::promise<void> release_;
  std::shared_future<void> released_{release_.get_future()};
  std::shared_ptr<std::atomic<int>> returned_ = std::make_shared<std::atomic<int>>(0);
  bool is_released_ = false;
};

TEST(BoundedCallsTest, Wait_CallReturns_ReturnsTrue) {
  BoundedCalls calls(seconds(60));
  const auto value = std::make_shared<int>(0);
  auto call = calls.Begin("a", [value] { *value = 7; });
  ASSERT_TRUE(call.Wait());
  EXPECT_EQ(*value, 7);
}

TEST(BoundedCallsTest, Begin_HangingCall_IsAbandonedAndNameRefusedUntilReturn) {
  Hang hang;
  BoundedCalls calls(seconds(1));
  EXPECT_FALSE(calls.Begin("a", hang.Call()).Wait());
  const auto begin = Clock::now();
  EXPECT_FALSE(calls.Begin("a", [] {}).Wait());
  EXPECT_LT(Clock::now() - begin, milliseconds(900)) << "refused without a wait";
  EXPECT_TRUE(calls.Begin("b", [] {}).Wait()) << "of another name";
  hang.Release();
  for (int i = 0; i < 1000 && !calls.Begin("a", [] {}).Wait(); ++i) std::this_thread::sleep_for(milliseconds(10));
  EXPECT_TRUE(calls.Begin("a", [] {}).Wait());
}

TEST(BoundedCallsTest, Begin_CallsOfOneName_RunConcurrently) {
  Hang hang;
  BoundedCalls calls(seconds(60));
  auto first = calls.Begin("a", hang.Call());
  EXPECT_TRUE(calls.Begin("a", [] {}).Wait());
  hang.Release();
  EXPECT_TRUE(first.Wait());
}

TEST(BoundedCallsTest, Stop_ReleasesWaitingCallers) {
  Hang hang;
  BoundedCalls calls(seconds(600));
  auto call = calls.Begin("a", hang.Call());
  std::thread stopper([&] { calls.Stop(); });
  EXPECT_FALSE(call.Wait());
  stopper.join();
  EXPECT_FALSE(calls.Begin("b", [] {}).Wait());
}

TEST(BoundedCallsTest, Destruction_CallHangs_DoesNotWait) {
  Hang hang;
  {
    BoundedCalls calls(milliseconds(1));
    EXPECT_FALSE(calls.Begin("a", hang.Call()).Wait());
  }
  EXPECT_EQ(hang.returned(), 0);
  hang.Release();
  for (int i = 0; i < 1000 && hang.returned() == 0; ++i) std::this_thread::sleep_for(milliseconds(10));
  EXPECT_EQ(hang.returned(), 1) << "the thread goes on with what it owns";
}

}  // namespace
}  // namespace vexa::storage
