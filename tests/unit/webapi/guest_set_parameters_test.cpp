// Guest::Set: every parameter with every kind of value by every kind of caller.
#include <map>
#include <optional>

#include "tests/support/setting_lists.h"
#include "tests/unit/webapi/guest_set_fixture.h"

namespace vexa::test {
namespace {

// What is known of a parameter, written down a second time.
struct Known {
  const char* name;
  const char* type;
  const char* check;   // "": any; "uuid"; "text": not empty
  const char* rights;  // "all": who was granted the guest may; "none": may not; "empty": only an empty list
  const char* valid;   // one more value that is fine
  // For lists: the complaint about an element that is not an object, at index 0.
  const char* complaint;
};

constexpr const char* kNic =
    R"([{"network_id":"","prefer_sriov":true,"vnic_type":1},{"network_id":"c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10",
        "prefer_sriov":false,"vnic_type":-1,"mac":"02:00:00:00:00:01","more":[1]}])";
constexpr const char* kNicEdit =
    R"([{"vnic_id":"c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10","network_id":"","mac":"02:00:00:00:00:01","vnic_type":2}])";

constexpr Known kKnown[] = {
    {"guest_id", "string", "uuid", "all", "\"8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01\"", ""},
    {"name", "string", "text", "none", "\"shop\"", ""},
    {"vcpu_num", "int", "", "none", "2", ""},
    {"vram_size", "int", "", "none", "1024", ""},
    {"video_card", "string", "", "none", "\"vga\"", ""},
    {"repo_id", "string", "uuid", "none", "\"c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10\"", ""},
    {"desc", "string", "", "none", "\"a \\u0000 b\"", ""},
    {"cpu_passthru", "bool", "", "none", "true", ""},
    {"autorun", "int", "", "none", "2", ""},
    {"boot_from", "string", "boot", "none", "\"iso\"", ""},
    {"use_ovmf", "bool", "", "all", "true", ""},
    {"vnics_add", "array", "", "none", kNic, R"(vincs_add[0]["prefer_sriov"] is not bool)"},
    {"vnics_del", "array", "", "none", R"([{"vnic_id":"c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10"}])",
     R"(vincs_del[0]["vnic_id"] is invalid)"},
    {"vnics_edit", "array", "", "none", kNicEdit, R"(vincs_edit[0]["vnic_id"] is invalid)"},
    {"vdisks_add", "array", "", "empty", R"([{"vdisk_size":20},{"vdisk_size":1,"more":null}])",
     R"(vdisks_add[0]["vdisk_size"] <= 0)"},
    {"vdisks_del", "array", "", "empty", R"([{"vdisk_id":"c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10"}])",
     R"(vdisks_del[0]["vdisk_id"] is empty)"},
    {"vdisks_edit", "array", "", "empty",
     R"([{"vdisk_id":"c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10","vdisk_size":2147483647}])",
     R"(vdisks_edit[0]["vdisk_id"] is empty)"},
    {"vdisks_order", "array", "", "empty", R"([{"vdisk_id":"c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10","vdisk_size":5}])",
     R"(vdisks_order[0]["vdisk_id"] is empty)"},
    {"guest_privilege", "array", "", "none", R"([{"uid":7,"allow":true}])", ""},
    {"iso_images", "array", "", "all", R"(["image-1","/isos/good.iso","unmounted"])", "iso_images is invalid"},
    {"usb_version", "int", "usb", "none", "3", ""},
    {"usbs", "array", "", "none", R"(["a",null,{}])", ""},
    {"hyperv_enlighten", "bool", "", "none", "true", ""},
    {"kb_layout", "string", "", "none", "\"de\"", ""},
    {"cpu_pin_num", "int", "", "none", "4", ""},
    {"cpu_weight", "int", "", "none", "256", ""},
};
static_assert(vexa::test::ListsExactlySettings(
    kKnown, [](const vexa::GuestSetting&) { return true; }, {"guest_id"}, &Known::name));

