// vexa user and vexa group on a real store, without a daemon. Their API calls are in cli_account_api_test.cpp.
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "host/accounts/account_password.h"
#include "host/base/data_lock.h"
#include "host/base/files.h"
#include "host/base/json_parse.h"
#include "host/cluster/account_source.h"
#include "host/cluster/account_store.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "host/store/mirrored_store.h"
#include "tests/system/cli_program.h"
#include "tests/system/cli_terminal.h"

namespace vexa::test {
namespace {

constexpr const char* kFirst = "6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55";
constexpr const char* kSecond = "00000000-0000-4000-8000-00000000000a";

class Accounts : public CliTest {
 protected:
  void SetUp() override { std::filesystem::create_directories(folder_.File("data")); }

  ProcessResult RunHere(std::vector<std::string> arguments, const std::string& input = "") {
    arguments.insert(arguments.end(), {"--data", folder_.File("data")});
    return Run(arguments, input);
  }

  void AddAlice(std::vector<std::string> more = {}) {
    std::vector<std::string> arguments{"user", "add", "alice", "--password-stdin", "--group", "staff"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const auto result = RunHere(arguments, "first password\n");
    ASSERT_EQ(result.exit_code, 0) << result.errors;
  }

  std::unique_ptr<cluster::AccountStore> Open() const { return std::make_unique<cluster::AccountStore>(OpenStore()); }
  // The account file that an older version has left.
  void PutFile(const std::string& user) const {
    const auto hash = accounts::HashPassword("old password");
    ASSERT_TRUE(hash.ok());
    const std::string text = R"({"version":1,"groups":[{"name":"users","gid":1900000001}],"users":[{"name":")" + user +
                             R"(","uid":1900000002,"gid":1900000001,"password":")" + *hash + R"(","groups":[]}]})";
    ASSERT_TRUE(WriteFileAtomically(folder_.File("data/accounts.json"), text, 0600).ok());
  }
  bool Exists(const std::string& name) const { return std::filesystem::exists(folder_.File(name)); }

  accounts::User Alice() const {
    const auto user = Open()->FindUser("alice");
    EXPECT_TRUE(user.ok());
    return user ? *user : accounts::User();
  }

  std::shared_ptr<store::Store> OpenStore() const {
    store::LmdbOptions options;
    options.directory = folder_.File("data/store");
    const auto store = store::OpenLmdbStore(options);
    EXPECT_TRUE(store.ok());
    return *store;
  }

  static std::string KeyOf(const std::string& identifier) {
    return store::MakeKey({"dash", "guest_admin", identifier, "object"});
  }

  // The record's text, "" when absent.
  std::string RecordOf(const std::string& identifier) const {
    const auto store = OpenStore();
    const auto snapshot = store->Read();
    EXPECT_TRUE(snapshot.ok());
    const auto value = (*snapshot)->Get(KeyOf(identifier));
    EXPECT_TRUE(value.ok());
    return *value ? std::string((*value)->text) : "";
  }
};

TEST_F(Accounts, UserAdded_CanLogIn) {
  AddAlice();
  EXPECT_TRUE(Open()->VerifyPassword("alice", "first password").ok());
  EXPECT_FALSE(Open()->VerifyPassword("alice", "first password\n").ok());
  const auto list = RunHere({"user", "list"});
  EXPECT_EQ(list.exit_code, 0);
  EXPECT_THAT(list.output, AllOf(HasSubstr("USER"), HasSubstr("alice"), HasSubstr("staff"), HasSubstr(" no ")));
  const auto json = ParseJson(RunHere({"user", "list", "--json"}).output);
  ASSERT_TRUE(json.ok());
  ASSERT_TRUE(json->isArray() && json->size() == 1);
  EXPECT_EQ((*json)[0]["name"], "alice");
  EXPECT_FALSE((*json)[0].isMember("password"));
}

TEST_F(Accounts, UserAdd_SeveralGroups_JoinsAll) {
  const auto result =
      RunHere({"user", "add", "--group", "staff", "--group", "crew", "bob", "--password-stdin"}, "good password\n");
  ASSERT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(RunHere({"user", "list"}).output, AllOf(HasSubstr("staff"), HasSubstr("crew"), HasSubstr("bob")));
}

TEST_F(Accounts, UserAdd_ExistingName_IsRefusedAndUserIsKept) {
  AddAlice();
  const auto result = RunHere({"user", "add", "alice", "--password-stdin"}, "other password\n");
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_TRUE(Open()->VerifyPassword("alice", "first password").ok());
}

