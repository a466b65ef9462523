// Grants that are added to guest-admin records, and the identifiers of the records.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "host/records/environment.h"
#include "host/records/guest_admin.h"
#include "host/records/request_scope.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"

namespace vexa::platform {
namespace {

using test::TestHost;
using VexaCCC::gaUserSet;
using VexaCCC::gaUUIDGet;
using VexaCCC::Rule;

Rule Allow(const std::string& id) { return {"guest", id, true}; }
Rule Deny(const std::string& id) { return {"guest", id, false}; }

class GuestAdminSet : public testing::Test {
 protected:
  std::string Text(const std::string& identifier) {
    const auto snapshot = host_.store().Read();
    const auto value = (*snapshot)->Get(records::GuestAdminKey(identifier));
    return value->has_value() ? std::string((*value)->text) : "absent";
  }
  void PutRecord(const std::string& text) { host_.PutText("guest_admin", "users-7", text); }
  store::Revision Revision() { return (*host_.store().Read())->revision(); }

  TestHost host_;
};

TEST_F(GuestAdminSet, Identifier_Principal_EqualsTheOneThatAccessChecksRead) {
  const std::uint32_t uid = host_.AddUser("alice", {"team"});
  const std::uint32_t gid = host_.GroupId("alice", "team");
  for (const int type : {1, 2, 8}) {
    EXPECT_EQ(gaUUIDGet(type, "users", uid), records::GuestAdminIdentifier(records::kUsersKind, uid));
    EXPECT_EQ(gaUUIDGet(type, "groups", gid), records::GuestAdminIdentifier(records::kGroupsKind, gid));
  }
  std::set<std::string> granted;
  ASSERT_EQ(gaUserSet(gaUUIDGet(1, "users", uid), "", {Allow("g1")}), 0);
  ASSERT_EQ(gaUserSet(gaUUIDGet(1, "groups", gid), "", {Allow("g2")}), 0);
  ASSERT_EQ(VexaCCC::gaUserListAvail("alice", "guest", granted), 0);
  EXPECT_EQ(granted, (std::set<std::string>{"g1", "g2"}));
  EXPECT_EQ(VexaCCC::gaIsAdvancedUser("alice"), 0) << "a grant makes nobody advanced";
}

TEST_F(GuestAdminSet, Set_Change_IsInTheSystemLogWithActor) {
  records::Environment environment = *records::CurrentEnvironment();
  environment.acting_user = []() -> std::string_view { return "eve"; };
  records::InstallEnvironment(std::move(environment));
  const std::string alice = gaUUIDGet(1, "users", host_.AddUser("alice"));
  test::ClearCapturedSyslog();
  ASSERT_EQ(gaUserSet(alice, "", {Allow("g1"), Deny("g2")}), 0);
  ASSERT_EQ(gaUserSet(alice, "", {Allow("g1")}), 0);
  const auto lines = test::CapturedSyslog();
  ASSERT_EQ(lines.size(), 1u) << "the second one changes nothing";
  EXPECT_EQ(lines[0].text,
            "User[eve] has changed the rights of [alice] (" + alice + "): may use [g1], no longer use [g2].");
}

TEST_F(GuestAdminSet, Identifier_UnknownTypeKindOrId_IsEmpty) {
  const std::uint32_t uid = host_.AddUser("alice", {"team"});
  const std::uint32_t gid = host_.GroupId("alice", "team");
  for (const int type : {0, 3, 4, 7, -1, 9, 1 << 30}) EXPECT_EQ(gaUUIDGet(type, "users", uid), "") << type;
  for (const std::string& kind : std::vector<std::string>{"", "user", "Users", "groups ", {"users\0", 6}, "../users"}) {
    EXPECT_EQ(gaUUIDGet(1, kind, uid), "") << kind;
  }
  EXPECT_EQ(gaUUIDGet(1, "users", gid), "") << "a group's number";
  EXPECT_EQ(gaUUIDGet(1, "groups", uid), "");
  EXPECT_EQ(gaUUIDGet(1, "users", 4'000'000'000u), "");
  ASSERT_TRUE(host_.accounts().DeleteUser("alice").ok());
  EXPECT_EQ(gaUUIDGet(1, "users", uid), "");
}

TEST_F(GuestAdminSet, SetRules_RecordMissing_CreatesIt) {
  ASSERT_EQ(gaUserSet("users-7", "", {Allow("g1")}), 0);
  EXPECT_EQ(Parsed(Text("users-7")), Parsed(R"({"authlevel":"user","guests":{"g1":true}})"));
  ASSERT_EQ(gaUserSet("groups-4294967295", "", {Allow("g1")}), 0);
  EXPECT_NE(Text("groups-4294967295"), "absent");
}

TEST_F(GuestAdminSet, SetRules_Several_AreAppliedInOrderAndOtherMembersKept) {
  PutRecord(R"({"authlevel":"advanced","note":[1],"guests":{"a":true,"b":{"why":1}}})");
  ASSERT_EQ(gaUserSet("users-7", "", {Allow("c"), Deny("a"), Allow("d"), Deny("d"), Deny("never")}), 0);
  EXPECT_EQ(Parsed(Text("users-7")),
            Parsed(R"({"authlevel":"advanced","note":[1],"guests":{"b":{"why":1},"c":true}})"));
  PutRecord(R"({"note":1})");
  ASSERT_EQ(gaUserSet("users-7", "", {Allow("c")}), 0);
  EXPECT_EQ(Parsed(Text("users-7")), Parsed(R"({"note":1,"guests":{"c":true}})"));
}

TEST_F(GuestAdminSet, SetRules_Deny_RemovesConsoleAsWell) {
  PutRecord(R"({"guests":{"a":true,"b":true},"consoles":{"a":true,"b":true,"c":true}})");
  ASSERT_EQ(gaUserSet("users-7", "", {Deny("a"), Deny("c")}), 0);
  EXPECT_EQ(Parsed(Text("users-7")), Parsed(R"({"guests":{"b":true},"consoles":{"b":true}})"));
  ASSERT_EQ(gaUserSet("users-7", "", {Deny("b")}), 0);
  EXPECT_EQ(Parsed(Text("users-7")), Parsed(R"({"guests":{}})"));
}

TEST_F(GuestAdminSet, SetRules_NothingToChange_WritesNothing) {
  PutRecord(R"({"guests":{"a":true}})");
  const auto before = Revision();
  EXPECT_EQ(gaUserSet("users-7", "", {}), 0);
  EXPECT_EQ(gaUserSet("users-7", "", {Allow("a"), Deny("b")}), 0);
  EXPECT_EQ(gaUserSet("users-8", "", {}), 0);
  EXPECT_EQ(gaUserSet("users-8", "", {Deny("a")}), 0);
  EXPECT_EQ(Revision(), before);
}

TEST_F(GuestAdminSet, SetRules_InvalidRuleOrIdentifier_IsRefusedCompletely) {
  const auto before = Revision();
  for (const std::string& identifier : std::vector<std::string>{"",
                                                                "users",
                                                                "users-",
                                                                "users-x",
                                                                "users--1",
                                                                "users-+1",
                                                                "users-01",
                                                                "users- 1",
                                                                "users-1 ",
                                                                "users-4294967296",
                                                                "users-1/..",
                                                                "../users-1",
                                                                "user-1",
                                                                "USERS-1",
                                                                "groups-",
                                                                "groupsusers-1",
                                                                {"users-1\0", 8},
                                                                "users-1\n",
                                                                "%s",
                                                                std::string(1 << 20, '1')}) {
    EXPECT_NE(gaUserSet(identifier, "", {Allow("g")}), 0) << identifier.substr(0, 20);
    EXPECT_NE(gaUserSet(identifier, "", {}), 0) << identifier.substr(0, 20);
  }
  EXPECT_NE(gaUserSet("users-7", "something", {Allow("g")}), 0);
  const Rule refused[] = {{"host", "g", true}, {"", "g", true},         {"guests", "g", true},
                          {"guest", "", true}, {"guest", "\xff", true}, {"guest", std::string(1 << 20, 'g'), true}};
  for (const Rule& rule : refused) {
    EXPECT_NE(gaUserSet("users-7", "", {Allow("fine"), rule}), 0) << rule.category << rule.id.substr(0, 20);
  }
  EXPECT_EQ(Revision(), before);
}

TEST_F(GuestAdminSet, SetRules_UnusualGuestIds_AreStoredUnchanged) {
  const std::uint32_t uid = host_.AddUser("alice");
  const std::vector<std::string> ids{"..", "a/b", "%s", "n\nl", {"n\0l", 3}, "\"", "ü"};
  for (const std::string& id : ids) ASSERT_EQ(gaUserSet(gaUUIDGet(1, "users", uid), "", {Allow(id)}), 0) << id;
  std::set<std::string> granted;
  ASSERT_EQ(VexaCCC::gaUserListAvail("alice", "guest", granted), 0);
  EXPECT_EQ(granted, std::set<std::string>(ids.begin(), ids.end()));
  for (const std::string& id : ids) ASSERT_EQ(gaUserSet(gaUUIDGet(1, "users", uid), "", {Deny(id)}), 0) << id;
  EXPECT_EQ(Parsed(Text(gaUUIDGet(1, "users", uid)))["guests"], Json::Value(Json::objectValue));
}

TEST_F(GuestAdminSet, SetRules_DamagedRecord_IsNotOverwritten) {
  for (const char* text : {"{", "", "[]", "null", R"({"guests":[1]})", R"({"guests":"a"})"}) {
    PutRecord(text);
    EXPECT_NE(gaUserSet("users-7", "", {Allow("g")}), 0) << text;
    EXPECT_EQ(Text("users-7"), text);
  }
  PutRecord(R"({"guests":null})");
  EXPECT_EQ(gaUserSet("users-7", "", {Allow("g")}), 0);
}

TEST_F(GuestAdminSet, SetRules_StoreFails_ChangesNothing) {
  host_.store().ConflictCommits(5);
  EXPECT_EQ(gaUserSet("users-7", "", {Allow("a")}), 0) << "tried again";
  const std::string before = Text("users-7");
  host_.store().ConflictCommits(1'000'000);
  EXPECT_NE(gaUserSet("users-7", "", {Allow("g")}), 0);
  host_.store().Heal();
  host_.store().FailCommits();
  EXPECT_NE(gaUserSet("users-7", "", {Allow("g")}), 0);
  host_.store().Heal();
  host_.store().FailReadsOf(records::GuestAdminKey("users-7"));
  EXPECT_NE(gaUserSet("users-7", "", {Allow("g")}), 0);
  host_.store().Heal();
  host_.store().FailSnapshots();
  EXPECT_NE(gaUserSet("users-7", "", {Allow("g")}), 0);
  host_.store().Heal();
  EXPECT_EQ(Text("users-7"), before);
}

TEST_F(GuestAdminSet, SetRules_InRequest_IsVisibleToIt) {
  const std::uint32_t uid = host_.AddUser("alice");
  const records::RequestScope scope;
  std::set<std::string> granted;
  ASSERT_EQ(VexaCCC::gaUserListAvail("alice", "guest", granted), 0);
  ASSERT_EQ(gaUserSet(gaUUIDGet(1, "users", uid), "", {Allow("g")}), 0);
  ASSERT_EQ(VexaCCC::gaUserListAvail("alice", "guest", granted), 0);
  EXPECT_TRUE(granted.contains("g"));
}

TEST_F(GuestAdminSet, SetRules_EightThreads_LoseNoGrant) {
  constexpr int kEach = 20;
  std::atomic<int> failed{0};
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([i, &failed] {
        for (int n = 0; n < kEach; ++n) {
          const std::string id = std::to_string(i) + "-" + std::to_string(n);
          if (gaUserSet("users-7", "", {Allow(id)}) != 0) ++failed;
          if (n % 4 == 3 && gaUserSet("users-7", "", {Deny(id)}) != 0) ++failed;
        }
      });
    }
  }
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(Parsed(Text("users-7"))["guests"].size(), 8u * kEach / 4 * 3);
}

TEST(GuestAdminSetWithoutHost, SetRules_NoHost_Fails) {
  EXPECT_EQ(gaUUIDGet(1, "users", 7), "");
  EXPECT_NE(gaUserSet("users-7", "", {Allow("g")}), 0);
}

}  // namespace
}  // namespace vexa::platform
