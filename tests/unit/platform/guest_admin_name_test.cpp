// Grants that were given to a principal of another name: an id may belong to different users on different hosts.
#include <gtest/gtest.h>

#include <algorithm>

#include "host/records/environment.h"
#include "host/records/guest_admin.h"
#include "host/store/lmdb_store.h"
#include "tests/support/require.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"
#include "tests/unit/cluster/account_store_fixture.h"
#include "tests/unit/guests/watched_store.h"
#include "tests/unit/storage/temporary_folder.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"

namespace vexa::platform {
namespace {

constexpr std::uint32_t kUid = 1001;
constexpr std::uint32_t kGid = 2001;
const std::string kGuest = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";

// As PAM and NSS of one machine know one user and one group.
class ScriptedAccounts : public accounts::AccountProvider {
 public:
  std::string user = "alice";
  std::string group = "team";
  bool fails = false;

  Result<accounts::User> FindUser(const std::string& name) const override { return Answer(name == user); }
  Result<accounts::User> FindUserByUid(std::uint32_t uid) const override { return Answer(uid == kUid); }
  Result<accounts::Group> FindGroupByGid(std::uint32_t gid) const override {
    if (fails) return Error(ErrorCode::kUnavailable, "scripted");
    if (gid != kGid) return Error(ErrorCode::kNotFound, "scripted");
    return accounts::Group{group, kGid};
  }
  Result<accounts::User> VerifyPassword(const std::string& name, const std::string&) const override {
    return FindUser(name);
  }

 private:
  Result<accounts::User> Answer(bool is_known) const {
    if (fails) return Error(ErrorCode::kUnavailable, "scripted");
    if (!is_known) return Error(ErrorCode::kNotFound, "scripted");
    return accounts::User{user, kUid, kGid, {{group, kGid}}, false};
  }
};

class GuestAdminName : public testing::Test {
 protected:
  GuestAdminName() {
    test::ClearCapturedSyslog();
    records::Environment environment;
    environment.store = store_;
    environment.accounts = accounts_;
    environment.host_id = "11111111-2222-4333-8444-555555555555";
    records::InstallEnvironment(std::move(environment));
  }
  ~GuestAdminName() override { records::RemoveEnvironment(); }

  static std::string UserKey() {
    return records::GuestAdminKey(records::GuestAdminIdentifier(records::kUsersKind, kUid));
  }
  static std::string GroupKey() {
    return records::GuestAdminKey(records::GuestAdminIdentifier(records::kGroupsKind, kGid));
  }
  void Put(const std::string& key, const std::string& text) {
    (void)test::Require(store_->Commit({{}, {{key, text}}}));
  }
  std::string Text(const std::string& key) const {
    const auto snapshot = test::Require(store_->Read());
    const auto value = test::Require(snapshot->Get(key));
    return value ? std::string(value->text) : "absent";
  }
  std::size_t Granted() const {
    std::set<std::string> ids;
    EXPECT_EQ(VexaCCC::gaUserListAvail(accounts_->user, "guest", ids), 0);
    return ids.size();
  }
  static std::size_t LinesWith(const std::string& text) {
    const auto lines = test::CapturedSyslog();
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const test::SyslogLine& line) {
      return line.text.find(text) != std::string::npos;
    }));
  }

  TemporaryFolder folder_;
  std::shared_ptr<store::Store> store_ = [this] {
    store::LmdbOptions options;
    options.directory = folder_.Path("store");
    return test::Require(store::OpenLmdbStore(options));
  }();
  std::shared_ptr<ScriptedAccounts> accounts_ = std::make_shared<ScriptedAccounts>();
};

struct RecordRow {
  const char* name;
  const char* member;  // of the record, behind its grants
  bool counts_for_alice;
};
constexpr RecordRow kRows[] = {
    {"Same", R"(,"name":"alice")", true},     {"OlderVersion", "", true},
    {"Other", R"(,"name":"bob")", false},     {"OtherCase", R"(,"name":"Alice")", false},
    {"Longer", R"(,"name":"alice2")", false}, {"Empty", R"(,"name":"")", false},
    {"Null", R"(,"name":null)", false},       {"Number", R"(,"name":7)", false},
};

class GuestAdminNameOf : public GuestAdminName, public testing::WithParamInterface<RecordRow> {};