TEST_F(Accounts, UserAdd_InvalidNameUidOrPassword_IsUsageErrorAndAddsNothing) {
  AddAlice();
  EXPECT_EQ(RunHere({"user", "add", "../x", "--password-stdin"}, "good password\n").exit_code, 2);
  EXPECT_EQ(RunHere({"user", "add", "bob", "--password-stdin"}, "short\n").exit_code, 2);
  EXPECT_EQ(RunHere({"user", "add", "bob", "--password-stdin"}, "").exit_code, 2);
  EXPECT_EQ(RunHere({"user", "add", "bob", "--uid", "x", "--password-stdin"}, "good password\n").exit_code, 2);
  EXPECT_EQ(RunHere({"user", "add", "bob", "--uid", "-1", "--password-stdin"}, "good password\n").exit_code, 2);
  EXPECT_EQ(RunHere({"user", "add", "bob", "--uid", "4294967296", "--password-stdin"}, "good password\n").exit_code, 2);
  EXPECT_FALSE(Open()->FindUser("bob").ok());
}

TEST_F(Accounts, User_PasswordAndGroupsChanged_UsesNewOnes) {
  AddAlice();
  EXPECT_EQ(RunHere({"user", "passwd", "alice", "--password-stdin"}, "second password\n").exit_code, 0);
  EXPECT_TRUE(Open()->VerifyPassword("alice", "second password").ok());
  EXPECT_FALSE(Open()->VerifyPassword("alice", "first password").ok());
  EXPECT_EQ(RunHere({"user", "group", "alice", "administrators", "crew"}).exit_code, 0);
  EXPECT_TRUE(Alice().is_administrator);
  EXPECT_EQ(RunHere({"user", "passwd", "nobody-here", "--password-stdin"}, "second password\n").exit_code, 1);
  EXPECT_EQ(RunHere({"user", "group", "nobody-here", "crew"}).exit_code, 1);
}

TEST_F(Accounts, Commands_NoStore_OnlyAddCreatesOne) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"user", "list"},
                                             {"user", "del", "alice"},
                                             {"user", "group", "alice", "crew"},
                                             {"user", "grant", "alice", kFirst},
                                             {"user", "drop-grants", "--id", "1026"},
                                             {"group", "grant", "staff", kFirst}}) {
    const auto result = RunHere(arguments);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.errors, HasSubstr("'vexa user add' creates it"));
    EXPECT_FALSE(Exists("data/store"));
  }
  AddAlice();
  EXPECT_EQ(RunHere({"user", "list"}).exit_code, 0);
  EXPECT_FALSE(Exists("data/accounts.json"));
}

TEST_F(Accounts, AddUser_InvalidUser_DoesNotCreateStore) {
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
           {"a b"}, {"bob", "--group", "a b"}, {"bob", "--uid", "4294967295"}, {"bob", "--uid", "0"}}) {
    std::vector<std::string> arguments{"user", "add", "--password-stdin"};
    arguments.insert(arguments.end(), words.begin(), words.end());
    EXPECT_EQ(RunHere(arguments, "good password\n").exit_code, 2) << words.back();
    EXPECT_FALSE(Exists("data/store")) << words.back();
  }
  EXPECT_EQ(RunHere({"user", "add", "bob", "--password-stdin"}, "short\n").exit_code, 2);
  EXPECT_FALSE(Exists("data/store")) << "the password";
}

TEST_F(Accounts, Commands_FilesOfOtherUser_AreNotChanged) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a folder away";
  AddAlice();
  for (const char* file : {"data/store/data.mdb", "data/accounts.json"}) {
    if (file == std::string("data/accounts.json")) PutFile("bob");
    ASSERT_EQ(::chown(folder_.File(file).c_str(), 1, 1), 0);
    const auto result = RunHere({"user", "del", "alice"});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.errors, HasSubstr("Run the command as that account"));
    ASSERT_EQ(::chown(folder_.File(file).c_str(), 0, 0), 0);
    EXPECT_TRUE(Open()->FindUser("alice").ok());
  }
  EXPECT_FALSE(Open()->FindUser("bob").ok());
  std::filesystem::create_directory(folder_.File("other"));
  ASSERT_EQ(::chown(folder_.File("other").c_str(), 1, 1), 0);
  EXPECT_EQ(
      Run({"user", "add", "carol", "--password-stdin", "--data", folder_.File("other")}, "good password\n").exit_code,
      1);
  EXPECT_FALSE(Exists("other/store"));
}

