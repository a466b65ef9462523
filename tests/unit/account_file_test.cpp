#include "host/base/account_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/base/files.h"
#include "host/base/json_parse.h"
#include "tests/unit/temporary_folder.h"

namespace vexa::base {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPassword = "correct horse battery";
class AccountFileTest : public testing::Test {
 protected:
  std::unique_ptr<AccountFile> Open() const {
    auto opened = AccountFile::Open(path());
    EXPECT_TRUE(opened.ok()) << opened.error().ToString();
    return opened.ok() ? std::move(opened).value() : nullptr;
  }
  std::string path() const { return folder_.Path("accounts.json"); }
  std::string Text() const {
    auto text = ReadFile(path(), 1 << 20);
    EXPECT_TRUE(text.ok());
    return text.ok() ? *text : "";
  }
  void Put(const std::string& text) const { ASSERT_TRUE(WriteFileAtomically(path(), text, 0600).ok()); }
  Json::Value Document() const { return *ParseJson(Text()); }

  static void Add(AccountFile& accounts, const std::string& name, std::vector<std::string> groups = {},
                  std::optional<std::uint32_t> uid = std::nullopt) {
    const Status status = accounts.AddUser({name, kPassword, std::move(groups), uid});
    ASSERT_TRUE(status.ok()) << status.error().ToString();
  }
  static std::vector<std::string> GroupNames(const User& user) {
    std::vector<std::string> names;
    for (const Group& group : user.groups) names.push_back(group.name);
    return names;
  }

