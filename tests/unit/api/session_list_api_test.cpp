// Who may list and end which sessions.
#include "tests/unit/api/session_api_fixture.h"

namespace vexa::api {
namespace {

TEST_F(SessionApi, List_OwnSessions_HasWhatIsKnownAboutThem) {
  const std::string first = Login("alice");
  const std::string second = Login("alice", kPassword, "2001:db8::1");
  Login("bob");
  const Answer answer = CallWith(second, kSession, "list", "{}");
  ASSERT_EQ(answer.code, 0);
  const Json::Value& sessions = json::Member(answer.data, "sessions");
  ASSERT_EQ(sessions.size(), 2U);
  EXPECT_EQ(sessions[0]["id"], Id(first));
  EXPECT_EQ(sessions[0]["from"], kHome);
  EXPECT_EQ(sessions[0]["current"], false);
  EXPECT_EQ(sessions[1]["id"], Id(second));
  EXPECT_EQ(sessions[1]["user"], "alice");
  EXPECT_EQ(json::UInt(sessions[1]["uid"]), Require(host_.accounts().FindUser("alice")).uid);
  EXPECT_EQ(sessions[1]["from"], "2001:db8::1");
  EXPECT_EQ(sessions[1]["current"], true);
  EXPECT_GT(sessions[1]["created"].asInt64(), 1'700'000'000);
  EXPECT_GE(sessions[1]["last_used"].asInt64(), sessions[1]["created"].asInt64());
  EXPECT_EQ(json::ToText(answer.data).find(second), std::string::npos) << "no token";
}

TEST_F(SessionApi, List_OfOthers_IsForAdministrators) {
  const std::string admin = Login("admin");
  const std::string alice = Login("alice");
  EXPECT_EQ(List(alice, R"({"user":"ALICE"})"), Ids{Id(alice)});
  EXPECT_EQ(List(alice, R"({"user":"bob"})"), Ids{"104"});
  EXPECT_EQ(List(alice, R"({"all":true})"), Ids{"104"});
  EXPECT_EQ(List(admin, R"({"user":"Alice"})"), Ids{Id(alice)});
  EXPECT_EQ(List(admin, R"({"all":true})"), (Ids{Id(admin), Id(alice)}));
  EXPECT_EQ(List(admin, R"({"all":false})"), Ids{Id(admin)});
  EXPECT_EQ(List(admin, R"({"user":"nobody-here"})"), Ids{});
  for (const char* wrong :
       {R"({"user":""})", R"({"user":7})", R"({"user":"a b"})", R"({"all":"yes"})", R"({"user":"alice","all":true})"}) {
    EXPECT_EQ(List(admin, wrong), Ids{"401"}) << wrong;
  }
}

TEST_F(SessionApi, List_AccountsUnreadable_StillShowsSessions) {
  const std::string alice = Login("alice");
  Caller caller;
  ASSERT_EQ(CodeOf(alice, &caller), 0);
  host_.store().FailSnapshots();
  const Answer answer = CallTable(*table_, kSession, "list", "{}", caller);
  EXPECT_EQ(answer.code, 0);
  EXPECT_EQ(json::Member(answer.data, "sessions").size(), 1U);
}

TEST_F(SessionApi, End_ById_EndsOneOfTheCallersOwn) {
  const std::string alice = Login("alice");
  const std::string other = Login("alice");
  const std::string bob = Login("bob");
  EXPECT_EQ(End(alice, ById(bob)), user_error::kNoSession) << "the same answer as for a session that does not exist";
  EXPECT_EQ(CodeOf(bob), 0);
  EXPECT_EQ(End(alice, ById(other)), 0);
  EXPECT_EQ(CodeOf(other), user_error::kNotLoggedIn);
  EXPECT_EQ(End(alice, ById(other)), user_error::kNoSession);
  EXPECT_EQ(End(alice, R"({"user":"bob"})"), user_error::kDenied);
  EXPECT_EQ(End(alice, ById(alice)), 0);
  EXPECT_EQ(CodeOf(alice), user_error::kNotLoggedIn);
  EXPECT_EQ(CodeOf(bob), 0);
}

TEST_F(SessionApi, End_ByAdministrator_EndsThoseOfOthersAndIsLogged) {
  const std::string admin = Login("admin");
  const std::string alice = Login("alice");
  const std::string bob = Login("bob");
  const std::string bob_again = Login("bob");
  test::ClearCapturedSyslog();
  EXPECT_EQ(End(admin, ById(alice)), 0);
  EXPECT_EQ(CodeOf(alice), user_error::kNotLoggedIn);
  EXPECT_TRUE(test::SyslogContains("The session [" + Id(alice) + "] has been ended. By user[admin] from"));
  const Answer answer = CallWith(admin, kSession, "end", R"({"user":"BOB"})");
  EXPECT_EQ(answer.data["ended"], 2);
  EXPECT_EQ(CodeOf(bob), user_error::kNotLoggedIn);
  EXPECT_EQ(CodeOf(bob_again), user_error::kNotLoggedIn);
  EXPECT_TRUE(test::SyslogContains("Sessions of the user [bob] have been ended: 2. By user[admin] from [192.0.2.1]."));
  EXPECT_EQ(CallWith(admin, kSession, "end", R"({"user":"bob"})").data["ended"], 0);
  EXPECT_EQ(CodeOf(admin), 0);
}

TEST_F(SessionApi, End_WrongParameters_AreRefused) {
  const std::string admin = Login("admin");
  for (const std::string& wrong :
       {std::string("{}"), R"({"id":")" + admin + "\"}", std::string(R"({"id":"xyz"})"), std::string(R"({"id":7})"),
        std::string(R"({"user":"a b"})"), std::string(R"({"id":"0123456789abcdef","user":"alice"})")}) {
    EXPECT_EQ(End(admin, wrong), user_error::kBadParameter) << wrong;
  }
  EXPECT_EQ(CodeOf(admin), 0);
}

TEST_F(SessionApi, End_FileCannotBeWritten_ReportsItAndEndsTheSession) {
  const std::string admin = Login("admin");
  const std::string alice = Login("alice");
  const std::string bob = Login("bob");
  test::ClearCapturedSyslog();
  // Root ignores permission bits, so the folder goes away.
  std::filesystem::rename(folder_, folder_ + ".away");
  for (const std::string& parameters : {ById(alice), std::string(R"({"user":"bob"})")}) {
    const Answer answer = CallWith(admin, kSession, "end", parameters);
    EXPECT_EQ(answer.code, user_error::kInternal) << parameters;
    EXPECT_NE(ReasonOf(answer).find("the file of the sessions cannot be written"), std::string::npos)
        << ReasonOf(answer);
  }
  EXPECT_TRUE(test::SyslogContains("The sessions cannot be written: "));
  EXPECT_EQ(CodeOf(alice), user_error::kNotLoggedIn);
  EXPECT_EQ(CodeOf(bob), user_error::kNotLoggedIn);
  std::filesystem::rename(folder_ + ".away", folder_);
  ASSERT_TRUE(sessions_->Sweep().ok());
  Open();
  EXPECT_EQ(CodeOf(alice), user_error::kNotLoggedIn) << "the next write has removed them";
  EXPECT_EQ(CodeOf(bob), user_error::kNotLoggedIn);
  EXPECT_EQ(CodeOf(admin), 0);
}

}  // namespace
}  // namespace vexa::api
