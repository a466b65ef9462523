// The access checks over another provider of the platform, which answers what this test tells it to.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "webapi/platform/ccc.h"
#include "webapi/utils/utils.h"

namespace {

struct Script {
  bool is_admin = false;
  int advanced_result = 0;
  int list_result = 0;
  std::set<std::string> listed;
  int calls = 0;
  std::string asked_user;
  std::string asked_category;
};

Script script;

}  // namespace

namespace VEXA {

APIRequest::APIRequest(Json::Value parameters, std::string login_user, Privilege privilege)
    : parameters_(std::move(parameters)), login_user_(std::move(login_user)), privilege_(privilege) {}
std::string APIRequest::GetLoginUserName() const { return login_user_; }
bool APIRequest::IsAdmin() const { return script.is_admin; }

// The rest of what the library needs to be loaded; these tests do not come here.
APIParameter<std::string> APIRequest::GetAndCheckString(const std::string&, int, bool (*)(const std::string&)) const {
  std::abort();
}
Json::Value APIRequest::GetParam(const std::string&, const Json::Value&) const { std::abort(); }
void APIResponse::SetSuccess(const Json::Value&) { std::abort(); }
void APIResponse::SetError(int, const Json::Value&) { std::abort(); }

}  // namespace VEXA

namespace VexaCCC {

int gaIsAdvancedUser(const std::string& user) {
  ++script.calls;
  script.asked_user = user;
  return script.advanced_result;
}

int gaUserListAvail(const std::string& user, const std::string& category, std::set<std::string>& ids) {
  ++script.calls;
  script.asked_user = user;
  script.asked_category = category;
  ids = script.listed;
  return script.list_result;
}

namespace Utils {
bool isUUID(const std::string&) { std::abort(); }
}  // namespace Utils

namespace DB {
constinit const DashCate DashCate::Guest("guest");
constinit const DashCate DashCate::vDisk("vdisk");
constinit const DashCate DashCate::vNic("vnic");
Dashboard::Dashboard(const DashCate& category, const std::string& id) : category_(category), id_(id) {}
int Dashboard::Get(Json::Value&, const std::string&) { std::abort(); }
}  // namespace DB

}  // namespace VexaCCC

namespace {

class PermissionsOverAnotherProvider : public testing::Test {
 protected:
  void SetUp() override { script = Script(); }
  VEXA::APIRequest request_{Json::Value(), "eve", VEXA::APIRequest::Privilege::kOrdinary};
};

TEST_F(PermissionsOverAnotherProvider, AdvancedResultOtherThanOne_IsNo) {
  for (const int result : {-1, 0, 2, 3, 256}) {
    script.advanced_result = result;
    EXPECT_FALSE(VexaVirtualization::IsAdminOrAdvancedUser(&request_)) << result;
  }
  script.advanced_result = 1;
  EXPECT_TRUE(VexaVirtualization::IsAdminOrAdvancedUser(&request_));
  EXPECT_EQ(script.asked_user, "eve");
}

TEST_F(PermissionsOverAnotherProvider, ListFails_AListedGuestIsStillRefused) {
  script.listed = {"g"};
  for (const int result : {-1, 1, 2}) {
    script.list_result = result;
    EXPECT_FALSE(VexaVirtualization::IsGuestPermitted(&request_, "g")) << result;
  }
  script.list_result = 0;
  EXPECT_TRUE(VexaVirtualization::IsGuestPermitted(&request_, "g"));
  EXPECT_FALSE(VexaVirtualization::IsGuestPermitted(&request_, "G"));
}

TEST_F(PermissionsOverAnotherProvider, Category_IsTheGuestKey) {
  (void)VexaVirtualization::IsGuestPermitted(&request_, "g");
  EXPECT_EQ(script.asked_category, VexaCCC::DB::_k::guest);
  EXPECT_EQ(script.asked_user, "eve");
}

TEST_F(PermissionsOverAnotherProvider, Administrator_CausesNoPlatformCall) {
  script.is_admin = true;
  EXPECT_TRUE(VexaVirtualization::IsAdminOrAdvancedUser(&request_));
  EXPECT_TRUE(VexaVirtualization::IsGuestPermitted(&request_, "g"));
  EXPECT_EQ(script.calls, 0);
}

TEST_F(PermissionsOverAnotherProvider, EmptyUserName_IsPassedOn) {
  VEXA::APIRequest nameless{Json::Value(), "", VEXA::APIRequest::Privilege::kOrdinary};
  script.advanced_result = 1;
  script.asked_user = "unset";
  EXPECT_TRUE(VexaVirtualization::IsAdminOrAdvancedUser(&nameless));
  EXPECT_EQ(script.asked_user, "");
}

}  // namespace
