// Taking a deleted guest out of the guest-admin records.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/records/environment.h"
#include "host/records/guest_admin.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"

namespace vexa::platform {
namespace {

using VexaCCC::gaGuestDelete;

class GuestAdminDelete : public testing::Test {
 protected:
  void Put(const std::string& identifier, const std::string& text) { host_.PutText("guest_admin", identifier, text); }
  std::string Text(const std::string& identifier) {
    const auto snapshot = Require(host_.store().Read());
    const auto value = Require(snapshot->Get(records::GuestAdminKey(identifier)));
    return value ? std::string(value->text) : "absent";
  }
  store::Revision Revision() { return Require(host_.store().Read())->revision(); }

  test::TestHost host_;
};

TEST_F(GuestAdminDelete, Delete_Guest_IsRemovedFromEveryRecordAndRestKept) {
  Put("users-1", R"({"authlevel":"advanced","note":[1],"guests":{"a":true,"g":true,"gg":true}})");
  Put("users-2", R"({"authlevel":"user","guests":{"g":{"why":1}}})");
  Put("groups-2", R"({"guests":{"g":false,"b":true}})");
  Put("groups-3", R"({"guests": {"b":true}})");
  EXPECT_EQ(gaGuestDelete("g"), 0);
  EXPECT_EQ(Parsed(Text("users-1")), Parsed(R"({"authlevel":"advanced","note":[1],"guests":{"a":true,"gg":true}})"));
  EXPECT_EQ(Parsed(Text("users-2")), Parsed(R"({"authlevel":"user","guests":{}})"));
  EXPECT_EQ(Parsed(Text("groups-2")), Parsed(R"({"guests":{"b":true}})"));
  EXPECT_EQ(Text("groups-3"), R"({"guests": {"b":true}})") << "a record without the guest is not written";
}

TEST_F(GuestAdminDelete, Delete_RemovesAllGrantsOfGuest) {
  host_.PutGuestAdmin("users", host_.AddUser("alice", {"team"}), "advanced", {"g", "h"});
  host_.PutGuestAdmin("groups", host_.GroupId("alice", "team"), "user", {"g"});
  EXPECT_EQ(gaGuestDelete("g"), 0);
  std::set<std::string> granted;
  ASSERT_EQ(VexaCCC::gaUserListAvail("alice", "guest", granted), 0);
  EXPECT_EQ(granted, (std::set<std::string>{"h"}));
  EXPECT_EQ(VexaCCC::gaIsAdvancedUser("alice"), 1);
}

TEST_F(GuestAdminDelete, Delete_GuestWithoutGrants_ChangesNothing) {
  EXPECT_EQ(gaGuestDelete("g"), 0) << "no records at all";
  Put("users-1", R"({"guests":{"a":true}})");
  Put("users-2", R"({"authlevel":"advanced"})");
  Put("users-3", R"({"guests":null})");
  const store::Revision before = Revision();
  for (const std::string& id : std::vector<std::string>{"g", "", "A", "a ", "a/b", "..", "%s", {"a\0", 2}, "\xFF"}) {
    EXPECT_EQ(gaGuestDelete(id), 0) << id;
  }
  EXPECT_EQ(Revision(), before);
}

TEST_F(GuestAdminDelete, Delete_UnusualIds_AreRemovedExactly) {
  Put("users-1", R"({"guests":{"a\u0000b":true,"a":true,"x/../y":true}})");
  EXPECT_EQ(gaGuestDelete({"a\0b", 3}), 0);
  EXPECT_EQ(Parsed(Text("users-1")), Parsed(R"({"guests":{"a":true,"x/../y":true}})"));
  EXPECT_EQ(gaGuestDelete("x/../y"), 0);
  EXPECT_EQ(Parsed(Text("users-1")), Parsed(R"({"guests":{"a":true}})"));
}

TEST_F(GuestAdminDelete, Delete_DamagedRecords_AreReportedAndOthersChanged) {
  for (const char* damaged : {"nonsense", "[1]", R"({"guests":["g"]})", R"({"guests":"g"})"}) {
    Put("users-1", damaged);
    Put("users-0", R"({"guests":{"g":true}})");
    Put("users-2", R"({"guests":{"g":true}})");
    EXPECT_LT(gaGuestDelete("g"), 0) << damaged;
    EXPECT_EQ(Text("users-1"), damaged);
    EXPECT_EQ(Parsed(Text("users-0")), Parsed(R"({"guests":{}})"));
    EXPECT_EQ(Parsed(Text("users-2")), Parsed(R"({"guests":{}})"));
  }
}

// A deletion commits the removal with the guest's records.
TEST_F(GuestAdminDelete, Removals_InOtherTransaction_CompareWhatTheyChange) {
  Put("users-1", R"({"guests":{"a":true,"g":true}})");
  Put("users-2", "damaged");
  Put("users-3", R"({"guests":["g"]})");
  Put("users-4", R"({"guests":{"a":true}})");
  store::Transaction transaction;
  transaction.operations.push_back({"/mine", "1"});
  std::vector<Error> damage;
  const auto add = [&] { return records::AddGrantRemovals(*Require(host_.store().Read()), "g", transaction, damage); };
  ASSERT_TRUE(add());
  EXPECT_EQ(transaction.operations.size(), 2u);
  ASSERT_EQ(transaction.compares.size(), 1u);
  EXPECT_EQ(transaction.compares[0].key, records::GuestAdminKey("users-1"));
  EXPECT_EQ(damage.size(), 2u);
  Put("users-1", R"({"guests":{"b":true,"g":true}})");
  EXPECT_EQ(host_.store().Commit(transaction).error().code(), ErrorCode::kConflict);
  transaction = {};
  ASSERT_TRUE(add());
  EXPECT_TRUE(host_.store().Commit(transaction));
  EXPECT_EQ(Parsed(Text("users-1")), Parsed(R"({"guests":{"b":true}})"));
  host_.store().FailReadsOf(records::GuestAdminKey("users-4"));
  EXPECT_FALSE(add());
}

TEST_F(GuestAdminDelete, Delete_CommitConflicts_IsRetried) {
  Put("users-1", R"({"guests":{"g":true}})");
  host_.store().ConflictCommits(3);
  EXPECT_EQ(gaGuestDelete("g"), 0);
  EXPECT_EQ(Parsed(Text("users-1")), Parsed(R"({"guests":{}})"));
}

TEST_F(GuestAdminDelete, Delete_GrantsChangedMeanwhile_AreKept) {
  Put("users-1", R"({"guests":{"g":true}})");
  Put("users-2", R"({"guests":{"g":true}})");
  std::thread granting([] {
    for (int i = 0; i < 30; ++i) {
      EXPECT_EQ(VexaCCC::gaUserSet(i % 2 ? "users-1" : "users-2", "", {{"guest", "n" + std::to_string(i), true}}), 0);
    }
  });
  EXPECT_EQ(gaGuestDelete("g"), 0);
  granting.join();
  for (const char* identifier : {"users-1", "users-2"}) {
    const Json::Value guests = Parsed(Text(identifier))["guests"];
    EXPECT_EQ(guests.size(), 15u);
    EXPECT_FALSE(guests.isMember("g"));
  }
}

TEST_F(GuestAdminDelete, Delete_StoreFails_ChangesNothing) {
  Put("users-1", R"({"guests":{"g":true}})");
  host_.store().FailCommits();
  EXPECT_LT(gaGuestDelete("g"), 0);
  host_.store().Heal();
  host_.store().FailReadsOf(records::GuestAdminKey("users-1"));
  EXPECT_LT(gaGuestDelete("g"), 0);
  host_.store().Heal();
  host_.store().FailSnapshots();
  EXPECT_LT(gaGuestDelete("g"), 0);
  host_.store().Heal();
  EXPECT_EQ(Text("users-1"), R"({"guests":{"g":true}})");
  records::RemoveEnvironment();
  EXPECT_LT(gaGuestDelete("g"), 0);
}

}  // namespace
}  // namespace vexa::platform
