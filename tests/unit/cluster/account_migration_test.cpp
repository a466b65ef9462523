#include "host/cluster/account_migration.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <thread>

#include "host/accounts/account_password.h"
#include "host/base/files.h"
#include "tests/unit/cluster/account_store_fixture.h"

namespace vexa::cluster {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

const std::string& Hash() {
  static const std::string hash = test::Require(accounts::HashPassword(kPassword));
  return hash;
}

std::string FileOf(const std::string& groups, const std::string& users) {
  return R"({"version":1,"groups":[{"name":"administrators","gid":1900000000},{"name":"users","gid":1900000001})" +
         groups + R"(],"users":[)" + users + "]}";
}
std::string GroupText(const std::string& name, std::uint32_t gid) {
  return R"(,{"name":")" + name + R"(","gid":)" + std::to_string(gid) + "}";
}
std::string UserText(const std::string& name, std::uint32_t uid, const std::string& groups = "",
                     const std::string& password = Hash(), std::uint32_t gid = 1900000001) {
  return R"({"name":")" + name + R"(","uid":)" + std::to_string(uid) + R"(,"gid":)" + std::to_string(gid) +
         R"(,"password":")" + password + R"(","groups":[)" + groups + "]}";
}

class AccountMigrationTest : public AccountStoreTest {
 protected:
  std::string path() const { return folder_.Path("accounts.json"); }
  void PutFile(const std::string& text) const { ASSERT_TRUE(WriteFileAtomically(path(), text, 0600).ok()); }
  Status TakeOver() {
    notes_.clear();
    return MigrateAccountFile(*store_, path(), [this](const std::string& sentence) { notes_.push_back(sentence); });
  }
  void MigrateFile(const std::string& text) {
    PutFile(text);
    const Status taken = TakeOver();
    ASSERT_TRUE(taken.ok()) << taken.error().ToString();
    EXPECT_FALSE(fs::exists(path()));
  }
  bool HasNote(const Names& parts) const {
    for (const std::string& note : notes_) {
      bool has_all = true;
      for (const std::string& part : parts) has_all = has_all && note.find(part) != std::string::npos;
      if (has_all) return true;
    }
    return false;
  }
  std::uint32_t UidOf(const std::string& name) const { return test::Require(accounts_.FindUser(name)).uid; }

  Names notes_;
};

TEST_F(AccountMigrationTest, Migrate_NoFile_ChangesNothing) {
  ASSERT_TRUE(TakeOver().ok());
  EXPECT_EQ(Revision(), 0u);
  EXPECT_TRUE(notes_.empty());
}

TEST_F(AccountMigrationTest, Migrate_FirstFile_KeepsIdsInOneCommit) {
  Put(GrantsKey(1900000003), R"({"guests":{"g":true}})");
  const auto before = Revision();
  MigrateFile(FileOf(GroupText("team", 1900000002), UserText("alice", 1900000003, R"("team","administrators")") + "," +
                                                        UserText("Bob", 1026) + "," + UserText("off", 7, "", "!")));
  EXPECT_EQ(Revision(), before + 1);
  EXPECT_EQ(notes_.size(), 2u);
  EXPECT_TRUE(HasNote({"'Bob'", "keeps the uid 1026", "Unix socket"}));
  EXPECT_TRUE(HasNote({"'off'", "keeps the uid 7"}));
  const auto alice = accounts_.VerifyPassword("alice", kPassword);
  ASSERT_TRUE(alice.ok());
  EXPECT_EQ(alice->uid, 1900000003u);
  EXPECT_EQ(GroupNames(*alice), (Names{"users", "team", "administrators"}));
  EXPECT_EQ(alice->groups[1].gid, 1900000002u);
  EXPECT_TRUE(alice->is_administrator);
  EXPECT_EQ(accounts_.FindUserByUid(1026)->name, "Bob");
  EXPECT_EQ(CodeOf(accounts_.VerifyPassword("off", kPassword)), ErrorCode::kDenied);
  EXPECT_EQ(Text(GrantsKey(1900000003)), R"({"guests":{"g":true}})") << "her grants stay";
  EXPECT_TRUE(fs::exists(path() + ".taken-over"));
  Add("carol");
  EXPECT_GT(UidOf("carol"), 1900000003u);
}

TEST_F(AccountMigrationTest, Migrate_NextIdOfFile_RetiresIdsOfDeletedUsers) {
  MigrateFile(R"({"version":1,"next_id":1900000100,"groups":[],"users":[]})");
  Add("alice");
  EXPECT_GE(UidOf("alice"), 1900000100u);
}

TEST_F(AccountMigrationTest, Migrate_FileWithoutWellKnownGroups_CreatesThem) {
  MigrateFile(R"({"version":1,"groups":[{"name":"Administrators","gid":50}],
                   "users":[{"name":"a","uid":1,"gid":50,"password":"","groups":[]}]})");
  const auto user = accounts_.FindUser("a");
  EXPECT_FALSE(user->is_administrator) << "the file's group was nothing special";
  EXPECT_EQ(GroupNames(*user), Names{"users"});
  EXPECT_TRUE(HasNote({"'Administrators'", "'administrators'", "'a'", "vexa user group"}));
}

