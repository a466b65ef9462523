// Guest::Set: what is returned and logged for each reply of the host.
#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/guest_set_fixture.h"

namespace vexa::test {
namespace {

struct HostCode {
  int code;
  int answer;
  const char* line;
};

constexpr HostCode kCodes[] = {
    {932, 930, "Failed to edit the virtual machine [web] due to iso images update failure."},
    {903, 919, "Failed to edit the virtual machine [web] due to network configuration error."},
    {410, 411,
     "Failed to add disks in the virtual machine [web] due to the number of iSCSI LUN has reached the system limit."},
    {507, 407,
     "Incompatible operation [edit virtual machine]. Please upgrade to a compatible Orla version and try again."},
    {904, 920, "Failed to edit the virtual machine [web] because the virtual disk cannot be edited."},
    {924, 926,
     "Failed to online delete virtual disk in the virtual machine [web] because the virtual machine's version is too "
     "old."},
    {944, 946,
     "Failed to edit the virtual machine [web] because the virtual disk cannot be edited while the virtual machine is "
     "suspended."},
    {936, 935, "Failed to do usb passthrough in the virtual machine [web]."},
    {938, 937, "Failed to do usb passthrough in the virtual machine [web]."},
    {0, 909, "Failed to edit the virtual machine [web] due to internal read/write error."},
    {-1, 909, "Failed to edit the virtual machine [web] due to internal read/write error."},
    {102, 909, "Failed to edit the virtual machine [web] due to internal read/write error."},
    {401, 909, "Failed to edit the virtual machine [web] due to internal read/write error."},
    {403, 909, "Failed to edit the virtual machine [web] due to internal read/write error."},
    {909, 909, "Failed to edit the virtual machine [web] due to internal read/write error."},
    {910, 909, "Failed to edit the virtual machine [web] due to internal read/write error."},
    {935, 909, "Failed to edit the virtual machine [web] due to internal read/write error."},
    {937, 909, "Failed to edit the virtual machine [web] due to internal read/write error."},
    {1600, 909, "Failed to edit the virtual machine [web] due to internal read/write error."},
    {2147483647, 909, "Failed to edit the virtual machine [web] due to internal read/write error."},
};

class GuestSetReport : public GuestSet {
 protected:
  static Json::Value HostFails(int code, const std::string& message = "null") {
    Json::Value reply = Failure(code);
    if (message != "null") reply["error"]["message"] = Parsed(message);
    Platform().replies["south"] = reply;
    return reply;
  }
  // The host was asked once, and rights were left alone.
  static void ExpectOnlySent() {
    EXPECT_EQ(Platform().sent.size(), 1u);
    EXPECT_TRUE(Platform().guest_sets.empty());
  }
};

class GuestSetHostCodes : public GuestSetReport, public testing::WithParamInterface<HostCode> {};

TEST_P(GuestSetHostCodes, Set_HostError_IsReturnedAndLogged) {
  for (const Role role : {Role::kAdministrator, Role::kGranted}) {
    for (const char* message : {"null", "\"why\"", R"({"pin_reserved":false,"h1":1})", "[]"}) {
      SetUp();
      const Json::Value reply = HostFails(GetParam().code, message);
      ExpectError(Set(With(R"({"use_ovmf":true})"), role), GetParam().answer);
      ExpectLines({BadResponse("guest", 0, reply)});
      ExpectClusterLog({{role == Role::kAdministrator ? "root" : "eve", 1, GetParam().line}});
      ExpectOnlySent();
    }
  }
}

TEST_P(GuestSetHostCodes, Set_WithoutPreviousName_LogsDash) {
  Platform().names.clear();
  HostFails(GetParam().code);
  ExpectError(Set(With(R"({"name":"shop"})")), GetParam().answer);
  std::string line = GetParam().line;
  const std::size_t name = line.find("[web]");
  EXPECT_EQ(name == std::string::npos, GetParam().code == 507) << "that line names no guest";
  if (name != std::string::npos) line.replace(name, 5, "[-]");
  ExpectClusterLog({{"root", 1, line}});
}

INSTANTIATE_TEST_SUITE_P(Codes, GuestSetHostCodes, testing::ValuesIn(kCodes), [](const auto& test) {
  return test.param.code < 0 ? std::string("negative") : std::to_string(test.param.code);
});

TEST_F(GuestSetReport, Set_NewNameRefused_LogsPreviousName) {
  HostFails(932);
  ExpectError(Set(With(R"({"name":"shop"})")), 930);
  ExpectClusterLog({{"root", 1, "Failed to edit the virtual machine [web] due to iso images update failure."}});
}

// Reservations that failed after the edit.

TEST_F(GuestSetReport, Set_HostsReserveNothing_AreNamedAndRightsUnchanged) {
  Platform().names["host/h1"] = "one";
  Platform().names["host/h3"] = "%s three";
  const Json::Value reply = HostFails(1503, R"({"h3":{},"h2":true,"h1":null})");
  const VEXA::APIResponse response = Set(With(R"({"guest_privilege":[{"uid":7}],"name":"shop"})"));
  EXPECT_EQ(response.ErrorCode(), 1600);
  EXPECT_EQ(Text(response.Data()), R"({"host_names":"one, unknown, %s three"})");
  ExpectLines({BadResponse("guest", 0, reply)});
  ExpectClusterLog({{"root", 1,
                     "The virtual machine [web] has been successfully edited but failed to perform memory or CPU "
                     "reservation on the host [one, unknown, %s three]."}});
  ExpectOnlySent();
}

TEST_F(GuestSetReport, Set_OneHostReservesNothing_IsNamedAlone) {
  Platform().names["host/h1"] = "one";
  HostFails(1503, R"({"h1":false})");
  EXPECT_EQ(Text(Set(With("{}")).Data()), R"({"host_names":"one"})");
}

TEST_F(GuestSetReport, Set_ReservationFailsWithoutHosts_NamesNone) {
  for (const char* message : {"null", "{}", "\"h1\"", "[\"h1\"]", "5"}) {
    SetUp();
    HostFails(1503, message);
    const VEXA::APIResponse response = Set(With("{}"));
    EXPECT_EQ(response.ErrorCode(), 1600) << message;
    EXPECT_EQ(Text(response.Data()), R"({"host_names":""})");
    ExpectClusterLog({{"root", 1,
                       "The virtual machine [web] has been successfully edited but failed to perform memory or CPU "
                       "reservation on the host []."}});
  }
}

// Parts that could not be reserved.

struct Parts {
  const char* name;
  const char* message;
  int answer;  // 0: none
  bool is_told;
};

std::ostream& operator<<(std::ostream& out, const Parts& row) { return out << row.name; }

constexpr Parts kParts[] = {
    {"PinAlone", R"({"pin_reserved":false})", 943, true},
    {"PinAndAGoodOne", R"({"pin_reserved":false,"x":true})", 943, true},
    {"OtherAlone", R"({"a":false})", 413, false},
    {"OtherAndAGoodPin", R"({"a":false,"pin_reserved":true})", 413, false},
    {"OtherBeforePin", R"({"a":false,"pin_reserved":false})", 943, true},
    {"OtherBehindPin", R"({"pin_reserved":false,"x":false})", 413, true},
    {"OthersAround", R"({"a":false,"pin_reserved":false,"x":true})", 943, true},
    {"NamesNearThePins", R"({"pin_reserve":false,"pin_reserved ":false,"Pin_reserved":false})", 413, false},
    {"AllTrue", R"({"a":true,"pin_reserved":true})", 0, false},
    {"None", "{}", 0, false},
    {"NoObject", "\"pin_reserved\"", 0, false},
    {"Array", "[false]", 0, false},
    {"Missing", "null", 0, false},
    {"PinIsNull", R"({"pin_reserved":null})", 943, true},
    {"PinIsText", R"({"pin_reserved":"true"})", 943, true},
    {"PinIsZero", R"({"pin_reserved":0})", 943, true},
    {"PinIsOne", R"({"pin_reserved":1})", 0, false},
    {"OtherIsAList", R"({"a":[1]})", 413, false},
};

class GuestSetParts : public GuestSetReport, public testing::WithParamInterface<Parts> {};

TEST_P(GuestSetParts, Set_PartsNotReserved_LastOneDeterminesCode) {
  const Json::Value reply = HostFails(2101, GetParam().message);
  const VEXA::APIResponse response = Set(With("{}"));
  EXPECT_EQ(response.IsSet(), GetParam().answer != 0);
  EXPECT_FALSE(response.IsSuccess());
  EXPECT_EQ(response.ErrorCode(), GetParam().answer);
  EXPECT_TRUE(response.Data().isNull());
  ExpectLines({BadResponse("guest", 0, reply)});
  if (GetParam().is_told) {
    ExpectClusterLog(
        {{"root", 1, "Failed to edit the virtual machine [web] due to failure when reserving cpu threads."}});
  } else {
    ExpectClusterLog({});
  }
  ExpectOnlySent();
}

INSTANTIATE_TEST_SUITE_P(Rows, GuestSetParts, testing::ValuesIn(kParts),
                         [](const auto& test) { return std::string(test.param.name); });

// Whatever a host replies, there is at most one line, and rights are set after a success only.
TEST_F(GuestSetReport, Set_AnyReply_LogsAtMostOnceAndSetsRightsOnlyOnSuccess) {
  for (const int code : {1503, 2101, 932}) {
    Json::Value reply = Failure(code);
    reply["error"]["message"] = Parsed(R"({"pin_reserved":false,"h1":true})");
    reply["data"] = Json::Value();
    ForEachMutation(reply, [&] {
      SetUp();
      Platform().replies["south"] = reply;
      const VEXA::APIResponse response = Set(With("{}"));
      EXPECT_LE(Platform().cluster_log.size(), 1u);
      EXPECT_EQ(Platform().guest_sets.size(), response.IsSuccess() ? 1u : 0u);
    });
  }
}

TEST_F(GuestSetReport, Set_DataOfSuccessfulReply_IsNotReturned) {
  Platform().replies["south"] = Success(R"({"a":1})");
  ExpectEdited(Set(With("{}")));
}

}  // namespace
}  // namespace vexa::test