TEST_F(Accounts, GrantAndRevoke_EditTheRecordAndKeepTheRest) {
  AddAlice();
  const std::string identifier = "users-" + std::to_string(Alice().uid);
  EXPECT_EQ(RunHere({"user", "grant", "alice", kFirst, kSecond}).exit_code, 0);
  EXPECT_EQ(RecordOf(identifier), std::string(R"({"authlevel":"user","guests":{")") + kSecond + R"(":true,")" + kFirst +
                                      R"(":true},"name":"alice"})");
  ASSERT_TRUE(OpenStore()
                  ->Commit({{},
                            {{KeyOf(identifier),
                              std::string(R"({"authlevel":"user","more":[1],"guests":{")") + kFirst + R"(":false}})"}}})
                  .ok());
  EXPECT_EQ(RunHere({"user", "advanced", "alice"}).exit_code, 0);
  EXPECT_EQ(RunHere({"user", "revoke", "alice", "6F1C2A0E-4A57-4F0C-8B2E-0D9B1F6F3C55", kSecond}).exit_code, 0);
  EXPECT_EQ(RecordOf(identifier), R"({"authlevel":"advanced","guests":{},"more":[1],"name":"alice"})");
  EXPECT_EQ(RunHere({"user", "advanced", "--off", "alice"}).exit_code, 0);
  EXPECT_THAT(RecordOf(identifier), HasSubstr(R"("authlevel":"user")"));
}

TEST_F(Accounts, Grant_ToGroup_IsStoredUnderGroupId) {
  AddAlice();
  std::uint32_t gid = 0;
  for (const auto& group : Alice().groups) {
    if (group.name == "staff") gid = group.gid;
  }
  EXPECT_EQ(RunHere({"group", "grant", "staff", kFirst}).exit_code, 0);
  EXPECT_THAT(RecordOf("groups-" + std::to_string(gid)), HasSubstr(kFirst));
  EXPECT_EQ(RunHere({"group", "advanced", "staff"}).exit_code, 0);
  EXPECT_THAT(RecordOf("groups-" + std::to_string(gid)), HasSubstr("advanced"));
  EXPECT_EQ(RunHere({"group", "grant", "nobody-here", kFirst}).exit_code, 1);
  const auto system = RunHere({"group", "grant", "--system", "root", kFirst});
  EXPECT_EQ(system.exit_code, 2);
  EXPECT_THAT(system.errors, HasSubstr("takes its users from the store"));
  EXPECT_EQ(RecordOf("groups-0"), "");
  ASSERT_TRUE(cluster::SaveAccountSource(folder_.File("data"), cluster::AccountSource::kPam).ok());
  EXPECT_EQ(RunHere({"group", "grant", "--system", "root", kFirst}).exit_code, 0);
  EXPECT_THAT(RecordOf("groups-0"), HasSubstr(kFirst));
}

TEST_F(Accounts, UserAdd_Advanced_StoresLevel) {
  AddAlice({"--advanced", "--uid", "1026"});
  EXPECT_EQ(Alice().uid, 1026U);
  EXPECT_EQ(RecordOf("users-1026"), R"({"authlevel":"advanced","guests":{},"name":"alice"})");
}

TEST_F(Accounts, OldAccountFile_FirstCommandOnStore_MigratesIt) {
  PutFile("old");
  EXPECT_EQ(RunHere({"user", "list"}).exit_code, 1) << "there is no store, and a list creates none";
  EXPECT_FALSE(Exists("data/store"));
  EXPECT_TRUE(Exists("data/accounts.json"));
  (void)OpenStore();
  const auto list = RunHere({"user", "list"});
  EXPECT_EQ(list.exit_code, 0) << list.errors;
  EXPECT_THAT(list.output, HasSubstr("old"));
  EXPECT_THAT(list.errors, IsEmpty());
  EXPECT_TRUE(Open()->VerifyPassword("old", "old password").ok());
  EXPECT_FALSE(Exists("data/accounts.json"));
  EXPECT_TRUE(Exists("data/accounts.json.taken-over"));
  PutFile("OLD");
  const auto again = RunHere({"user", "del", "old"});
  EXPECT_EQ(again.exit_code, 0) << again.errors;
  EXPECT_THAT(again.errors, AllOf(HasSubstr("'OLD'"), HasSubstr("was not migrated")));
}

