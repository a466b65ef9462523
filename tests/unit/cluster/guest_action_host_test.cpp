// Deleting guests and controlling their power over the real platform, on a host that reaches no other.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/cluster/cluster_log.h"
#include "tests/support/require.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"
#include "webapi/guest/guest.h"
#include "webapi/guest/guest_action.h"

namespace {

using vexa::test::Parsed;
using vexa::test::Require;

const std::string kGuest = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";

class GuestActionHost : public testing::Test {
 protected:
  void SetUp() override {
    vexa::test::ClearCapturedSyslog();
    host_.Put("guest", kGuest, Parsed(R"({"name":"web\n%s","repository_id":"repo","host_id":"h-1"})"));
    host_.Put("repository", "repo", Parsed(R"({"host_id":"h-1"})"));
    host_.Put("host", "h-1", Parsed(R"({"name":"north","host_id":"h-1"})"));
  }

  static Json::Value Parameters(const std::string& id, const std::string& action) {
    Json::Value parameters(Json::objectValue);
    parameters["guest_id"] = id;
    parameters["action"] = action;
    return parameters;
  }
  static int PowerOn(const std::string& id) {
    VEXA::APIRequest request = vexa::test::AdministratorRequest(Parameters(id, "poweron"));
    VEXA::APIResponse response;
    VexaVirtualization::GuestAction::PwrCtl(&request, &response);
    return response.ErrorCode();
  }
  static std::vector<std::string> ClusterLog() {
    std::vector<std::string> texts;
    for (const auto& entry :
         Require(vexa::cluster::ReadLog(Require(vexa::records::Reader::OpenCurrent()), "", 100)).entries)
      texts.push_back(entry.text);
    return texts;
  }

  vexa::test::TestHost host_;
};

TEST_F(GuestActionHost, GuestAction_UnreachableHost_IsInClusterLog) {
  EXPECT_EQ(PowerOn(kGuest), 902);
  EXPECT_EQ(ClusterLog(),
            std::vector<std::string>{"Failed to power on the virtual machine [web %s] on the host [north]."});
}

TEST_F(GuestActionHost, PowerOn_PathLikeIds_FindNoGuest) {
  for (const std::string& id :
       std::vector<std::string>{"../guest/" + kGuest, kGuest + "/", "/" + kGuest, kGuest + "/object", "../host/h-1",
                                "%38" + kGuest.substr(1), kGuest + std::string(1, '\0'), kGuest + " ", ".", "..", "/",
                                "%", std::string(5000, 'x'), std::string(5000, '/')}) {
    EXPECT_EQ(PowerOn(id), 403) << id;
  }
  EXPECT_TRUE(ClusterLog().empty());
}

TEST_F(GuestActionHost, SelectHost_HostWithoutService_AssignsNone) {
  host_.Put("guest", kGuest, Parsed(R"({"name":"web"})"));
  EXPECT_EQ(PowerOn(kGuest), 932);
  EXPECT_TRUE(vexa::test::SyslogContains("check_host_resource"));
  EXPECT_TRUE(ClusterLog().empty());
}

TEST_F(GuestActionHost, Delete_NoHostReachable_KeepsGrants) {
  host_.PutGuestAdmin("users", host_.AddUser("alice"), "advanced", {kGuest});
  VEXA::APIRequest request = vexa::test::UserRequest(Parameters(kGuest, ""), "alice");
  VEXA::APIResponse response;
  VexaVirtualization::Guest::Delete(&request, &response);
  EXPECT_EQ(response.ErrorCode(), 901);
  EXPECT_EQ(ClusterLog(), std::vector<std::string>{"Failed to delete the virtual machine [web %s]."});
  EXPECT_EQ(PowerOn(kGuest), 902) << "the guest is still there";
  request = vexa::test::UserRequest(Parameters(kGuest, "poweron"), "alice");
  VexaVirtualization::GuestAction::PwrCtl(&request, &response);
  EXPECT_EQ(response.ErrorCode(), 902) << "and still alice's";
}

}  // namespace
