// What settings of guests, hosts and the cluster promise, through `vexa` and the API, against a real host in test mode:
// guests without a host, placement, the mode of upgrades, and the refusal of everything that a setting does not accept.
#include "host/api/reason.h"
#include "host/base/guest_settings.h"
#include "host/cluster/settings.h"
#include "json/readers.h"
#include "tests/system/cli_guest_host.h"
#include "webapi/error_codes.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;

constexpr int kNotAdministrator = 104;

class GuestPromises : public CliGuestHostTest {
 protected:
  void ExpectDone(std::vector<std::string> arguments) {
    const auto result = RunOn(std::move(arguments));
    EXPECT_EQ(result.exit_code, 0) << result.errors << result.output;
  }
  void ExpectRefused(std::vector<std::string> arguments, const std::string& words) {
    const auto result = RunOn(std::move(arguments));
    EXPECT_NE(result.exit_code, 0) << result.output;
    EXPECT_THAT(result.errors, HasSubstr(words));
  }
  // The reply of the API, with its error.
  Json::Value Call(const std::string& api, const std::string& method, const Json::Value& parameters) {
    HttpClient client = daemon_->Unix();
    return JsonBody(client.PostJson("/webapi/" + api + "/" + method, json::ToText(parameters)));
  }
  static int CodeOf(const Json::Value& reply) { return json::Int(json::Member(json::Member(reply, "error"), "code")); }
  static std::string ReasonOf(const Json::Value& reply) {
    return json::String(json::Member(json::Member(reply, "error"), "reason"));
  }
  Json::Value Guest(const std::string& id) const { return RecordOf(*store_, "guest", id); }
  std::string CreateWithoutHost() {
    Json::Value parameters(Json::objectValue);
    parameters["name"] = "homeless";
    parameters["host"] = "";
    const Json::Value reply = Call("VEXA.Virtualization.Guest", "create", parameters);
    const std::string id = json::String(json::Member(json::Member(reply, "data"), "guest_id"));
    EXPECT_FALSE(id.empty()) << json::ToText(reply);
    EXPECT_EQ(Guest(id)["host_id"], "");
    return id;
  }
};

TEST_F(GuestPromises, GuestWithoutHost_IsListedEditedAndDeleted) {
  const std::string id = CreateWithoutHost();
  EXPECT_THAT(RunOn({"guest", "list"}).output, HasSubstr("homeless"));
  EXPECT_EQ(Parsed(RunOn({"--json", "guest", "get", id}).output)["name"], "homeless");
  EXPECT_EQ(Parsed(RunOn({"--json", "guest", "status", id}).output)["status"], "shutdown");
  ExpectDone({"guest", "set", "homeless", "vcpu_num=2", "--add-disk", "1"});
  EXPECT_EQ(Guest(id)["vcpu_num"], 2);
  EXPECT_EQ(Guest(id)["host_id"], "");
  ExpectDone({"guest", "delete", "homeless", "--yes"});
  EXPECT_TRUE(Guest(id).isNull());
  EXPECT_EQ(environment_.Images().size(), 2u);
}

TEST_F(GuestPromises, GuestWithoutHost_Started_GetsAHost) {
  const std::string id = CreateWithoutHost();
  ExpectDone({"guest", "start", "homeless"});
  EXPECT_EQ(Guest(id)["host_id"], host_id_);
  EXPECT_EQ(Parsed(RunOn({"--json", "guest", "status", id}).output)["status"], "running");
}

