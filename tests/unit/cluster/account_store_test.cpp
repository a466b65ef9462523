#include "host/cluster/account_store.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

#include "tests/support/racing_store.h"
#include "tests/unit/cluster/account_store_fixture.h"

namespace vexa::cluster {
namespace {

using accounts::kFirstAssignedId;
using accounts::kLastAssignedId;
using Names = std::vector<std::string>;

TEST_F(AccountStoreTest, Add_ThenFind_ReturnsUserWithGroups) {
  Add("alice", {"administrators", "operators", "operators", "users"});
  const auto user = accounts_.FindUser("alice");
  ASSERT_TRUE(user.ok()) << user.error().ToString();
  EXPECT_TRUE(user->is_administrator);
  EXPECT_EQ(GroupNames(*user), (Names{"users", "administrators", "operators"}));
  EXPECT_EQ(user->groups.front().gid, user->gid);
  EXPECT_GE(user->uid, kFirstAssignedId);
  EXPECT_EQ(accounts_.FindUserByUid(user->uid)->name, "alice");
  for (const accounts::Group& group : user->groups) {
    EXPECT_EQ(accounts_.FindGroupByGid(group.gid)->name, group.name);
    EXPECT_EQ(accounts_.FindGroup(group.name)->gid, group.gid);
  }
}

TEST_F(AccountStoreTest, Find_Unknown_IsNotFound) {
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(CodeOf(accounts_.FindUser("bob")), ErrorCode::kNotFound);
    EXPECT_EQ(CodeOf(accounts_.FindUser("")), ErrorCode::kNotFound);
    EXPECT_EQ(CodeOf(accounts_.FindUser("alice\n")), ErrorCode::kNotFound);
    EXPECT_EQ(CodeOf(accounts_.FindUser(std::string("alice\0", 6))), ErrorCode::kNotFound);
    EXPECT_EQ(CodeOf(accounts_.FindUserByUid(4242)), ErrorCode::kNotFound);
    EXPECT_EQ(CodeOf(accounts_.FindGroup("none")), ErrorCode::kNotFound);
    EXPECT_EQ(CodeOf(accounts_.FindGroupByGid(4242)), ErrorCode::kNotFound);
    EXPECT_EQ(CodeOf(accounts_.DeleteUser("bob")), ErrorCode::kNotFound);
    EXPECT_TRUE(round > 0 || Revision() == 0u) << "an empty store stays empty";
    Add("alice" + std::to_string(round));
  }
}

TEST_F(AccountStoreTest, Stamp_OfUser_ChangesWithPasswordOnly) {
  Add("alice");
  const accounts::User before = *accounts_.FindUser("alice");
  EXPECT_FALSE(before.stamp.empty());
  EXPECT_EQ(accounts_.FindUserByUid(before.uid)->stamp, before.stamp);
  EXPECT_EQ(accounts_.VerifyPassword("alice", kPassword)->stamp, before.stamp);
  ASSERT_TRUE(accounts_.SetGroups("alice", {"operators"}).ok());
  EXPECT_EQ(accounts_.FindUser("alice")->stamp, before.stamp);
  const auto stamp = accounts_.SetPassword("alice", kPassword);
  ASSERT_TRUE(stamp.ok());
  EXPECT_NE(*stamp, before.stamp) << "the same password has another salt";
  EXPECT_EQ(accounts_.FindUser("alice")->stamp, *stamp);
  EXPECT_EQ(accounts_.ListUsers()->front().stamp, *stamp);
}

struct NameRow {
  const char* name;
  const char* first;   // created
  const char* second;  // then asked for, and tried to create
  bool is_same;
};
constexpr NameRow kNameRows[] = {
    {"Same", "alice", "alice", true},
    {"FirstLetterUpper", "alice", "Alice", true},
    {"AllUpper", "alice", "ALICE", true},
    {"CreatedUpper", "ALICE", "alice", true},
    {"CreatedMixed", "aLiCe", "AlIcE", true},
    {"Domain", "DOM\\alice", "dom\\Alice", true},
    {"Directory", "alice@Example.ORG", "ALICE@example.org", true},
    {"DigitsAndSigns", "a-1_b.c", "A-1_B.C", true},
    {"Longer", "alice", "alice2", false},
    {"OtherSign", "a-b", "a_b", false},
    // Neighbours of the letters in ASCII, which a careless folding mixes up.
    {"AtAndNothing", "a@b", "a`b", false},
    {"BackslashAndPipe", "a\\b", "a|b", false},
    {"NotAscii", "kelvin",
     "\xE2\x84\xAA"
     "elvin",
     false},
};

class AccountNames : public AccountStoreTest, public testing::WithParamInterface<NameRow> {};

TEST_P(AccountNames, Find_OtherLetterCase_ReturnsCreatedSpelling) {
  const NameRow& row = GetParam();
  Add(row.first, {"Team"});
  if (!row.is_same) {
    EXPECT_EQ(CodeOf(accounts_.FindUser(row.second)), ErrorCode::kNotFound);
    return;
  }
  EXPECT_EQ(accounts_.FindUser(row.second)->name, row.first);
  EXPECT_EQ(accounts_.VerifyPassword(row.second, kPassword)->name, row.first);
  EXPECT_EQ(CodeOf(accounts_.AddUser({row.second, kPassword, {}, {}})), ErrorCode::kConflict);
  Add("last-administrator", {"administrators"});
  ASSERT_TRUE(accounts_.SetGroups(row.second, {"tEAM", "USERS", "ADMINISTRATORS"}).ok());
  const auto user = accounts_.FindUser(row.first);
  EXPECT_EQ(GroupNames(*user), (Names{"users", "Team", "administrators"}));
  EXPECT_TRUE(user->is_administrator);
  const auto stamp = accounts_.SetPassword(accounts_.FindUser(row.second)->uid, "another password");
  ASSERT_TRUE(stamp.ok());
  EXPECT_EQ(accounts_.FindUser(row.first)->stamp, *stamp);
  EXPECT_TRUE(accounts_.VerifyPassword(row.first, "another password").ok());
  ASSERT_TRUE(accounts_.DeleteUser(row.second).ok());
  EXPECT_EQ(CodeOf(accounts_.FindUser(row.first)), ErrorCode::kNotFound);
  Add(row.second);
  EXPECT_EQ(accounts_.FindUser(row.first)->name, row.second) << "the new spelling";
}

INSTANTIATE_TEST_SUITE_P(All, AccountNames, testing::ValuesIn(kNameRows),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(AccountStoreTest, Add_ImpossibleNames_AreInvalid) {
  for (const std::string& name :
       {std::string(), std::string("-a"), std::string(".a"), std::string("../a"), std::string("a/b"),
        std::string("a b"), std::string("a\nb"), std::string("a%s"), std::string("a\0b", 3), std::string(65, 'a'),
        std::string("\xC3\xA9"), std::string("a\"b"), std::string("@a"), std::string("\\a"), std::string("a:b")}) {
    EXPECT_EQ(CodeOf(accounts_.AddUser({name, kPassword, {}, {}})), ErrorCode::kInvalid) << name;
    EXPECT_EQ(CodeOf(accounts_.AddUser({"bob", kPassword, {name}, {}})), ErrorCode::kInvalid) << name;
  }
  EXPECT_EQ(CodeOf(accounts_.AddUser({"bob", kPassword, {}, 0xFFFFFFFFu})), ErrorCode::kInvalid);
  EXPECT_EQ(Revision(), 0u);
  for (const std::string& name : Names{"a", "_a", "0", "DOM\\alice", "a@b.example", "a-b_c.d", std::string(64, 'a')}) {
    Add(name);
    EXPECT_EQ(accounts_.FindUser(name)->name, name);
  }
}

TEST_F(AccountStoreTest, Passwords_AtEachLimit_AreAcceptedOrRefused) {
  const auto add = [&](const std::string& name, const std::string& password) {
    return accounts_.AddUser({name, password, {}, {}});
  };
  EXPECT_EQ(CodeOf(add("u7", std::string(7, 'x'))), ErrorCode::kInvalid);
  EXPECT_EQ(CodeOf(add("u513", std::string(513, 'x'))), ErrorCode::kInvalid);
  EXPECT_EQ(CodeOf(add("nul", std::string("12345678\0abc", 12))), ErrorCode::kInvalid);
  EXPECT_EQ(CodeOf(add("latin1", "p\xE4sswort1")), ErrorCode::kInvalid);
  for (const std::size_t size : {8, 511, 512}) {
    const std::string name = "u" + std::to_string(size);
    const std::string password(size, 'x');
    ASSERT_TRUE(add(name, password).ok());
    EXPECT_TRUE(accounts_.VerifyPassword(name, password).ok()) << size;
    EXPECT_EQ(CodeOf(accounts_.VerifyPassword(name, password.substr(1))), ErrorCode::kDenied);
  }
  std::string other(512, 'x');
  other[511] = 'y';
  EXPECT_EQ(CodeOf(accounts_.VerifyPassword("u512", other)), ErrorCode::kDenied) << "every byte counts";
}

TEST_F(AccountStoreTest, VerifyPassword_Wrong_IsDeniedWithSameError) {
  Add("alice");
  const std::string stored = Text(records::AccountKey(records::AccountKind::kUser, accounts_.FindUser("alice")->uid));
  EXPECT_NE(stored.find("\"$y$"), std::string::npos);
  EXPECT_EQ(stored.find(kPassword), std::string::npos);
  const std::string with_nul = std::string(kPassword) + std::string("\0x", 2);
  std::set<std::string> messages;
  for (const auto& [name, password] :
       std::vector<std::pair<std::string, std::string>>{{"alice", "correct horse batterx"},
                                                        {"alice", ""},
                                                        {"alice", with_nul},
                                                        {"alice", std::string(100'000, 'x')},
                                                        {"nobody-here", kPassword},
                                                        {"", kPassword},
                                                        {std::string("alice\0", 6), kPassword}}) {
    const auto result = accounts_.VerifyPassword(name, password);
    EXPECT_EQ(CodeOf(result), ErrorCode::kDenied) << name;
    messages.insert(result.error().ToString());
  }
  EXPECT_EQ(messages.size(), 1u);
}

TEST_F(AccountStoreTest, SetGroups_Changed_ReplacesAllButPrimary) {
  Add("bob", {"administrators"});
  Add("alice", {"administrators"});
  ASSERT_TRUE(accounts_.SetGroups("alice", {"b", "a", "b"}).ok());
  EXPECT_EQ(GroupNames(*accounts_.FindUser("alice")), (Names{"users", "b", "a"}));
  EXPECT_FALSE(accounts_.FindUser("alice")->is_administrator);
  ASSERT_TRUE(accounts_.SetGroups("alice", {}).ok());
  EXPECT_EQ(GroupNames(*accounts_.FindUser("alice")), Names{"users"});
  EXPECT_EQ(CodeOf(accounts_.SetGroups("carol", {"made-for-nobody"})), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(accounts_.FindGroup("made-for-nobody")), ErrorCode::kNotFound);
}

TEST_F(AccountStoreTest, LastAdministrator_CannotBeDemotedOrDeleted) {
  Add("alice", {"administrators"});
  Add("bob");
  EXPECT_EQ(CodeOf(accounts_.SetGroups("alice", {"staff"})), ErrorCode::kDenied);
  const Status refused = accounts_.DeleteUser("alice");
  EXPECT_EQ(CodeOf(refused), ErrorCode::kDenied);
  EXPECT_EQ(refused.error().ToString(),
            "The user 'alice' is the last one in the group 'administrators'. Put another user into it first");
  EXPECT_TRUE(accounts_.FindUser("alice")->is_administrator);
  EXPECT_TRUE(accounts_.SetGroups("alice", {"staff", "Administrators"}).ok()) << "still one";
  ASSERT_TRUE(accounts_.DeleteUser("bob").ok());
  Add("carol", {"administrators"});
  EXPECT_TRUE(accounts_.SetGroups("alice", {}).ok());
  EXPECT_TRUE(accounts_.DeleteUser("alice").ok());
  EXPECT_EQ(CodeOf(accounts_.DeleteUser("carol")), ErrorCode::kDenied);
}

TEST_F(AccountStoreTest, Delete_TwoAdministratorsConcurrently_OneRemains) {
  for (const bool is_deleted : {true, false}) {
    const std::string first = is_deleted ? "alice" : "carol";
    const std::string second = is_deleted ? "bob" : "dave";
    Add(first, {"administrators"});
    Add(second, {"administrators"});
    if (!is_deleted) {
      ASSERT_TRUE(accounts_.DeleteUser("bob").ok());
    }
    const auto remove = [&](AccountStore& accounts, const std::string& name) {
      return is_deleted ? accounts.DeleteUser(name) : accounts.SetGroups(name, {});
    };
    AccountStore other(real_);
    AccountStore interrupted(
        std::make_shared<test::RacingStore>(*real_, [&] { EXPECT_TRUE(remove(other, first).ok()); }));
    EXPECT_EQ(CodeOf(remove(interrupted, second)), ErrorCode::kDenied);
    EXPECT_TRUE(accounts_.FindUser(second)->is_administrator);
  }
}

// Ids.

TEST_F(AccountStoreTest, CheckMachineUid_RootOrDaemon_IsInvalid) {
  for (const std::uint32_t uid : {std::uint32_t{0}, std::uint32_t{::geteuid()}}) {
    EXPECT_EQ(CodeOf(AccountStore::CheckMachineUid(uid)), ErrorCode::kInvalid) << uid;
  }
  EXPECT_TRUE(AccountStore::CheckMachineUid(::geteuid() + 1).ok());
}

TEST_F(AccountStoreTest, AddUser_NameOfSystemUser_GetsAssignedId) {
  Add("root", {"daemon"});
  EXPECT_GE(accounts_.FindUser("root")->uid, kFirstAssignedId);
  EXPECT_GE(accounts_.FindGroup("daemon")->gid, kFirstAssignedId);
}

TEST_F(AccountStoreTest, AssignId_IdOfDeletedUser_IsNotReused) {
  Add("alice");
  Add("bob", {}, 1026);
  Add("carol", {}, kFirstAssignedId + 50);
  std::set<std::uint32_t> given;
  for (const char* name : {"alice", "bob", "carol"}) {
    given.insert(accounts_.FindUser(name)->uid);
    ASSERT_TRUE(accounts_.DeleteUser(name).ok());
  }
  EXPECT_EQ(CodeOf(accounts_.AddUser({"dave", kPassword, {}, 1026})), ErrorCode::kConflict);
  EXPECT_EQ(CodeOf(accounts_.AddUser({"dave", kPassword, {}, kFirstAssignedId})), ErrorCode::kConflict) << "a group's";
  EXPECT_EQ(CodeOf(accounts_.AddUser({"dave", kPassword, {}, kFirstAssignedId + 50})), ErrorCode::kConflict);
  const Names many = [] {
    Names names;
    for (int i = 0; i < 60; ++i) names.push_back("g" + std::to_string(i));
    return names;
  }();
  AccountStore another(real_);
  ASSERT_TRUE(another.AddUser({"alice", kPassword, many, {}}).ok());
  const auto alice = another.FindUser("alice");
  EXPECT_FALSE(given.contains(alice->uid));
  for (const accounts::Group& group : alice->groups) EXPECT_FALSE(given.contains(group.gid));
}

TEST_F(AccountStoreTest, Add_TakenUid_IsConflictAndChangesNothing) {
  Add("alice", {}, 5000);
  const auto before = Revision();
  EXPECT_EQ(CodeOf(accounts_.AddUser({"bob", kPassword, {"new"}, 5000})), ErrorCode::kConflict);
  EXPECT_EQ(CodeOf(accounts_.AddUser({"alice", kPassword, {}, 5001})), ErrorCode::kConflict);
  EXPECT_EQ(Revision(), before);
}

TEST_F(AccountStoreTest, AssignId_LastIdUsed_IsNoSpaceExceptForGivenIds) {
  Add("alice");
  Put(records::AccountStateKey(), R"({"next_id":2147483646})");
  Add("last");
  EXPECT_EQ(accounts_.FindUser("last")->uid, kLastAssignedId);
  EXPECT_EQ(CodeOf(accounts_.AddUser({"bob", kPassword, {}, {}})), ErrorCode::kNoSpace);
  EXPECT_EQ(CodeOf(accounts_.SetGroups("alice", {"one-more"})), ErrorCode::kNoSpace);
  EXPECT_TRUE(accounts_.AddUser({"bob", kPassword, {}, 5000}).ok());
}

// The account that the grants are for may still be in the file of another host.
TEST_F(AccountStoreTest, AssignId_IdHasOldGrants_IsSkipped) {
  for (int i = 0; i < 5; ++i) Put(GrantsKey(kFirstAssignedId + i), R"({"guests":{"g":true}})");
  Add("alice");
  EXPECT_GE(accounts_.FindUser("alice")->uid, kFirstAssignedId + 5);
  EXPECT_EQ(Text(GrantsKey(kFirstAssignedId)), R"({"guests":{"g":true}})");
}

TEST_F(AccountStoreTest, AddUser_GivenUidWithOldGrants_InheritsNothing) {
  Put(GrantsKey(1026), R"({"authlevel":"advanced","guests":{"g":true}})");
  Add("alice", {}, 1026);
  EXPECT_EQ(Text(GrantsKey(1026)), "absent");
}

TEST_F(AccountStoreTest, Delete_UserWithGrants_RemovesThemInSameCommit) {
  Add("alice");
  const std::uint32_t uid = accounts_.FindUser("alice")->uid;
  Put(GrantsKey(uid), R"({"authlevel":"advanced","guests":{"g":true}})");
  const auto before = Revision();
  ASSERT_TRUE(accounts_.DeleteUser("alice").ok());
  EXPECT_EQ(Revision(), before + 1);
  EXPECT_EQ(Text(GrantsKey(uid)), "absent");
}

TEST_F(AccountStoreTest, Add_Advanced_StoresLevelInSameCommit) {
  ASSERT_TRUE(accounts_.AddUser({"alice", kPassword, {}, {}, AccountStore::Level::kAdvanced}).ok());
  EXPECT_EQ(Revision(), 1u);
  EXPECT_EQ(Text(GrantsKey(accounts_.FindUser("alice")->uid)),
            R"({"authlevel":"advanced","guests":{},"name":"alice"})");
}

// Others.

TEST_F(AccountStoreTest, Reader_OtherProcessChanges_SeesItInNextCall) {
  AccountStore writer(real_);
  ASSERT_TRUE(writer.AddUser({"bob", kPassword, {"administrators"}, {}}).ok());
  ASSERT_TRUE(writer.AddUser({"alice", kPassword, {}, {}}).ok());
  for (int i = 0; i < 20; ++i) {
    const bool is_administrator = i % 2 == 0;
    ASSERT_TRUE(writer.SetGroups("alice", {is_administrator ? "administrators" : "others"}).ok());
    ASSERT_EQ(accounts_.FindUser("alice")->is_administrator, is_administrator) << i;
  }
  ASSERT_TRUE(writer.DeleteUser("alice").ok());
  EXPECT_EQ(CodeOf(accounts_.FindUser("alice")), ErrorCode::kNotFound);
}

TEST_F(AccountStoreTest, Reader_NothingHasChanged_ReadsOneKey) {
  Add("alice");
  ASSERT_TRUE(accounts_.FindUser("alice").ok());
  Put("/unrelated", "1");
  const int before = store_->reads();
  ASSERT_TRUE(accounts_.FindUser("alice").ok());
  EXPECT_EQ(store_->reads(), before + 1);
}

TEST_F(AccountStoreTest, Find_StoreUnreadable_IsUnavailableNotUnknown) {
  Add("alice");
  for (int fault = 0; fault < 2; ++fault) {
    fault == 0 ? store_->FailSnapshots() : store_->FailReadsOf(records::AccountStateKey());
    EXPECT_EQ(CodeOf(accounts_.FindUser("alice")), ErrorCode::kUnavailable);
    EXPECT_EQ(CodeOf(accounts_.FindUserByUid(1)), ErrorCode::kUnavailable);
    EXPECT_EQ(CodeOf(accounts_.FindGroup("users")), ErrorCode::kUnavailable);
    EXPECT_EQ(CodeOf(accounts_.FindGroupByGid(1)), ErrorCode::kUnavailable);
    EXPECT_EQ(CodeOf(accounts_.VerifyPassword("alice", kPassword)), ErrorCode::kUnavailable);
    EXPECT_EQ(CodeOf(accounts_.ListUsers()), ErrorCode::kUnavailable);
    EXPECT_FALSE(accounts_.AddUser({"bob", kPassword, {}, {}}).ok());
    store_->Heal();
  }
  for (const ErrorCode code : {ErrorCode::kNoSpace, ErrorCode::kDenied, ErrorCode::kConflict}) {
    store_->FailCommits(code);
    EXPECT_EQ(CodeOf(accounts_.AddUser({"bob", kPassword, {}, {}})), ErrorCode::kUnavailable);
    EXPECT_EQ(CodeOf(accounts_.DeleteUser("alice")), ErrorCode::kUnavailable);
    EXPECT_EQ(CodeOf(accounts_.DeleteGroup("unknown")), ErrorCode::kNotFound) << "a refusal keeps its code";
    store_->Heal();
  }
  store_->ConflictCommits(5);
  EXPECT_TRUE(accounts_.AddUser({"bob", kPassword, {}, {}}).ok()) << "tried again";
  EXPECT_EQ(accounts_.ListUsers()->size(), 2u);
}

TEST_F(AccountStoreTest, AccountStore_DamagedRecord_AffectsOnlyItsUsers) {
  Add("alice", {"team"});
  Add("bob");
  const std::uint32_t alice = accounts_.FindUser("alice")->uid;
  const std::string key = records::AccountKey(records::AccountKind::kUser, alice);
  const std::string good = Text(key);
  const std::string twin = Text(records::AccountKey(records::AccountKind::kUser, accounts_.FindUser("bob")->uid));
  const std::string state = Text(records::AccountStateKey());
  for (const std::string& text :
       {std::string("{"), std::string("[]"), std::string("{}"), std::string(R"({"name":"a b"})"), good.substr(0, 40),
        std::string(R"({"name":"alice","gid":1,"groups":[],"password":""})"), twin}) {
    Put(key, text);
    Put(records::AccountStateKey(), state);
    EXPECT_EQ(CodeOf(accounts_.FindUserByUid(alice)), ErrorCode::kUnavailable) << text;
    EXPECT_EQ(CodeOf(accounts_.FindUser("alice")), ErrorCode::kUnavailable) << text;
    EXPECT_EQ(CodeOf(accounts_.VerifyPassword("alice", kPassword)), ErrorCode::kUnavailable) << text;
    EXPECT_EQ(CodeOf(accounts_.ListUsers()), ErrorCode::kUnavailable) << text;
    EXPECT_EQ(CodeOf(accounts_.AddUser({"alice", kPassword, {}, {}})), ErrorCode::kCorrupt) << text;
    EXPECT_TRUE(text == twin || accounts_.VerifyPassword("bob", kPassword).ok()) << text;
    EXPECT_EQ(CodeOf(accounts_.FindUserByUid(4242)), ErrorCode::kNotFound) << text;
  }
  Put(key, good);
  Put(records::AccountStateKey(), "{");
  EXPECT_EQ(CodeOf(accounts_.FindUser("bob")), ErrorCode::kUnavailable);
  Put(records::AccountStateKey(), state);
  EXPECT_EQ(GroupNames(*accounts_.FindUser("alice")), (Names{"users", "team"}));
}

TEST_F(AccountStoreTest, Add_ManyThreadsOneName_ExactlyOneSucceeds) {
  constexpr int kThreads = 6;
  std::atomic<int> added{0};
  std::atomic<int> refused{0};
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        AccountStore own(real_);
        const Status status = own.AddUser({i % 2 == 0 ? "alice" : "ALICE", kPassword, {"g" + std::to_string(i)}, {}});
        if (status.ok()) ++added;
        if (!status.ok() && status.error().code() == ErrorCode::kConflict) ++refused;
      });
    }
  }
  EXPECT_EQ(added, 1);
  EXPECT_EQ(refused, kThreads - 1);
  EXPECT_EQ(accounts_.ListUsers()->size(), 1u);
}

