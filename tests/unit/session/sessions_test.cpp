#include "host/session/sessions.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/session/sessions_fixture.h"

namespace vexa::session {
namespace {

namespace fs = std::filesystem;

ErrorCode CodeOf(const Result<std::unique_ptr<SessionTable>>& result) {
  EXPECT_FALSE(result.ok());
  return result.ok() ? ErrorCode::kInternal : result.error().code();
}

TEST(SessionToken, Encode_KnownBytes_IsBase64Url) {
  Hash bytes{};
  EXPECT_EQ(EncodeHash(bytes), std::string(43, 'A'));
  bytes.fill(0xFF);
  EXPECT_EQ(EncodeHash(bytes), std::string(42, '_') + "8");
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i * 8 + 3);
  EXPECT_EQ(EncodeHash(bytes), "AwsTGyMrMztDS1NbY2tze4OLk5ujq7O7w8vT2-Pr8_s");
  EXPECT_EQ(DecodeHash(EncodeHash(bytes)), bytes);
}

TEST(SessionToken, Decode_AnythingElse_IsRefused) {
  EXPECT_FALSE(DecodeHash(std::string(42, 'A')));
  EXPECT_FALSE(DecodeHash(std::string(44, 'A')));
  EXPECT_FALSE(DecodeHash(std::string(42, 'A') + "B")) << "bits left over";
  EXPECT_FALSE(DecodeHash(std::string(42, 'A') + "="));
  EXPECT_FALSE(DecodeHash(std::string(42, 'A') + "+"));
  EXPECT_FALSE(DecodeHash(std::string(42, 'A') + std::string("\0", 1)));
}

TEST(SessionToken, Hash_KnownText_IsItsSha256) {
  // FIPS 180-2, "abc".
  EXPECT_EQ(EncodeHash(*HashToken("abc")), "ungWv48Bz-pBQUDeXa4iI7ADYaOWF3qctBD_YfIAFa0");
}

TEST_F(SessionsTest, IsLive_FollowsTheSession_AndIsNotAUseOfIt) {
  options_.idle = std::chrono::seconds(100);
  const auto table = Open();
  const std::string token = Create(*table, "alice").token;
  now_ = kStart + 60;
  EXPECT_TRUE(table->IsLive(token));
  EXPECT_FALSE(table->IsLive("x"));
  EXPECT_FALSE(table->IsLive(std::string(token.size(), 'A')));
  now_ = kStart + 101;
  EXPECT_FALSE(table->IsLive(token)) << "asking has not prolonged it";
  const std::string other = Create(*table, "alice").token;
  EXPECT_EQ(table->End(other).ended, 1u);
  EXPECT_FALSE(table->IsLive(other));
}

TEST_F(SessionsTest, Create_ThenFind_ReturnsUser) {
  const auto table = Open();
  const NewSession alice = Create(*table, "alice");
  const NewSession bob = Create(*table, "DOM\\bob");
  EXPECT_TRUE(HasTokenForm(alice.token));
  EXPECT_TRUE(HasTokenForm(alice.csrf_token));
  EXPECT_EQ((std::set<std::string>{alice.token, alice.csrf_token, bob.token, bob.csrf_token}).size(), 4u);
  EXPECT_EQ(UserOf(*table, alice.token), "alice");
  EXPECT_EQ(UserOf(*table, bob.token), "DOM\\bob");
  EXPECT_EQ(table->size(), 2u);
}

TEST_F(SessionsTest, Find_UnknownOrMalformed_IsEmpty) {
  const auto table = Open();
  const NewSession alice = Create(*table, "alice");
  for (const std::string& token :
       {std::string(), std::string(43, 'A'), alice.csrf_token, alice.token + "A", alice.token.substr(1),
        alice.token + "=", alice.token.substr(0, 42) + std::string("\0", 1), std::string(1 << 20, 'A'),
        std::string(43, '\xFF'), std::string(43, '/')}) {
    EXPECT_FALSE(table->Find(token));
    EXPECT_EQ(table->End(token).ended, 0u);
    EXPECT_FALSE(table->CheckCsrf(token, alice.csrf_token));
    EXPECT_FALSE(token != alice.csrf_token && table->CheckCsrf(alice.token, token));
  }
  EXPECT_EQ(UserOf(*table, alice.token), "alice");
}

TEST_F(SessionsTest, CheckCsrf_OtherSessionsToken_IsRefused) {
  const auto table = Open();
  const NewSession alice = Create(*table, "alice");
  const NewSession other = Create(*table, "alice");
  EXPECT_TRUE(table->CheckCsrf(alice.token, alice.csrf_token));
  EXPECT_FALSE(table->CheckCsrf(alice.token, other.csrf_token));
  EXPECT_FALSE(table->CheckCsrf(alice.token, alice.token));
  now_ += options_.idle.count();
  EXPECT_FALSE(table->CheckCsrf(alice.token, alice.csrf_token)) << "of an expired session";
}

TEST_F(SessionsTest, CheckCsrf_Repeated_DoesNotCountAsUse) {
  const auto table = Open();
  const NewSession alice = Create(*table, "alice");
  now_ += options_.idle.count() - 1;
  EXPECT_TRUE(table->CheckCsrf(alice.token, alice.csrf_token));
  now_ += 1;
  EXPECT_FALSE(table->Find(alice.token));
}

TEST_F(SessionsTest, Create_ImpossibleUser_IsInvalid) {
  const auto table = Open();
  for (const std::string& user : {std::string(), std::string("a b"), std::string("a\"b"), std::string("a\n"),
                                  std::string("a\0", 2), std::string(65, 'a'), std::string("\xFF")}) {
    EXPECT_EQ(table->Create({user, kUid}).error().code(), ErrorCode::kInvalid);
  }
  EXPECT_EQ(table->size(), 0u);
}

TEST_F(SessionsTest, End_LiveSession_IsRemovedPermanently) {
  const auto table = Open();
  const NewSession alice = Create(*table, "alice");
  const NewSession other = Create(*table, "alice");
  EXPECT_EQ(table->End(alice.token).ended, 1u);
  EXPECT_EQ(table->End(alice.token).ended, 0u);
  EXPECT_FALSE(table->Find(alice.token));
  const auto reopened = Open();
  EXPECT_FALSE(reopened->Find(alice.token));
  EXPECT_EQ(UserOf(*reopened, other.token), "alice");
}

TEST_F(SessionsTest, EndAllOf_User_LeavesOthers) {
  const auto table = Open();
  std::vector<NewSession> own;
  for (int i = 0; i < 5; ++i) own.push_back(Create(*table, "alice"));
  const NewSession bob = Create(*table, "bob");
  EXPECT_EQ(table->EndAllOfUser("alice").ended, 5u);
  EXPECT_EQ(table->EndAllOfUser("alice").ended, 0u);
  for (const NewSession& session : own) EXPECT_FALSE(table->Find(session.token));
  EXPECT_EQ(Open()->size(), 1u);
  EXPECT_EQ(UserOf(*table, bob.token), "bob");
}

TEST_F(SessionsTest, Reopen_WithoutASweep_KeepsSessions) {
  NewSession alice;
  NewSession bob;
  {
    const auto table = Open();
    alice = Create(*table, "alice");
    bob = Create(*table, "DOM\\bob");
  }
  const auto table = Open();
  EXPECT_EQ(table->size(), 2u);
  EXPECT_EQ(UserOf(*table, alice.token), "alice");
  EXPECT_EQ(UserOf(*table, bob.token), "DOM\\bob");
  EXPECT_TRUE(table->CheckCsrf(alice.token, alice.csrf_token));
  EXPECT_FALSE(table->CheckCsrf(alice.token, bob.csrf_token));
}

TEST_F(SessionsTest, File_AfterLogins_IsPrivateAndContainsNoToken) {
  const auto table = Open();
  std::vector<NewSession> sessions;
  for (int i = 0; i < 10; ++i) sessions.push_back(Create(*table, "alice"));
  struct stat info {};
  ASSERT_EQ(::stat(path().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  for (const NewSession& session : sessions) {
    EXPECT_EQ(Text().find(session.token), std::string::npos);
    EXPECT_EQ(Text().find(session.csrf_token), std::string::npos);
    EXPECT_NE(Text().find(EncodeHash(*HashToken(session.token))), std::string::npos);
  }
}

TEST_F(SessionsTest, Idle_UsedInTime_LivesOn) {
  const auto table = Open();
  const NewSession alice = Create(*table, "alice");
  for (int i = 0; i < 5; ++i) {
    now_ += options_.idle.count() - 1;
    EXPECT_TRUE(table->Find(alice.token)) << i;
  }
  now_ += options_.idle.count();
  EXPECT_FALSE(table->Find(alice.token));
  EXPECT_EQ(table->End(alice.token).ended, 0u) << "an expired session does not count";
}

TEST_F(SessionsTest, AbsoluteTimeout_ContinuousUse_StillExpires) {
  const auto table = Open();
  const NewSession alice = Create(*table, "alice");
  for (int i = 0; i < 719; ++i) {
    now_ += 60;
    ASSERT_TRUE(table->Find(alice.token)) << i;
  }
  now_ += 59;
  EXPECT_TRUE(table->Find(alice.token));
  now_ += 1;
  EXPECT_FALSE(table->Find(alice.token));
}

TEST_F(SessionsTest, Sweep_AfterUses_WritesThemOnceAndDropsTheExpired) {
  const auto table = Open();
  const NewSession alice = Create(*table, "alice");
  Create(*table, "bob");
  now_ += options_.idle.count() - 60;
  ASSERT_TRUE(table->Find(alice.token));
  const std::string before = Text();
  EXPECT_EQ(Text(), before);
  ASSERT_TRUE(table->Sweep().ok());
  EXPECT_NE(Text(), before);
  now_ += 60;
  ASSERT_TRUE(table->Sweep().ok());
  EXPECT_EQ(table->size(), 1u);
  EXPECT_EQ(InFile(), 1u);
  now_ += options_.idle.count() - 120;
  EXPECT_EQ(UserOf(*Open(), alice.token), "alice") << "the last use counts after a restart";
}

TEST_F(SessionsTest, Sweep_NothingHappened_WritesNothing) {
  const auto table = Open();
  ASSERT_TRUE(table->Sweep().ok());
  EXPECT_FALSE(fs::exists(path()));
  const NewSession alice = Create(*table, "alice");
  ASSERT_TRUE(table->Find(alice.token));
  ASSERT_TRUE(table->Sweep().ok());
  BreakWriting();
  EXPECT_TRUE(table->Sweep().ok()) << "no reason to write";
  ++now_;
  ASSERT_TRUE(table->Find(alice.token));
  EXPECT_FALSE(table->Sweep().ok());
  RepairWriting();
  EXPECT_TRUE(table->Sweep().ok());
}

TEST_F(SessionsTest, Create_QuotaReached_EndsOldest) {
  options_.max_sessions_per_user = 3;
  const auto table = Open();
  const NewSession bob = Create(*table, "bob");
  std::vector<NewSession> own;
  for (int i = 0; i < 5; ++i) {
    own.push_back(Create(*table, "alice"));
    table->Find(own.front().token);  // use does not make it younger
  }
  for (std::size_t i = 0; i < own.size(); ++i) EXPECT_EQ(table->Find(own[i].token).has_value(), i >= 2) << i;
  EXPECT_TRUE(table->Find(bob.token));
  EXPECT_EQ(table->size(), 4u);
  const auto reopened = Open();
  EXPECT_EQ(reopened->size(), 4u);
  Create(*reopened, "alice");
  EXPECT_FALSE(reopened->Find(own[2].token)) << "the order survives a restart";
  EXPECT_TRUE(reopened->Find(own[3].token));
}

TEST_F(SessionsTest, Create_QuotaLowered_EndsAllAboveIt) {
  {
    const auto table = Open();
    for (int i = 0; i < 6; ++i) Create(*table, "alice");
  }
  options_.max_sessions_per_user = 2;
  const auto table = Open();
  const NewSession newest = Create(*table, "alice");
  EXPECT_EQ(table->size(), 2u);
  EXPECT_TRUE(table->Find(newest.token));
  EXPECT_EQ(Open()->size(), 2u);
}

TEST_F(SessionsTest, Create_TableFull_IsBusyUntilOneEndsOrExpires) {
  options_.max_sessions = 3;
  options_.max_sessions_per_user = 2;
  const auto table = Open();
  const NewSession alice = Create(*table, "alice");
  Create(*table, "alice");
  Create(*table, "bob");
  EXPECT_EQ(table->Create({"carol", kUid}).error().code(), ErrorCode::kBusy);
  EXPECT_EQ(table->Create({"bob", kUid}).error().code(), ErrorCode::kBusy);
  Create(*table, "alice");  // in the place of an older one
  EXPECT_EQ(table->size(), 3u);
  EXPECT_FALSE(table->Find(alice.token));
  EXPECT_EQ(table->EndAllOfUser("bob").ended, 1u);
  Create(*table, "carol");
  EXPECT_EQ(table->Create({"dave", kUid}).error().code(), ErrorCode::kBusy);
  now_ += options_.idle.count();
  Create(*table, "dave");
  EXPECT_EQ(table->size(), 1u);
}

TEST_F(SessionsTest, Clock_JumpsBack_NeitherEndsNorRevives) {
  const auto table = Open();
  const NewSession expired = Create(*table, "alice");
  now_ += options_.idle.count();
  ASSERT_FALSE(table->Find(expired.token));
  const NewSession live = Create(*table, "bob");
  now_ = kStart + 10;
  EXPECT_FALSE(table->Find(expired.token)) << "what was expired stays so";
  EXPECT_EQ(UserOf(*table, live.token), "bob");
  now_ = kStart + options_.idle.count() + 10;
  EXPECT_EQ(UserOf(*table, live.token), "bob");
}

TEST_F(SessionsTest, Clock_WasFarAhead_SessionsStillExpire) {
  const auto table = Open();
  now_ = kStart + 1'000'000'000;
  const NewSession alice = Create(*table, "alice");
  now_ = kStart;
  EXPECT_TRUE(table->Find(alice.token));
  now_ = kStart + options_.absolute.count();
  EXPECT_FALSE(table->Find(alice.token));
}

TEST_F(SessionsTest, Clock_EarlierThanFile_CountsFromNow) {
  NewSession alice;
  now_ = kStart + 1'000'000'000;
  {
    const auto table = Open();
    alice = Create(*table, "alice");
  }
  now_ = kStart;
  {
    const auto table = Open();
    EXPECT_TRUE(table->Find(alice.token));
  }
  const auto table = Open();
  now_ = kStart + options_.idle.count();
  EXPECT_FALSE(table->Find(alice.token));
}

TEST_F(SessionsTest, Create_FileCannotBeWritten_IsAnErrorAndNoSession) {
  options_.max_sessions_per_user = 2;
  const auto table = Open();
  const NewSession first = Create(*table, "alice");
  const NewSession second = Create(*table, "alice");
  BreakWriting();
  EXPECT_FALSE(table->Create({"alice", kUid}).ok());
  EXPECT_FALSE(table->Create({"bob", kUid}).ok());
  EXPECT_EQ(table->size(), 2u);
  EXPECT_TRUE(table->Find(first.token)) << "the one it would have replaced lives on";
  EXPECT_TRUE(table->Find(second.token));
  RepairWriting();
  Create(*table, "alice");
  EXPECT_FALSE(table->Find(first.token));
  EXPECT_EQ(table->size(), 2u);
  EXPECT_EQ(InFile(), 2u);
}

TEST_F(SessionsTest, End_FileCannotBeWritten_EndsItAndNextSweepWrites) {
  const auto table = Open();
  const NewSession alice = Create(*table, "alice");
  const NewSession bob = Create(*table, "bob");
  BreakWriting();
  EXPECT_EQ(table->End(alice.token).ended, 1u);
  EXPECT_EQ(table->EndAllOfUser("bob").ended, 1u);
  EXPECT_FALSE(table->Find(alice.token));
  EXPECT_FALSE(table->Find(bob.token));
  EXPECT_FALSE(table->Sweep().ok());
  RepairWriting();
  EXPECT_EQ(InFile(), 2u);
  ASSERT_TRUE(table->Sweep().ok());
  EXPECT_EQ(InFile(), 0u);
}

TEST_F(SessionsTest, Open_FileNotPrivate_IsDenied) {
  Create(*Open(), "alice");
  for (const mode_t mode : {0640, 0620, 0604, 0602}) {
    ASSERT_EQ(::chmod(path().c_str(), mode), 0);
    EXPECT_EQ(CodeOf(SessionTable::Open(path(), options_)), ErrorCode::kDenied) << mode;
  }
  ASSERT_EQ(::chmod(path().c_str(), 0600), 0);
  fs::create_symlink(path(), folder_.Path("link"));
  EXPECT_EQ(CodeOf(SessionTable::Open(folder_.Path("link"), options_)), ErrorCode::kDenied);
  EXPECT_EQ(CodeOf(SessionTable::Open(folder_.path(), options_)), ErrorCode::kCorrupt);
  EXPECT_EQ(Open()->size(), 1u);
}

TEST_F(SessionsTest, Open_TamperedFile_IsCorrupt) {
  const std::string hash(43, 'A');
  const std::string other = std::string(42, 'B') + "A";
  const std::string good =
      R"({"hash":")" + hash + R"(","csrf_hash":")" + other +
      R"(","user":"alice","uid":1026,"stamp":"s-1","from":"192.0.2.1","created":1800000000,"last_used":1800000000})";
  const auto file = [](const std::string& sessions, const std::string& addresses = "") {
    return R"({"version":2,"sessions":[)" + sessions + R"(],"addresses":[)" + addresses + "]}";
  };
  const auto with = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return file(text.replace(at, from.size(), to));
  };
  ASSERT_TRUE(WriteFileAtomically(path(), file(good), 0600).ok());
  ASSERT_EQ(Open()->size(), 1u);
  for (const std::string& text : {std::string(),
                                  std::string("{}"),
                                  std::string("[]"),
                                  std::string("null"),
                                  std::string("{\"version\":2}"),
                                  std::string(R"({"version":3,"sessions":[],"addresses":[]})"),
                                  std::string(R"({"version":"1","sessions":[]})"),
                                  std::string(R"({"version":2.0,"sessions":[]})"),
                                  std::string(R"({"version":2,"sessions":{}})"),
                                  std::string(R"({"version":2,"sessions":[],"x":1})"),
                                  std::string(R"({"version":2,"sessions":[1]})"),
                                  std::string(R"({"version":2,"sessions":[null]})"),
                                  std::string(R"({"version":2,"sessions":[{}]})"),
                                  file(good + "," + good),
                                  file(good).substr(0, 60),
                                  with("\"user\"", "\"usr\""),
                                  with("\"alice\"", "\"a b\""),
                                  with("\"alice\"", "7"),
                                  with("\"alice\"", "\"\""),
                                  with("\"s-1\"", "7"),
                                  with("\"s-1\"", "\"a b\""),
                                  with("\"s-1\"", "\"" + std::string(81, 's') + "\""),
                                  with("\"stamp\":\"s-1\",", ""),
                                  with("\"192.0.2.1\"", "\"a\\\"b\""),
                                  with("\"from\":\"192.0.2.1\",", ""),
                                  with("\"uid\":1026,", ""),
                                  file(good, "1"),
                                  file(good, R"({"user":"alice"})"),
                                  file(good, R"({"user":"a b","network":"192.0.2.1"})"),
                                  file(good, R"({"user":"alice","network":"a b"})"),
                                  file(good, R"({"user":"alice","network":"192.0.2.1","x":1})"),
                                  with("1026", "-1"),
                                  with("1026", "4294967295"),
                                  with("1026", "1.5"),
                                  with("1026", "\"1026\""),
                                  with("1026", "null"),
                                  with(hash, hash.substr(1)),
                                  with(hash, hash + "A"),
                                  with(hash, std::string(43, '+')),
                                  with(hash, std::string(43, 'B')),
                                  with(other, ""),
                                  with("\"created\":1800000000", "\"created\":-1"),
                                  with("\"created\":1800000000", "\"created\":1.5"),
                                  with("\"created\":1800000000", "\"created\":9223372036854775807"),
                                  with("\"created\":1800000000", "\"created\":\"1\""),
                                  with("\"last_used\":1800000000", "\"last_used\":null"),
                                  with("\"last_used\":1800000000", "\"last_used\":1e300"),
                                  with("\"last_used\":1800000000", "\"last_used\":1,\"admin\":true")}) {
    ASSERT_TRUE(WriteFileAtomically(path(), text, 0600).ok());
    EXPECT_EQ(CodeOf(SessionTable::Open(path(), options_)), ErrorCode::kCorrupt) << text;
    EXPECT_EQ(Text(), text);
  }
}