// Administrators learn what the guest's host says about it. Others do not: it may name files of the host.
TEST_F(GuestPromises, Start_HostRefuses_AdministratorsGetItsReason) {
  const Json::Value created =
      Call("VEXA.Virtualization.Guest", "create", Parsed(R"({"name":"shop","grants":[{"user":"grace"}]})"));
  const std::string id = json::String(json::Member(json::Member(created, "data"), "guest_id"));
  ASSERT_FALSE(id.empty()) << json::ToText(created);
  ExpectDone({"guest", "set", "shop", "vram_size=2000000"});
  const auto power = [&](const std::string& action) {
    return Parsed(R"({"guest_id":")" + id + R"(","action":")" + action + "\"}");
  };
  const Json::Value refused = Call("VEXA.Virtualization.Guest.Action", "pwr_ctl", power("poweron"));
  EXPECT_EQ(CodeOf(refused), user_error::kNoMemory) << json::ToText(refused);
  EXPECT_THAT(ReasonOf(refused), HasSubstr("2000000"));
  ExpectRefused({"guest", "start", "shop"}, ReasonOf(refused));
  const Json::Value to_grace = JsonBody(daemon_->TcpAs("grace").PostJson(
      "/webapi/VEXA.Virtualization.Guest.Action/pwr_ctl", json::ToText(power("poweron"))));
  EXPECT_EQ(CodeOf(to_grace), user_error::kNoMemory);
  EXPECT_EQ(ReasonOf(to_grace),
            std::string("The host does not have enough free memory for the guest. ") + api::kAskAdministrator);
  // The host has no part in this refusal.
  const Json::Value unknown = Call("VEXA.Virtualization.Guest.Action", "pwr_ctl", power("jump"));
  EXPECT_EQ(CodeOf(unknown), user_error::kBadParameter);
  EXPECT_EQ(
      ReasonOf(unknown),
      "The parameter 'action' is not 'poweron', 'shutdown', 'poweroff', 'reboot' or 'poweroff_by_ha': it is 'jump'");
}

TEST_F(GuestPromises, Pending_ForOrdinaryUser_HasNoFolders) {
  const std::string image = environment_.File("images") + "/setup.iso";
  std::ofstream(image) << "an image";
  const Json::Value created = Call("VEXA.Virtualization.Guest", "create",
                                   Parsed(R"({"name":"shop","start":true,"grants":[{"user":"grace"}]})"));
  const std::string id = json::String(json::Member(json::Member(created, "data"), "guest_id"));
  ASSERT_FALSE(id.empty()) << json::ToText(created);
  ExpectDone({"guest", "set", "shop", "--iso", image, "--next-start"});
  const std::string status = R"({"guest_id":")" + id + "\"}";
  const auto pending_in = [](const Json::Value& reply) {
    const Json::Value& pending = json::Member(json::Member(reply, "data"), "pending");
    return json::ToText(json::Member(json::Element(pending, 0), "recorded"));
  };
  EXPECT_THAT(pending_in(Call("VEXA.Virtualization.Guest", "status", Parsed(status))), HasSubstr(image));
  const Json::Value to_grace =
      JsonBody(daemon_->TcpAs("grace").PostJson("/webapi/VEXA.Virtualization.Guest/status", status));
  EXPECT_THAT(pending_in(to_grace), HasSubstr("\"setup.iso\""));
  EXPECT_THAT(json::ToText(to_grace), testing::Not(HasSubstr(environment_.File("images"))));
}

TEST_F(GuestPromises, GuestWithoutHost_SelectionOff_IsNotStarted) {
  const std::string id = CreateWithoutHost();
  const auto shown = RunOn({"cluster", "settings", "--auto-select-host", "off"});
  EXPECT_EQ(shown.exit_code, 0) << shown.errors;
  EXPECT_THAT(shown.output, testing::ContainsRegex("Select hosts for guests without one +off"));
  Json::Value parameters(Json::objectValue);
  parameters["guest_id"] = id;
  parameters["action"] = "poweron";
  EXPECT_EQ(CodeOf(Call("VEXA.Virtualization.Guest.Action", "pwr_ctl", parameters)), 403);
  ExpectDone({"cluster", "settings", "--auto-select-host", "on"});
  ExpectDone({"guest", "start", "homeless"});
  const std::string log = RunOn({"log"}).output;
  EXPECT_THAT(log, HasSubstr("The automatic selection of hosts has been switched off."));
  EXPECT_THAT(log, HasSubstr("The automatic selection of hosts has been switched on."));
}

