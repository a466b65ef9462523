// GuestAction::PwrCtl for several hosts, as high availability powers guests off.
#include <string>

#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/guest_power_fixture.h"

namespace vexa::test {
namespace {

class GuestPowerByHa : public GuestPower {
 protected:
  void SetUp() override {
    GuestPower::SetUp();
    Platform().replies["a"] = Success("null");
    Platform().replies["b"] = Failure(910);
  }

  static Json::Value ParametersWith(const std::string& host_ids) {
    Json::Value parameters = Parameters("poweroff_by_ha");
    parameters["host_ids"] = Parsed(host_ids);
    return parameters;
  }
  // The data of a success, as text.
  static std::string Results(const std::string& host_ids) {
    const VEXA::APIResponse response = Control(AsAdministrator(ParametersWith(host_ids)));
    EXPECT_TRUE(response.IsSuccess()) << response.ErrorCode();
    return Text(response.Data());
  }
};

TEST_F(GuestPowerByHa, PowerOffByHa_Hosts_AreCalledConcurrentlyWith30sTimeout) {
  Platform().upgrading = 1;
  Platform().guest_hosts.clear();
  EXPECT_EQ(Results(R"(["b","a"])"),
            Text(Parsed(R"([{"host_id":"b","success":false,"errcode":910},{"host_id":"a","success":true}])")));
  ExpectCalls({"send b/poweroff", "send a/poweroff"});
  for (const auto& sent : Platform().sent) {
    EXPECT_EQ(sent.timeout_s, 30);
    EXPECT_EQ(sent.by, SentRequest::By::kMultiSender);
    EXPECT_EQ(Text(sent.json), Text(Parsed(R"({"api":"VEXA.CCC.Guest","version":1,"method":"poweroff",
                                               "guest_id":"g","reason":20})")));
  }
  ExpectClusterLog({});
  ExpectNoLine();
}

TEST_F(GuestPowerByHa, PowerOffByHa_EveryHostFails_Succeeds) {
  EXPECT_EQ(Results(R"(["b","nobody"])"), Text(Parsed(R"([{"host_id":"b","success":false,"errcode":910},
                                                          {"host_id":"nobody","success":false,"errcode":102}])")));
  ExpectClusterLog({});
  ExpectNoLine();
}

TEST_F(GuestPowerByHa, PowerOffByHa_HostTooOld_IsOneOfTheResults) {
  Platform().replies["b"] = Failure(507);
  EXPECT_EQ(Results(R"(["b"])"), Text(Parsed(R"([{"host_id":"b","success":false,"errcode":507}])")));
  ExpectClusterLog({});
}

TEST_F(GuestPowerByHa, PowerOffByHa_HostListedTwice_IsReportedTwice) {
  EXPECT_EQ(Results(R"(["a","a"])"),
            Text(Parsed(R"([{"host_id":"a","success":true},{"host_id":"a","success":true}])")));
}

TEST_F(GuestPowerByHa, PowerOffByHa_IdsOfOtherTypes_AreReadAsText) {
  EXPECT_EQ(Results(R"([7,null,{}])"), Text(Parsed(R"([{"host_id":"7","success":false,"errcode":102},
      {"host_id":"","success":false,"errcode":102},{"host_id":"","success":false,"errcode":102}])")));
}

TEST_F(GuestPowerByHa, PowerOffByHa_NoHosts_SucceedsWithNull) {
  for (const char* host_ids : {"[]", "null", "5", R"("a")", "{}", R"({"a":"a"})", "true"}) {
    EXPECT_EQ(Results(host_ids), "null") << host_ids;
  }
  ExpectCalls({});
  ExpectNoLine();
}

TEST_F(GuestPowerByHa, PowerOffByHa_NoHostIds_IsInvalid) {
  ExpectError(Control("poweroff_by_ha"), 401);
  ExpectLines({"guest_action: Invalid action [poweroff_by_ha]"});
  ExpectNoCalls();
}

TEST_F(GuestPowerByHa, PowerOffByHa_OrdinaryUserWithGrant_IsPermitted) {
  Platform().available = {"g"};
  EXPECT_TRUE(Control(AsUser(ParametersWith(R"(["a"])"))).IsSuccess());
}

TEST_F(GuestPowerByHa, PowerOffByHa_MutatedParametersAndReplies_NeverThrow) {
  Json::Value tree(Json::objectValue);
  tree["parameters"] = ParametersWith(R"(["a","b"])");
  tree["reply"] = Failure(910);
  ForEachMutation(tree, [&] {
    if (!tree.isObject()) return;
    Platform().replies["b"] = tree.get("reply", Json::Value());
    EXPECT_TRUE(Control(AsAdministrator(tree.get("parameters", Json::Value()))).IsSet());
  });
}

}  // namespace
}  // namespace vexa::test
