// The base library: lists, hashes, users and groups, the last error.
#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "host/accounts/current_accounts.h"
#include "host/platform/hlib_error.h"
#include "tests/support/test_host.h"
#include "webapi/platform/base.h"

namespace vexa::test {
namespace {

struct FreeList {
  void operator()(PSZLIST list) const { HLIBCSzListFree(list); }
};
struct FreeHash {
  void operator()(PSZHASH hash) const { HLIBCSzHashFree(hash); }
};
using List = std::unique_ptr<std::remove_pointer_t<PSZLIST>, FreeList>;
using Hash = std::unique_ptr<std::remove_pointer_t<PSZHASH>, FreeHash>;

std::vector<std::string> StringsOf(PSZLIST list) {
  std::vector<std::string> strings;
  for (int i = 0; i < HLIBCSzListCount(list); ++i) strings.emplace_back(HLIBCSzListGet(list, i));
  return strings;
}

unsigned int Code(platform::HlibError error) { return static_cast<unsigned int>(error); }

// Answers every question about users with one error, or with one user.
class ScriptedAccounts : public accounts::AccountProvider {
 public:
  explicit ScriptedAccounts(Result<accounts::User> answer) : answer_(std::move(answer)) {}
  Result<accounts::User> FindUser(const std::string&) const override { return answer_; }
  Result<accounts::User> FindUserByUid(std::uint32_t) const override { return answer_; }
  Result<accounts::Group> FindGroupByGid(std::uint32_t) const override { return answer_.error(); }
  Result<accounts::User> VerifyPassword(const std::string&, const std::string&) const override { return answer_; }