TEST_F(GuestPromises, Host_PlacementOff_IsNotChosenAndStartsItsOwnGuests) {
  const std::string id = CreateWithoutHost();
  const auto edited = RunOn({"host", "edit", host_id_, "--placement", "off"});
  EXPECT_EQ(edited.exit_code, 0) << edited.errors;
  EXPECT_THAT(edited.output, HasSubstr("is not chosen for guests without a host."));
  EXPECT_EQ(Parsed(RunOn({"--json", "host", "show", host_id_}).output)["placement"], false);
  EXPECT_THAT(RunOn({"host", "show", host_id_}).output, testing::ContainsRegex("Placement +off"));
  Json::Value parameters(Json::objectValue);
  parameters["guest_id"] = id;
  parameters["action"] = "poweron";
  EXPECT_EQ(CodeOf(Call("VEXA.Virtualization.Guest.Action", "pwr_ctl", parameters)), 932);
  EXPECT_EQ(Guest(id)["host_id"], "");
  ExpectDone({"guest", "create", "at-home", "--host", host_id_, "--start"});
  ExpectDone({"host", "edit", host_id_, "--placement", "on"});
  ExpectDone({"guest", "start", "homeless"});
  EXPECT_EQ(Guest(id)["host_id"], host_id_);
  EXPECT_THAT(RunOn({"log"}).output, HasSubstr("The placement of virtual machines on the host ["));
}

TEST_F(GuestPromises, HostEdit_Name_IsShownAndUnique) {
  const auto edited = RunOn({"host", "edit", host_id_, "--name", "office-1"});
  EXPECT_EQ(edited.exit_code, 0) << edited.errors;
  EXPECT_EQ(edited.output, "The host '" + host_id_ + "' is called 'office-1' now.\n");
  EXPECT_EQ(Parsed(RunOn({"--json", "host", "show", "office-1"}).output)["host_id"], host_id_);
  EXPECT_THAT(RunOn({"host", "list"}).output, AllOf(HasSubstr("\noffice-1 "), Not(HasSubstr(host_id_))));
  EXPECT_THAT(RunOn({"host", "list", "--ids"}).output, HasSubstr("\n" + host_id_ + "  office-1 "));
  EXPECT_THAT(RunOn({"log"}).output, HasSubstr("] to [office-1]."));
  // Again, and with another setting.
  ExpectDone({"host", "edit", "office-1", "--name", "office-1", "--placement", "on"});
  const std::string other = "00000000-0000-4000-8000-00000000000b";
  PutRecord(*store_, store::MakeKey({"dash", "host", other, "object"}), Parsed(R"({"name":"office-2"})"));
  ExpectRefused({"host", "edit", "office-1", "--name", "office-2"}, "office-2' already");
  EXPECT_THAT(RunOn({"host", "list"}).output, HasSubstr("\noffice-1 "));
  EXPECT_THAT(RunOn({"host", "edit", "office-1"}).errors, HasSubstr("Nothing to change is named"));
}

TEST_F(GuestPromises, OwnRights_UserWithGrant_ListsItsGuests) {
  Call("VEXA.Virtualization.Guest", "create", Parsed(R"({"name":"shop","grants":[{"user":"grace"}]})"));
  const auto rights = [&] {
    const Json::Value reply = JsonBody(daemon_->TcpAs("grace").PostJson("/webapi/VEXA.Core.Session/rights", "{}"));
    return json::Member(reply, "data");
  };
  // "web" is of a group.
  const auto console_of_shop = [&] {
    const Json::Value mine = rights();
    for (const Json::Value& guest : mine["guests"]) {
      if (guest["guest_name"] == "shop") return guest["console"];
    }
    return Json::Value();
  };
  EXPECT_EQ(rights()["user"], "grace");
  EXPECT_EQ(rights()["all_guests"], false);
  EXPECT_EQ(console_of_shop(), false);
  // By name, as everything else.
  ExpectDone({"user", "grant", "grace", "shop", "--console"});
  EXPECT_EQ(console_of_shop(), true);
  EXPECT_THAT(RunOn({"user", "grants", "grace"}).output, HasSubstr("\nshop with its console\n"));
  EXPECT_THAT(RunOn({"user", "grants", "grace", "--ids"}).output, Not(HasSubstr("shop")));
  ExpectRefused({"user", "grant", "grace", "shpo"}, "There is no guest called 'shpo'; did you mean 'shop'?");
  ExpectDone({"user", "revoke", "grace", "shop"});
  EXPECT_TRUE(console_of_shop().isNull());
  EXPECT_THAT(RunOn({"whoami"}).output, HasSubstr("You may use all guests, with their consoles."));
}

