#include "host/store/map_gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

namespace vexa::store {
namespace {

using std::chrono::milliseconds;
constexpr std::chrono::seconds kLong{60};

TEST(MapGate, Close_GateEmpty_GetsExclusiveAccess) {
  MapGate gate;
  ASSERT_TRUE(gate.Close(milliseconds(0)));
  EXPECT_FALSE(gate.Close(milliseconds(1)));
  gate.Reopen();
  EXPECT_TRUE(gate.Close(milliseconds(0)));
}

TEST(MapGate, TryEnter_GateClosedOrClosing_DoesNotWait) {
  MapGate gate;
  ASSERT_TRUE(gate.Close(milliseconds(0)));
  EXPECT_FALSE(gate.TryEnter().has_value());
  gate.Reopen();
  auto inside = gate.TryEnter();
  ASSERT_TRUE(inside.has_value());
  std::thread closer([&] { EXPECT_TRUE(gate.Close(kLong)); });
  const auto deadline = std::chrono::steady_clock::now() + kLong;
  std::thread other([&] {
    while (gate.TryEnter().has_value() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  });
  other.join();
  EXPECT_LT(std::chrono::steady_clock::now(), deadline);
  EXPECT_TRUE(gate.TryEnter().has_value()) << "a thread that is inside";
  inside.reset();
  closer.join();
  gate.Reopen();
}

TEST(MapGate, Close_CallerInside_FailsImmediately) {
  MapGate gate;
  const MapGate::Pass pass = gate.Enter();
  EXPECT_FALSE(gate.Close(kLong));
}

TEST(MapGate, Close_UsersLeaveInTime_Succeeds) {
  MapGate gate;
  MapGate::Pass pass = gate.Enter();
  std::atomic<bool> closed{false};
  std::thread closer([&] { closed = gate.Close(kLong); });
  std::this_thread::sleep_for(milliseconds(30));
  EXPECT_FALSE(closed);
  // A thread that is inside already gets in again, or it would wait for itself.
  gate.Enter().Leave();
  pass.Leave();
  closer.join();
  EXPECT_TRUE(closed);
  gate.Reopen();
  gate.Enter().Leave();
}

TEST(MapGate, Close_TimesOut_LetsNewcomersIn) {
  MapGate gate;
  MapGate::Pass pass = gate.Enter();
  std::thread closer([&] { EXPECT_FALSE(gate.Close(milliseconds(100))); });
  std::this_thread::sleep_for(milliseconds(30));
  std::thread newcomer([&] { gate.Enter().Leave(); });
  newcomer.join();
  closer.join();
}

TEST(MapGate, Close_ConstantUsers_IsNotStarved) {
  MapGate gate;
  std::atomic<bool> stop{false};
  std::vector<std::thread> users;
  for (int u = 0; u < 4; ++u) {
    users.emplace_back([&] {
      while (!stop) {
        MapGate::Pass pass = gate.Enter();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    });
  }
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(gate.Close(kLong));
    gate.Reopen();
  }
  stop = true;
  for (std::thread& user : users) user.join();
}

TEST(MapGate, Pass_DestroyedOnOtherThread_IsReturned) {
  MapGate gate;
  MapGate::Pass pass = gate.Enter();
  std::thread other([moved = std::move(pass)]() mutable { moved.Leave(); });
  other.join();
  EXPECT_TRUE(gate.Close(milliseconds(0)));
}

}  // namespace
}  // namespace vexa::store
