// Grants to advanced users and groups.
#include <string>

#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/state_fixture.h"
#include "webapi/platform/ccc_constants.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

using VexaVirtualization::AdvancedUserAddGuest;
using VexaVirtualization::GetGuestAdvUserCount;
using Base = ScriptedPlatform::Base;
using Strings = std::vector<std::string>;

class Grants : public StateLibrary {
 protected:
  void SetUp() override {
    StateLibrary::SetUp();
    // Not the group's number, which must not be taken for the user's.
    Platform().users["eve"] = {1000, 100};
    Platform().identifiers["1/users/1000"] = "user";
    Platform().groups["eve"] = {"7", "5"};
    Platform().identifiers["1/groups/7"] = "group7";
    Platform().identifiers["1/groups/5"] = "group5";
  }
  void TearDown() override {
    EXPECT_EQ(Platform().lists_made, Platform().lists_freed);
    EXPECT_EQ(Platform().hashes_made, Platform().hashes_freed);
  }

  static void SetLevel(const std::string& identifier, const char* level) {
    Json::Value record(Json::objectValue);
    record["authlevel"] = level;
    Platform().records["guest_admin/" + identifier + "/object"] = record;
  }
  static void ExpectGranted(const std::string& identifier) {
    ASSERT_EQ(Platform().grants.size(), 1u);
    EXPECT_EQ(Platform().grants[0].identifier, identifier);
    EXPECT_EQ(Platform().grants[0].empty, "");
    ASSERT_EQ(Platform().grants[0].rules.size(), 1u);
    EXPECT_EQ(Platform().grants[0].rules[0].category, VexaCCC::DB::_k::guest);
    EXPECT_EQ(Platform().grants[0].rules[0].id, "g");
    EXPECT_TRUE(Platform().grants[0].rules[0].allow);
    ExpectNoLine();
  }
  // Asking fails with this line alone, and nothing is granted.
  static void ExpectRefused(const std::string& line, const std::string& user = "eve") {
    EXPECT_EQ(AdvancedUserAddGuest(user, "g"), -1);
    EXPECT_TRUE(Platform().grants.empty());
    ExpectLines({line});
  }
};

TEST_F(Grants, Grants_UserAndGroupAdvanced_UserIsGranted) {
  SetLevel("user", "advanced");
  SetLevel("group7", "advanced");
  EXPECT_EQ(AdvancedUserAddGuest("eve", "g"), 0);
  ExpectGranted("user");
  EXPECT_EQ(Platform().requested_identifiers, Strings{"1/users/1000"});
  EXPECT_EQ(Platform().list_capacity, 1024);
  EXPECT_EQ(Platform().lists_made, 1);
  EXPECT_EQ(Platform().hashes_made, 0);
}

TEST_F(Grants, Grants_TwoAdvancedGroups_OnlyFirstIsGranted) {
  SetLevel("group5", "advanced");
  SetLevel("group7", "advanced");
  EXPECT_EQ(AdvancedUserAddGuest("eve", "g"), 0);
  ExpectGranted("group7");
  EXPECT_EQ(Platform().requested_identifiers, (Strings{"1/users/1000", "1/groups/7"}));
  EXPECT_EQ(Platform().hashes_made, 1);
}

TEST_F(Grants, Grants_OtherLevel_NextPrincipalIsTried) {
  for (const char* level : {"user", "", "Advanced", "advanced "}) {
    Platform().grants.clear();
    SetLevel("user", level);
    SetLevel("group7", level);
    SetLevel("group5", "advanced");
    EXPECT_EQ(AdvancedUserAddGuest("eve", "g"), 0);
    ExpectGranted("group5");
  }
}

TEST_F(Grants, Grants_GroupWithoutRecord_IsSkipped) {
  SetLevel("group5", "advanced");
  EXPECT_EQ(AdvancedUserAddGuest("eve", "g"), 0);
  ExpectGranted("group5");
}