TEST_F(GuestPromises, Upgrading_On_GuestsAreShownAsFrozen) {
  ExpectDone({"cluster", "settings", "--upgrading", "on"});
  EXPECT_EQ(Parsed(RunOn({"--json", "cluster", "settings"}).output)["upgrading"], true);
  EXPECT_EQ(Parsed(RunOn({"--json", "guest", "status", kEdited}).output)["status"], "freeze");
  ExpectDone({"cluster", "settings", "--upgrading", "off"});
  EXPECT_NE(Parsed(RunOn({"--json", "guest", "status", kEdited}).output)["status"], "freeze");
  EXPECT_THAT(RunOn({"log"}).output, HasSubstr("The upgrade mode of the cluster has been switched on."));
}

TEST_F(GuestPromises, ClusterSettings_BadValues_AreRefusedWithReason) {
  const auto expect = [&](const std::string& api, const std::string& method, const std::string& parameters, int code,
                          const std::string& reason) {
    SCOPED_TRACE(parameters);
    const Json::Value reply = Call(api, method, Parsed(parameters));
    EXPECT_EQ(CodeOf(reply), code);
    EXPECT_EQ(ReasonOf(reply), reason);
  };
  const std::string cluster = "VEXA.Virtualization.Cluster";
  expect(cluster, "set", R"({"upgrading":1})", 401, "The parameter 'upgrading' is not true or false: it is 1");
  expect(cluster, "set", R"({"auto_select_host":"on"})", 401,
         R"(The parameter 'auto_select_host' is not true or false: it is "on")");
  expect(cluster, "set", R"({"updating":true})", 401, "There is no parameter 'updating'; did you mean 'upgrading'?");
  expect(cluster, "set", "{}", 401, "Neither 'auto_select_host' nor 'upgrading' is given");
  const std::string host = "VEXA.Virtualization.Host";
  const std::string id = R"({"host_id":")" + host_id_ + "\"";
  expect(host, "edit", "{}", 401, "The parameter 'host_id' is not a UUID");
  expect(host, "edit", id + "}", 401, "Neither 'name' nor 'placement' is given");
  expect(host, "edit", id + R"(,"placement":null})", 401, "The parameter 'placement' is not true or false: it is null");
  expect(host, "edit", id + R"(,"placement":true,"nme":"x"})", 401,
         "There is no parameter 'nme'; did you mean 'name'?");
  for (const char* name : {"\"\"", "7", "\"a\\nb\""}) {
    expect(host, "edit", id + ",\"name\":" + name + "}", 401,
           "The parameter 'name' is not 1 to 128 bytes of UTF-8 without control characters");
  }
  expect(host, "edit", R"({"host_id":"00000000-0000-4000-8000-000000000009","placement":true})", 403,
         "There is no host '00000000-0000-4000-8000-000000000009'");
  ExpectRefused({"cluster", "settings", "--upgrading", "maybe"},
                "'maybe' is not a value of --upgrading. Use on or off");
  ExpectRefused({"host", "edit", host_id_, "--placement", "1"}, "'1' is not a value of --placement. Use on or off");
}