// A user id of one machine belongs to another user on the next, whom the Unix socket would take for this user.
TEST_F(AccountMigrationTest, Migrate_SystemUidOfSecondHost_IsReplaced) {
  MigrateFile(FileOf("", UserText("alice", 1900000002)));
  MigrateFile(FileOf("", UserText("bob", 1000)));
  EXPECT_GT(UidOf("bob"), 1900000002u);
  EXPECT_TRUE(HasNote({"user 'bob'", "1000", "belong to another user on another host", "Unix socket"}));
}

// The first user of the second host has the id of the first user of the first.
TEST_F(AccountMigrationTest, Migrate_IdTaken_GetsNewIdWithoutGrants) {
  MigrateFile(FileOf("", UserText("alice", 1900000002)));
  Put(GrantsKey(1900000002), R"({"guests":{"g":true}})");
  MigrateFile(FileOf("", UserText("bob", 1900000002) + "," + UserText("carol", 1900000003)));
  EXPECT_EQ(UidOf("alice"), 1900000002u);
  EXPECT_EQ(UidOf("carol"), 1900000003u) << "the new id is not one of the file's";
  const std::uint32_t bob = UidOf("bob");
  EXPECT_GT(bob, 1900000003u);
  EXPECT_EQ(Text(GrantsKey(bob)), "absent");
  EXPECT_TRUE(accounts_.VerifyPassword("bob", kPassword).ok());
  ASSERT_EQ(notes_.size(), 1u);
  EXPECT_TRUE(HasNote({"user 'bob'", "1900000002", std::to_string(bob), "vexa user grant"}));
  EXPECT_TRUE(fs::exists(path() + ".taken-over-2")) << "the older one is kept";
}

TEST_F(AccountMigrationTest, Migrate_IdOfDeletedUser_IsReplaced) {
  Add("alice", {}, 1026);
  Add("bob");
  const std::uint32_t bob = UidOf("bob");
  ASSERT_TRUE(accounts_.DeleteUser("alice").ok());
  ASSERT_TRUE(accounts_.DeleteUser("bob").ok());
  MigrateFile(FileOf("", UserText("carol", 1026) + "," + UserText("dave", bob)));
  EXPECT_NE(UidOf("carol"), 1026u);
  EXPECT_NE(UidOf("dave"), bob);
  EXPECT_TRUE(HasNote({"'carol'", "1026"}));
  EXPECT_TRUE(HasNote({"'dave'", std::to_string(bob)}));
}