// Of each JSON type some, and the edges of what parameters take.
constexpr const char* kValues[] = {"null",
                                   "true",
                                   "false",
                                   "0",
                                   "-1",
                                   "1",
                                   "3",
                                   "4",
                                   "2147483647",
                                   "-2147483648",
                                   "2147483648",
                                   "-2147483649",
                                   "18446744073709551615",
                                   "2.0",
                                   "2.5",
                                   "1e300",
                                   "\"\"",
                                   "\"text\"",
                                   "\"5\"",
                                   "\"-\"",
                                   "\"web\"",
                                   "\"iso\"",
                                   "\"disk\"",
                                   "\"ISO\"",
                                   "\"%s%n\"",
                                   "\"c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10\"",
                                   "[]",
                                   "[5]",
                                   "[null]",
                                   "[[]]",
                                   "[\"x\"]",
                                   "[{}]",
                                   "{}",
                                   R"({"a":1})"};

bool HasType(const std::string& type, const Json::Value& value) {
  if (type == "string") return value.type() == Json::stringValue;
  if (type == "bool") return value.type() == Json::booleanValue;
  if (type == "array") return value.type() == Json::arrayValue;
  if (value.type() == Json::intValue) return value.asInt64() >= -2147483648LL && value.asInt64() <= 2147483647LL;
  return value.type() == Json::uintValue && value.asUInt64() <= 2147483647ULL;
}

struct Expected {
  int code = 0;  // 0: edited
  std::string line;
  std::string host = "south";
  Json::Value members{Json::objectValue};  // what is sent beside the id
  bool is_renamed = false;
};

class GuestSetParameters : public GuestSet, public testing::WithParamInterface<Known> {
 protected:
  static Expected Refusal(int code, const std::string& line) {
    Expected refusal;
    refusal.code = code;
    refusal.line = line;
    return refusal;
  }

  // Not set: the parameter is absent.
  static Expected Oracle(const Known& known, const Json::Value* value, Role role, const Json::Value& parameters) {
    const std::string name = known.name;
    const std::string check = known.check;
    const bool is_id = name == "guest_id";
    if (!value && is_id) return Refusal(401, BadParameters(parameters));
    if (value) {
      const bool fits = HasType(known.type, *value) && (check != "uuid" || value->asString().size() == 36) &&
                        (check != "text" || !value->asString().empty());
      if (!fits) return Refusal(401, BadParameters(parameters));
    }
    const std::string asked_id = parameters["guest_id"].asString();
    const bool may_all = role == Role::kAdministrator || role == Role::kAdvanced;
    const bool is_granted = role == Role::kGranted && asked_id == kGuest;
    const std::string rights = known.rights;
    const bool is_free = !value || rights == "all" || (rights == "empty" && value->empty());
    if (!may_all && !(is_granted && is_free)) {
      return Refusal(409, "guest: Action on guest[" + asked_id + "] is not allowed from user[eve]");
    }
    if (check == "boot" && value && *value != "iso" && *value != "disk") {
      return Refusal(401, BadParameters("boot_from is invalid", parameters));
    }
    if (check == "usb" && value && (value->asInt64() < 0 || value->asInt64() > 3)) {
      return Refusal(401, "guest: Unknown usb version (" + Text(*value) + ")");
    }
    const bool is_good_list = value && Text(*value) == Text(Parsed(known.valid));
    if (value && known.complaint[0] && !value->empty() && !is_good_list) {
      return Refusal(401, BadParameters(known.complaint, parameters));
    }
    Expected expected;
    if (!value || is_id) return expected;
    if (name.starts_with("vdisks_") && !value->empty()) expected.host = "north";
    if (name == "repo_id" || name == "guest_privilege" || (name == "name" && *value == "web")) return expected;
    expected.members[name] = *value;
    expected.is_renamed = name == "name";
    if (name == "vdisks_add" || name == "vdisks_edit") {
      for (Json::Value& disk : expected.members[name]) {
        disk["vdisk_size"] = Json::Int64{disk["vdisk_size"].asInt64() * 1024};
      }
    }
    return expected;
  }