TEST_F(Accounts, Store_OtherFolder_IsUsedAsConfigured) {
  ASSERT_EQ(
      RunHere({"user", "add", "alice", "--password-stdin", "--store", folder_.File("elsewhere")}, "good password\n")
          .exit_code,
      0);
  EXPECT_FALSE(Exists("data/store"));
  EXPECT_EQ(RunHere({"user", "list"}).exit_code, 1);
  EXPECT_THAT(RunHere({"user", "list", "--store", folder_.File("elsewhere")}).output, HasSubstr("alice"));
  EXPECT_EQ(RunHere({"user", "grant", "Alice", kFirst, "--store", folder_.File("elsewhere")}).exit_code, 0);
}

TEST_F(Accounts, PamAccounts_AccountCommands_NameTheSystemTools) {
  ASSERT_TRUE(cluster::SaveAccountSource(folder_.File("data"), cluster::AccountSource::kPam).ok());
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {"user", "list"}, {"user", "add", "x"}, {"user", "grant", "root", kFirst}, {"group", "advanced", "root"}}) {
    const auto result = RunHere(arguments);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.errors, AllOf(HasSubstr("PAM"), HasSubstr("--system")));
  }
  EXPECT_EQ(RunHere({"user", "grant", "--system", "root", kFirst}).exit_code, 1);
  EXPECT_FALSE(Exists("data/store")) << "only 'user add' creates one";
  (void)OpenStore();
  EXPECT_EQ(RunHere({"user", "grant", "--system", "root", kFirst}).exit_code, 0);
  EXPECT_THAT(RecordOf("users-0"), HasSubstr(R"("name":"root")"));
}

TEST_F(Accounts, Grants_RecordOfOtherName_CannotBeChangedButDropped) {
  AddAlice({"--uid", "1026"});
  const char* text = R"({"authlevel":"user","guests":{"g":true},"name":"bob"})";
  ASSERT_TRUE(OpenStore()->Commit({{}, {{KeyOf("users-1026"), text}}}).ok());
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {"user", "grant", "alice", kFirst}, {"user", "revoke", "alice", kFirst}, {"user", "advanced", "alice"}}) {
    const auto result = RunHere(arguments);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.errors, AllOf(HasSubstr("'bob'"), HasSubstr("'alice'"), HasSubstr("drop-grants")));
    EXPECT_EQ(RecordOf("users-1026"), text);
  }
  EXPECT_EQ(RunHere({"user", "drop-grants", "ALICE"}).exit_code, 0);
  EXPECT_EQ(RecordOf("users-1026"), "");
  EXPECT_EQ(RunHere({"user", "grant", "alice", kFirst}).exit_code, 0);
}

TEST_F(Accounts, UserDelete_UserWithGrants_RemovesGrantsAndRetiresId) {
  AddAlice({"--uid", "1026"});
  EXPECT_EQ(RunHere({"user", "grant", "alice", kFirst}).exit_code, 0);
  EXPECT_EQ(RunHere({"user", "del", "alice"}).exit_code, 0);
  EXPECT_FALSE(Open()->FindUser("alice").ok());
  EXPECT_EQ(RecordOf("users-1026"), "");
  EXPECT_EQ(RunHere({"user", "del", "alice"}).exit_code, 1);
  const auto again = RunHere({"user", "add", "bob", "--uid", "1026", "--password-stdin"}, "good password\n");
  EXPECT_EQ(again.exit_code, 1);
  EXPECT_THAT(again.errors, HasSubstr("Choose another one"));
}

TEST_F(Accounts, Grant_InvalidGuestId_IsUsageErrorAndChangesNothing) {
  AddAlice();
  for (const char* id : {"", "x", "../../../dash/guest", "6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c5", "\x1b[31m"}) {
    const auto result = RunHere({"user", "grant", "alice", kFirst, id});
    EXPECT_EQ(result.exit_code, 2) << id;
    EXPECT_THAT(result.errors, Not(HasSubstr("\x1b")));
  }
  EXPECT_EQ(RecordOf("users-" + std::to_string(Alice().uid)), "");
}