TEST_F(AccountMigrationTest, Migrate_GroupsOfSecondFile_MatchByNameAndId) {
  MigrateFile(
      FileOf(GroupText("same", 1900000002) + GroupText("other", 1900000003) + GroupText("Case", 1900000004), ""));
  MigrateFile(R"({"version":1,"groups":[{"name":"users","gid":100},{"name":"administrators","gid":1900000000},
      {"name":"same","gid":1900000002},{"name":"other","gid":1900000005},{"name":"case","gid":1900000004},
      {"name":"fresh","gid":1900000003},{"name":"free","gid":44}],"users":[)" +
              UserText("bob", 1026, R"("administrators","same","other","case","fresh","free")", Hash(), 100) + "]}");
  const auto bob = accounts_.FindUser("bob");
  EXPECT_EQ(GroupNames(*bob), (Names{"users", "administrators", "same", "fresh", "free"}));
  EXPECT_EQ(bob->gid, 1900000001u) << "the cluster's";
  EXPECT_EQ(accounts_.FindGroup("same")->gid, 1900000002u);
  EXPECT_EQ(accounts_.FindGroup("free")->gid, 44u);
  EXPECT_GT(accounts_.FindGroup("fresh")->gid, 1900000005u);
  EXPECT_TRUE(HasNote({"'other'", "'bob'", "vexa user group"}));
  EXPECT_TRUE(HasNote({"'case'", "'Case'", "'bob'"}));
  EXPECT_TRUE(HasNote({"group 'fresh'", "1900000003", "vexa group grant"}));
  EXPECT_TRUE(HasNote({"group 'users'", "100"}));
}

struct NameRow {
  const char* name;
  std::function<std::string()> user;  // of the second file; the store has alice, 1900000003, in "team"
  bool is_noted;
};
const NameRow kNameRows[] = {
    {"Identical", [] { return UserText("alice", 1900000003, R"("team")"); }, false},
    {"OtherCase", [] { return UserText("Alice", 1900000003, R"("team")"); }, true},
    {"OtherId", [] { return UserText("alice", 1026, R"("team")"); }, true},
    {"OtherPassword", [] { return UserText("alice", 1900000003, R"("team")", "!" + Hash()); }, true},
    {"MoreGroups", [] { return UserText("alice", 1900000003, R"("team","administrators")"); }, true},
    {"FewerGroups", [] { return UserText("alice", 1900000003); }, true},
};

class MigratedNames : public AccountMigrationTest, public testing::WithParamInterface<NameRow> {};

TEST_P(MigratedNames, Migrate_NameExistsInStore_KeepsStoreAccount) {
  const std::string team = GroupText("team", 1900000002);
  MigrateFile(FileOf(team, UserText("alice", 1900000003, R"("team")")));
  const std::string before = Text(records::AccountKey(records::AccountKind::kUser, 1900000003));
  MigrateFile(FileOf(team + GroupText("more", 1900000009), GetParam().user()));
  EXPECT_EQ(Text(records::AccountKey(records::AccountKind::kUser, 1900000003)), before);
  EXPECT_EQ(accounts_.ListUsers()->size(), 1u);
  EXPECT_EQ(notes_.size(), GetParam().is_noted ? 1u : 0u);
  EXPECT_EQ(HasNote({"was not migrated", "'alice'", "vexa user add"}), GetParam().is_noted);
}

