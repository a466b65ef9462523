#include "host/accounts/account_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "host/base/files.h"
#include "tests/unit/storage/temporary_folder.h"

namespace vexa::accounts {
namespace {

namespace fs = std::filesystem;

constexpr const char* kGood = R"({"version":1,"groups":[{"name":"users","gid":1900000007}],
    "users":[{"name":"a","uid":1900000005,"gid":1900000007,"password":"","groups":[]}]})";

class AccountFileTest : public testing::Test {
 protected:
  std::string path() const { return folder_.Path("accounts.json"); }
  void Put(const std::string& text) const { ASSERT_TRUE(WriteFileAtomically(path(), text, 0600).ok()); }
  static ErrorCode CodeOf(const std::string& path) {
    const auto read = ReadAccountFile(path);
    EXPECT_FALSE(read.ok());
    return read.ok() ? ErrorCode::kInternal : read.error().code();
  }

  TemporaryFolder folder_;
};

TEST_F(AccountFileTest, Read_ValidFile_ReturnsContentAndNextId) {
  Put(kGood);
  const auto file = ReadAccountFile(path());
  ASSERT_TRUE(file.ok()) << file.error().ToString();
  ASSERT_EQ(file->document.users.size(), 1u);
  EXPECT_EQ(file->document.users[0].name, "a");
  EXPECT_EQ(file->document.users[0].uid, 1900000005u);
  EXPECT_EQ(file->document.groups[0].gid, 1900000007u);
  EXPECT_EQ(file->document.next_id, 1900000008u) << "above all that are in use";
}

TEST_F(AccountFileTest, Fingerprint_DifferentContent_Differs) {
  Put(kGood);
  const std::string first = ReadAccountFile(path())->fingerprint;
  EXPECT_EQ(ReadAccountFile(path())->fingerprint, first);
  Put(std::string(kGood) + "\n");
  EXPECT_NE(ReadAccountFile(path())->fingerprint, first);
}

TEST_F(AccountFileTest, Read_NoFile_IsNotFound) {
  EXPECT_EQ(CodeOf(path()), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(folder_.Path("none/accounts.json")), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(path() + std::string("\0x", 2)), ErrorCode::kInvalid);
}

TEST_F(AccountFileTest, Read_FileReadableByOthers_IsDenied) {
  Put(kGood);
  for (const mode_t mode : {0640, 0620, 0604, 0602, 0660, 0666}) {
    ASSERT_EQ(::chmod(path().c_str(), mode), 0);
    EXPECT_EQ(CodeOf(path()), ErrorCode::kDenied) << mode;
  }
  ASSERT_EQ(::chmod(path().c_str(), 0400), 0);
  EXPECT_TRUE(ReadAccountFile(path()).ok());
}

TEST_F(AccountFileTest, Read_FileOfOtherUser_IsDenied) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  Put(kGood);
  ASSERT_EQ(::chown(path().c_str(), 12345, 0), 0);
  EXPECT_EQ(CodeOf(path()), ErrorCode::kDenied);
}

TEST_F(AccountFileTest, Read_SymbolicLink_IsDenied) {
  Put(kGood);
  fs::create_symlink(path(), folder_.Path("link"));
  EXPECT_EQ(CodeOf(folder_.Path("link")), ErrorCode::kDenied);
}

struct DamageCase {
  const char* name;
  const char* text;
  const char* reason;  // a part of the sentence
};

