#include "host/session/login_limiter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace vexa::session {
namespace {

using std::chrono::milliseconds;

class LoginLimiterTest : public testing::Test {
 protected:
  LoginLimiterTest() {
    options_.now = [this] { return now_.load(); };
  }
  // Failed logins until the limiter makes the next one wait.
  static int FailuresAllowed(LoginLimiter& limiter, const std::string& peer, const std::string& user) {
    int count = 0;
    while (count < 1000 && limiter.TakeToken(peer, user) == milliseconds(0)) ++count;
    return count;
  }

  LoginLimiterOptions options_;
  std::atomic<std::int64_t> now_{1'000'000};
};

TEST_F(LoginLimiterTest, Failures_UpToTheBurst_ProceedThenWait) {
  LoginLimiter limiter(options_);
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.1", "alice"), 10);
  EXPECT_EQ(limiter.TakeToken("192.0.2.1", "alice"), milliseconds(3000));
  now_ += 2999;
  EXPECT_EQ(limiter.TakeToken("192.0.2.1", "alice"), milliseconds(1));
  now_ += 1;
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.1", "alice"), 1);
  now_ += 9000;
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.1", "alice"), 3);
  now_ += 10'000'000;
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.1", "alice"), 10) << "never more than the burst";
}

TEST_F(LoginLimiterTest, TakeToken_WhileWaiting_ConsumesNoTokens) {
  LoginLimiter limiter(options_);
  FailuresAllowed(limiter, "192.0.2.1", "alice");
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(limiter.TakeToken("192.0.2.1", "alice"), milliseconds(3000));
  // Not from another peer's bucket either, while the name waits.
  for (int i = 0; i < 1000; ++i) EXPECT_GT(limiter.TakeToken("192.0.2.2", "alice"), milliseconds(0));
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.2", "bob"), 10);
}

TEST_F(LoginLimiterTest, Begin_OnePeerManyNames_MustWait) {
  LoginLimiter limiter(options_);
  int allowed = 0;
  for (int i = 0; i < 100; ++i)
    allowed += limiter.TakeToken("192.0.2.1", "user" + std::to_string(i)) == milliseconds(0);
  EXPECT_EQ(allowed, 10);
  EXPECT_EQ(limiter.TakeToken("192.0.2.2", "user50"), milliseconds(0));
}

TEST_F(LoginLimiterTest, Begin_OneNameManyPeers_MustWait) {
  LoginLimiter limiter(options_);
  int allowed = 0;
  for (int i = 0; i < 100; ++i)
    allowed += limiter.TakeToken("192.0.2." + std::to_string(i), "alice") == milliseconds(0);
  EXPECT_EQ(allowed, 10);
  EXPECT_EQ(limiter.TakeToken("192.0.2.200", "bob"), milliseconds(0));
}

TEST_F(LoginLimiterTest, Successes_AnyNumber_NeverWait) {
  LoginLimiter limiter(options_);
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(limiter.TakeToken("192.0.2.1", "alice"), milliseconds(0));
    limiter.ReturnToken("192.0.2.1", "alice");
  }
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.1", "alice"), 10);
}

TEST_F(LoginLimiterTest, Success_AfterFailures_ReturnsItsOwnTokenOnly) {
  LoginLimiter limiter(options_);
  for (int i = 0; i < 9; ++i) ASSERT_EQ(limiter.TakeToken("192.0.2.1", "alice"), milliseconds(0));
  ASSERT_EQ(limiter.TakeToken("192.0.2.1", "alice"), milliseconds(0));
  limiter.ReturnToken("192.0.2.1", "alice");
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.1", "alice"), 1);
}

TEST_F(LoginLimiterTest, ReturnToken_WithoutTakeToken_StaysWithinTheBurst) {
  LoginLimiter limiter(options_);
  limiter.ReturnToken("192.0.2.1", "alice");
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.1", "alice"), 10);
}

TEST_F(LoginLimiterTest, Entries_BeyondTheMaximum_EvictTheLeastRecentlyUsed) {
  options_.max_entries = 4;
  LoginLimiter limiter(options_);
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.1", "alice"), 10);
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.2", "bob"), 10);
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.3", "carol"), 10);
  // Asking is a use.
  EXPECT_GT(limiter.TakeToken("192.0.2.1", "alice"), milliseconds(0));
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.4", "dave"), 10);
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.5", "eve"), 10);
  EXPECT_GT(limiter.TakeToken("192.0.2.1", "alice"), milliseconds(0)) << "still known";
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.2", "bob"), 10) << "forgotten";
}

TEST_F(LoginLimiterTest, Ipv6AddressesOfOneNetwork_CountAsOnePeer) {
  LoginLimiter limiter(options_);
  int allowed = 0;
  for (int i = 0; i < 100; ++i) {
    allowed += limiter.TakeToken("2001:db8::" + std::to_string(i), "user" + std::to_string(i)) == milliseconds(0);
  }
  EXPECT_EQ(allowed, 10);
  EXPECT_EQ(limiter.TakeToken("2001:db8:0:1::1", "zoe"), milliseconds(0));
}

TEST_F(LoginLimiterTest, Peer_Ipv4InIpv6_IsThatIpv4Peer) {
  LoginLimiter limiter(options_);
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(limiter.TakeToken("::ffff:192.0.2.1", "user" + std::to_string(i)), milliseconds(0));
  }
  EXPECT_GT(limiter.TakeToken("192.0.2.1", "zoe"), milliseconds(0));
  EXPECT_EQ(limiter.TakeToken("::ffff:192.0.2.2", "zoe"), milliseconds(0));
}

TEST_F(LoginLimiterTest, InvalidNames_CountAsOneName) {
  LoginLimiter limiter(options_);
  int allowed = 0;
  for (int i = 0; i < 100; ++i) {
    const std::string name = "a b" + std::string(100'000, 'x') + std::to_string(i);
    allowed += limiter.TakeToken("192.0.2." + std::to_string(i), name) == milliseconds(0);
  }
  EXPECT_EQ(allowed, 10);
}

TEST_F(LoginLimiterTest, Options_BelowOne_CountAsOne) {
  options_.burst = 0;
  options_.max_entries = 0;
  LoginLimiter limiter(options_);
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.1", "alice"), 1);
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.2", "bob"), 1);
}

TEST_F(LoginLimiterTest, Limiter_DefaultClock_Limits) {
  options_.now = nullptr;
  options_.refill = std::chrono::hours(1);
  LoginLimiter limiter(options_);
  EXPECT_EQ(FailuresAllowed(limiter, "192.0.2.1", "alice"), 10);
  EXPECT_GT(limiter.TakeToken("192.0.2.1", "alice"), std::chrono::minutes(50));
}

TEST_F(LoginLimiterTest, Limiter_EightThreads_ShareTheBurst) {
  LoginLimiter limiter(options_);
  std::atomic<int> allowed{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 100; ++round) {
        if (limiter.TakeToken("192.0.2.1", "alice") == milliseconds(0)) ++allowed;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(allowed, 10);
}

}  // namespace
}  // namespace vexa::session