TEST_F(Accounts, Grant_DamagedRecord_IsReportedAndNotOverwritten) {
  AddAlice({"--uid", "1026"});
  for (const char* text : {"[]", "\"x\"", R"({"guests":[]})", R"({"guests":"x"})"}) {
    ASSERT_TRUE(OpenStore()->Commit({{}, {{KeyOf("users-1026"), text}}}).ok());
    EXPECT_EQ(RunHere({"user", "grant", "alice", kFirst}).exit_code, 1) << text;
    EXPECT_EQ(RecordOf("users-1026"), text);
  }
}

TEST_F(Accounts, Configuration_FoldersAndAccountSource_AreUsed) {
  const std::string file = folder_.File("vexad.conf");
  WriteFile(file, "# The daemon's.\nlisten = \"127.0.0.1:8642\"\ndata = \"" + folder_.File("data") + "\"\nstore = '" +
                      folder_.File("elsewhere") + "' # of two hosts\nimage-roots = [\"/a\", \"/b\"]\n");
  const auto run = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--local", "--config", file});
    return Run(arguments, "good password\n");
  };
  EXPECT_EQ(run({"user", "list"}).exit_code, 1);
  EXPECT_FALSE(Exists("elsewhere"));
  const auto added = run({"user", "add", "alice", "--password-stdin"});
  EXPECT_EQ(added.exit_code, 0) << added.errors;
  EXPECT_TRUE(Exists("elsewhere/data.mdb"));
  EXPECT_FALSE(Exists("data/store"));
  EXPECT_THAT(run({"user", "list"}).output, HasSubstr("alice"));
  WriteFile(file, "data = \"" + folder_.File("data") + "\"\naccounts = \"pam\"\n");
  EXPECT_THAT(run({"user", "list"}).errors, AllOf(HasSubstr("PAM"), HasSubstr("--system")));
}

TEST_F(Accounts, Configuration_Invalid_IsReported) {
  const auto missing = Run({"user", "list", "--config", folder_.File("none.conf")});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_THAT(missing.errors, HasSubstr("Cannot read the configuration file"));
  EXPECT_EQ(Run({"user", "list", "--local", "--data", folder_.File("data")}).exit_code, 2)
      << "either the file names the folders, or the command does";
  WriteFile(folder_.File("empty.conf"), "data = \"\"\n");
  EXPECT_EQ(Run({"user", "list", "--config", folder_.File("empty.conf")}).exit_code, 2);
}

// What the daemon does not start with must not lead to another store.
TEST_F(Accounts, Configuration_RefusedByDaemon_IsRefusedByCommands) {
  AddAlice();
  const std::string data = "data = \"" + folder_.File("data") + "\"\n";
  const std::string file = folder_.File("vexad.conf");
  const auto list = [&](const std::string& text) {
    WriteFile(file, text);
    return Run({"user", "list", "--config", file});
  };
  EXPECT_EQ(list(data).exit_code, 0);
  for (const std::string& text :
       {data + "stroe = \"/x\"\n", data + "[section]\nstore = \"/x\"\n", data + "io-threads = 0\n",
        data + "accounts = \"ldap\"\n", std::string("data = \"/a\" \"/b\"\n"), std::string("data = data\n"),
        data + "store = \"elsewhere\"\n", data + "account-file = \"accounts.json\"\n"}) {
    const auto result = list(text);
    EXPECT_EQ(result.exit_code, 2) << text;
    EXPECT_THAT(result.errors, HasSubstr("Cannot read the configuration file")) << text;
  }
  EXPECT_THAT(list("data = \"data\"\n").errors, HasSubstr("'data' is not an absolute path"));
  const auto twice = list(data + "log = \"both\"\ndata = \"" + folder_.File("elsewhere") + "\"\n");
  EXPECT_THAT(twice.output, HasSubstr("alice")) << "the first one counts, as for the daemon";
}

TEST_F(Accounts, Configuration_NoAccountSource_UsesThatOfLastStart) {
  AddAlice();
  const std::string file = folder_.File("vexad.conf");
  WriteFile(file, "data = \"" + folder_.File("data") + "\"\n");
  ASSERT_TRUE(cluster::SaveAccountSource(folder_.File("data"), cluster::AccountSource::kPam).ok());
  EXPECT_THAT(Run({"user", "list", "--config", file}).errors, HasSubstr("takes its users from PAM"));
  WriteFile(file, "data = \"" + folder_.File("data") + "\"\naccounts = \"store\"\n");
  EXPECT_THAT(Run({"user", "list", "--config", file}).output, HasSubstr("alice"));
}