TEST_F(Grants, Grants_NoAdvancedPrincipal_IsRefused) {
  ExpectRefused("utils: Cannot find valid user/group for guest [g]");
  Platform().groups.clear();
  ExpectRefused("utils: Cannot find valid user/group for guest [g]");
  EXPECT_EQ(Platform().hashes_made, 2);
}

TEST_F(Grants, Grants_AuthenticationType_ComesFromNameAndAppliesToGroups) {
  const std::pair<const char*, const char*> kTypes[] = {
      {"eve", "1"}, {"LAB\\eve", "2"}, {"eve@lab", "8"}, {"LAB\\eve@lab", "2"}, {"eve@lab\\x", "2"}};
  for (const auto& [user, type] : kTypes) {
    Platform().users[user] = {1000, 100};
    Platform().groups[user] = {"7"};
    Platform().identifiers[std::string(type) + "/users/1000"] = "user";
    Platform().identifiers[std::string(type) + "/groups/7"] = "group7";
    Platform().requested_identifiers.clear();
    ExpectRefused("utils: Cannot find valid user/group for guest [g]", user);
    EXPECT_EQ(Platform().requested_identifiers,
              (Strings{std::string(type) + "/users/1000", std::string(type) + "/groups/7"}));
  }
}

TEST_F(Grants, Grants_NoList_IsRefused) {
  SetLevel("user", "advanced");
  Platform().base = Base::kNoList;
  ExpectRefused("utils: Failed to alloc list");
  EXPECT_TRUE(Platform().requested_identifiers.empty());
}

TEST_F(Grants, Grants_UnknownUser_IsRefused) {
  ExpectRefused("utils: Failed to get System ugid of user[no%nbody]", "no%nbody");
  EXPECT_EQ(Platform().lists_freed, 1);
  Platform().identifiers.erase("1/users/1000");
  ExpectRefused("utils: Failed to get user id [eve], [1000]");
  EXPECT_EQ(Platform().lists_freed, 2);
}

TEST_F(Grants, Grants_UserIdAbove31Bits_IsFormattedUnsigned) {
  Platform().users["eve"] = {4294967294u, 1};
  ExpectRefused("utils: Failed to get user id [eve], [4294967294]");
}

TEST_F(Grants, Grants_UnreadableUserRecord_AreRefusedWithoutReadingGroups) {
  SetLevel("group7", "advanced");
  for (const int result : {-1, 1, 3}) {
    Platform().read_results["guest_admin/user/object"] = result;
    ExpectRefused("utils: Failed to get guest admin object of [user]");
  }
  EXPECT_EQ(Platform().hashes_made, 0);
}

TEST_F(Grants, Grants_GroupsUnavailable_AreRefusedWithBaseLibraryError) {
  Platform().base = Base::kNoHash;
  ExpectRefused("utils: HLIBGroupInfoHashGet failed [0x002A base.c:77]");
  Platform().base = Base::kNoKeys;
  ExpectRefused("utils: HLIBCSzHashEnumKey failed [0x002A base.c:77]");
  EXPECT_EQ(Platform().lists_freed, 2);
  EXPECT_EQ(Platform().hashes_freed, 1);
}

TEST_F(Grants, Grants_UnknownGroup_EndsSearch) {
  SetLevel("group5", "advanced");
  Platform().identifiers.erase("1/groups/7");
  ExpectRefused("utils: Failed to get user id [eve], [7]");
  EXPECT_EQ(Platform().hashes_freed, 1);
}

TEST_F(Grants, Grants_GroupRecordUnreadable_EndsSearch) {
  SetLevel("group5", "advanced");
  Platform().read_results["guest_admin/group7/object"] = -1;
  ExpectRefused("utils: Failed to get guest admin object of [group7]");
  EXPECT_EQ(Platform().hashes_freed, 1);
}

TEST_F(Grants, Grants_NonNumericGroupKey_IsNotGroupZero) {
  Platform().identifiers["1/groups/0"] = "root";
  SetLevel("root", "advanced");
  for (const char* key : {"", "x", "-1", "0x0", " 0", "7 ", "4294967296", "18446744073709551616"}) {
    Platform().groups["eve"] = {key};
    ExpectRefused("utils: Failed to get user id [eve], [4294967295]");
  }
  Platform().groups["eve"] = {"0"};
  EXPECT_EQ(AdvancedUserAddGuest("eve", "g"), 0);
  ExpectGranted("root");
}

