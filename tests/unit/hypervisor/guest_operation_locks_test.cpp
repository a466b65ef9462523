// The locks that serialise starts and stops of a guest.
#include <gtest/gtest.h>

#include <optional>
#include <thread>

#include "host/hypervisor/libvirt_hypervisor.h"

namespace vexa::hypervisor {
namespace {

using namespace std::chrono_literals;

constexpr char kGuest[] = "11111111-2222-4333-8444-555555555555";

TEST(GuestOperationLocks, TryLock_Free_IsHeldUntilReleased) {
  GuestOperationLocks locks;
  auto held = locks.TryLockGuest(kGuest, 0ms);
  ASSERT_TRUE(held);
  EXPECT_FALSE(locks.TryLockGuest(kGuest, 1ms));
  EXPECT_TRUE(locks.TryLockGuest("another guest", 0ms));
  held.reset();
  EXPECT_TRUE(locks.TryLockGuest(kGuest, 0ms));
}

// Otherwise a power-off behind several short starts would kill the last of them.
TEST(GuestOperationLocks, TryLock_ManyShortOperations_WaitsForThemAll) {
  GuestOperationLocks locks;
  constexpr auto kTimeout = 400ms;
  constexpr auto kOperation = 100ms;
  std::optional<GuestOperationLocks::Lock> held(std::in_place, locks, kGuest);
  // Together these operations take three times the timeout. Each takes the lock before the waiting thread wakes up.
  std::thread operations([&] {
    for (int i = 0; i < 12; ++i) {
      std::this_thread::sleep_for(kOperation);
      held.reset();
      held.emplace(locks, kGuest);
    }
    held.reset();
  });
  EXPECT_TRUE(locks.TryLockGuest(kGuest, kTimeout));
  operations.join();
}

TEST(GuestOperationLocks, EndHolder_LockIsHeld_OnlyThatHolderKnows) {
  GuestOperationLocks locks;
  locks.EndHolder(kGuest);
  {
    const GuestOperationLocks::Lock held(locks, kGuest);
    EXPECT_FALSE(held.WasEnded());
    locks.EndHolder("another guest");
    EXPECT_FALSE(held.WasEnded());
    locks.EndHolder(kGuest);
    EXPECT_TRUE(held.WasEnded());
  }
  const GuestOperationLocks::Lock held(locks, kGuest);
  EXPECT_FALSE(held.WasEnded());
}

}  // namespace
}  // namespace vexa::hypervisor
