// Sessions as users and administrators see them: what they are bound to, where they began, and how they are ended.
#include "host/session/known_addresses.h"
#include "tests/unit/session/sessions_fixture.h"

namespace vexa::session {
namespace {

class SessionListTest : public SessionsTest {
 protected:
  static NewSession LogIn(SessionTable& table, const SessionUser& user, const std::string& from = "192.0.2.1") {
    auto created = table.Create(user, from);
    EXPECT_TRUE(created.ok()) << created.error().ToString();
    return created.ok() ? *created : NewSession{};
  }
  static std::string StampOf(SessionTable& table, const NewSession& session) {
    const auto found = table.Find(session.token);
    return found ? found->stamp : "ended";
  }
};

TEST_F(SessionListTest, Stamp_OfSession_SurvivesRestart) {
  const auto table = Open();
  const NewSession alice = LogIn(*table, {"alice", kUid, "day-19700"});
  EXPECT_EQ(StampOf(*table, alice), "day-19700");
  const auto reopened = Open();
  EXPECT_EQ(StampOf(*reopened, alice), "day-19700");
  EXPECT_EQ(reopened->List()[0].from, "192.0.2.1");
}

TEST_F(SessionListTest, Create_StampThatTheFileCannotHave_IsInvalid) {
  const auto table = Open();
  EXPECT_EQ(table->Create({"alice", kUid, "a\"b"}).error().code(), ErrorCode::kInvalid);
  EXPECT_EQ(table->Create({"alice", kUid, std::string(81, 'a')}).error().code(), ErrorCode::kInvalid);
  EXPECT_EQ(table->size(), 0u);
}

TEST_F(SessionListTest, Create_AddressThatTheFileCannotHave_IsLeftOut) {
  const auto table = Open();
  LogIn(*table, {"alice", kUid}, "fe80::1%\"odd zone\"");
  EXPECT_EQ(table->List()[0].from, "");
  EXPECT_FALSE(table->IsKnownAddress("alice", "fe80::1%\"odd zone\""));
  EXPECT_EQ(Open()->size(), 1u);
}

TEST_F(SessionListTest, List_OfOneUserOrAll_HasLiveSessionsOldestFirst) {
  const auto table = Open();
  const NewSession expired = LogIn(*table, {"alice", kUid});
  now_ += options_.idle.count();
  const NewSession first = LogIn(*table, {"alice", kUid, "s"}, "192.0.2.7");
  LogIn(*table, {"bob", kUid + 1});
  now_ += 5;
  const NewSession second = LogIn(*table, {"alice", kUid});
  ASSERT_TRUE(table->Find(first.token));
  const auto all = table->List();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[1].user.name, "bob");
  const auto own = table->List("alice");
  ASSERT_EQ(own.size(), 2u);
  EXPECT_EQ(own[0].id, SessionIdOfToken(first.token));
  EXPECT_EQ(own[0].from, "192.0.2.7");
  EXPECT_EQ(own[0].created, now_ - 5);
  EXPECT_EQ(own[0].last_used, now_);
  EXPECT_EQ(own[0].user.stamp, "s");
  EXPECT_EQ(own[1].id, SessionIdOfToken(second.token));
  EXPECT_TRUE(table->List("carol").empty());
}

TEST_F(SessionListTest, Id_OfSession_IsNotATokenAndNotInTheToken) {
  const auto table = Open();
  const NewSession alice = LogIn(*table, {"alice", kUid});
  const std::string id = table->List()[0].id;
  EXPECT_TRUE(IsSessionId(id)) << id;
  EXPECT_FALSE(table->Find(id));
  EXPECT_EQ(SessionIdOfToken("not a token"), "");
  for (const std::string& text : {std::string(), id + "0", id.substr(1), std::string(16, 'g'), std::string(16, 'A')}) {
    EXPECT_FALSE(IsSessionId(text)) << text;
  }
}

TEST_F(SessionListTest, EndById_OfOwner_EndsOnlyThatSession) {
  const auto table = Open();
  const NewSession first = LogIn(*table, {"alice", kUid});
  const NewSession second = LogIn(*table, {"alice", kUid});
  const std::string id = SessionIdOfToken(first.token);
  EXPECT_EQ(table->EndById(id, SessionUser{"bob", kUid}).ended, 0u) << "another name";
  EXPECT_EQ(table->EndById(id, SessionUser{"alice", kUid + 1}).ended, 0u) << "another account of the name";
  EXPECT_TRUE(table->Find(first.token));
  EXPECT_EQ(table->EndById(id, SessionUser{"alice", kUid}).ended, 1u);
  EXPECT_EQ(table->EndById(id, std::nullopt).ended, 0u) << "it has ended";
  EXPECT_FALSE(table->Find(first.token));
  EXPECT_TRUE(table->Find(second.token));
  EXPECT_EQ(table->EndById(SessionIdOfToken(second.token), std::nullopt).ended, 1u);
  EXPECT_EQ(Open()->size(), 0u);
}

TEST_F(SessionListTest, EndAllOfUser_ExceptOne_GivesThatOneTheNewStamp) {
  const auto table = Open();
  const NewSession kept = LogIn(*table, {"alice", kUid, "old"});
  const NewSession other = LogIn(*table, {"alice", kUid, "old"});
  const NewSession bob = LogIn(*table, {"bob", kUid + 1, "old"});
  EXPECT_EQ(table->EndAllOfUser("alice", kept.token, "new").ended, 1u);
  for (const auto& view : {Open(), Open()}) {
    EXPECT_EQ(StampOf(*view, kept), "new");
    EXPECT_EQ(StampOf(*view, other), "ended");
    EXPECT_EQ(StampOf(*view, bob), "old");
  }
  EXPECT_EQ(StampOf(*table, kept), "new");
  EXPECT_EQ(table->EndAllOfUser("alice", kept.token, "newer").ended, 0u) << "the only one";
  EXPECT_EQ(StampOf(*Open(), kept), "newer") << "the stamp alone is a reason to write";
}

TEST_F(SessionListTest, AcceptStamp_WhileThePasswordChanges_SessionHasBoth) {
  const auto table = Open();
  const NewSession alice = LogIn(*table, {"alice", kUid, "old"});
  EXPECT_TRUE(table->HasStamp(alice.token, "old"));
  EXPECT_FALSE(table->HasStamp(alice.token, "new"));
  EXPECT_FALSE(table->HasStamp(alice.token, ""));
  ASSERT_TRUE(table->AcceptStamp(alice.token, "new").ok());
  EXPECT_TRUE(table->HasStamp(alice.token, "old"));
  EXPECT_TRUE(table->HasStamp(alice.token, "new"));
  const Status second = table->AcceptStamp(alice.token, "newer");
  ASSERT_FALSE(second.ok());
  EXPECT_EQ(second.error().code(), ErrorCode::kBusy);
  EXPECT_EQ(second.error().ToString(), "This login is changing the password already");
  table->RefuseStamp(alice.token, "newer");
  EXPECT_TRUE(table->HasStamp(alice.token, "new")) << "of another change";
  table->RefuseStamp(alice.token, "new");
  EXPECT_FALSE(table->HasStamp(alice.token, "new"));

  ASSERT_TRUE(table->AcceptStamp(alice.token, "newer").ok());
  EXPECT_EQ(table->EndAllOfUser("alice", alice.token, "newer").ended, 0u);
  EXPECT_TRUE(table->HasStamp(alice.token, "newer"));
  EXPECT_FALSE(table->HasStamp(alice.token, "old"));
  table->RefuseStamp(alice.token, "newer");
  EXPECT_TRUE(table->HasStamp(alice.token, "newer")) << "it is the session's own by now";
  now_ += options_.idle.count();
  EXPECT_FALSE(table->HasStamp(alice.token, "newer")) << "of an expired session";
  EXPECT_TRUE(table->AcceptStamp(std::string(43, 'A'), "new").ok()) << "without a session, nothing happens";
  EXPECT_TRUE(table->AcceptStamp("", "new").ok());
}

TEST_F(SessionListTest, End_FileCannotBeWritten_EndsInMemoryAndReportsIt) {
  const auto table = Open();
  const NewSession alice = LogIn(*table, {"alice", kUid});
  const NewSession bob = LogIn(*table, {"bob", kUid});
  const NewSession carol = LogIn(*table, {"carol", kUid});
  BreakWriting();
  const EndResult by_id = table->EndById(SessionIdOfToken(alice.token), std::nullopt);
  EXPECT_EQ(by_id.ended, 1u);
  EXPECT_FALSE(by_id.stored.ok());
  const EndResult all = table->EndAllOfUser("bob");
  EXPECT_EQ(all.ended, 1u);
  EXPECT_FALSE(all.stored.ok());
  EXPECT_FALSE(table->End(carol.token).stored.ok());
  EXPECT_TRUE(table->End(carol.token).stored.ok()) << "nothing was ended, so nothing is written";
  EXPECT_FALSE(table->Find(alice.token));
  EXPECT_FALSE(table->Find(bob.token));
  RepairWriting();
  EXPECT_EQ(InFile(), 3u);
  ASSERT_TRUE(table->Sweep().ok());
  EXPECT_EQ(InFile(), 0u);
}

TEST_F(SessionListTest, KnownAddress_AfterLogin_SurvivesLogoutAndRestart) {
  const auto table = Open();
  const NewSession alice = LogIn(*table, {"Alice", kUid}, "2001:db8::7");
  EXPECT_TRUE(table->IsKnownAddress("alice", "2001:db8::8")) << "of the same /64";
  EXPECT_FALSE(table->IsKnownAddress("alice", "2001:db8:0:1::7"));
  EXPECT_FALSE(table->IsKnownAddress("bob", "2001:db8::7"));
  EXPECT_EQ(table->End(alice.token).ended, 1u);
  const auto reopened = Open();
  EXPECT_TRUE(reopened->IsKnownAddress("ALICE", "2001:db8::9"));
  reopened->ForgetUser("alice");
  EXPECT_FALSE(reopened->IsKnownAddress("alice", "2001:db8::7"));
}

TEST_F(SessionListTest, ForgetUser_WithSessions_EndsThemAndForgetsAddressesInTheFile) {
  const auto table = Open();
  const NewSession alice = LogIn(*table, {"alice", kUid}, "192.0.2.7");
  LogIn(*table, {"bob", kUid}, "192.0.2.8");
  EXPECT_EQ(table->ForgetUser("alice").ended, 1u);
  const auto reopened = Open();
  EXPECT_FALSE(reopened->Find(alice.token));
  EXPECT_FALSE(reopened->IsKnownAddress("alice", "192.0.2.7"));
  EXPECT_TRUE(reopened->IsKnownAddress("bob", "192.0.2.8"));
}

TEST_F(SessionListTest, ForgetUser_WithoutSessions_ForgetsAddressesInTheFile) {
  const auto table = Open();
  const NewSession alice = LogIn(*table, {"alice", kUid}, "192.0.2.7");
  EXPECT_EQ(table->End(alice.token).ended, 1u);
  ASSERT_TRUE(Open()->IsKnownAddress("alice", "192.0.2.7"));
  EXPECT_EQ(table->ForgetUser("ALICE").ended, 0u);
  EXPECT_FALSE(Open()->IsKnownAddress("alice", "192.0.2.7"));
}

TEST_F(SessionListTest, ForgetUser_FileCannotBeWritten_ReportsItUntilTheNextWrite) {
  const auto table = Open();
  EXPECT_EQ(table->End(LogIn(*table, {"alice", kUid}, "192.0.2.7").token).ended, 1u);
  BreakWriting();
  EXPECT_TRUE(table->ForgetUser("bob").stored.ok()) << "nothing is known of bob, so nothing is written";
  EXPECT_FALSE(table->ForgetUser("alice").stored.ok());
  RepairWriting();
  ASSERT_TRUE(Open()->IsKnownAddress("alice", "192.0.2.7"));
  ASSERT_TRUE(table->Sweep().ok());
  EXPECT_FALSE(Open()->IsKnownAddress("alice", "192.0.2.7"));
}

TEST(KnownAddressesTest, Remember_MoreThanTheMaximumOfAUser_ForgetsTheOldest) {
  KnownAddresses addresses;
  const auto address = [](std::size_t i) { return "192.0.2." + std::to_string(i); };
  for (std::size_t i = 0; i < KnownAddresses::kMaxPerUser; ++i) addresses.Remember("alice", address(i));
  addresses.Remember("alice", address(0));  // it is not the oldest any more
  addresses.Remember("alice", "198.51.100.1");
  EXPECT_TRUE(addresses.IsKnown("alice", address(0)));
  EXPECT_FALSE(addresses.IsKnown("alice", address(1)));
  EXPECT_TRUE(addresses.IsKnown("alice", address(2)));
  EXPECT_EQ(addresses.Snapshot().size(), KnownAddresses::kMaxPerUser);
  EXPECT_EQ(addresses.Snapshot().back().network, "198.51.100.1");
}

TEST(KnownAddressesTest, Remember_MoreThanTheMaximumInAll_ForgetsTheOldest) {
  KnownAddresses addresses;
  for (std::size_t i = 0; i <= KnownAddresses::kMaxInAll; ++i) {
    addresses.Remember("user" + std::to_string(i), "192.0.2.1");
  }
  EXPECT_EQ(addresses.Snapshot().size(), KnownAddresses::kMaxInAll);
  EXPECT_FALSE(addresses.IsKnown("user0", "192.0.2.1"));
  EXPECT_TRUE(addresses.IsKnown("user1", "192.0.2.1"));
}

}  // namespace
}  // namespace vexa::session