INSTANTIATE_TEST_SUITE_P(All, MigratedNames, testing::ValuesIn(kNameRows),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(AccountMigrationTest, Migrate_UsersDifferOnlyInCase_FirstIsMigrated) {
  MigrateFile(FileOf("", UserText("alice", 1900000002) + "," + UserText("ALICE", 1900000003)));
  EXPECT_EQ(accounts_.FindUser("Alice")->name, "alice");
  EXPECT_TRUE(HasNote({"'ALICE' of", "was not migrated", "'alice'"}));
}

// Between the commit and the renaming.
TEST_F(AccountMigrationTest, Migrate_KilledBeforeRename_NextStartAddsNothing) {
  const std::string file = FileOf("", UserText("alice", 1900000002) + "," + UserText("bob", 1900000003));
  MigrateFile(file);
  ASSERT_TRUE(accounts_.DeleteUser("bob").ok());
  ASSERT_TRUE(accounts_.SetGroups("alice", {"team"}).ok());
  const auto before = Revision();
  MigrateFile(file);
  EXPECT_EQ(Revision(), before);
  EXPECT_EQ(CodeOf(accounts_.FindUser("bob")), ErrorCode::kNotFound);
  EXPECT_EQ(GroupNames(*accounts_.FindUser("alice")), (Names{"users", "team"}));
  EXPECT_TRUE(HasNote({"migrated before"}));
}

TEST_F(AccountMigrationTest, Migrate_StoreFails_KeepsFile) {
  PutFile(FileOf("", UserText("alice", 1900000002)));
  store_->FailCommits();
  EXPECT_FALSE(TakeOver().ok());
  store_->Heal();
  store_->FailSnapshots();
  EXPECT_FALSE(TakeOver().ok());
  store_->Heal();
  EXPECT_TRUE(fs::exists(path()));
  EXPECT_EQ(Revision(), 0u);
  store_->ConflictCommits(3);
  EXPECT_TRUE(TakeOver().ok());
  EXPECT_EQ(UidOf("alice"), 1900000002u);
}

TEST_F(AccountMigrationTest, Migrate_FileWritableByOthers_IsRefusedAndKept) {
  PutFile(FileOf("", UserText("alice", 1900000002)));
  ASSERT_EQ(::chmod(path().c_str(), 0660), 0);
  EXPECT_EQ(CodeOf(TakeOver()), ErrorCode::kDenied);
  ASSERT_EQ(::chmod(path().c_str(), 0600), 0);
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(path().c_str(), 12345, 0), 0);
    EXPECT_EQ(CodeOf(TakeOver()), ErrorCode::kDenied);
    ASSERT_EQ(::chown(path().c_str(), 0, 0), 0);
  }
  fs::rename(path(), path() + ".real");
  fs::create_symlink(path() + ".real", path());
  EXPECT_EQ(CodeOf(TakeOver()), ErrorCode::kDenied);
  fs::remove(path());
  PutFile("{");
  EXPECT_EQ(CodeOf(TakeOver()), ErrorCode::kCorrupt);
  EXPECT_TRUE(fs::exists(path()));
  EXPECT_EQ(Revision(), 0u);
}

TEST_F(AccountMigrationTest, Migrate_Concurrent_MigratesOnce) {
  PutFile(FileOf("", UserText("alice", 1900000002) + "," + UserText("bob", 1900000003)));
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 6; ++i) {
      threads.emplace_back([this] { EXPECT_TRUE(MigrateAccountFile(*real_, path(), [](const std::string&) {}).ok()); });
    }
  }
  EXPECT_EQ(accounts_.ListUsers()->size(), 2u);
  EXPECT_EQ(Revision(), 1u);
  EXPECT_FALSE(fs::exists(path()));
}

// Killed at a random time, again and again: in the end everybody is there once.
TEST(MigrationProcesses, Migrate_KilledAnywhere_NeitherLosesNorDuplicates) {
  const TemporaryFolder folder;
  const std::string path = folder.Path("accounts.json");
  store::LmdbOptions options;
  options.directory = folder.Path("store");
  constexpr int kFiles = 12;
  constexpr int kUsers = 40;
  constexpr std::uint32_t kFirst = 1'900'100'000;
  for (int file = 0; file < kFiles; ++file) {
    std::string users;
    for (int i = 0; i < kUsers; ++i) {
      const int number = file * kUsers + i;
      users += (i == 0 ? "" : ",") +
               UserText("u" + std::to_string(number), kFirst + static_cast<std::uint32_t>(number), "", "!");
    }
    ASSERT_TRUE(WriteFileAtomically(path, FileOf("", users), 0600).ok());
    for (int tries = 0; tries < 100 && fs::exists(path); ++tries) {
      const pid_t child = ::fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
        const auto store = store::OpenLmdbStore(options);
        const bool done = store && MigrateAccountFile(**store, path, [](const std::string&) {}).ok();
        ::_exit(done ? 0 : 1);
      }
      // In the end long enough for any machine and build.
      const int factor = tries < 50 ? 1 : tries - 48;
      std::this_thread::sleep_for(std::chrono::microseconds(300 * factor * (tries + 1) * (file % 4 + 1)));
      ::kill(child, SIGKILL);
      ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    }
    ASSERT_FALSE(fs::exists(path));
  }
  const auto users = AccountStore(test::Require(store::OpenLmdbStore(options))).ListUsers();
  ASSERT_TRUE(users.ok());
  ASSERT_EQ(users->size(), static_cast<std::size_t>(kFiles * kUsers));
  for (const accounts::User& user : *users) {
    EXPECT_EQ(user.name, "u" + std::to_string(user.uid - kFirst)) << "the id of the file";
  }
}

}  // namespace
}  // namespace vexa::cluster