TEST_F(GuestPromises, ClusterSettings_DamagedRecord_IsReported) {
  PutRecord(*store_, store::MakeKey({"settings", "cluster"}), Parsed(R"({"auto_select_host":"yes"})"));
  const Json::Value reply = Call("VEXA.Virtualization.Cluster", "get", Json::Value(Json::objectValue));
  EXPECT_EQ(CodeOf(reply), 949);
  EXPECT_THAT(ReasonOf(reply), HasSubstr("The setting 'auto_select_host' in "));
  // A change repairs it.
  ExpectDone({"cluster", "settings", "--auto-select-host", "on"});
  EXPECT_EQ(Parsed(RunOn({"--json", "cluster", "settings"}).output)["auto_select_host"], true);
}

TEST_F(GuestPromises, Settings_OfOrdinaryUser_AreRefused) {
  daemon_->ActAsOnUnixSocket("adam");
  const Json::Value none(Json::objectValue);
  for (const char* method : {"get", "set"}) {
    EXPECT_EQ(CodeOf(Call("VEXA.Virtualization.Cluster", method, none)), kNotAdministrator) << method;
  }
  EXPECT_EQ(CodeOf(Call("VEXA.Virtualization.Host", "edit", none)), kNotAdministrator);
}

// Values that the setting of the row does not accept, with the words of the reason for each.
struct BadValue {
  Json::Value value;
  std::string shown;
};
std::vector<BadValue> BadValues(const GuestSetting& setting) {
  switch (setting.type) {
    case SettingType::kNumber:
      return {{Json::Int64(setting.min - 1), std::to_string(setting.min - 1)},
              {Json::Int64(setting.max + 1), std::to_string(setting.max + 1)},
              {1.5, "1.5"},
              {"2", "'2'"},
              {true, "true"},
              {Json::Value(Json::arrayValue), "a list"}};
    case SettingType::kBoolean:
      return {{1, "1"}, {"true", "'true'"}, {Json::Value(Json::objectValue), "an object"}};
    case SettingType::kString:
      if (setting.format == TextFormat::kDescription) return {{7, "7"}};
      return {{7, "7"}, {std::string(200, 'x') + "/", "'xxx"}, {false, "false"}};
    default:
      return {};
  }
}

TEST_F(GuestPromises, EachSetting_BadValue_IsRefusedWithParameterValueAndRange) {
  int rows = 0;
  for (const GuestSetting& setting : kGuestSettings) {
    if (!setting.IsScalar()) continue;
    ++rows;
    for (const BadValue& bad : BadValues(setting)) {
      SCOPED_TRACE(std::string(setting.name) + " " + json::ToText(bad.value));
      const std::string expected = "The parameter '" + std::string(setting.name) + "' is not " +
                                   DescribeValidValue(setting) + ": it is " + bad.shown;
      Json::Value edit(Json::objectValue);
      edit["guest_id"] = kEdited;
      edit[setting.name] = bad.value;
      const Json::Value before = Guest(kEdited);
      const Json::Value set = Call("VEXA.Virtualization.Guest", "set", edit);
      // Types are checked before the guest's host is asked, which knows the ranges.
      EXPECT_THAT(CodeOf(set), testing::AnyOf(401, 909)) << json::ToText(set);
      EXPECT_THAT(ReasonOf(set), StartsWith(expected));
      EXPECT_EQ(Guest(kEdited), before);
      Json::Value creation(Json::objectValue);
      creation["name"] = "new";
      creation[setting.name] = bad.value;
      const Json::Value created = Call("VEXA.Virtualization.Guest", "create", creation);
      EXPECT_EQ(CodeOf(created), 401);
      EXPECT_THAT(ReasonOf(created),
                  StartsWith(std::string(setting.name) == "name" ? "The parameter 'name' is not " : expected));
    }
  }
  EXPECT_GE(rows, 14);
}

