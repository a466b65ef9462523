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
  static bool MayTry(LoginLimiter& limiter, const LoginAttempt& attempt) {
    return limiter.TakeToken(attempt) == milliseconds(0);
  }
  // Failed logins until the limiter makes the next one wait.
  static int FailuresAllowed(LoginLimiter& limiter, const LoginAttempt& attempt) {
    int count = 0;
    while (count < 1000 && MayTry(limiter, attempt)) ++count;
    return count;
  }
  // "10.0.0.0", "10.0.0.1", …
  static std::string Address(int i) { return "10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256); }
  // Failures for a name from as many addresses as given, which use up what they may.
  static int GuessFrom(LoginLimiter& limiter, int addresses, const std::string& user) {
    int guesses = 0;
    for (int i = 0; i < addresses; ++i) guesses += FailuresAllowed(limiter, {Address(i), user});
    return guesses;
  }

  LoginLimiterOptions options_;
  std::atomic<std::int64_t> now_{1'000'000};
};

TEST_F(LoginLimiterTest, Failures_UpToTheBurst_ProceedThenWait) {
  LoginLimiter limiter(options_);
  const LoginAttempt alice{"192.0.2.1", "alice"};
  EXPECT_EQ(FailuresAllowed(limiter, alice), 10);
  EXPECT_EQ(limiter.TakeToken(alice), milliseconds(3000));
  now_ += 2999;
  EXPECT_EQ(limiter.TakeToken(alice), milliseconds(1));
  now_ += 1;
  EXPECT_EQ(FailuresAllowed(limiter, alice), 1);
  now_ += 9000;
  EXPECT_EQ(FailuresAllowed(limiter, alice), 3);
  now_ += 10'000'000;
  EXPECT_EQ(FailuresAllowed(limiter, alice), 10) << "never more than the burst";
}

// Anybody could lock a user out, by wrong passwords from one address.
TEST_F(LoginLimiterTest, Owner_WhileAFewAddressesGuess_IsLetThrough) {
  for (const int attackers : {1, 2, 3}) {
    SCOPED_TRACE(attackers);
    LoginLimiter limiter(options_);
    for (int second = 0; second < 3600; ++second) {
      GuessFrom(limiter, attackers, "alice");
      ASSERT_TRUE(MayTry(limiter, {"192.0.2.1", "alice"})) << second;
      limiter.ReturnToken({"192.0.2.1", "alice"});
      now_ += 1000;
    }
  }
}

TEST_F(LoginLimiterTest, Guesses_FromManyAddresses_AreBoundedByName) {
  LoginLimiter limiter(options_);
  EXPECT_EQ(GuessFrom(limiter, 1000, "alice"), 100);
  EXPECT_EQ(limiter.TakeToken({"192.0.2.1", "alice"}), milliseconds(1000));
  EXPECT_EQ(FailuresAllowed(limiter, {"192.0.2.1", "bob"}), 10) << "nobody else waits";
  now_ += 60'000;
  EXPECT_EQ(GuessFrom(limiter, 1000, "alice"), 60);
}

TEST_F(LoginLimiterTest, KnownAddress_WhileManyAddressesGuess_IsLetThrough) {
  LoginLimiter limiter(options_);
  GuessFrom(limiter, 1000, "alice");
  const LoginAttempt known{"192.0.2.1", "alice", true};
  ASSERT_FALSE(MayTry(limiter, {"192.0.2.2", "alice"}));
  EXPECT_EQ(FailuresAllowed(limiter, known), 10) << "with a bound of its own";
  EXPECT_EQ(limiter.TakeToken(known), milliseconds(3000));
  now_ += 1000;
  EXPECT_TRUE(MayTry(limiter, {"192.0.2.2", "alice"})) << "and it takes nothing from the name";
}

TEST_F(LoginLimiterTest, KnownAddress_WhoseOtherUsersGuess_IsLetThrough) {
  LoginLimiter limiter(options_);
  int guesses = 0;
  for (int i = 0; i < 100; ++i) guesses += FailuresAllowed(limiter, {"192.0.2.1", "user" + std::to_string(i)});
  EXPECT_EQ(guesses, 50) << "one address may not try all names";
  EXPECT_FALSE(MayTry(limiter, {"192.0.2.1", "alice"}));
  EXPECT_TRUE(MayTry(limiter, {"192.0.2.1", "alice", true}));
  EXPECT_TRUE(MayTry(limiter, {"192.0.2.2", "user50"}));
  now_ += 1000;
  EXPECT_TRUE(MayTry(limiter, {"192.0.2.1", "alice"}));
}

TEST_F(LoginLimiterTest, TakeToken_WhileWaiting_ConsumesNoTokens) {
  LoginLimiter limiter(options_);
  const LoginAttempt alice{"192.0.2.1", "alice"};
  FailuresAllowed(limiter, alice);
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(limiter.TakeToken(alice), milliseconds(3000));
  EXPECT_EQ(GuessFrom(limiter, 1000, "alice"), 90) << "refused attempts took nothing from the name";
  EXPECT_EQ(FailuresAllowed(limiter, {"192.0.2.2", "alice"}), 0);
  EXPECT_EQ(FailuresAllowed(limiter, {"192.0.2.2", "bob"}), 10) << "nor from the address";
}