// Whether their passwords have changed since cannot be known.
TEST_F(SessionsTest, Open_SessionsOfOlderVersion_AreEnded) {
  const NewSession alice = Create(*Open(), "alice");
  const std::string hash = EncodeHash(*HashToken(alice.token));
  for (const std::string& session :
       {R"({"hash":")" + hash + R"(","csrf_hash":")" + hash +
            R"(","user":"alice","uid":1900000002,"created":1800000000,"last_used":1800000000})",
        R"({"hash":")" + hash + R"(","csrf_hash":")" + hash +
            R"(","user":"alice","created":1800000000,"last_used":1800000000})",
        std::string("{}"), std::string("7")}) {
    ASSERT_TRUE(WriteFileAtomically(path(), R"({"version":1,"sessions":[)" + session + "]}", 0600).ok());
    const auto table = Open();
    ASSERT_NE(table, nullptr) << session;
    EXPECT_FALSE(table->Find(alice.token)) << session;
    EXPECT_EQ(table->size(), 0u) << session;
    Create(*table, "bob");
    EXPECT_EQ(Open()->size(), 1u) << "the file has the new version now";
  }
}

TEST_F(SessionsTest, Open_ExpiredInTheFile_AreDropped) {
  NewSession alice;
  {
    const auto table = Open();
    alice = Create(*table, "alice");
  }
  now_ += options_.idle.count();
  const auto table = Open();
  EXPECT_EQ(table->size(), 0u);
  ASSERT_TRUE(table->Sweep().ok());
  EXPECT_EQ(InFile(), 0u);
}