  void Check(const Json::Value* value, Role role) {
    SetUp();
    Json::Value parameters(Json::objectValue);
    parameters["guest_id"] = kGuest;
    if (value) parameters[GetParam().name] = *value;
    if (!value) parameters.removeMember(GetParam().name);
    SCOPED_TRACE(Text(parameters) + " by " + std::to_string(static_cast<int>(role)));
    const Expected expected = Oracle(GetParam(), value, role, parameters);
    // The id of another guest is fine for an administrator, and that guest is not known.
    const bool is_other_guest = expected.code == 0 && parameters["guest_id"] != kGuest;
    const VEXA::APIResponse response = Set(parameters, role);
    EXPECT_TRUE(role != Role::kAdministrator || Platform().rights_calls == 0);
    if (expected.code != 0) {
      ExpectError(response, expected.code);
      ExpectLines({expected.line});
      ExpectNothingDone();
      return;
    }
    ExpectNullSuccess(response);
    ASSERT_EQ(Platform().guest_sets.size(), 1u);
    EXPECT_EQ(Platform().guest_sets[0].first, parameters["guest_id"].asString());
    EXPECT_EQ(Platform().guest_sets[0].second.size(), parameters["guest_privilege"].size());
    if (is_other_guest)
      return ExpectLines({"guest: Failed to get guest [" + parameters["guest_id"].asString() + "] original name."});
    ExpectNoLine();
    ExpectOrderOf(expected.host, expected.members);
    const std::string user = role == Role::kAdministrator ? "root" : "eve";
    const std::string new_name = parameters["name"].asString();
    ExpectClusterLog({{user, 3,
                       expected.is_renamed
                           ? "The virtual machine [web] has been successfully edited and renamed to [" + new_name + "]."
                           : "The virtual machine [web] has been successfully edited."}});
  }
};

TEST_P(GuestSetParameters, Set_EachValueAndCaller_GivesExpectedReplyRequestAndLog) {
  int edited = 0;
  for (const Role role : kRoles) {
    Check(nullptr, role);
    for (const char* text : kValues) {
      const Json::Value value = Parsed(text);
      Check(&value, role);
      edited += static_cast<int>(Platform().sent.size());
    }
    const Json::Value valid = Parsed(GetParam().valid);
    Check(&valid, role);
    edited += static_cast<int>(Platform().sent.size());
  }
  EXPECT_GT(edited, 1);
}

INSTANTIATE_TEST_SUITE_P(Rows, GuestSetParameters, testing::ValuesIn(kKnown),
                         [](const auto& test) { return std::string(test.param.name); });

using GuestSetWhole = GuestSet;

Json::Value Everything() {
  Json::Value parameters(Json::objectValue);
  for (const Known& known : kKnown) parameters[known.name] = Parsed(known.valid);
  return parameters;
}

TEST_F(GuestSetWhole, Set_AllParameters_AreForwardedUnchanged) {
  for (const Role role : {Role::kAdministrator, Role::kAdvanced}) {
    SetUp();
    const Json::Value parameters = Everything();
    ExpectNullSuccess(Set(parameters, role));
    ExpectNoLine();
    Json::Value members = parameters;
    for (const char* name : {"repo_id", "guest_privilege", "guest_id"}) members.removeMember(name);
    members["vdisks_add"][0]["vdisk_size"] = 20480;
    members["vdisks_add"][1]["vdisk_size"] = 1024;
    members["vdisks_edit"][0]["vdisk_size"] = Json::Int64{2199023254528};
    ExpectOrderOf("north", members);
    EXPECT_EQ(Platform().checked_addresses, (std::vector<std::string>{"02:00:00:00:00:01", "02:00:00:00:00:01"}));
  }
}