TEST_F(Accounts, Local_DaemonRunning_IsRefused) {
  AddAlice();
  {
    const auto lock = DataLock::Take(folder_.File("data"));
    ASSERT_TRUE(lock.ok());
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"user", "list"}, {"user", "del", "alice"}, {"user", "add", "bob"}, {"user", "grant", "alice", kFirst}}) {
      const auto result = RunHere(arguments);
      EXPECT_EQ(result.exit_code, 1);
      EXPECT_THAT(result.errors, HasSubstr("A vexad uses the data folder"));
    }
  }
  EXPECT_TRUE(Open()->FindUser("alice").ok());
  EXPECT_EQ(RunHere({"user", "del", "alice"}).exit_code, 0) << "it has stopped";
}

TEST_F(Accounts, Passwd_DaemonStartsDuringPrompt_IsRefused) {
  AddAlice();
  ASSERT_TRUE(DataLock::Take(folder_.File("data")).ok()) << "a daemon has been here";
  OnTerminal terminal(Program({"user", "passwd", "alice", "--data", folder_.File("data")}));
  ASSERT_TRUE(terminal.WaitFor("New password of alice: "));
  const auto lock = DataLock::Take(folder_.File("data"));
  ASSERT_TRUE(lock.ok()) << "nothing is locked while a user types";
  terminal.Type("second password\n");
  ASSERT_TRUE(terminal.WaitFor("again: "));
  terminal.Type("second password\n");
  const int status = terminal.Finish();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << terminal.shown();
  EXPECT_THAT(terminal.shown(), HasSubstr("A vexad uses the data folder"));
  EXPECT_TRUE(Open()->VerifyPassword("alice", "first password").ok());
}

TEST_F(Accounts, UserAdd_StoreNotMounted_CreatesNoStore) {
  std::filesystem::create_directories(folder_.File("data/mirror"));
  WriteFile(folder_.File("data/mirror/data.mdb"), "a copy");
  std::filesystem::create_directory(folder_.File("elsewhere"));
  const auto result =
      RunHere({"user", "add", "alice", "--password-stdin", "--store", folder_.File("elsewhere")}, "good password\n");
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, HasSubstr("Mount it"));
  EXPECT_FALSE(Exists("elsewhere/data.mdb"));
}

TEST_F(Accounts, UserList_StoreNotMounted_SuggestsMounting) {
  std::filesystem::create_directories(folder_.File("data/mirror"));
  WriteFile(folder_.File("data/mirror/data.mdb"), "a copy");
  std::filesystem::create_directory(folder_.File("elsewhere"));
  const auto list = RunHere({"user", "list", "--store", folder_.File("elsewhere")});
  EXPECT_EQ(list.exit_code, 1);
  EXPECT_THAT(list.errors, AllOf(HasSubstr("Mount it"), Not(HasSubstr("'vexa user add' creates it"))));
}

// An old database lies below the folder where the right one is not mounted.
TEST_F(Accounts, Local_StoreOlderThanItsCopy_IsNotChanged) {
  const std::vector<std::string> elsewhere{"--store", folder_.File("elsewhere")};
  ASSERT_NO_FATAL_FAILURE(AddAlice(elsewhere));
  store::LmdbOptions options;
  options.directory = folder_.File("elsewhere");
  const auto revision = [&options] { return (*(*store::OpenLmdbStore(options))->Read())->revision(); };
  const store::Revision before = revision();
  options.directory = folder_.File("newer");
  {
    const auto newer = store::OpenLmdbStore(options);
    ASSERT_TRUE(newer.ok());
    while ((*(*newer)->Read())->revision() <= before) ASSERT_TRUE((*newer)->Commit({{}, {{"/a", "b"}}}).ok());
    store::MirrorOptions mirror;
    mirror.directory = folder_.File("data/mirror");
    const auto copy = store::MirroredStore::Make(*newer, mirror);
    ASSERT_TRUE(copy.ok());
    for (int i = 0; i < 1200 && (*copy)->mirrored_revision() <= before; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_GT((*copy)->mirrored_revision(), before);
  }
  options.directory = folder_.File("elsewhere");
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
           {"user", "list"}, {"user", "del", "alice"}, {"user", "grant", "alice", kFirst}}) {
    std::vector<std::string> arguments = words;
    arguments.insert(arguments.end(), elsewhere.begin(), elsewhere.end());
    const auto result = RunHere(arguments);
    EXPECT_EQ(result.exit_code, 1) << words[1];
    EXPECT_THAT(result.errors, HasSubstr("older than this host's copy")) << words[1];
  }
  EXPECT_EQ(revision(), before);
}

