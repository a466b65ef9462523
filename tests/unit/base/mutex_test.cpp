#include "host/base/mutex.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace vexa {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// Another thread's view: whether it would get the mutex.
bool IsFree(Mutex& mutex) {
  return std::async(std::launch::async,
                    [&mutex] {
                      if (!mutex.TryLock()) return false;
                      mutex.Unlock();
                      return true;
                    })
      .get();
}

TEST(MutexTest, Lock_InScope_ExcludesOthers) {
  Mutex mutex;
  {
    const MutexLock lock(mutex);
    EXPECT_FALSE(IsFree(mutex));
  }
  EXPECT_TRUE(IsFree(mutex));
}

TEST(MutexTest, ReleasableLock_UnlockedAndRelocked_ExcludesOthersOnlyWhileLocked) {
  Mutex mutex;
  {
    ReleasableMutexLock lock(mutex);
    EXPECT_FALSE(IsFree(mutex));
    lock.Unlock();
    EXPECT_TRUE(IsFree(mutex));
    lock.Lock();
    EXPECT_FALSE(IsFree(mutex));
  }
  EXPECT_TRUE(IsFree(mutex));
}

TEST(MutexTest, ReleasableLock_DestroyedUnlocked_LeavesMutexFree) {
  Mutex mutex;
  {
    ReleasableMutexLock lock(mutex);
    lock.Unlock();
  }
  EXPECT_TRUE(IsFree(mutex));
}

TEST(MutexTest, Unlock_InScope_LetsOthersIn) {
  Mutex mutex;
  const MutexLock lock(mutex);
  {
    const MutexUnlock unlocked(mutex);
    EXPECT_TRUE(IsFree(mutex));
  }
  EXPECT_FALSE(IsFree(mutex));
}

TEST(ConditionVariableTest, WaitUntil_NoNotification_ReturnsAtTimeoutWithMutexLocked) {
  Mutex mutex;
  ConditionVariable changed;
  const MutexLock lock(mutex);
  const auto until = steady_clock::now() + milliseconds(20);
  while (changed.WaitUntil(mutex, until)) {
  }
  EXPECT_GE(steady_clock::now(), until);
  EXPECT_FALSE(IsFree(mutex));
}

// Passes a token back and forth: it is lost when a wait does not unlock the mutex, or misses a notification.
struct Turns {
  Mutex mutex;
  ConditionVariable changed;
  int turn VEXA_GUARDED_BY(mutex) = 0;
};

TEST(ConditionVariableTest, Wait_TwoThreadsTakeTurns_EachIsWoken) {
  constexpr int kTurns = 1000;
  Turns turns;
  const auto play = [&turns](int own) {
    const MutexLock lock(turns.mutex);
    while (turns.turn < kTurns) {
      while (turns.turn < kTurns && turns.turn % 2 != own) turns.changed.Wait(turns.mutex);
      if (turns.turn < kTurns) ++turns.turn;
      turns.changed.NotifyOne();
    }
  };
  std::thread first(play, 0);
  std::thread second(play, 1);
  first.join();
  second.join();
  const MutexLock lock(turns.mutex);
  EXPECT_EQ(turns.turn, kTurns);
}

TEST(ConditionVariableTest, NotifyAll_SeveralThreadsWait_WakesAllBeforeTheirTime) {
  Turns turns;
  std::vector<std::future<bool>> waiters;
  const auto until = steady_clock::now() + seconds(60);
  for (int i = 0; i < 4; ++i) {
    waiters.push_back(std::async(std::launch::async, [&] {
      const MutexLock lock(turns.mutex);
      while (turns.turn == 0 && turns.changed.WaitUntil(turns.mutex, until)) {
      }
      return turns.turn == 1 && steady_clock::now() < until;
    }));
  }
  {
    const MutexLock lock(turns.mutex);
    turns.turn = 1;
    turns.changed.NotifyAll();
  }
  for (auto& waiter : waiters) EXPECT_TRUE(waiter.get());
}

}  // namespace
}  // namespace vexa
