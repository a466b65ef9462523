#include "host/daemon/periodic_call.h"

#include <gtest/gtest.h>

#include <atomic>
#include <semaphore>

#include "tests/support/waiting.h"

namespace vexa::daemon {
namespace {

using std::chrono::milliseconds;

TEST(PeriodicCall, Running_CallsAgainAndAgain) {
  std::atomic<int> calls = 0;
  PeriodicCall periodic(milliseconds(1), [&calls] { ++calls; });
  EXPECT_TRUE(test::Eventually([&] { return calls >= 3; }));
  EXPECT_TRUE(periodic.Stop(std::chrono::seconds(30)));
  const int at_stop = calls;
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(calls, at_stop);
}

TEST(PeriodicCall, StoppedBeforeFirstCall_NeverCallsAndDoesNotWaitForTheInterval) {
  std::atomic<int> calls = 0;
  {
    PeriodicCall periodic(std::chrono::hours(1), [&calls] { ++calls; });
    EXPECT_TRUE(periodic.Stop(std::chrono::seconds(30)));
  }
  {
    const PeriodicCall periodic(std::chrono::hours(1), [&calls] { ++calls; });
  }
  EXPECT_EQ(calls, 0);
}

TEST(PeriodicCall, CallHangs_StopGivesUpAndSoDoesTheDestructor) {
  const auto begun = std::make_shared<std::binary_semaphore>(0);
  const auto may_end = std::make_shared<std::binary_semaphore>(0);
  const auto has_ended = std::make_shared<std::binary_semaphore>(0);
  {
    PeriodicCall periodic(milliseconds(1), [=] {
      begun->release();
      may_end->acquire();
      has_ended->release();
    });
    begun->acquire();
    EXPECT_FALSE(periodic.Stop(milliseconds(20)));
  }
  EXPECT_FALSE(has_ended->try_acquire()) << "nobody has waited for the call";
  may_end->release();
  EXPECT_TRUE(has_ended->try_acquire_for(std::chrono::seconds(30)));
}

TEST(PeriodicCall, Destructor_WaitsForCallInProgress) {
  std::atomic<bool> begun = false;
  std::atomic<bool> ended = false;
  {
    const PeriodicCall periodic(milliseconds(1), [&] {
      begun = true;
      std::this_thread::sleep_for(milliseconds(50));
      ended = true;
    });
    ASSERT_TRUE(test::Eventually([&] { return begun.load(); }));
  }
  EXPECT_TRUE(ended);
}

}  // namespace
}  // namespace vexa::daemon