TEST_F(Accounts, Store_PathEndsWithSlash_IsCreated) {
  const auto added =
      RunHere({"user", "add", "alice", "--password-stdin", "--store", folder_.File("elsewhere/")}, "good password\n");
  EXPECT_EQ(added.exit_code, 0) << added.errors;
  EXPECT_TRUE(Exists("elsewhere/data.mdb"));
}

TEST_F(Accounts, ClusterLog_AccountChanges_AreLoggedWithoutPasswords) {
  AddAlice();
  EXPECT_EQ(RunHere({"user", "grant", "alice", kFirst}).exit_code, 0);
  EXPECT_EQ(RunHere({"user", "passwd", "alice", "--password-stdin"}, "second password\n").exit_code, 0);
  EXPECT_EQ(RunHere({"user", "group", "alice", "crew"}).exit_code, 0);
  EXPECT_EQ(RunHere({"user", "advanced", "alice"}).exit_code, 0);
  EXPECT_EQ(RunHere({"user", "revoke", "alice", kFirst}).exit_code, 0);
  EXPECT_EQ(RunHere({"user", "drop-grants", "alice"}).exit_code, 0);
  EXPECT_EQ(RunHere({"user", "del", "alice"}).exit_code, 0);
  std::string log;
  const auto store = OpenStore();
  const auto snapshot = store->Read();
  ASSERT_TRUE(snapshot.ok());
  ASSERT_TRUE((*snapshot)
                  ->Scan("/log",
                         [&](std::string_view, const store::ValueView& value) {
                           log += std::string(value.text) + "\n";
                           return true;
                         })
                  .ok());
  EXPECT_THAT(log, AllOf(HasSubstr("The user [alice] has been added, with the groups [staff]."),
                         HasSubstr("The user [alice] may use the virtual machines"), HasSubstr(kFirst)));
  EXPECT_THAT(log, AllOf(HasSubstr("The password of the user [alice] has been changed."),
                         HasSubstr("The groups of the user [alice] are now [crew]."),
                         HasSubstr("The level of the user [alice] is now [advanced]."),
                         HasSubstr("The user [alice] may no longer use the virtual machines"),
                         HasSubstr("What was granted to the user [alice] has been dropped."),
                         HasSubstr("The user [alice] has been deleted."), Not(HasSubstr("first password")),
                         Not(HasSubstr("second password"))));
}

TEST_F(Accounts, DropGrants_UnknownId_RemovesItsGrants) {
  AddAlice();
  ASSERT_TRUE(OpenStore()->Commit({{}, {{KeyOf("groups-4242"), R"({"guests":{"g":true}})"}}}).ok());
  EXPECT_EQ(RunHere({"group", "drop-grants", "--id", "4242"}).exit_code, 0);
  EXPECT_EQ(RecordOf("groups-4242"), "");
  EXPECT_EQ(RunHere({"group", "drop-grants", "--id", "x"}).exit_code, 2);
  EXPECT_EQ(RunHere({"user", "grant", "--id", "4242", kFirst}).exit_code, 1);
}

TEST_F(Accounts, Local_CommandThatNeedsDaemon_IsUsageError) {
  AddAlice();
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"group", "list"},
                                             {"group", "del", "staff"},
                                             {"user", "grants", "alice"},
                                             {"user", "passwd"},
                                             {"user", "advanced", "--show", "alice"}}) {
    const auto result = RunHere(arguments);
    EXPECT_EQ(result.exit_code, 2) << arguments[1];
    EXPECT_THAT(result.errors, HasSubstr("--local"));
  }
}

TEST_F(Accounts, Grant_ConcurrentCommands_LoseNothing) {
  AddAlice({"--uid", "1026"});
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([this, i] {
      const std::string id = "00000000-0000-4000-8000-00000000000" + std::to_string(i);
      const auto result = RunHere({"user", "grant", "alice", id});
      EXPECT_EQ(result.exit_code, 0) << result.errors;
    });
  }
  for (auto& thread : threads) thread.join();
  const std::string record = RecordOf("users-1026");
  for (int i = 0; i < 8; ++i) EXPECT_THAT(record, HasSubstr("-00000000000" + std::to_string(i)));
}

}  // namespace
}  // namespace vexa::test
