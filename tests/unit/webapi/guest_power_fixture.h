// What the tests of power control have in common.
#pragma once

#include <string>

#include "tests/unit/webapi/guest_action_fixture.h"
#include "webapi/guest/guest_action.h"

namespace vexa::test {

// The guest "g", called web, runs on the host "h", called north. This host is "local".
class GuestPower : public GuestActions {
 protected:
  void SetUp() override {
    GuestActions::SetUp();
    Platform().guest_hosts = {{0, "h"}};
    Platform().names["guest/g"] = "web";
    Platform().names["host/h"] = "north";
    Platform().replies["h"] = Success("null");
  }

  static Json::Value Parameters(const std::string& action, const std::string& guest_id = "g") {
    Json::Value parameters(Json::objectValue);
    parameters["guest_id"] = guest_id;
    parameters["action"] = action;
    return parameters;
  }

  static VEXA::APIResponse Control(VEXA::APIRequest request) {
    VEXA::APIResponse response;
    VexaVirtualization::GuestAction::PwrCtl(&request, &response);
    return response;
  }
  static VEXA::APIResponse Control(const std::string& action) { return Control(AsAdministrator(Parameters(action))); }

  static void ExpectNoCalls() {
    EXPECT_TRUE(Platform().sent.empty());
    EXPECT_TRUE(Platform().cluster_log.empty());
    EXPECT_TRUE(Platform().calls.empty());
  }
};

}  // namespace vexa::test
