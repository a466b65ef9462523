// The access checks over another provider of the platform, which answers as this test sets it.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/scripted_platform.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

class PermissionsOverAnotherProvider : public testing::Test {
 protected:
  void SetUp() override { ResetPlatform(); }
  VEXA::APIRequest request_{Json::Value(), "eve", VEXA::APIRequest::Privilege::kOrdinary};
};

TEST_F(PermissionsOverAnotherProvider, IsAdvanced_ResultNotOne_IsFalse) {
  for (const int result : {-1, 0, 2, 3, 256}) {
    Platform().advanced_result = result;
    EXPECT_FALSE(VexaVirtualization::IsAdminOrAdvancedUser(&request_)) << result;
  }
  Platform().advanced_result = 1;
  EXPECT_TRUE(VexaVirtualization::IsAdminOrAdvancedUser(&request_));
  EXPECT_EQ(Platform().requested_user, "eve");
}

TEST_F(PermissionsOverAnotherProvider, IsPermitted_ListFails_ListedGuestIsRefused) {
  Platform().available = {"g"};
  for (const int result : {-1, 1, 2}) {
    Platform().available_result = result;
    EXPECT_FALSE(VexaVirtualization::IsGuestPermitted(&request_, "g")) << result;
  }
  Platform().available_result = 0;
  EXPECT_TRUE(VexaVirtualization::IsGuestPermitted(&request_, "g"));
  EXPECT_FALSE(VexaVirtualization::IsGuestPermitted(&request_, "G"));
}

TEST_F(PermissionsOverAnotherProvider, IsPermitted_Category_IsGuestKey) {
  (void)VexaVirtualization::IsGuestPermitted(&request_, "g");
  EXPECT_EQ(Platform().requested_category, VexaCCC::DB::_k::guest);
  EXPECT_EQ(Platform().requested_user, "eve");
}

TEST_F(PermissionsOverAnotherProvider, Administrator_CausesNoPlatformCall) {
  VEXA::APIRequest administrator{Json::Value(), "eve", VEXA::APIRequest::Privilege::kAdministrator};
  EXPECT_TRUE(VexaVirtualization::IsAdminOrAdvancedUser(&administrator));
  EXPECT_TRUE(VexaVirtualization::IsGuestPermitted(&administrator, "g"));
  EXPECT_EQ(Platform().rights_calls, 0);
}

TEST_F(PermissionsOverAnotherProvider, IsPermitted_EmptyUserName_IsForwarded) {
  VEXA::APIRequest nameless{Json::Value(), "", VEXA::APIRequest::Privilege::kOrdinary};
  Platform().advanced_result = 1;
  Platform().requested_user = "unset";
  EXPECT_TRUE(VexaVirtualization::IsAdminOrAdvancedUser(&nameless));
  EXPECT_EQ(Platform().requested_user, "");
}

}  // namespace
}  // namespace vexa::test
