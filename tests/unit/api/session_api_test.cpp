// What a session is bound to, and how guesses of passwords are slowed down.
#include "tests/support/racing_store.h"
#include "tests/unit/api/session_api_fixture.h"

namespace vexa::api {
namespace {

// A token outlived the password that it was given for, and so did that of a thief.
TEST_F(SessionApi, PasswordSet_ByCommand_EndsAllSessions) {
  const std::string alice = Login("alice");
  const std::string bob = Login("bob");
  // As a command without the daemon, or another host of the cluster.
  ASSERT_TRUE(host_.accounts().SetPassword("alice", "another password").ok());
  EXPECT_EQ(CodeOf(alice), user_error::kNotLoggedIn);
  EXPECT_EQ(CodeOf(bob), 0);
  EXPECT_EQ(CodeOf(Login("alice", "another password")), 0);
  EXPECT_EQ(List(Login("admin"), R"({"user":"alice"})").size(), 1U) << "the ended one is not listed";
}

TEST_F(SessionApi, PasswordSet_ToTheSamePassword_EndsAllSessions) {
  const std::string alice = Login("alice");
  ASSERT_TRUE(host_.accounts().SetPassword("alice", kPassword).ok());
  EXPECT_EQ(CodeOf(alice), user_error::kNotLoggedIn);
}

TEST_F(SessionApi, User_DeletedAndAddedAgain_DoesNotInheritSessions) {
  const std::string alice = Login("alice");
  const std::uint32_t uid = Require(host_.accounts().FindUser("alice")).uid;
  ASSERT_TRUE(host_.accounts().DeleteUser("alice").ok());
  EXPECT_EQ(CodeOf(alice), user_error::kNotLoggedIn);
  EXPECT_TRUE(List(Login("admin"), R"({"user":"alice"})").empty());
  host_.AddUser("alice", {"administrators"});
  EXPECT_EQ(CodeOf(alice), user_error::kNotLoggedIn);
  EXPECT_NE(Require(host_.accounts().FindUser("alice")).uid, uid);
}

// Not even an account of the same name and id, as a store that was restored from a backup can have.
TEST_F(SessionApi, Account_OfSameNameAndIdWithOtherStamp_IsAnotherOne) {
  const accounts::User alice = Require(host_.accounts().FindUser("alice"));
  const auto forged = Require(sessions_->Create({alice.name, alice.uid, "another-stamp"}));
  EXPECT_EQ(CodeOf(forged.token), user_error::kNotLoggedIn);
  EXPECT_EQ(CodeOf(Require(sessions_->Create({alice.name, alice.uid, alice.stamp})).token), 0);
}

TEST_F(SessionApi, Groups_Changed_TakeEffectAndSessionGoesOn) {
  host_.AddUser("grace", {"administrators"});
  const std::string token = Login("grace");
  ASSERT_TRUE(host_.accounts().SetGroups("grace", {}).ok());
  Caller caller;
  EXPECT_EQ(CodeOf(token, &caller), 0);
  EXPECT_FALSE(caller.user.is_administrator);
}

TEST_F(SessionApi, PasswordSet_OwnPassword_KeepsTheSessionThatDidIt) {
  const std::string own = Login("alice");
  const std::string other = Login("alice");
  ASSERT_EQ(
      CallWith(own, kAccount, "password_set", R"({"password":"second password","old_password":"correct horse"})").code,
      0);
  EXPECT_EQ(CodeOf(own), 0);
  EXPECT_EQ(CodeOf(other), user_error::kNotLoggedIn);
  EXPECT_EQ(sessions_->size(), 1U);
  Open();
  EXPECT_EQ(CodeOf(own), 0) << "also after a restart";
  ASSERT_TRUE(host_.accounts().SetPassword("alice", "third password").ok());
  EXPECT_EQ(CodeOf(own), user_error::kNotLoggedIn) << "but not after another change";
}

// Other calls with the token come at any moment: a page makes several at a time.
class PasswordChange : public SessionApi {
 protected:
  // The reply to a change of the password, with `before` just before the commit and `after` just after it.
  Answer Change(const std::string& token, std::function<void()> before, std::function<void()> after = nullptr) {
    const auto store = std::make_shared<test::RacingStore>(host_.store(), std::move(before), std::move(after));
    const ApiTable table(
        AccountRows({store, std::make_shared<cluster::AccountStore>(store), &limiter_, sessions_.get()}));
    Caller caller;
    EXPECT_EQ(CodeOf(token, &caller), 0);
    return CallTable(table, kAccount, "password_set", kParameters, caller);
  }
  Caller Identified(const std::string& token) {
    http::HttpRequest request;
    request.authorization = "Bearer " + token;
    return std::get<Caller>(identity_->Identify(request));
  }

