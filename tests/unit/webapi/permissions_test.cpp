// The access checks on the real platform: accounts, groups and guest-admin records.
#include <gtest/gtest.h>

#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

using VexaVirtualization::IsAdminOrAdvancedUser;
using VexaVirtualization::IsGuestPermitted;

constexpr const char* kGuest = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";

class Permissions : public testing::Test {
 protected:
  void SetUp() override { ClearCapturedSyslog(); }
  void TearDown() override { EXPECT_TRUE(CapturedSyslog().empty()) << "the checks log nothing"; }

  static bool Advanced(const std::string& user) {
    VEXA::APIRequest request = UserRequest(Json::Value(), user);
    return IsAdminOrAdvancedUser(&request);
  }
  static bool Permitted(const std::string& user, const std::string& guest) {
    VEXA::APIRequest request = UserRequest(Json::Value(), user);
    return IsGuestPermitted(&request, guest);
  }

  TestHost host_;
};

TEST_F(Permissions, Administrator_AnyIdentifier_IsPermittedWithoutRead) {
  VEXA::APIRequest request = AdministratorRequest(Json::Value());
  EXPECT_TRUE(IsAdminOrAdvancedUser(&request));
  EXPECT_TRUE(IsGuestPermitted(&request, kGuest));
  EXPECT_TRUE(IsGuestPermitted(&request, ""));
  EXPECT_TRUE(IsGuestPermitted(&request, "../x"));
  EXPECT_EQ(host_.store().reads(), 0);
}

TEST_F(Permissions, User_WithoutRecord_IsRefused) {
  host_.AddUser("bob");
  EXPECT_FALSE(Advanced("bob"));
  EXPECT_FALSE(Permitted("bob", kGuest));
}

TEST_F(Permissions, User_UnknownOrEmpty_IsRefused) {
  EXPECT_FALSE(Advanced("ghost"));
  EXPECT_FALSE(Permitted("ghost", kGuest));
  EXPECT_FALSE(Advanced(""));
  EXPECT_FALSE(Permitted("", ""));
}

TEST_F(Permissions, AdvancedUser_WithoutGrant_IsAdvancedButNotPermitted) {
  host_.PutGuestAdmin("users", host_.AddUser("adam"), "advanced", {});
  EXPECT_TRUE(Advanced("adam"));
  EXPECT_FALSE(Permitted("adam", kGuest));
}

TEST_F(Permissions, Level_NotAdvanced_IsNotAdvanced) {
  const auto uid = host_.AddUser("adam");
  for (const char* level : {"user", "", "Advanced", "advanced "}) {
    host_.PutGuestAdmin("users", uid, level, {});
    EXPECT_FALSE(Advanced("adam")) << level;
  }
}

TEST_F(Permissions, User_InAdvancedGroup_IsAdvanced) {
  host_.AddUser("carol", {"operators"});
  host_.PutGuestAdmin("groups", host_.GroupId("carol", "operators"), "advanced", {});
  EXPECT_TRUE(Advanced("carol"));
}

TEST_F(Permissions, GrantedUser_IsPermittedForThatGuestOnly) {
  host_.PutGuestAdmin("users", host_.AddUser("grace"), "user", {kGuest});
  EXPECT_TRUE(Permitted("grace", kGuest));
  EXPECT_FALSE(Advanced("grace"));
  EXPECT_FALSE(Permitted("grace", "8F14E45F-CEEA-467F-A9D1-0F2B6C1E4A01"));
  EXPECT_FALSE(Permitted("grace", std::string(kGuest) + " "));
  EXPECT_FALSE(Permitted("grace", std::string(kGuest).substr(0, 20)));
  EXPECT_FALSE(Permitted("grace", ""));
}

TEST_F(Permissions, GroupGrant_PermitsMembersOnly) {
  host_.AddUser("carol", {"operators"});
  host_.AddUser("dave");
  host_.PutGuestAdmin("groups", host_.GroupId("carol", "operators"), "user", {kGuest});
  EXPECT_TRUE(Permitted("carol", kGuest));
  EXPECT_FALSE(Permitted("dave", kGuest));
}

TEST_F(Permissions, UserAndGroup_SameNumber_AreDistinct) {
  host_.AddUser("carol", {"operators"});
  host_.PutGuestAdmin("users", host_.GroupId("carol", "operators"), "advanced", {kGuest});
  EXPECT_FALSE(Permitted("carol", kGuest));
  EXPECT_FALSE(Advanced("carol"));
}

TEST_F(Permissions, GrantedUser_LookupFails_IsRefused) {
  const auto uid = host_.AddUser("grace");
  host_.PutGuestAdmin("users", uid, "advanced", {kGuest});
  host_.store().FailReadsOf(host_.ObjectKey("guest_admin", "users-" + std::to_string(uid)));
  EXPECT_FALSE(Permitted("grace", kGuest));
  EXPECT_FALSE(Advanced("grace"));
  host_.store().Heal();
  EXPECT_TRUE(Permitted("grace", kGuest));
}

TEST_F(Permissions, NonAdministrators_DatabaseLost_AreRefused) {
  host_.PutGuestAdmin("users", host_.AddUser("grace"), "advanced", {kGuest});
  host_.store().FailSnapshots();
  EXPECT_FALSE(Permitted("grace", kGuest));
  EXPECT_FALSE(Advanced("grace"));
}

TEST_F(Permissions, DamagedRecords_GrantNothing) {
  const std::string id = "users-" + std::to_string(host_.AddUser("grace"));
  for (const char* text : {"[]", "5", "{\"guests\":[\"8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01\"],\"authlevel\":1}", "{"}) {
    host_.PutText("guest_admin", id, text);
    EXPECT_FALSE(Permitted("grace", kGuest)) << text;
    EXPECT_FALSE(Advanced("grace")) << text;
  }
}

TEST_F(Permissions, Grant_Revoked_NextCallIsRefused) {
  const auto uid = host_.AddUser("grace");
  host_.PutGuestAdmin("users", uid, "user", {kGuest});
  EXPECT_TRUE(Permitted("grace", kGuest));
  host_.PutGuestAdmin("users", uid, "user", {});
  EXPECT_FALSE(Permitted("grace", kGuest));
}

}  // namespace
}  // namespace vexa::test