TEST_F(GuestPromises, Parts_BadValue_AreRefusedWithParameterValueAndRange) {
  struct Row {
    const char* edit;
    const char* reason;
  };
  constexpr Row kRows[] = {
      {R"("vnics_add":[{"network_id":"","prefer_sriov":true,"vnic_type":9}])",
       "The parameter 'vnics_add[0].vnic_type' is not a number from 1 to 3: it is 9"},
      {R"("vnics_add":[{"network_id":"lan","prefer_sriov":true,"vnic_type":1}])",
       "The parameter 'vnics_add[0].network_id' is not a UUID or empty: it is 'lan'"},
      {R"("vnics_add":[{"network_id":"","prefer_sriov":1,"vnic_type":1}])",
       "The parameter 'vnics_add[0].prefer_sriov' is not true or false: it is 1"},
      {R"("vnics_add":5)", "The parameter 'vnics_add' is not a list of at most 1024 elements: it is 5"},
      {R"("vdisks_add":[7])", "The parameter 'vdisks_add[0]' is not an object: it is 7"},
      {R"("usbs":[7])", "The parameter 'usbs[0]' is not a string: it is 7"}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.edit);
    const Json::Value edit = Parsed(R"({"guest_id":")" + std::string(kEdited) + "\"," + row.edit + "}");
    EXPECT_EQ(ReasonOf(Call("VEXA.Virtualization.Guest", "set", edit)), row.reason);
  }
  EXPECT_EQ(ReasonOf(Call("VEXA.Virtualization.Guest", "set", Parsed(R"({"guest_id":"x"})"))),
            "The parameter 'guest_id' is not a UUID");
  EXPECT_EQ(ReasonOf(Call("VEXA.Virtualization.Guest", "create", Parsed(R"({"name":"new","vpcu_num":2})"))),
            "There is no parameter 'vpcu_num'; did you mean 'vcpu_num'?");
}

// Methods that have no words of their own for it.
TEST_F(GuestPromises, Methods_BadParameter_AreRefusedWithReason) {
  struct Row {
    const char* api;
    const char* method;
    std::string parameters;
    const char* reason;
  };
  const std::string guest = R"({"guest_id":")" + std::string(kEdited) + "\"";
  const Row rows[] = {{"VEXA.Virtualization.Network", "get", "{}", "The parameter 'network_id' is missing"},
                      {"VEXA.Virtualization.Network", "add", R"({"name":5,"kind":"nat"})",
                       "The parameter 'name' is not a string: it is a number"},
                      {"VEXA.Virtualization.Guest", "screenshot", R"({"guest_id":"x"})",
                       "The parameter 'guest_id' is not a UUID: it is 'x'"},
                      {"VEXA.Virtualization.Guest", "type", guest + R"(,"text":null})",
                       "The parameter 'text' is not a string: it is null"},
                      {"VEXA.Virtualization.Guest", "get", "{}", "The parameter 'guest_id' is missing"},
                      {"VEXA.Virtualization.Guest.Action", "pwr_ctl", guest + "}", "The parameter 'action' is missing"},
                      {"VEXA.Virtualization.Host", "get", R"({"host_id":[]})",
                       "The parameter 'host_id' is not a string: it is a list"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.api) + " " + row.method);
    const Json::Value reply = Call(row.api, row.method, Parsed(row.parameters));
    EXPECT_EQ(CodeOf(reply), 401);
    EXPECT_EQ(ReasonOf(reply), row.reason);
  }
}

// What only the guest's host finds out reaches the user, too.
TEST_F(GuestPromises, Interface_NetworkCannotHaveIt_IsRefusedWithReason) {
  constexpr char kNat[] = "5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8";
  PutRecord(*store_, KeyOf("network", kNat),
            Parsed(R"({"name":"inside","kind":"nat","network_name":"inside","subnet":"10.9.0.0/24"})"));
  const std::string edit = R"({"guest_id":")" + std::string(kEdited) + R"(","vnics_add":[{"network_id":")" + kNat +
                           R"(","vnic_type":1,"prefer_sriov":true}]})";
  const Json::Value reply = Call("VEXA.Virtualization.Guest", "set", Parsed(edit));
  EXPECT_EQ(CodeOf(reply), user_error::kBadNetworkSettings);
  EXPECT_EQ(ReasonOf(reply),
            "An interface in the network 'inside' cannot have a virtual function ('prefer_sriov'): it is of the kind "
            "'nat', and only a network of the kind 'bridge' leads to a network card");
}

}  // namespace
}  // namespace vexa::test