TEST_F(LoginLimiterTest, Successes_AnyNumber_NeverCount) {
  LoginLimiter limiter(options_);
  for (int i = 0; i < 1000; ++i) {
    for (const LoginAttempt& attempt :
         {LoginAttempt{"192.0.2.1", "alice"}, {Address(i), "alice"}, {"192.0.2.1", "u" + std::to_string(i)}}) {
      ASSERT_TRUE(MayTry(limiter, attempt)) << i;
      limiter.ReturnToken(attempt);
    }
  }
  EXPECT_EQ(GuessFrom(limiter, 1000, "alice"), 100);
  EXPECT_EQ(FailuresAllowed(limiter, {"192.0.2.1", "bob"}), 10);
}

TEST_F(LoginLimiterTest, Success_AfterFailures_ReturnsItsOwnTokenOnly) {
  LoginLimiter limiter(options_);
  const LoginAttempt alice{"192.0.2.1", "alice"};
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(MayTry(limiter, alice));
  limiter.ReturnToken(alice);
  EXPECT_EQ(FailuresAllowed(limiter, alice), 1);
}

TEST_F(LoginLimiterTest, ReturnToken_WithoutTakeToken_StaysWithinTheBurst) {
  LoginLimiter limiter(options_);
  limiter.ReturnToken({"192.0.2.1", "alice"});
  EXPECT_EQ(FailuresAllowed(limiter, {"192.0.2.1", "alice"}), 10);
}

// An attacker could make the limiter forget what they had done, by using it for something else.
TEST_F(LoginLimiterTest, Entries_BeyondTheMaximum_GiveUpTheFullestFirst) {
  options_.max_entries = 4;
  LoginLimiter limiter(options_);
  const LoginAttempt drained{"192.0.2.1", "alice"};
  EXPECT_EQ(FailuresAllowed(limiter, drained), 10);
  for (int i = 0; i < 100; ++i) {
    const LoginAttempt other{Address(i), "user" + std::to_string(i)};
    EXPECT_TRUE(MayTry(limiter, other));
    if (i % 2 == 0) limiter.ReturnToken(other);
  }
  EXPECT_FALSE(MayTry(limiter, drained)) << "still known";
  EXPECT_EQ(FailuresAllowed(limiter, {Address(1), "user1"}), 10) << "forgotten";
  now_ += 30'000;  // it is full again
  for (int i = 0; i < 4; ++i) FailuresAllowed(limiter, {Address(i), "user" + std::to_string(i)});
  EXPECT_EQ(FailuresAllowed(limiter, drained), 10);
}

TEST_F(LoginLimiterTest, Ipv6AddressesOfOneNetwork_CountAsOnePeer) {
  LoginLimiter limiter(options_);
  int allowed = 0;
  for (int i = 0; i < 100; ++i) allowed += MayTry(limiter, {"2001:db8::" + std::to_string(i), "alice"}) ? 1 : 0;
  EXPECT_EQ(allowed, 10);
  EXPECT_TRUE(MayTry(limiter, {"2001:db8:0:1::1", "alice"}));
}

TEST_F(LoginLimiterTest, Peer_Ipv4InIpv6_IsThatIpv4Peer) {
  LoginLimiter limiter(options_);
  EXPECT_EQ(FailuresAllowed(limiter, {"::ffff:192.0.2.1", "alice"}), 10);
  EXPECT_FALSE(MayTry(limiter, {"192.0.2.1", "alice"}));
  EXPECT_TRUE(MayTry(limiter, {"::ffff:192.0.2.2", "alice"}));
}

TEST_F(LoginLimiterTest, Names_InAnyCase_CountAsOneName) {
  LoginLimiter limiter(options_);
  EXPECT_EQ(FailuresAllowed(limiter, {"192.0.2.1", "alice"}), 10);
  EXPECT_FALSE(MayTry(limiter, {"192.0.2.1", "ALIce"}));
}

TEST_F(LoginLimiterTest, InvalidNames_CountAsOneName) {
  LoginLimiter limiter(options_);
  int allowed = 0;
  for (int i = 0; i < 100; ++i) {
    const std::string name = "a b" + std::string(100'000, 'x') + std::to_string(i);
    allowed += MayTry(limiter, {"192.0.2.1", name}) ? 1 : 0;
  }
  EXPECT_EQ(allowed, 10);
}

TEST_F(LoginLimiterTest, Options_BelowOne_CountAsOne) {
  options_.pair.burst = 0;
  options_.max_entries = 0;
  LoginLimiter limiter(options_);
  EXPECT_EQ(FailuresAllowed(limiter, {"192.0.2.1", "alice"}), 1);
  EXPECT_EQ(FailuresAllowed(limiter, {"192.0.2.2", "bob"}), 1);
}

TEST_F(LoginLimiterTest, Limiter_DefaultClock_Limits) {
  options_.now = nullptr;
  options_.pair.refill = std::chrono::hours(10);
  LoginLimiter limiter(options_);
  EXPECT_EQ(FailuresAllowed(limiter, {"192.0.2.1", "alice"}), 10);
  EXPECT_GT(limiter.TakeToken({"192.0.2.1", "alice"}), std::chrono::hours(1));
}

TEST_F(LoginLimiterTest, Limiter_EightThreads_ShareTheBurst) {
  LoginLimiter limiter(options_);
  std::atomic<int> allowed{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 100; ++round) {
        if (MayTry(limiter, {"192.0.2.1", "alice"})) ++allowed;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(allowed, 10);
}

}  // namespace
}  // namespace vexa::session