TEST_P(GuestAdminNameOf, Record_OfOtherName_DoesNotCount) {
  const std::string text =
      R"({"authlevel":"advanced","guests":{"a":true,"b":true})" + std::string(GetParam().member) + "}";
  Put(UserKey(), text);
  const bool counts = GetParam().counts_for_alice;
  EXPECT_EQ(Granted(), counts ? 2u : 0u);
  EXPECT_EQ(VexaCCC::gaIsAdvancedUser("alice"), counts ? 1 : 0);
  std::vector<std::string> failed;
  EXPECT_EQ(VexaCCC::gaGuestSet(kGuest, {{"users", "", "alice", "", kUid, true}}, failed) == 0, counts);
  EXPECT_EQ(VexaCCC::gaUserSet("users-1001", "", {{"guest", "c", true}}) == 0, counts);
  if (counts) {
    EXPECT_EQ(Parsed(Text(UserKey()))["name"], "alice") << "also when it had none";
    EXPECT_EQ(Granted(), 4u);
  } else {
    EXPECT_EQ(failed, std::vector<std::string>{"alice"});
    EXPECT_EQ(Text(UserKey()), text);
  }
}

INSTANTIATE_TEST_SUITE_P(All, GuestAdminNameOf, testing::ValuesIn(kRows),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(GuestAdminName, GroupRecord_OfOtherName_DoesNotCount) {
  ASSERT_EQ(VexaCCC::gaUserSet("groups-2001", "", {{"guest", "a", true}}), 0);
  EXPECT_EQ(Parsed(Text(GroupKey()))["name"], "team");
  EXPECT_EQ(Granted(), 1u);
  accounts_->group = "wheel";
  EXPECT_EQ(Granted(), 0u);
  std::vector<std::string> failed;
  EXPECT_NE(VexaCCC::gaGuestSet(
                kGuest, {{"groups", "", "wheel", "", kGid, true}, {"users", "", "alice", "", kUid, true}}, failed),
            0);
  EXPECT_EQ(failed, std::vector<std::string>{"wheel"});
  EXPECT_EQ(Granted(), 1u) << "alice's own is set";
}

TEST_F(GuestAdminName, RecordOfOtherName_Read_IsLoggedOncePerName) {
  Put(UserKey(), R"({"guests":{"a":true},"name":"carol"})");
  accounts_->user = "dora";
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Granted(), 0u);
  EXPECT_EQ(LinesWith("'carol'"), 1u);
  EXPECT_EQ(LinesWith("drop-grants"), 1u);
  accounts_->user = "emma";
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Granted(), 0u);
  EXPECT_EQ(LinesWith("'carol'"), 2u);
}

class GuestAdminRace : public cluster::AccountStoreTest {
 protected:
  GuestAdminRace() {
    records::Environment environment;
    environment.store = watched_;
    environment.accounts = std::make_shared<cluster::AccountStore>(real_);
    records::InstallEnvironment(std::move(environment));
  }
  ~GuestAdminRace() override { records::RemoveEnvironment(); }

  std::shared_ptr<test::WatchedStore> watched_ = std::make_shared<test::WatchedStore>(real_);
};

TEST_F(GuestAdminRace, Set_AccountDeletedBeforeCommit_LeavesNoGrant) {
  for (const bool together : {true, false}) {
    const std::string name = together ? "alice" : "bob";
    Add(name);
    const std::uint32_t uid = accounts_.FindUser(name)->uid;
    watched_->Conflict(1, [&] { EXPECT_TRUE(accounts_.DeleteUser(name).ok()); });
    if (together) {
      std::vector<std::string> failed;
      EXPECT_NE(VexaCCC::gaGuestSet(kGuest, {{"users", "", name, "", uid, true}}, failed), 0);
      EXPECT_EQ(failed, std::vector<std::string>{name});
    } else {
      EXPECT_NE(
          VexaCCC::gaUserSet(records::GuestAdminIdentifier(records::kUsersKind, uid), "", {{"guest", kGuest, true}}),
          0);
    }
    EXPECT_EQ(Text(GrantsKey(uid)), "absent");
  }
}

TEST_F(GuestAdminName, Set_IdOfDeletedStoreUser_GrantsToSystemUser) {
  Put(records::DeletedUserKey(kUid), R"({"name":"old"})");
  EXPECT_EQ(VexaCCC::gaUserSet("users-1001", "", {{"guest", "a", true}}), 0);
  EXPECT_EQ(Granted(), 1u);
}

TEST_F(GuestAdminName, Set_NamesUnavailable_GrantsNothing) {
  accounts_->fails = true;
  EXPECT_NE(VexaCCC::gaUserSet("users-1001", "", {{"guest", "a", true}}), 0);
  std::vector<std::string> failed;
  EXPECT_NE(VexaCCC::gaGuestSet(kGuest, {{"users", "", "alice", "", kUid, true}}, failed), 0);
  EXPECT_EQ(Text(UserKey()), "absent");
}

}  // namespace
}  // namespace vexa::platform