#define PREFIX R"({"version":1,"groups":[{"name":"users","gid":100}],"users":)"
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
    {"MemberUnknownWithNewline", R"({"version":1,"groups":[],"users":[],"a\nb":1})", "invalid name"},
    {"GroupsMissing", R"({"version":1,"users":[]})", "'groups'"},
    {"UsersMissing", R"({"version":1,"groups":[]})", "'users'"},
    {"UsersObject", PREFIX "{}}", "'users'"},
    {"NextIdNull", R"({"version":1,"next_id":null,"groups":[],"users":[]})", "next_id"},
    {"NextIdTooLow", R"({"version":1,"next_id":1000,"groups":[],"users":[]})", "next_id"},
    {"NextIdTooHigh", R"({"version":1,"next_id":4000000000,"groups":[],"users":[]})", "next_id"},
    {"GroupIsText", R"({"version":1,"groups":["users"],"users":[]})", "not an object"},
    {"GroupNameMissing", R"({"version":1,"groups":[{"gid":1}],"users":[]})", "an invalid name"},
    {"GroupNameIsPath", R"({"version":1,"groups":[{"name":"../x","gid":1}],"users":[]})", "an invalid name"},
    {"GroupGidMissing", R"({"version":1,"groups":[{"name":"g"}],"users":[]})", "gid"},
    {"GroupGidNegative", R"({"version":1,"groups":[{"name":"g","gid":-1}],"users":[]})", "gid"},
    {"GroupGidIsReserved", R"({"version":1,"groups":[{"name":"g","gid":4294967295}],"users":[]})", "gid"},
    {"GroupGidText", R"({"version":1,"groups":[{"name":"g","gid":"1"}],"users":[]})", "gid"},
    {"GroupGidReal", R"({"version":1,"groups":[{"name":"g","gid":1.5}],"users":[]})", "gid"},
    {"GroupMemberUnknown", R"({"version":1,"groups":[{"name":"g","gid":1,"x":1}],"users":[]})", "'x'"},
    {"GroupNameTwice", R"({"version":1,"groups":[{"name":"g","gid":1},{"name":"g","gid":2}],"users":[]})",
     "two groups"},
    {"GroupGidTwice", R"({"version":1,"groups":[{"name":"g","gid":1},{"name":"h","gid":1}],"users":[]})", "gid 1"},
    {"UserIsNull", PREFIX "[null]}", "not an object"},
    {"UserNameMissing", PREFIX R"([{"uid":1,"gid":100,"password":"","groups":[]}]})", "an invalid name"},
    {"UserNameWithNul", PREFIX R"([{"name":"a\u0000b","uid":1,"gid":100,"password":"","groups":[]}]})",
     "an invalid name"},
    {"UserUidMissing", PREFIX R"([{"name":"a","gid":100,"password":"","groups":[]}]})", "uid"},
    {"UserUidIsReserved", PREFIX R"([{"name":"a","uid":4294967295,"gid":100,"password":"","groups":[]}]})", "uid"},
    {"UserUidHuge", PREFIX R"([{"name":"a","uid":4294967296,"gid":100,"password":"","groups":[]}]})", "uid"},
    {"UserGidMissing", PREFIX R"([{"name":"a","uid":1,"password":"","groups":[]}]})", "gid"},
    {"UserGidOfNoGroup", PREFIX R"([{"name":"a","uid":1,"gid":101,"password":"","groups":[]}]})",
     "belongs to no group"},
    {"UserPasswordMissing", PREFIX R"([{"name":"a","uid":1,"gid":100,"groups":[]}]})", "password"},
    {"UserPasswordPlain", PREFIX R"([{"name":"a","uid":1,"gid":100,"password":"secret","groups":[]}]})", "password"},
    {"UserPasswordOldHash", PREFIX R"([{"name":"a","uid":1,"gid":100,"password":"$1$abc$def","groups":[]}]})",
     "password"},
    {"UserPasswordNumber", PREFIX R"([{"name":"a","uid":1,"gid":100,"password":1,"groups":[]}]})", "password"},
    {"UserPasswordWithNul", PREFIX R"([{"name":"a","uid":1,"gid":100,"password":"!\u0000","groups":[]}]})", "password"},
    {"UserGroupsMissing", PREFIX R"([{"name":"a","uid":1,"gid":100,"password":""}]})", "groups"},
    {"UserGroupsText", PREFIX R"([{"name":"a","uid":1,"gid":100,"password":"","groups":"users"}]})", "groups"},
    {"UserGroupNumber", PREFIX R"([{"name":"a","uid":1,"gid":100,"password":"","groups":[100]}]})", "groups"},
    {"UserGroupUnknown", PREFIX R"([{"name":"a","uid":1,"gid":100,"password":"","groups":["wheel"]}]})", "'wheel'"},
    {"UserGroupTwice", PREFIX R"([{"name":"a","uid":1,"gid":100,"password":"","groups":["users","users"]}]})", "twice"},
    {"UserMemberUnknown", PREFIX R"([{"name":"a","uid":1,"gid":100,"password":"","groups":[],"admin":true}]})",
     "'admin'"},
    {"UserNameTwice",
     PREFIX
     R"([{"name":"a","uid":1,"gid":100,"password":"","groups":[]},{"name":"a","uid":2,"gid":100,"password":"","groups":[]}]})",
     "two users"},
    {"UserUidTwice",
     PREFIX
     R"([{"name":"a","uid":1,"gid":100,"password":"","groups":[]},{"name":"b","uid":1,"gid":100,"password":"","groups":[]}]})",
     "uid 1"},
};
#undef PREFIX

class DamagedAccountFile : public AccountFileTest, public testing::WithParamInterface<DamageCase> {};

TEST_P(DamagedAccountFile, Read_InvalidFile_IsCorruptWithReason) {
  Put(GetParam().text);
  const auto read = ReadAccountFile(path());
  ASSERT_FALSE(read.ok());
  EXPECT_EQ(read.error().code(), ErrorCode::kCorrupt);
  EXPECT_NE(read.error().ToString().find(GetParam().reason), std::string::npos) << read.error().ToString();
  EXPECT_EQ(read.error().ToString().find('\n'), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(All, DamagedAccountFile, testing::ValuesIn(kDamages),
                         [](const auto& instance) { return std::string(instance.param.name); });

}  // namespace
}  // namespace vexa::accounts