TEST_F(AccountStoreTest, Read_EightThreadsDuringWrites_NeverSeePartialChange) {
  Add("alice", {"a", "b"});
  std::atomic<bool> is_done{false};
  std::atomic<int> wrong{0};
  {
    std::vector<std::jthread> readers;
    for (int i = 0; i < 8; ++i) {
      readers.emplace_back([&] {
        while (!is_done) {
          const auto user = accounts_.FindUser("alice");
          if (!user.ok() || user->groups.size() != 3 || !accounts_.FindUserByUid(user->uid).ok()) ++wrong;
        }
      });
    }
    for (int i = 0; i < 30; ++i) EXPECT_TRUE(accounts_.SetGroups("alice", {"x" + std::to_string(i), "b"}).ok());
    is_done = true;
  }
  EXPECT_EQ(wrong, 0);
}

// Each child opens the store for itself: the first ones find none.
TEST(AccountStoreProcesses, Add_Concurrent_LosesNothingAndSharesNoNameOrId) {
  constexpr int kProcesses = 4;
  constexpr int kUsers = 6;
  const TemporaryFolder folder;
  store::LmdbOptions options;
  options.directory = folder.Path("store");
  std::vector<pid_t> children;
  for (int process = 0; process < kProcesses; ++process) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      auto store = store::OpenLmdbStore(options);
      if (!store) ::_exit(101);
      AccountStore accounts(*store);
      int wins = 0;
      for (int i = 0; i < kUsers; ++i) {
        const std::string number = std::to_string(i);
        if (!accounts.AddUser({"p" + std::to_string(process) + "-" + number, kPassword, {"g" + number}, {}})) {
          ::_exit(102);
        }
        if (accounts.AddUser({"all-" + number, kPassword, {}, {}})) ++wins;
      }
      ::_exit(wins);
    }
    children.push_back(child);
  }
  int wins = 0;
  for (const pid_t child : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_LT(WEXITSTATUS(status), 100);
    wins += WEXITSTATUS(status);
  }
  EXPECT_EQ(wins, kUsers) << "each of the common names was added by one";
  const auto users = AccountStore(test::Require(store::OpenLmdbStore(options))).ListUsers();
  ASSERT_TRUE(users.ok());
  EXPECT_EQ(users->size(), static_cast<std::size_t>(kProcesses * kUsers + kUsers));
  std::set<std::uint32_t> ids;
  std::set<std::uint32_t> gids;
  for (const accounts::User& user : *users) {
    EXPECT_TRUE(ids.insert(user.uid).second) << user.name;
    for (const accounts::Group& group : user.groups) gids.insert(group.gid);
  }
  EXPECT_EQ(gids.size(), 1u + kUsers);
  for (const std::uint32_t gid : gids) EXPECT_FALSE(ids.contains(gid));
}

}  // namespace
}  // namespace vexa::cluster