TEST_F(Grants, Grants_GrantFails_LogsResult) {
  SetLevel("user", "advanced");
  for (const int result : {-3, 1}) {
    Platform().grant_result = result;
    EXPECT_EQ(AdvancedUserAddGuest("eve", "g"), -1);
    ExpectLines({"utils: gaUserSet failed [" + std::to_string(result) + "]"});
  }
  SetLevel("user", "user");
  SetLevel("group5", "advanced");
  EXPECT_EQ(AdvancedUserAddGuest("eve", "g"), -1);
  ExpectLines({"utils: gaUserSet failed [1]"});
}

TEST_F(Grants, Grants_RecordOfAnyType_NeverThrowsAndGrantsNothing) {
  Json::Value& record = Platform().records["guest_admin/user/object"];
  record = Parsed(R"({"authlevel":"advanced"})");
  ForEachMutation(record, [&] { AdvancedUserAddGuest("eve", "g"); });
  EXPECT_TRUE(Platform().grants.empty());
}

class GrantCount : public Grants {
 protected:
  static void AddRecord(const std::string& identifier, std::string_view record) {
    Platform().ids["guest_admin"].push_back(identifier);
    Platform().records["guest_admin/" + identifier + "/object"] = Parsed(record);
  }
};

TEST_F(GrantCount, GuestAdmin_AdvancedRecordsWithGuest_AreCounted) {
  EXPECT_EQ(GetGuestAdvUserCount("g"), 0);
  AddRecord("a", R"({"authlevel":"advanced","guests":{"g":{}}})");
  AddRecord("b", R"({"authlevel":"advanced","guests":{"other":{}}})");
  AddRecord("c", R"({"authlevel":"user","guests":{"g":{}}})");
  AddRecord("d", R"({"authlevel":"advanced","guests":{"g":null,"other":1}})");
  AddRecord("e", R"({"authlevel":"advanced"})");
  for (const int result : {0, 2}) {
    Platform().category_results["guest_admin"] = {result};
    EXPECT_EQ(GetGuestAdvUserCount("g"), 2);
    EXPECT_EQ(GetGuestAdvUserCount("G"), 0);
    EXPECT_EQ(GetGuestAdvUserCount(""), 0);
  }
  ExpectNoLine();
}

TEST_F(GrantCount, Count_ListingFails_LogsResult) {
  AddRecord("a", R"({"authlevel":"advanced","guests":{"g":{}}})");
  for (const int result : {-1, 1, 3}) {
    Platform().category_results["guest_admin"] = {result};
    EXPECT_EQ(GetGuestAdvUserCount("g"), -1);
    ExpectLines({"utils: List GuestAdmin failed [" + std::to_string(result) + "]"});
  }
}

TEST_F(GrantCount, Count_OneRecordUnreadable_IsDiscarded) {
  AddRecord("a", R"({"authlevel":"advanced","guests":{"g":{}}})");
  AddRecord("b", "{}");
  AddRecord("c", "{}");
  for (const int result : {2, -1, 1}) {
    Platform().read_results["guest_admin/b/object"] = result;
    Platform().reads.clear();
    EXPECT_EQ(GetGuestAdvUserCount("g"), -1);
    ExpectLines({"utils: Failed to get object of GuestAdmin[b]"});
    EXPECT_EQ(Platform().reads.size(), 3u);
  }
}

TEST_F(GrantCount, Count_RecordOfAnyType_NeverThrows) {
  AddRecord("a", R"({"authlevel":"advanced","guests":{"g":{}}})");
  ForEachMutation(Platform().records["guest_admin/a/object"], [&] { EXPECT_LE(GetGuestAdvUserCount("g"), 1); });
  ExpectNoLine();
}

}  // namespace
}  // namespace vexa::test