 private:
  const Result<accounts::User> answer_;
};

// Installed while it lives.
class Accounts {
 public:
  explicit Accounts(Result<accounts::User> answer) {
    accounts::InstallAccounts(std::make_shared<ScriptedAccounts>(std::move(answer)));
  }
  ~Accounts() { accounts::InstallAccounts(nullptr); }
  Accounts(const Accounts&) = delete;
  Accounts& operator=(const Accounts&) = delete;
};

TEST(StringList, New_IsEmpty) {
  for (const int capacity : {0, 1, 1024, INT_MAX}) {
    const List list(HLIBCSzListAlloc(capacity));
    ASSERT_TRUE(list) << capacity;
    EXPECT_EQ(HLIBCSzListCount(list.get()), 0);
  }
}

TEST(StringList, NegativeCapacity_IsRefused) {
  EXPECT_EQ(HLIBCSzListAlloc(-1), nullptr);
  EXPECT_EQ(HLIBCErrGet(), Code(platform::HlibError::kBadArgument));
}

TEST(StringList, IndexOutside_IsNull) {
  const List list(HLIBCSzListAlloc(4));
  for (const int index : {-1, 0, 3, INT_MAX, INT_MIN}) EXPECT_EQ(HLIBCSzListGet(list.get(), index), nullptr) << index;
}

TEST(BaseLibrary, NullArguments_AreFailures) {
  const List list(HLIBCSzListAlloc(4));
  uid_t uid = 7;
  gid_t gid = 8;
  const std::vector<std::pair<const char*, std::function<bool()>>> calls = {
      {"HLIBCSzListGet", [] { return HLIBCSzListGet(nullptr, 0) == nullptr; }},
      {"HLIBGroupInfoHashGet", [] { return HLIBGroupInfoHashGet(nullptr, 0, 0) == nullptr; }},
      {"HLIBCSzHashEnumKey, no hash", [&] { return HLIBCSzHashEnumKey(nullptr, list.get()) < 0; }},
      {"HLIBCSzHashEnumKey, nothing", [] { return HLIBCSzHashEnumKey(nullptr, nullptr) < 0; }},
      {"VEXAUserGetUGID", [&] { return VEXAUserGetUGID(nullptr, &uid, &gid) < 0; }},
  };
  for (const auto& [name, fails] : calls) {
    platform::SetHlibError(platform::HlibError::kNone);
    EXPECT_TRUE(fails()) << name;
    EXPECT_EQ(HLIBCErrGet(), Code(platform::HlibError::kBadArgument)) << name;
  }
  EXPECT_EQ(HLIBCSzListCount(nullptr), 0);
  EXPECT_EQ(uid, 7u);
  EXPECT_EQ(gid, 8u);
  HLIBCSzListFree(nullptr);
  HLIBCSzHashFree(nullptr);
}

TEST(GroupHash, Keys_OfUser_AreGroupIdsInRisingOrder) {
  // 9 before 1000: by number and not by text.
  const Accounts accounts(accounts::User{"u", 1, 1000, {{"users", 1000}, {"nine", 9}, {"top", 4294967294U}}, false});
  const Hash hash(HLIBGroupInfoHashGet("u", 0, 0));
  ASSERT_TRUE(hash);
  const List list(HLIBCSzListAlloc(1));
  ASSERT_GE(HLIBCSzHashEnumKey(hash.get(), list.get()), 0);
  EXPECT_EQ(StringsOf(list.get()), (std::vector<std::string>{"9", "1000", "4294967294"}));
  ASSERT_GE(HLIBCSzHashEnumKey(hash.get(), list.get()), 0);
  EXPECT_EQ(HLIBCSzListCount(list.get()), 6) << "they are appended";
}

TEST(GroupHash, NullList_IsAFailure) {
  const Accounts accounts(accounts::User{"u", 1, 2, {{"users", 2}}, false});
  const Hash hash(HLIBGroupInfoHashGet("u", 0, 0));
  EXPECT_LT(HLIBCSzHashEnumKey(hash.get(), nullptr), 0);
  EXPECT_EQ(HLIBCErrGet(), Code(platform::HlibError::kBadArgument));
}

TEST(GroupHash, UserWithoutGroups_IsEmpty) {
  const Accounts accounts(accounts::User{"u", 1, 2, {}, false});
  const Hash hash(HLIBGroupInfoHashGet("u", 0, 0));
  ASSERT_TRUE(hash);
  const List list(HLIBCSzListAlloc(1));
  EXPECT_GE(HLIBCSzHashEnumKey(hash.get(), list.get()), 0);
  EXPECT_EQ(HLIBCSzListCount(list.get()), 0);
}

TEST(BaseLibrary, Hlib_ProviderFails_SetsLastError) {
  const std::vector<std::pair<ErrorCode, platform::HlibError>> rows = {
      {ErrorCode::kNotFound, platform::HlibError::kNoSuchUser},
      {ErrorCode::kUnavailable, platform::HlibError::kUnavailable},
      {ErrorCode::kBusy, platform::HlibError::kUnavailable},
      {ErrorCode::kCorrupt, platform::HlibError::kInternal},
  };
  for (const auto& [answer, expected] : rows) {
    const Accounts accounts(Error(answer, "scripted"));
    uid_t uid = 7;
    gid_t gid = 8;
    EXPECT_LT(VEXAUserGetUGID("u", &uid, &gid), 0);
    EXPECT_EQ(HLIBCErrGet(), Code(expected));
    platform::SetHlibError(platform::HlibError::kNone);
    EXPECT_EQ(HLIBGroupInfoHashGet("u", 0, 0), nullptr);
    EXPECT_EQ(HLIBCErrGet(), Code(expected));
    EXPECT_EQ(uid, 7u);
    EXPECT_EQ(gid, 8u);
  }
}

TEST(BaseLibrary, NoProvider_IsUnavailable) {
  uid_t uid = 7;
  EXPECT_LT(VEXAUserGetUGID("root", &uid, nullptr), 0);
  EXPECT_EQ(HLIBCErrGet(), Code(platform::HlibError::kUnavailable));
  EXPECT_EQ(uid, 7u);
}

TEST(BaseLibrary, Hlib_NullOutputs_AreSkipped) {
  const Accounts accounts(accounts::User{"u", 11, 12, {}, false});
  EXPECT_EQ(VEXAUserGetUGID("u", nullptr, nullptr), 0);
  gid_t gid = 0;
  EXPECT_EQ(VEXAUserGetUGID("u", nullptr, &gid), 0);
  EXPECT_EQ(gid, 12u);
}

TEST(BaseLibrary, LastError_NamesFileAndLine) {
  EXPECT_EQ(HLIBGroupInfoHashGet(nullptr, 0, 0), nullptr);
  EXPECT_STREQ(HLIBCErrorGetFile(), "hlib_accounts.cpp");
  const int line = HLIBCErrorGetLine();
  EXPECT_GT(line, 0);
  EXPECT_LT(VEXAUserGetUGID(nullptr, nullptr, nullptr), 0);
  EXPECT_STREQ(HLIBCErrorGetFile(), "hlib_accounts.cpp");
  EXPECT_NE(HLIBCErrorGetLine(), line) << "the two functions are distinguished";
  EXPECT_EQ(HLIBCSzListAlloc(-1), nullptr);
  EXPECT_STREQ(HLIBCErrorGetFile(), "hlib_lists.cpp");
}

TEST(BaseLibrary, LastError_EachThread_HasItsOwn) {
  EXPECT_EQ(HLIBCSzListAlloc(-1), nullptr);
  std::thread([] {
    EXPECT_EQ(HLIBCErrGet(), 0u);
    EXPECT_STREQ(HLIBCErrorGetFile(), "");
    EXPECT_EQ(HLIBCErrorGetLine(), 0);
    uid_t uid = 0;
    EXPECT_LT(VEXAUserGetUGID("u", &uid, nullptr), 0);
  }).join();
  EXPECT_EQ(HLIBCErrGet(), Code(platform::HlibError::kBadArgument));
}

TEST(BaseLibrary, Accounts_HostInstalled_AreAnswered) {
  {
    TestHost host;
    const std::uint32_t alice = host.AddUser("alice", {"staff", "night"});
    uid_t uid = 0;
    gid_t gid = 0;
    ASSERT_EQ(VEXAUserGetUGID("alice", &uid, &gid), 0);
    EXPECT_EQ(uid, alice);
    EXPECT_EQ(gid, host.GroupId("alice", "users"));
    EXPECT_LT(VEXAUserGetUGID("bob", &uid, &gid), 0);
    EXPECT_EQ(HLIBCErrGet(), Code(platform::HlibError::kNoSuchUser));
    const Hash hash(HLIBGroupInfoHashGet("alice", 0, 0));
    const List list(HLIBCSzListAlloc(1024));
    ASSERT_GE(HLIBCSzHashEnumKey(hash.get(), list.get()), 0);
    std::set<std::uint32_t> gids = {gid, host.GroupId("alice", "staff"), host.GroupId("alice", "night")};
    std::vector<std::string> expected;
    for (const std::uint32_t id : gids) expected.push_back(std::to_string(id));
    EXPECT_EQ(StringsOf(list.get()), expected);
  }
  EXPECT_LT(VEXAUserGetUGID("alice", nullptr, nullptr), 0) << "the host is gone";
}

TEST(BaseLibrary, Hlib_HostileNames_AreUnknown) {
  TestHost host;
  for (const char* name : {"", "a\nb", "../x", "%n%n", "a b"}) {
    EXPECT_LT(VEXAUserGetUGID(name, nullptr, nullptr), 0) << name;
    EXPECT_EQ(HLIBGroupInfoHashGet(name, 0, 0), nullptr) << name;
    EXPECT_EQ(HLIBCErrGet(), Code(platform::HlibError::kNoSuchUser)) << name;
  }
}

}  // namespace
}  // namespace vexa::test