TEST_F(GuestSetWhole, Set_AllParametersWithoutRights_IsRefused) {
  for (const Role role : {Role::kGranted, Role::kStranger}) {
    ExpectError(Set(Everything(), role), 409);
    ExpectLines({"guest: Action on guest[" + kGuest + "] is not allowed from user[eve]"});
    ExpectNothingDone();
  }
}

// One after the other is taken away or spoiled; the rest is whole.
TEST_F(GuestSetWhole, Set_AllParametersButOne_AreForwardedWithoutIt) {
  for (const Known& known : kKnown) {
    if (known.name == std::string("guest_id")) continue;
    SCOPED_TRACE(known.name);
    SetUp();
    Json::Value parameters = Everything();
    parameters.removeMember(known.name);
    ExpectNullSuccess(Set(parameters));
    ASSERT_EQ(Platform().sent.size(), 1u);
    EXPECT_FALSE(Platform().sent[0].json.isMember(known.name));
    SetUp();
    parameters[known.name] = Json::Value();
    ExpectRefused(parameters, 401, {BadParameters(parameters)});
  }
}

TEST_F(GuestSetWhole, Set_UnknownMembers_AreIgnored) {
  ExpectEdited(Set(With(R"({"host_id":"x","type":[],"api":"VEXA.Other","method":"delete","version":9,"":1})")));
  ExpectOrder("south", "{}");
}

TEST_F(GuestSetWhole, Set_OnlyId_IsForwardedAlone) {
  ExpectEdited(Set(With("{}")));
  ExpectOrder("south", "{}");
  ExpectNoLine();
  EXPECT_TRUE(Platform().conf_reads.empty()) << "nobody needs the repository's host";
}

TEST_F(GuestSetWhole, Set_GrantedUserWithAllPermittedParameters_IsForwarded) {
  const char* members = R"({"iso_images":["unmounted"],"use_ovmf":true,"vdisks_add":[],"vdisks_del":[],
                            "vdisks_edit":[],"vdisks_order":[]})";
  ExpectEdited(Set(With(members), Role::kGranted), "eve");
  ExpectOrder("south", members);
  EXPECT_TRUE(Platform().conf_reads.empty()) << "empty lists of disks need no repository";
}

TEST_F(GuestSetWhole, Set_EmptyListsOutsideGrant_AreRefused) {
  for (const char* name : {"vnics_add", "vnics_del", "vnics_edit", "guest_privilege", "usbs"}) {
    ExpectError(Set(With(name, Json::Value(Json::arrayValue)), Role::kGranted), 409);
    ExpectNothingDone();
  }
}

TEST_F(GuestSetWhole, Grants_Unreadable_CountAsNone) {
  Platform().available_result = -1;
  ExpectError(Set(With("{}"), Role::kGranted), 409);
  ExpectNothingDone();
}

TEST_F(GuestSetWhole, Set_LevelNotExactlyAdvanced_IsTreatedAsOrdinary) {
  for (const int result : {0, 2, -1}) {
    Platform().advanced_result = result;
    VEXA::APIRequest request = AsUser(With(R"({"desc":""})"));
    VEXA::APIResponse response;
    VexaVirtualization::Guest::Set(&request, &response);
    ExpectError(response, 409);
  }
}

TEST_F(GuestSetWhole, AdvancedUser_WithoutGrant_IsPermitted) {
  ExpectEdited(Set(With(R"({"vcpu_num":3})"), Role::kAdvanced), "eve");
  EXPECT_EQ(Platform().rights_calls, 1);
}

TEST_F(GuestSetWhole, Set_UserGrantedOtherGuest_IsRefused) {
  Platform().available = {kUuid};
  ExpectError(Set(With("{}"), Role::kStranger), 409);
  ExpectNothingDone();
}

}  // namespace
}  // namespace vexa::test