TEST_F(SessionsTest, Options_DefaultClock_IsSystemClock) {
  options_.now = nullptr;
  const auto table = Open();
  // time(2) may still return the last second when other clocks have begun the next.
  const auto now = [] { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()); };
  const std::int64_t before = now();
  const NewSession alice = Create(*table, "alice");
  EXPECT_TRUE(table->Find(alice.token));
  const std::int64_t created = (*ParseJson(Text()))["sessions"][0]["created"].asInt64();
  EXPECT_GE(created, before);
  EXPECT_LE(created, now());
}

TEST_F(SessionsTest, Find_DuringConcurrentCreateEndAndSweep_StaysCorrect) {
  const auto table = Open();
  std::vector<NewSession> kept;
  for (int i = 0; i < 8; ++i) kept.push_back(Create(*table, "kept-" + std::to_string(i)));
  std::atomic<bool> is_done{false};
  std::vector<std::thread> finders;
  for (std::size_t i = 0; i < kept.size(); ++i) {
    finders.emplace_back([&, i] {
      while (!is_done) {
        ASSERT_EQ(UserOf(*table, kept[i].token), "kept-" + std::to_string(i));
        ASSERT_TRUE(table->CheckCsrf(kept[i].token, kept[i].csrf_token));
      }
    });
  }
  std::vector<std::thread> changers;
  std::vector<std::vector<NewSession>> standing(3);
  for (std::size_t i = 0; i < standing.size(); ++i) {
    changers.emplace_back([&, i] {
      for (int round = 0; round < 30; ++round) {
        const NewSession session = Create(*table, "user-" + std::to_string(i));
        ASSERT_TRUE(table->Find(session.token));
        if (round % 3 == 0) {
          standing[i].push_back(session);
        } else {
          ASSERT_EQ(table->End(session.token).ended, 1u);
          ASSERT_FALSE(table->Find(session.token));
        }
      }
    });
  }
  changers.emplace_back([&] {
    for (int round = 0; round < 30; ++round) {
      ++now_;
      EXPECT_TRUE(table->Sweep().ok());
      EXPECT_EQ(table->EndAllOfUser("nobody").ended, 0u);
    }
  });
  for (std::thread& changer : changers) changer.join();
  is_done = true;
  for (std::thread& finder : finders) finder.join();
  // The file has everything, without a last sweep.
  const auto reopened = Open();
  EXPECT_EQ(reopened->size(), kept.size() + 30);
  for (const NewSession& session : kept) EXPECT_TRUE(reopened->Find(session.token));
  for (const auto& sessions : standing) {
    for (const NewSession& session : sessions) EXPECT_TRUE(reopened->Find(session.token));
  }
}

TEST_F(SessionsTest, Create_ConcurrentLogins_RespectQuota) {
  options_.max_sessions_per_user = 4;
  const auto table = Open();
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 10; ++round) EXPECT_TRUE(table->Create({"alice", kUid}).ok());
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(table->size(), 4u);
  ASSERT_TRUE(table->Sweep().ok());
  EXPECT_EQ(InFile(), 4u);
}

}  // namespace
}  // namespace vexa::session