  static constexpr const char* kParameters = R"({"password":"second password","old_password":"correct horse"})";
};

TEST_F(PasswordChange, OwnSession_AtEveryMomentOfTheChange_IsValid) {
  const std::string own = Login("alice");
  const std::string other = Login("alice");
  Caller early = Identified(own);
  int moments = 0;
  const auto before = [&] {
    ++moments;
    EXPECT_EQ(CodeOf(own), 0);
    EXPECT_EQ(CodeOf(other), 0);
  };
  const auto after = [&] {
    ++moments;
    EXPECT_EQ(CodeOf(own), 0);
    EXPECT_EQ(identity_->LookUpCaller(early), 0) << "a call that was identified before the change";
    EXPECT_EQ(List(own, "{}"), Ids{Id(own)});
    EXPECT_EQ(CodeOf(other), user_error::kNotLoggedIn);
  };
  Caller late = Identified(own);
  EXPECT_EQ(Change(own, before, after).code, 0);
  EXPECT_EQ(moments, 2);
  EXPECT_EQ(CodeOf(own), 0);
  EXPECT_EQ(identity_->LookUpCaller(late), 0) << "its stamp is that of before the change";
  EXPECT_EQ(CodeOf(other), user_error::kNotLoggedIn);
}

TEST_F(PasswordChange, SecondOneOfTheSameSessionMeanwhile_IsRefusedAsBusy) {
  const std::string own = Login("alice");
  const Answer first =
      Change(own, [&] { EXPECT_EQ(CallWith(own, kAccount, "password_set", kParameters).code, user_error::kHostBusy); });
  EXPECT_EQ(first.code, 0);
  EXPECT_EQ(CodeOf(own), 0);
  const char* next = R"({"password":"third password","old_password":"second password"})";
  EXPECT_EQ(CallWith(own, kAccount, "password_set", next).code, 0) << "one after the other";
  EXPECT_EQ(CodeOf(own), 0);
}

TEST_F(PasswordChange, SomebodyElseWasQuicker_SessionEndsAndAcceptsNothing) {
  const std::string own = Login("alice");
  const auto quicker = [&] { ASSERT_TRUE(host_.accounts().SetPassword("alice", "set by another").ok()); };
  EXPECT_EQ(Change(own, quicker).code, user_error::kWrongOldPassword);
  EXPECT_EQ(CodeOf(own), user_error::kNotLoggedIn);
  EXPECT_TRUE(sessions_->AcceptStamp(own, "x").ok()) << "the change has ended";
}

TEST_F(SessionApi, PasswordSet_ByAdministrator_EndsAllSessionsOfTheUserOnly) {
  const std::string admin = Login("admin");
  const std::string alice = Login("alice");
  const std::string bob = Login("bob");
  ASSERT_EQ(CallWith(admin, kAccount, "password_set", R"({"name":"ALICE","password":"second password"})").code, 0);
  EXPECT_EQ(CodeOf(alice), user_error::kNotLoggedIn);
  EXPECT_EQ(CodeOf(bob), 0);
  EXPECT_EQ(CodeOf(admin), 0);
  EXPECT_EQ(sessions_->size(), 2U);
}

TEST_F(SessionApi, UserDelete_EndsSessionsAndForgetsAddresses) {
  const std::string admin = Login("admin");
  const std::string alice = Login("alice");
  ASSERT_TRUE(sessions_->IsKnownAddress("alice", kHome));
  ASSERT_EQ(CallWith(admin, kAccount, "user_delete", R"({"name":"alice"})").code, 0);
  EXPECT_EQ(CodeOf(alice), user_error::kNotLoggedIn);
  EXPECT_EQ(sessions_->size(), 1U);
  EXPECT_FALSE(sessions_->IsKnownAddress("alice", kHome));
  EXPECT_NE(CallWith(admin, kAccount, "user_delete", R"({"name":"admin"})").code, 0);
  EXPECT_EQ(CodeOf(admin), 0) << "a deletion that is refused ends nothing";
}

TEST_F(SessionApi, Login_GuessesOfAnAddress_DoNotHinderTheOwnerElsewhere) {
  for (const char* attacker : {"198.51.100.1", "198.51.100.2", "198.51.100.3"}) {
    EXPECT_EQ(Guesses(Stranger(attacker), "alice"), 10);
  }
  const Answer slowed = LoginAs(Stranger("198.51.100.1"), "ALICE", kPassword);
  EXPECT_EQ(slowed.code, user_error::kTooManyLogins);
  ASSERT_FALSE(slowed.headers.empty());
  EXPECT_EQ(slowed.headers[0], (std::pair<std::string, std::string>("Retry-After", "3")));
  EXPECT_EQ(CodeOf(Login("alice")), 0);
}

TEST_F(SessionApi, Login_GuessesOfManyAddresses_LetKnownAddressThroughAlsoAfterRestart) {
  Login("alice", kPassword, "2001:db8::1");
  // Asks the limiter itself, because checking 100 passwords takes long.
  for (int i = 0; i < 100; ++i) limiter_.TakeToken({"198.51.100." + std::to_string(i), "alice"});
  EXPECT_EQ(LoginAs(Stranger(kHome), "alice", kPassword).code, user_error::kTooManyLogins);
  Open();
  EXPECT_EQ(LoginAs(Stranger("2001:db8::2"), "Alice", kPassword).code, 0);
  EXPECT_EQ(LoginAs(Stranger(kHome), "bob", kPassword).code, 0);
}

TEST_F(SessionApi, PasswordSet_WhileStrangersGuessAtTheUsersAddress_IsLetThrough) {
  const std::string alice = Login("alice");
  EXPECT_EQ(Guesses(Stranger(kHome), "alice"), 10);
  const char* parameters = R"({"password":"second password","old_password":"correct horse"})";
  EXPECT_EQ(CallWith(alice, kAccount, "password_set", parameters).code, 0);
}

TEST_F(SessionApi, PasswordSet_GuessesWithAStolenToken_AreSlowedDown) {
  const std::string alice = Login("alice");
  int guesses = 0;
  const char* parameters = R"({"password":"second password","old_password":"a wrong guess"})";
  while (guesses < 100 && CallWith(alice, kAccount, "password_set", parameters).code == user_error::kWrongOldPassword) {
    ++guesses;
  }
  EXPECT_EQ(guesses, 10);
}

}  // namespace
}  // namespace vexa::api