  TemporaryFolder folder_;
};

template <class T>
ErrorCode CodeOf(const Result<T>& result) {
  EXPECT_FALSE(result.ok());
  return result.ok() ? ErrorCode::kInternal : result.error().code();
}

TEST_F(AccountFileTest, Open_NoFile_MakesOneWithAdministratorsAndNoUsers) {
  const auto accounts = Open();
  struct stat info {};
  ASSERT_EQ(::stat(path().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  EXPECT_TRUE(accounts->ListUsers()->empty());
  const Json::Value document = Document();
  EXPECT_EQ(document["version"].asInt(), 1);
  ASSERT_EQ(document["groups"].size(), 1u);
  EXPECT_EQ(document["groups"][0]["name"].asString(), "administrators");
}

TEST_F(AccountFileTest, Open_FolderMissing_Fails) {
  EXPECT_FALSE(AccountFile::Open(folder_.Path("none/accounts.json")).ok());
  EXPECT_EQ(CodeOf(AccountFile::Open(path() + std::string("\0x", 2))), ErrorCode::kInvalid);
}

TEST_F(AccountFileTest, AddUser_ThenFind_TellsWhoItIs) {
  const auto accounts = Open();
  Add(*accounts, "alice", {"administrators", "operators", "operators", "users"});
  const auto user = accounts->FindUser("alice");
  ASSERT_TRUE(user.ok()) << user.error().ToString();
  EXPECT_EQ(user->name, "alice");
  EXPECT_TRUE(user->is_administrator);
  EXPECT_EQ(GroupNames(*user), (std::vector<std::string>{"users", "administrators", "operators"}));
  EXPECT_EQ(user->groups.front().gid, user->gid);
  EXPECT_GE(user->uid, kFirstOwnId);
  EXPECT_EQ(accounts->FindUserByUid(user->uid)->name, "alice");
  for (const Group& group : user->groups) EXPECT_EQ(accounts->FindGroupByGid(group.gid)->name, group.name);
}

TEST_F(AccountFileTest, Find_Unknown_IsNotFound) {
  const auto accounts = Open();
  Add(*accounts, "alice");
  EXPECT_EQ(CodeOf(accounts->FindUser("bob")), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(accounts->FindUser("")), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(accounts->FindUser("alice\n")), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(accounts->FindUser(std::string("alice\0", 6))), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(accounts->FindUserByUid(4242)), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(accounts->FindGroupByGid(4242)), ErrorCode::kNotFound);
  EXPECT_FALSE(accounts->FindUser("alice")->is_administrator);
}

TEST_F(AccountFileTest, AddUser_TakenNameOrUid_IsConflictAndChangesNothing) {
  const auto accounts = Open();
  Add(*accounts, "alice", {}, 5000);
  const std::string before = Text();
  EXPECT_EQ(CodeOf(accounts->AddUser({"alice", kPassword, {}, {}})), ErrorCode::kConflict);
  EXPECT_EQ(CodeOf(accounts->AddUser({"bob", kPassword, {"new"}, 5000})), ErrorCode::kConflict);
  EXPECT_EQ(Text(), before);
}

TEST_F(AccountFileTest, AddUser_ImpossibleNames_AreInvalid) {
  const auto accounts = Open();
  const std::string before = Text();
  for (const std::string& name :
       {std::string(), std::string("-a"), std::string(".a"), std::string("../a"), std::string("a/b"),
        std::string("a b"), std::string("a\nb"), std::string("a%s"), std::string("a\0b", 3), std::string(65, 'a'),
        std::string("\xC3\xA9"), std::string("a\"b"), std::string("@a"), std::string("\\a"), std::string("a:b")}) {
    EXPECT_EQ(CodeOf(accounts->AddUser({name, kPassword, {}, {}})), ErrorCode::kInvalid) << name;
    EXPECT_EQ(CodeOf(accounts->AddUser({"bob", kPassword, {name}, {}})), ErrorCode::kInvalid) << name;
    EXPECT_FALSE(IsValidAccountName(name)) << name;
  }
  EXPECT_EQ(CodeOf(accounts->AddUser({"bob", kPassword, {}, 0xFFFFFFFFu})), ErrorCode::kInvalid);
  EXPECT_EQ(Text(), before);
}

TEST_F(AccountFileTest, AddUser_PossibleNames_ComeBackFromTheFile) {
  const std::vector<std::string> names = {"a", "_a", "0", "DOM\\alice", "a@b.example", "a-b_c.d", std::string(64, 'a')};
  const auto accounts = Open();
  for (const std::string& name : names) {
    EXPECT_TRUE(IsValidAccountName(name)) << name;
    Add(*accounts, name);
    EXPECT_EQ(Open()->FindUser(name)->name, name);
  }
}

TEST_F(AccountFileTest, Passwords_OfEveryBound_AreAcceptedOrRefused) {
  const auto accounts = Open();
  const std::string utf8 = "p\xC3\xA4ssw\xC3\xB6rt\xF0\x9F\x98\x80";
  const auto add = [&](const std::string& name, const std::string& password) {
    return accounts->AddUser({name, password, {}, {}});
  };
  EXPECT_EQ(CodeOf(add("u7", std::string(7, 'x'))), ErrorCode::kInvalid);
  EXPECT_EQ(CodeOf(add("u513", std::string(513, 'x'))), ErrorCode::kInvalid);
  EXPECT_EQ(CodeOf(add("empty", "")), ErrorCode::kInvalid);
  EXPECT_EQ(CodeOf(add("nul", std::string("12345678\0abc", 12))), ErrorCode::kInvalid);
  EXPECT_EQ(CodeOf(add("latin1", "p\xE4sswort1")), ErrorCode::kInvalid);
  for (const std::string& password : {std::string(8, 'x'), std::string(511, 'x'), std::string(512, 'x'), utf8}) {
    const std::string name = "u" + std::to_string(password.size());
    ASSERT_TRUE(add(name, password).ok());
    EXPECT_TRUE(accounts->VerifyPassword(name, password).ok()) << password.size();
    EXPECT_EQ(CodeOf(accounts->VerifyPassword(name, password.substr(1))), ErrorCode::kDenied);
    EXPECT_EQ(CodeOf(accounts->VerifyPassword(name, password + "x")), ErrorCode::kDenied);
  }
  // Every byte of the longest counts.
  for (const std::size_t at : {0, 255, 256, 511}) {
    std::string other(512, 'x');
    other[at] = 'y';
    EXPECT_EQ(CodeOf(accounts->VerifyPassword("u512", other)), ErrorCode::kDenied) << at;
  }
}

TEST_F(AccountFileTest, Passwords_InTheFile_AreYescryptHashesWithTheirOwnSalts) {
  const auto accounts = Open();
  Add(*accounts, "alice");
  Add(*accounts, "bob");
  const Json::Value users = Document()["users"];
  EXPECT_EQ(users[0]["password"].asString().rfind("$y$", 0), 0u);
  EXPECT_NE(users[0]["password"].asString(), users[1]["password"].asString());
  EXPECT_EQ(Text().find(kPassword), std::string::npos);
}

TEST_F(AccountFileTest, VerifyPassword_WrongOnes_AreDeniedAlike) {
  const auto accounts = Open();
  Add(*accounts, "alice");
  const auto user = accounts->VerifyPassword("alice", kPassword);
  ASSERT_TRUE(user.ok());
  EXPECT_EQ(user->name, "alice");
  const std::string with_nul = std::string(kPassword) + std::string("\0x", 2);
  std::set<std::string> messages;
  for (const auto& [name, password] :
       std::vector<std::pair<std::string, std::string>>{{"alice", "correct horse batterx"},
                                                        {"alice", ""},
                                                        {"alice", with_nul},
                                                        {"alice", std::string(100'000, 'x')},
                                                        {"nobody-here", kPassword},
                                                        {"nobody-here", "a password that nobody has"},
                                                        {"", kPassword},
                                                        {std::string("alice\0", 6), kPassword}}) {
    const auto result = accounts->VerifyPassword(name, password);
    EXPECT_EQ(CodeOf(result), ErrorCode::kDenied) << name;
    messages.insert(result.error().ToString());
  }
  EXPECT_EQ(messages.size(), 1u);
}

TEST_F(AccountFileTest, VerifyPassword_LoginDisabled_IsDenied) {
  const auto accounts = Open();
  Add(*accounts, "alice");
  const std::string hash = Document()["users"][0]["password"].asString();
  for (const std::string& stored : {std::string(), std::string("!"), "!" + hash}) {
    Json::Value document = Document();
    document["users"][0]["password"] = stored;
    Put(document.toStyledString());
    EXPECT_EQ(CodeOf(accounts->VerifyPassword("alice", kPassword)), ErrorCode::kDenied) << stored;
    EXPECT_EQ(CodeOf(accounts->VerifyPassword("alice", "")), ErrorCode::kDenied);
    EXPECT_EQ(CodeOf(accounts->VerifyPassword("alice", "a password that nobody has")), ErrorCode::kDenied);
    EXPECT_TRUE(accounts->FindUser("alice").ok());
  }
}

TEST_F(AccountFileTest, SetPassword_Changed_OnlyTheNewOneIsRight) {
  const auto accounts = Open();
  Add(*accounts, "alice");
  ASSERT_TRUE(accounts->SetPassword("alice", "another password").ok());
  EXPECT_TRUE(accounts->VerifyPassword("alice", "another password").ok());
  EXPECT_EQ(CodeOf(accounts->VerifyPassword("alice", kPassword)), ErrorCode::kDenied);
  EXPECT_EQ(CodeOf(accounts->SetPassword("alice", "short")), ErrorCode::kInvalid);
  EXPECT_EQ(CodeOf(accounts->SetPassword("bob", "another password")), ErrorCode::kNotFound);
}

TEST_F(AccountFileTest, SetGroups_Changed_ReplacesAllButThePrimaryOne) {
  const auto accounts = Open();
  Add(*accounts, "alice", {"administrators"});
  ASSERT_TRUE(accounts->SetGroups("alice", {"b", "a", "b"}).ok());
  EXPECT_EQ(GroupNames(*accounts->FindUser("alice")), (std::vector<std::string>{"users", "b", "a"}));
  EXPECT_FALSE(accounts->FindUser("alice")->is_administrator);
  ASSERT_TRUE(accounts->SetGroups("alice", {"administrators"}).ok());
  EXPECT_TRUE(accounts->FindUser("alice")->is_administrator);
  ASSERT_TRUE(accounts->SetGroups("alice", {}).ok());
  EXPECT_EQ(GroupNames(*accounts->FindUser("alice")), (std::vector<std::string>{"users"}));
  EXPECT_EQ(CodeOf(accounts->SetGroups("alice", {"a b"})), ErrorCode::kInvalid);
  EXPECT_EQ(CodeOf(accounts->SetGroups("bob", {"made-for-nobody"})), ErrorCode::kNotFound);
  EXPECT_EQ(Text().find("made-for-nobody"), std::string::npos);
}

TEST_F(AccountFileTest, DeleteUser_ThenAddAgain_GivesANewId) {
  const auto accounts = Open();
  Add(*accounts, "alice", {"operators"});
  Add(*accounts, "bob");
  const auto alice = accounts->FindUser("alice");
  const auto bob = accounts->FindUser("bob");
  ASSERT_TRUE(accounts->DeleteUser("bob").ok());
  ASSERT_TRUE(accounts->DeleteUser("alice").ok());
  EXPECT_EQ(CodeOf(accounts->FindUser("alice")), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(accounts->FindUserByUid(alice->uid)), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(accounts->DeleteUser("alice")), ErrorCode::kNotFound);
  EXPECT_EQ(accounts->FindGroupByGid(alice->groups[1].gid)->name, "operators");
  const auto reopened = Open();
  Add(*reopened, "bob");
  EXPECT_NE(reopened->FindUser("bob")->uid, bob->uid);
  EXPECT_NE(reopened->FindUser("bob")->uid, alice->uid);
}

TEST_F(AccountFileTest, Ids_OfUsersAndGroups_AreNeverShared) {
  const auto accounts = Open();
  Add(*accounts, "alice", {"g1", "g2"});
  Add(*accounts, "bob", {"g3"}, kFirstOwnId + 100);
  ASSERT_TRUE(accounts->DeleteUser("bob").ok());
  Add(*accounts, "carol", {"g4"});
  std::multiset<std::uint32_t> ids;
  const Json::Value document = Document();
  for (const Json::Value& user : document["users"]) ids.insert(user["uid"].asUInt());
  for (const Json::Value& group : document["groups"]) ids.insert(group["gid"].asUInt());
  EXPECT_EQ(std::set<std::uint32_t>(ids.begin(), ids.end()).size(), ids.size());
  EXPECT_EQ(ids.count(kFirstOwnId + 100), 0u);
}

TEST_F(AccountFileTest, Ids_AllUsedUp_IsNoSpace) {
  const auto accounts = Open();
  Add(*accounts, "alice", {}, kLastOwnId);
  EXPECT_EQ(CodeOf(accounts->AddUser({"bob", kPassword, {}, {}})), ErrorCode::kNoSpace);
  EXPECT_EQ(CodeOf(accounts->SetGroups("alice", {"one-more"})), ErrorCode::kNoSpace);
  EXPECT_TRUE(accounts->AddUser({"bob", kPassword, {}, 5000}).ok());
}

TEST_F(AccountFileTest, AddUser_NameTheMachineKnows_GetsTheMachinesIdUnlessTaken) {
  const auto accounts = Open();
  Add(*accounts, "root");
  EXPECT_EQ(accounts->FindUser("root")->uid, 0u);
  EXPECT_FALSE(accounts->FindUser("root")->is_administrator);
  ASSERT_TRUE(accounts->DeleteUser("root").ok());
  Add(*accounts, "alice", {}, 0);
  Add(*accounts, "root");
  EXPECT_GE(accounts->FindUser("root")->uid, kFirstOwnId);
}

TEST_F(AccountFileTest, ListUsers_Many_ComeByName) {
  const auto accounts = Open();
  for (const char* name : {"carol", "alice", "bob"}) Add(*accounts, name);
  const auto users = accounts->ListUsers();
  ASSERT_EQ(users->size(), 3u);
  EXPECT_EQ((*users)[0].name, "alice");
  EXPECT_EQ((*users)[2].name, "carol");
}

TEST_F(AccountFileTest, Reader_AnotherChanges_SeesItAtOnce) {
  const auto reader = Open();
  const auto writer = Open();
  Add(*writer, "alice");
  for (int i = 0; i < 20; ++i) {
    const bool is_administrator = i % 2 == 0;
    ASSERT_TRUE(writer->SetGroups("alice", {is_administrator ? "administrators" : "administratorz"}).ok());
    ASSERT_EQ(reader->FindUser("alice")->is_administrator, is_administrator) << i;
  }
  ASSERT_TRUE(writer->DeleteUser("alice").ok());
  EXPECT_EQ(CodeOf(reader->FindUser("alice")), ErrorCode::kNotFound);
}

// An editor may write in place: same inode, same size, within one tick of the clock.
TEST_F(AccountFileTest, Reader_FileChangedInPlace_SeesItAtOnce) {
  const auto accounts = Open();
  Add(*accounts, "alice", {"administrators"});
  for (int i = 0; i < 20; ++i) {
    std::string text = Text();
    const std::size_t at = text.find(i % 2 == 0 ? "\"alice\"" : "\"malis\"");
    ASSERT_NE(at, std::string::npos);
    text.replace(at, 7, i % 2 == 0 ? "\"malis\"" : "\"alice\"");
    std::FILE* file = std::fopen(path().c_str(), "r+");
    ASSERT_NE(file, nullptr);
    std::fwrite(text.data(), 1, text.size(), file);
    std::fclose(file);
    ASSERT_EQ(accounts->FindUser("alice").ok(), i % 2 != 0) << i;
    ASSERT_EQ(accounts->FindUser("malis").ok(), i % 2 == 0) << i;
  }
}

TEST_F(AccountFileTest, Reader_FileDamagedOrGone_IsUnavailableUntilRepaired) {
  const auto accounts = Open();
  Add(*accounts, "alice");
  const std::string good = Text();
  const auto expect_unavailable = [&](const char* what) {
    EXPECT_EQ(CodeOf(accounts->FindUser("alice")), ErrorCode::kUnavailable) << what;
    EXPECT_EQ(CodeOf(accounts->FindUserByUid(0)), ErrorCode::kUnavailable) << what;
    EXPECT_EQ(CodeOf(accounts->FindGroupByGid(0)), ErrorCode::kUnavailable) << what;
    EXPECT_EQ(CodeOf(accounts->VerifyPassword("alice", kPassword)), ErrorCode::kUnavailable) << what;
    EXPECT_EQ(CodeOf(accounts->ListUsers()), ErrorCode::kUnavailable) << what;
    EXPECT_FALSE(accounts->SetGroups("alice", {"administrators"}).ok()) << what;
  };
  Put(good.substr(0, good.size() / 2));
  expect_unavailable("cut");
  EXPECT_EQ(Text(), good.substr(0, good.size() / 2)) << "a writer must not repair by guessing";
  EXPECT_EQ(CodeOf(accounts->DeleteUser("alice")), ErrorCode::kCorrupt);
  Put(good);
  EXPECT_TRUE(accounts->FindUser("alice").ok());
  ASSERT_EQ(::chmod(path().c_str(), 0644), 0);
  expect_unavailable("readable by others");
  EXPECT_EQ(CodeOf(accounts->DeleteUser("alice")), ErrorCode::kDenied);
  ASSERT_EQ(::chmod(path().c_str(), 0600), 0);
  EXPECT_TRUE(accounts->VerifyPassword("alice", kPassword).ok());
  fs::remove(path());
  expect_unavailable("gone");
  EXPECT_EQ(CodeOf(accounts->DeleteUser("alice")), ErrorCode::kNotFound);
  fs::create_directory(path());
  expect_unavailable("a folder");
  fs::remove(path());
  Put(good);
  EXPECT_TRUE(accounts->FindUser("alice").ok());
}

TEST_F(AccountFileTest, Open_FileForOthers_IsDenied) {
  Open();
  for (const mode_t mode : {0640, 0620, 0604, 0602, 0660, 0666}) {
    ASSERT_EQ(::chmod(path().c_str(), mode), 0);
    EXPECT_EQ(CodeOf(AccountFile::Open(path())), ErrorCode::kDenied) << mode;
  }
  ASSERT_EQ(::chmod(path().c_str(), 0400), 0);
  EXPECT_TRUE(AccountFile::Open(path()).ok());
}

TEST_F(AccountFileTest, Open_AnothersFile_IsDenied) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  Open();
  ASSERT_EQ(::chown(path().c_str(), 12345, 0), 0);
  EXPECT_EQ(CodeOf(AccountFile::Open(path())), ErrorCode::kDenied);
}

TEST_F(AccountFileTest, Open_SymbolicLink_IsDenied) {
  Open();
  fs::create_symlink(path(), folder_.Path("link"));
  EXPECT_EQ(CodeOf(AccountFile::Open(folder_.Path("link"))), ErrorCode::kDenied);
  fs::create_symlink(folder_.Path("none"), folder_.Path("dangling"));
  EXPECT_EQ(CodeOf(AccountFile::Open(folder_.Path("dangling"))), ErrorCode::kDenied);
  EXPECT_FALSE(fs::exists(folder_.Path("none")));
}

TEST_F(AccountFileTest, Writer_LockIsALinkElsewhere_IsDeniedAndFollowsNothing) {
  const auto accounts = Open();
  fs::remove(path() + ".lock");
  fs::create_symlink(folder_.Path("elsewhere"), path() + ".lock");
  EXPECT_EQ(CodeOf(accounts->AddUser({"alice", kPassword, {}, {}})), ErrorCode::kDenied);
  EXPECT_FALSE(fs::exists(folder_.Path("elsewhere")));
}

TEST_F(AccountFileTest, Writer_FileCannotBeMade_FailsAndChangesNothing) {
  const auto accounts = Open();
  Add(*accounts, "alice");
  // Root ignores permission bits, so the folder goes away under the writer.
  fs::rename(folder_.path(), folder_.path() + ".away");
  EXPECT_FALSE(accounts->AddUser({"bob", kPassword, {}, {}}).ok());
  EXPECT_EQ(CodeOf(accounts->FindUser("alice")), ErrorCode::kUnavailable);
  fs::rename(folder_.path() + ".away", folder_.path());
  EXPECT_TRUE(accounts->FindUser("alice").ok());
  EXPECT_EQ(CodeOf(accounts->FindUser("bob")), ErrorCode::kNotFound);
}

struct DamageCase {
  const char* name;
  const char* text;
  const char* reason;  // a part of the sentence
};

#define HEAD R"({"version":1,"groups":[{"name":"users","gid":100}],"users":)"
constexpr DamageCase kDamages[] = {
    {"Empty", "", "JSON"},
    {"NotJson", "users:", "JSON"},
    {"RootIsAList", "[]", "not an object"},
    {"RootIsNull", "null", "not an object"},
    {"VersionMissing", R"({"groups":[],"users":[]})", "version"},
    {"VersionTwo", R"({"version":2,"groups":[],"users":[]})", "version"},
    {"VersionText", R"({"version":"1","groups":[],"users":[]})", "version"},
    {"VersionTrue", R"({"version":true,"groups":[],"users":[]})", "version"},
    {"VersionReal", R"({"version":1.0,"groups":[],"users":[]})", "version"},
    {"MemberUnknown", R"({"version":1,"groups":[],"users":[],"extra":1})", "'extra'"},
    {"MemberUnknownWithNewline", R"({"version":1,"groups":[],"users":[],"a\nb":1})", "impossible name"},
    {"GroupsMissing", R"({"version":1,"users":[]})", "'groups'"},
    {"UsersMissing", R"({"version":1,"groups":[]})", "'users'"},
    {"UsersObject", HEAD "{}}", "'users'"},
    {"NextIdNull", R"({"version":1,"next_id":null,"groups":[],"users":[]})", "next_id"},
    {"NextIdTooLow", R"({"version":1,"next_id":1000,"groups":[],"users":[]})", "next_id"},
    {"NextIdTooHigh", R"({"version":1,"next_id":4000000000,"groups":[],"users":[]})", "next_id"},
    {"GroupIsText", R"({"version":1,"groups":["users"],"users":[]})", "not an object"},
    {"GroupNameMissing", R"({"version":1,"groups":[{"gid":1}],"users":[]})", "no valid name"},
    {"GroupNameIsPath", R"({"version":1,"groups":[{"name":"../x","gid":1}],"users":[]})", "no valid name"},
    {"GroupGidMissing", R"({"version":1,"groups":[{"name":"g"}],"users":[]})", "gid"},
    {"GroupGidNegative", R"({"version":1,"groups":[{"name":"g","gid":-1}],"users":[]})", "gid"},
    {"GroupGidIsNone", R"({"version":1,"groups":[{"name":"g","gid":4294967295}],"users":[]})", "gid"},
    {"GroupGidText", R"({"version":1,"groups":[{"name":"g","gid":"1"}],"users":[]})", "gid"},
    {"GroupGidReal", R"({"version":1,"groups":[{"name":"g","gid":1.5}],"users":[]})", "gid"},
    {"GroupMemberUnknown", R"({"version":1,"groups":[{"name":"g","gid":1,"x":1}],"users":[]})", "'x'"},
    {"GroupNameTwice", R"({"version":1,"groups":[{"name":"g","gid":1},{"name":"g","gid":2}],"users":[]})",
     "two groups"},
    {"GroupGidTwice", R"({"version":1,"groups":[{"name":"g","gid":1},{"name":"h","gid":1}],"users":[]})", "gid 1"},
    {"UserIsNull", HEAD "[null]}", "not an object"},
    {"UserNameMissing", HEAD R"([{"uid":1,"gid":100,"password":"","groups":[]}]})", "no valid name"},
    {"UserNameWithNul", HEAD R"([{"name":"a\u0000b","uid":1,"gid":100,"password":"","groups":[]}]})", "no valid name"},
    {"UserUidMissing", HEAD R"([{"name":"a","gid":100,"password":"","groups":[]}]})", "uid"},
    {"UserUidIsNone", HEAD R"([{"name":"a","uid":4294967295,"gid":100,"password":"","groups":[]}]})", "uid"},
    {"UserUidHuge", HEAD R"([{"name":"a","uid":4294967296,"gid":100,"password":"","groups":[]}]})", "uid"},
    {"UserGidMissing", HEAD R"([{"name":"a","uid":1,"password":"","groups":[]}]})", "gid"},
    {"UserGidOfNoGroup", HEAD R"([{"name":"a","uid":1,"gid":101,"password":"","groups":[]}]})", "of no group"},
    {"UserPasswordMissing", HEAD R"([{"name":"a","uid":1,"gid":100,"groups":[]}]})", "password"},
    {"UserPasswordPlain", HEAD R"([{"name":"a","uid":1,"gid":100,"password":"secret","groups":[]}]})", "password"},
    {"UserPasswordOldHash", HEAD R"([{"name":"a","uid":1,"gid":100,"password":"$1$abc$def","groups":[]}]})",
     "password"},
    {"UserPasswordNumber", HEAD R"([{"name":"a","uid":1,"gid":100,"password":1,"groups":[]}]})", "password"},
    {"UserPasswordWithNul", HEAD R"([{"name":"a","uid":1,"gid":100,"password":"!\u0000","groups":[]}]})", "password"},
    {"UserGroupsMissing", HEAD R"([{"name":"a","uid":1,"gid":100,"password":""}]})", "groups"},
    {"UserGroupsText", HEAD R"([{"name":"a","uid":1,"gid":100,"password":"","groups":"users"}]})", "groups"},
    {"UserGroupNumber", HEAD R"([{"name":"a","uid":1,"gid":100,"password":"","groups":[100]}]})", "groups"},
    {"UserGroupUnknown", HEAD R"([{"name":"a","uid":1,"gid":100,"password":"","groups":["wheel"]}]})", "'wheel'"},
    {"UserGroupTwice", HEAD R"([{"name":"a","uid":1,"gid":100,"password":"","groups":["users","users"]}]})", "twice"},
    {"UserMemberUnknown", HEAD R"([{"name":"a","uid":1,"gid":100,"password":"","groups":[],"admin":true}]})",
     "'admin'"},
    {"UserNameTwice",
     HEAD
     R"([{"name":"a","uid":1,"gid":100,"password":"","groups":[]},{"name":"a","uid":2,"gid":100,"password":"","groups":[]}]})",
     "two users"},
    {"UserUidTwice",
     HEAD
     R"([{"name":"a","uid":1,"gid":100,"password":"","groups":[]},{"name":"b","uid":1,"gid":100,"password":"","groups":[]}]})",
     "uid 1"},
};
#undef HEAD

class DamagedAccountFile : public AccountFileTest, public testing::WithParamInterface<DamageCase> {};

TEST_P(DamagedAccountFile, Open_IsCorruptAndSaysWhy) {
  Put(GetParam().text);
  const auto opened = AccountFile::Open(path());
  ASSERT_EQ(CodeOf(opened), ErrorCode::kCorrupt);
  EXPECT_NE(opened.error().ToString().find(GetParam().reason), std::string::npos) << opened.error().ToString();
  EXPECT_EQ(opened.error().ToString().find('\n'), std::string::npos);
  EXPECT_EQ(Text(), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(All, DamagedAccountFile, testing::ValuesIn(kDamages),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(AccountFileTest, Open_FileWithoutNextId_GivesIdsAboveAllInUse) {
  Put(R"({"version":1,"groups":[{"name":"users","gid":1900000007}],
          "users":[{"name":"a","uid":1900000005,"gid":1900000007,"password":"","groups":[]}]})");
  const auto accounts = Open();
  Add(*accounts, "alice");
  EXPECT_EQ(accounts->FindUser("alice")->uid, 1900000008u);
  EXPECT_EQ(GroupNames(*accounts->FindUser("a")), (std::vector<std::string>{"users"}));
}

TEST_F(AccountFileTest, Open_PrimaryGroupListedAsWell_IsThereOnce) {
  Put(R"({"version":1,"groups":[{"name":"administrators","gid":7},{"name":"users","gid":8}],
          "users":[{"name":"a","uid":1,"gid":7,"password":"","groups":["users","administrators"]}]})");
  const auto user = Open()->FindUser("a");
  EXPECT_EQ(GroupNames(*user), (std::vector<std::string>{"administrators", "users"}));
  EXPECT_TRUE(user->is_administrator);
}

TEST_F(AccountFileTest, AddUser_FourProcessesAtOnce_LosesNothing) {
  constexpr int kProcesses = 4;
  constexpr int kUsers = 25;
  std::vector<pid_t> children;
  for (int process = 0; process < kProcesses; ++process) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      // Each opens for itself: the first ones find no file, and only one may make it.
      auto accounts = AccountFile::Open(path());
      if (!accounts.ok()) ::_exit(1);
      for (int i = 0; i < kUsers; ++i) {
        const std::string name = "p" + std::to_string(process) + "-" + std::to_string(i);
        if (!(*accounts)->AddUser({name, kPassword, {"group-of-" + std::to_string(i)}, {}}).ok()) ::_exit(2);
        if (!(*accounts)->FindUser(name).ok()) ::_exit(3);
      }
      ::_exit(0);
    }
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
  }
  const auto users = Open()->ListUsers();
  ASSERT_TRUE(users.ok());
  EXPECT_EQ(users->size(), static_cast<std::size_t>(kProcesses * kUsers));
  std::set<std::uint32_t> uids;
  for (const User& user : *users) uids.insert(user.uid);
  EXPECT_EQ(uids.size(), users->size());
  EXPECT_EQ(Document()["groups"].size(), 2u + kUsers);
}

TEST_F(AccountFileTest, EightThreads_ReadWhileOneWrites_NeverSeeHalf) {
  const auto accounts = Open();
  Add(*accounts, "alice", {"a", "b"});
  std::atomic<bool> is_done{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 8; ++i) {
    readers.emplace_back([&] {
      while (!is_done) {
        const auto user = accounts->FindUser("alice");
        ASSERT_TRUE(user.ok()) << user.error().ToString();
        ASSERT_EQ(user->groups.size(), 3u);
        ASSERT_TRUE(accounts->FindUserByUid(user->uid).ok());
      }
    });
  }
  for (int i = 0; i < 30; ++i) {
    EXPECT_TRUE(accounts->SetGroups("alice", {"x" + std::to_string(i), "b"}).ok());
  }
  is_done = true;
  for (std::thread& reader : readers) reader.join();
}

TEST_F(AccountFileTest, VerifyPassword_ManyThreadsAtOnce_AllAreAnswered) {
  const auto accounts = Open();
  Add(*accounts, "alice");
  std::vector<std::thread> threads;
  std::atomic<int> right{0};
  std::atomic<int> wrong{0};
  for (int i = 0; i < 24; ++i) {
    threads.emplace_back([&, i] {
      const auto result =
          accounts->VerifyPassword(i % 3 == 0 ? "nobody-here" : "alice", i % 3 == 1 ? "wrong" : kPassword);
      if (result.ok()) {
        ++right;
      } else if (result.error().code() == ErrorCode::kDenied) {
        ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, 8);
  EXPECT_EQ(wrong, 16);
}

}  // namespace
}  // namespace vexa::base
