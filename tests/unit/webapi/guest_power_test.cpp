// GuestAction::PwrCtl for one host: parameters, rights, the host, the upgrade, and the tables of outcomes.
#include <string>
#include <vector>

#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/guest_power_fixture.h"

namespace vexa::test {
namespace {

const std::vector<std::string> kActions{"poweron", "shutdown", "poweroff", "reboot"};

std::string Incompatible(const std::string& action) {
  return "Incompatible operation [" + action +
         " virtual machine]. Please upgrade to a compatible Orla version and try again.";
}

// What succeeds.

struct Done {
  const char* action;
  const char* line;
};
std::ostream& operator<<(std::ostream& out, const Done& row) { return out << row.action; }

class GuestPowerDone : public GuestPower, public testing::WithParamInterface<Done> {};

TEST_P(GuestPowerDone, Power_CallsHostAndLogs) {
  const std::string action = GetParam().action;
  ExpectNullSuccess(Control(action));
  ExpectCalls(
      {"guest_host g", "guest_host g", "upgrading", "name guest/g", "name host/h", "send h/" + action, "log 3"});
  ExpectClusterLog({{"root", 3, GetParam().line}});
  ASSERT_EQ(Platform().sent.size(), 1u);
  EXPECT_EQ(Text(Platform().sent[0].json),
            Text(Parsed(R"({"api":"VEXA.CCC.Guest","version":1,"guest_id":"g","method":")" + action + "\"}")));
  EXPECT_EQ(Platform().sent[0].timeout_s, 3600);
  EXPECT_EQ(Platform().sent[0].by, SentRequest::By::kSender);
  ExpectNoLine();
}

INSTANTIATE_TEST_SUITE_P(Rows, GuestPowerDone,
                         testing::Values(Done{"poweron", "Powering on the virtual machine [web] on the host [north]."},
                                         Done{"shutdown", "Shutting down the virtual machine [web]."},
                                         Done{"poweroff",
                                              "The virtual machine [web] has been successfully powered off."},
                                         Done{"reboot", "Rebooting the virtual machine [web]."}),
                         [](const auto& test) { return std::string(test.param.action); });

// What fails: each host code with each action.

struct HostFailure {
  int host_code;
  std::string action;
  int answer;
  std::string line;  // "" when nothing is logged for users
};
std::ostream& operator<<(std::ostream& out, const HostFailure& row) { return out << row.action << row.host_code; }

struct AnyAction {
  int host_code;
  int answer;
  const char* line;
};

constexpr AnyAction kAnyAction[] = {
    {410, 954,
     "Failed to power on the virtual machine [web] because the number of iSCSI LUN has reached the system limit."},
    {528, 620, ""},
    {910, 939, "Failed to power on the virtual machine [web] on the host [north] since VM is already running."},
    {916, 914,
     "Failed to power on the virtual machine [web] on the host [north] due to insufficient CPU or memory on the host."},
    {917, 915,
     "Failed to power on the virtual machine [web] on the host [north] because there is no corresponding networking on "
     "the host."},
    {927, 927,
     "Failed to power on the virtual machine [web] on the host [north] due to insufficient vCPU on the host."},
    {928, 928,
     "Failed to power on the virtual machine [web] on the host [north] due to insufficient memory on the host."},
    {935, 933,
     "Failed to power on the virtual machine [web] on the host [north] because only booting VM on a remote host with "
     "VirtIO hard drives is supported."},
    {942, 944,
     "Failed to power on the virtual machine [web] on the host [north] due to insufficient CPU threads on the host."},
    {945, 947,
     "Failed to power on the virtual machine [web] on the host [north] because booting VM on a remote host with EFI "
     "firmware is not supported."},
    {949, 959, "Failed to power on the virtual machine [web] because the resource is temporarily unavailable."},
    {955, 965, "Failed to power on the virtual machine [web] because the guest kernel is incompatible with host cpu."},
};

constexpr char kBusyShutdown[] = "Failed to shut down the virtual machine [web] because it is currently busy.";
constexpr char kBusyReboot[] = "Failed to reboot the virtual machine [web] because it is currently busy.";

std::vector<HostFailure> HostFailures() {
  std::vector<HostFailure> rows{
      {915, "shutdown", 912, kBusyShutdown},
      {915, "poweron", 912, kBusyReboot},
      {915, "poweroff", 912, kBusyReboot},
      {915, "reboot", 912, kBusyReboot},
  };
  for (const std::string& action : kActions) {
    for (const AnyAction& row : kAnyAction) rows.push_back({row.host_code, action, row.answer, row.line});
    rows.push_back({507, action, 407, Incompatible(action)});
  }
  for (const int other : {100, 102, 401, 411, 902, 903, 911, 918, 1000000, -1, -507}) {
    rows.push_back({other, "poweron", 902, "Failed to power on the virtual machine [web] on the host [north]."});
    rows.push_back({other, "shutdown", 903, "Failed to shut down the virtual machine [web]."});
    rows.push_back({other, "poweroff", 904, "Failed to power off the virtual machine [web]."});
    rows.push_back({other, "reboot", 905, "Failed to reboot the virtual machine [web]."});
  }
  return rows;
}

class GuestPowerFailure : public GuestPower, public testing::WithParamInterface<HostFailure> {};

TEST_P(GuestPowerFailure, Power_HostError_IsReturnedAndLogged) {
  const HostFailure& row = GetParam();
  Platform().replies["h"] = Failure(row.host_code);
  ExpectError(Control(row.action), row.answer);
  std::vector<std::string> calls{
      "guest_host g", "guest_host g", "upgrading", "name guest/g", "name host/h", "send h/" + row.action,
  };
  if (row.line.empty()) {
    ExpectClusterLog({});
  } else {
    calls.emplace_back("log 1");
    ExpectClusterLog({{"root", 1, row.line}});
  }
  ExpectCalls(calls);
  ExpectLines({BadResponse("guest_action", 0, Failure(row.host_code))});
}

INSTANTIATE_TEST_SUITE_P(Rows, GuestPowerFailure, testing::ValuesIn(HostFailures()), [](const auto& test) {
  const int code = test.param.host_code;
  return test.param.action + (code < 0 ? "Minus" : "") + std::to_string(code < 0 ? -code : code);
});

TEST_F(GuestPower, Power_HostUnreachable_HasCodeOfAction) {
  Platform().replies.clear();
  ExpectError(Control("poweron"), 902);
}

// Names.

TEST_F(GuestPower, Power_UnknownNames_AreEmptyAndNotFailure) {
  Platform().names.clear();
  ExpectNullSuccess(Control("poweron"));
  ExpectClusterLog({{"root", 3, "Powering on the virtual machine [] on the host []."}});
  ExpectNoLine();
}

TEST_F(GuestPower, Log_NamesWithPlaceholders_AreNotExpanded) {
  Platform().names["guest/g"] = "%n%s";
  Platform().names["host/h"] = "%d\n";
  ExpectNullSuccess(Control("poweron"));
  ExpectClusterLog({{"root", 3, "Powering on the virtual machine [%n%s] on the host [%d\n]."}});
}

// Parameters and rights.

struct BadRequest {
  const char* name;
  const char* parameters;
};
std::ostream& operator<<(std::ostream& out, const BadRequest& row) { return out << row.name; }

class GuestPowerBadRequest : public GuestPower, public testing::WithParamInterface<BadRequest> {};

TEST_P(GuestPowerBadRequest, Power_UserWithoutRights_GetsParameterErrorFirst) {
  const Json::Value parameters = Parsed(GetParam().parameters);
  ExpectError(Control(AsUser(parameters)), 401);
  ExpectLines({"guest_action: Bad parameters, request: " + Text(parameters)});
  ExpectNoCalls();
}

INSTANTIATE_TEST_SUITE_P(Rows, GuestPowerBadRequest,
                         testing::Values(BadRequest{"Nothing", "{}"}, BadRequest{"NoGuest", R"({"action":"poweron"})"},
                                         BadRequest{"EmptyGuest", R"({"action":"poweron","guest_id":""})"},
                                         BadRequest{"NullGuest", R"({"action":"poweron","guest_id":null})"},
                                         BadRequest{"NumberAsGuest", R"({"action":"poweron","guest_id":5})"},
                                         BadRequest{"NoAction", R"({"guest_id":"g"})"},
                                         BadRequest{"EmptyAction", R"({"guest_id":"g","action":""})"},
                                         BadRequest{"ListAsAction", R"({"guest_id":"g","action":["poweron"]})"},
                                         BadRequest{"BothBad", R"({"guest_id":{},"action":true,"x":"%s"})"}),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(GuestPower, Power_AdvancedUserWithoutGrant_IsRefused) {
  Platform().advanced_result = 1;
  Platform().available = {"another"};
  for (const char* action : {"poweron", "poweroff_by_ha", "no action"}) {
    Platform().calls.clear();
    ExpectError(Control(AsUser(Parameters(action))), 409);
    ExpectLines({"guest_action: Action on guest[g] is not allowed from user[eve]"});
    ExpectCalls({"rights"});
  }
  EXPECT_TRUE(Platform().sent.empty());
}

TEST_F(GuestPower, Power_GrantedUser_IsLoggedUnderTheirName) {
  Platform().available = {"g"};
  ExpectNullSuccess(Control(AsUser(Parameters("reboot"))));
  EXPECT_EQ(Platform().calls.front(), "rights");
  ExpectClusterLog({{"eve", 3, "Rebooting the virtual machine [web]."}});
}

TEST_F(GuestPower, Power_UnknownAction_IsInvalid) {
  for (const std::string& action : std::vector<std::string>{"Poweron", "POWEROFF", "poweron ", " poweron", "power",
                                                            "poweronn", "poweroff_by_hA", "suspend", "%s%n"}) {
    ExpectError(Control(action), 401);
    ExpectLines({"guest_action: Invalid action [" + action + "]"});
  }
  ExpectError(Control(std::string("poweron\0", 8)), 401);
  ExpectNoCalls();
}

TEST_F(GuestPower, Power_HostIds_AreIgnoredByOtherActions) {
  Json::Value parameters = Parameters("poweron");
  parameters["host_ids"] = 5;
  ExpectNullSuccess(Control(AsAdministrator(parameters)));
}

TEST_F(GuestPower, Power_PathLikeGuestIds_AreForwardedUnchanged) {
  for (const std::string& id : std::vector<std::string>{"../../etc/passwd", "/", "%2e%2e", "a b", "a\nb", "?x=1#y"}) {
    Platform().sent.clear();
    ExpectNullSuccess(Control(AsAdministrator(Parameters("poweron", id))));
    ASSERT_EQ(Platform().sent.size(), 1u);
    EXPECT_EQ(Platform().sent[0].json["guest_id"], id);
    EXPECT_EQ(Platform().sent[0].json["api"], "VEXA.CCC.Guest");
    EXPECT_EQ(Platform().sent[0].json["method"], "poweron");
  }
}

// The guest's host.

class GuestPowerHost : public GuestPower, public testing::WithParamInterface<std::string> {
 protected:
  void SetUp() override {
    GuestPower::SetUp();
    Platform().method_replies["local/check_host_resource"] = Success(R"({"hosts":[{"host_id":"h","available":true}]})");
    Platform().method_replies["local/hostset"] = Success("null");
  }
};

TEST_P(GuestPowerHost, PowerOn_GuestWithoutHost_IsAssignedOne) {
  Platform().guest_hosts = {{-2, ""}, {0, "h"}};
  Platform().auto_select = true;
  ExpectNullSuccess(Control(GetParam()));
  ExpectCalls({"guest_host g", "auto_select", "send local/check_host_resource", "send local/hostset", "guest_host g",
               "upgrading", "name guest/g", "name host/h", "send h/" + GetParam(), "log 3"});
  ExpectLines({"guest_action: Succeccfully auto select host[h] to poweron guest[g]"});
}

TEST_P(GuestPowerHost, PowerOn_SelectionFails_Is932AndLogsSelection) {
  Platform().guest_hosts = {{-2, ""}, {0, "h"}};
  Platform().auto_select = true;
  Platform().method_replies["local/check_host_resource"] = Success(R"({"hosts":[]})");
  ExpectError(Control(GetParam()), 932);
  ExpectCalls({"guest_host g", "auto_select", "send local/check_host_resource"});
  ExpectClusterLog({});
  ExpectLines({"guest_action: Failed to find a available host to poweron guest[g]"});
}

TEST_P(GuestPowerHost, PowerOn_SelectionDisabled_Is403WithoutLogLine) {
  Platform().guest_hosts = {{-2, ""}};
  ExpectError(Control(GetParam()), 403);
  ExpectCalls({"guest_host g", "auto_select", "guest_host g"});
  ExpectClusterLog({});
  ExpectNoLine();
}

INSTANTIATE_TEST_SUITE_P(Actions, GuestPowerHost, testing::ValuesIn(kActions),
                         [](const auto& test) { return test.param; });

TEST_F(GuestPower, PowerOn_HostReadTwice_SecondResultCounts) {
  Platform().guest_hosts = {{-1, "wrong"}, {0, "h"}};
  ExpectNullSuccess(Control("poweron"));
  EXPECT_EQ(Platform().sent[0].host_id, "h");
  for (const int result : {-1, -2, 1, 2}) {
    Platform().calls.clear();
    Platform().guest_hosts = {{0, "h"}, {result, "h"}};
    ExpectError(Control("poweron"), 403);
    ExpectCalls({"guest_host g", "guest_host g"});
  }
  ExpectNoLine();
}

TEST_F(GuestPower, PowerOn_HostUnreadable_SelectsNoHost) {
  Platform().guest_hosts = {{-1, ""}};
  Platform().auto_select = true;
  ExpectError(Control("poweron"), 403);
  ExpectCalls({"guest_host g", "guest_host g"});
}

TEST_F(GuestPower, PowerOn_NoHostAfterSelection_Is403) {
  Platform().guest_hosts = {{-2, ""}};
  Platform().auto_select = true;
  Platform().method_replies["local/check_host_resource"] = Success(R"({"hosts":[{"host_id":"h","available":true}]})");
  Platform().method_replies["local/hostset"] = Success("null");
  ExpectError(Control("poweron"), 403);
  ExpectClusterLog({});
}

// An incompatible upgrade.

class GuestPowerUpgrade : public GuestPower, public testing::WithParamInterface<std::string> {};

TEST_P(GuestPowerUpgrade, Power_GuestOfOtherHostDuringUpgrade_MayOnlyStart) {
  const std::string& action = GetParam();
  const bool is_refused = action == "shutdown" || action == "poweroff";
  for (const int flag : {1, -1, 7}) {
    Platform().calls.clear();
    Platform().cluster_log.clear();
    Platform().upgrading = flag;
    if (!is_refused) {
      ExpectNullSuccess(Control(action));
      continue;
    }
    ExpectError(Control(action), 415);
    ExpectCalls({"guest_host g", "guest_host g", "upgrading", "log 1"});
    ExpectClusterLog({{"root", 1, Incompatible(action)}});
    ExpectNoLine();
  }
}

TEST_P(GuestPowerUpgrade, Power_GuestOfLocalHostDuringUpgrade_Succeeds) {
  Platform().upgrading = 1;
  Platform().guest_hosts = {{0, "local"}};
  Platform().replies["local"] = Success("null");
  ExpectNullSuccess(Control(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Actions, GuestPowerUpgrade, testing::ValuesIn(kActions),
                         [](const auto& test) { return test.param; });

// Hostile values.

TEST_F(GuestPower, Power_MutatedParametersAndReplies_NeverThrowAndSetOneResult) {
  Json::Value tree(Json::objectValue);
  tree["parameters"] = Parameters("shutdown");
  tree["parameters"]["host_ids"].append("h");
  tree["reply"] = Failure(915);
  ForEachMutation(tree, [&] {
    if (!tree.isObject()) return;
    Platform().calls.clear();
    Platform().replies["h"] = tree.get("reply", Json::Value());
    EXPECT_TRUE(Control(AsAdministrator(tree.get("parameters", Json::Value()))).IsSet());
  });
}

}  // namespace
}  // namespace vexa::test
