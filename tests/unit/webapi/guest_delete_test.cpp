// Guest::Delete: access, which host is called, and the reply.
#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/guest_action_fixture.h"
#include "webapi/guest/guest.h"

namespace vexa::test {
namespace {

const std::string kGuest = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";
const std::string kGuestPlace = "guest/" + kGuest + "/object";
const std::string kRepositoryPlace = "repository/repo/object";
constexpr char kTooOld[] =
    "Incompatible operation [delete virtual machine]. Please upgrade to a compatible Orla version and try again.";
constexpr char kFallback[] =
    "guest: Failed to send guest delete to host[north], try to delete it on local host[south].";

class GuestDelete : public GuestActions {
 protected:
  void SetUp() override {
    GuestActions::SetUp();
    Platform().local_host_id = "south";
    Platform().records[kGuestPlace] = Parsed(R"({"name":"web","repository_id":"repo","host_id":"east"})");
    Platform().records[kRepositoryPlace] = Parsed(R"({"host_id":"north"})");
    Platform().replies["north"] = Success("null");
    Platform().replies["south"] = Success("null");
  }

  static Json::Value Parameters(const std::string& id = kGuest) {
    Json::Value parameters(Json::objectValue);
    parameters["guest_id"] = id;
    return parameters;
  }
  static VEXA::APIResponse Delete(VEXA::APIRequest request = AsAdministrator(Parameters())) {
    VEXA::APIResponse response;
    VexaVirtualization::Guest::Delete(&request, &response);
    return response;
  }

  // Nothing has been sent, logged for users or revoked.
  static void ExpectNothingDone() {
    EXPECT_TRUE(Platform().sent.empty());
    EXPECT_TRUE(Platform().cluster_log.empty());
    EXPECT_TRUE(Platform().deleted_guests.empty());
  }
};

// The road of a success.

TEST_F(GuestDelete, Delete_RepositoryHostSucceeds_RevokesGrantsAndLogs) {
  ExpectNullSuccess(Delete());
  ExpectCalls({"send north/delete", "guest_delete " + kGuest, "log 3"});
  ExpectClusterLog({{"root", 3, "The virtual machine [web] has been successfully deleted."}});
  ExpectSent("north", R"({"api":"VEXA.CCC.Guest","version":1,"method":"delete","guest_id":")" + kGuest + "\"}");
  ExpectNoLine();
}

TEST_F(GuestDelete, Delete_AdvancedUserWithGrant_IsLoggedUnderTheirName) {
  Platform().advanced_result = 1;
  Platform().available = {kGuest};
  ExpectNullSuccess(Delete(AsUser(Parameters())));
  ExpectCalls({"rights", "rights", "send north/delete", "guest_delete " + kGuest, "log 3"});
  ExpectClusterLog({{"eve", 3, "The virtual machine [web] has been successfully deleted."}});
}

TEST_F(GuestDelete, Delete_GrantsCannotBeRevoked_SucceedsAndLogs) {
  Platform().guest_delete_result = -1;
  ExpectNullSuccess(Delete());
  ExpectClusterLog({{"root", 3, "The virtual machine [web] has been successfully deleted."}});
  ExpectLines({"guest: Failed to delete permission settings of guest[" + kGuest + "]."});
}

TEST_F(GuestDelete, Delete_PositiveGrantResult_IsNotFailure) {
  Platform().guest_delete_result = 1;
  ExpectNullSuccess(Delete());
  ExpectNoLine();
}

TEST_F(GuestDelete, Delete_GuestWithoutName_SucceedsAndIsLogged) {
  Platform().records[kGuestPlace].removeMember("name");
  ExpectNullSuccess(Delete());
  ExpectClusterLog({{"root", 3, "The virtual machine [] has been successfully deleted."}});
}

TEST_F(GuestDelete, Log_NameWithPlaceholders_IsNotExpanded) {
  Platform().records[kGuestPlace]["name"] = "%s%n%d";
  ExpectNullSuccess(Delete());
  ExpectClusterLog({{"root", 3, "The virtual machine [%s%n%d] has been successfully deleted."}});
}

// Who may.

TEST_F(GuestDelete, Delete_OrdinaryUser_IsRefusedBeforeIdCheck) {
  Platform().available = {kGuest};
  for (const std::string& id : {kGuest, std::string("no uuid")}) {
    ExpectError(Delete(AsUser(Parameters(id))), 409);
    ExpectLines({"guest: Action not allowed from user[eve]"});
  }
  ExpectNothingDone();
  EXPECT_TRUE(Platform().reads.empty());
}

TEST_F(GuestDelete, Delete_LevelNotExactlyAdvanced_IsRefused) {
  Platform().available = {kGuest};
  for (const int result : {0, 2, -1}) {
    Platform().advanced_result = result;
    ExpectError(Delete(AsUser(Parameters())), 409);
  }
  ExpectNothingDone();
}

TEST_F(GuestDelete, Delete_AdvancedUserWithBadId_GetsIdErrorFirst) {
  Platform().advanced_result = 1;
  ExpectError(Delete(AsUser(Parameters("short"))), 401);
  ExpectLines({R"(guest: Bad parameters, request: {"guest_id":"short"})"});
  ExpectCalls({"rights"});
}

TEST_F(GuestDelete, Delete_AdvancedUserWithoutGrant_IsRefused) {
  Platform().advanced_result = 1;
  Platform().available = {"another"};
  ExpectError(Delete(AsUser(Parameters())), 409);
  ExpectLines({"guest: Action on guest[" + kGuest + "] is not allowed from user[eve]"});
  ExpectNothingDone();
  EXPECT_TRUE(Platform().reads.empty());
}

class GuestDeleteBadId : public GuestDelete, public testing::WithParamInterface<const char*> {};

TEST_P(GuestDeleteBadId, Administrator_IsRefusedWith401) {
  const Json::Value parameters = Parsed(GetParam());
  ExpectError(Delete(AsAdministrator(parameters)), 401);
  ExpectLines({"guest: Bad parameters, request: " + Text(parameters)});
  ExpectNothingDone();
  EXPECT_TRUE(Platform().reads.empty());
}

INSTANTIATE_TEST_SUITE_P(Values, GuestDeleteBadId,
                         testing::Values("{}", R"({"guest_id":""})", R"({"guest_id":null})", R"({"guest_id":5})",
                                         R"({"guest_id":["a"]})", R"({"guest_id":{}})", R"({"guest_id":"%s%n"})"));

// Records.

struct Unreadable {
  const char* name;
  const char* guest;       // null: missing
  const char* repository;  // null: missing
};
std::ostream& operator<<(std::ostream& out, const Unreadable& row) { return out << row.name; }

class GuestDeleteUnreadable : public GuestDelete, public testing::WithParamInterface<Unreadable> {};

TEST_P(GuestDeleteUnreadable, Request_IsRefusedWith403AndNoLine) {
  Platform().records.clear();
  if (GetParam().guest) Platform().records[kGuestPlace] = Parsed(GetParam().guest);
  if (GetParam().repository) Platform().records[kRepositoryPlace] = Parsed(GetParam().repository);
  ExpectError(Delete(), 403);
  ExpectNoLine();
  ExpectNothingDone();
}

INSTANTIATE_TEST_SUITE_P(Rows, GuestDeleteUnreadable,
                         testing::Values(Unreadable{"NoGuest", nullptr, R"({"host_id":"north"})"},
                                         Unreadable{"NoRepositoryId", R"({"name":"web"})", R"({"host_id":"north"})"},
                                         Unreadable{"NullRepositoryId", R"({"repository_id":null})", "{}"},
                                         Unreadable{"ListAsRepositoryId", R"({"repository_id":["repo"]})", "{}"},
                                         Unreadable{"GuestIsAList", R"(["repository_id"])", R"({"host_id":"north"})"},
                                         Unreadable{"GuestIsAText", R"("web")", R"({"host_id":"north"})"},
                                         Unreadable{"NoRepository", R"({"repository_id":"repo"})", nullptr}),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(GuestDelete, Delete_GuestWithoutRepositoryId_ReadsNothingMore) {
  Platform().records[kGuestPlace].removeMember("repository_id");
  ExpectError(Delete(), 403);
  EXPECT_EQ(Platform().reads, std::vector<std::string>{kGuestPlace});
}

TEST_F(GuestDelete, Delete_RecordsUnreadable_Is403WithoutLogLine) {
  for (const std::string& place : {kGuestPlace, kRepositoryPlace}) {
    for (const int result : {-1, 1, 2}) {
      Platform().read_results = {{place, result}};
      ExpectError(Delete(), 403);
      ExpectNoLine();
      ExpectNothingDone();
    }
  }
}

// Hosts that fail.

TEST_F(GuestDelete, Delete_RepositoryHostTooOld_IsRefusedWithoutFallback) {
  Platform().replies["north"] = Failure(507);
  ExpectError(Delete(), 407);
  ExpectCalls({"send north/delete", "log 1"});
  ExpectClusterLog({{"root", 1, kTooOld}});
  ExpectLines({BadResponse("guest", 0, Failure(507))});
}

TEST_F(GuestDelete, Delete_RepositoryHostFails_LocalHostDeletes) {
  Platform().replies["north"] = Failure(900);
  ExpectNullSuccess(Delete());
  ExpectCalls({"send north/delete", "send south/delete", "guest_delete " + kGuest, "log 3"});
  ExpectClusterLog({{"root", 3, "The virtual machine [web] has been successfully deleted."}});
  ASSERT_EQ(Platform().sent.size(), 2u);
  EXPECT_EQ(Text(Platform().sent[0].json), Text(Platform().sent[1].json));
  EXPECT_EQ(Platform().sent[1].timeout_s, 0);
  ExpectLines({BadResponse("guest", 0, Failure(900)), kFallback});
}

TEST_F(GuestDelete, Delete_BothHostsFail_Is901AndKeepsGrants) {
  Platform().replies["north"] = Failure(900);
  Platform().replies["south"] = Failure(902);
  ExpectError(Delete(), 901);
  ExpectCalls({"send north/delete", "send south/delete", "log 1"});
  ExpectClusterLog({{"root", 1, "Failed to delete the virtual machine [web]."}});
  ExpectLines({BadResponse("guest", 0, Failure(900)), kFallback, BadResponse("guest", 1, Failure(902))});
}

TEST_F(GuestDelete, Delete_FallbackHostTooOld_Is407) {
  Platform().replies["north"] = Failure(102);
  Platform().replies["south"] = Failure(507);
  ExpectError(Delete(), 407);
  ExpectCalls({"send north/delete", "send south/delete", "log 1"});
  ExpectClusterLog({{"root", 1, kTooOld}});
  ExpectLines({BadResponse("guest", 0, Failure(102)), kFallback, BadResponse("guest", 1, Failure(507))});
}

TEST_F(GuestDelete, Delete_LocalRepositoryHostFails_IsNotRetried) {
  Platform().records[kRepositoryPlace]["host_id"] = "south";
  Platform().replies["south"] = Failure(900);
  ExpectError(Delete(), 901);
  ExpectCalls({"send south/delete", "log 1"});
  ExpectClusterLog({{"root", 1, "Failed to delete the virtual machine [web]."}});
  ExpectLines({BadResponse("guest", 0, Failure(900))});
}

TEST_F(GuestDelete, Delete_LocalRepositoryHostTooOld_Is407) {
  Platform().records[kRepositoryPlace]["host_id"] = "south";
  Platform().replies["south"] = Failure(507);
  ExpectError(Delete(), 407);
  ExpectCalls({"send south/delete", "log 1"});
}

TEST_F(GuestDelete, Delete_RepositoryWithoutHost_IsDoneByLocalHost) {
  Platform().records[kRepositoryPlace] = Parsed("{}");
  ExpectNullSuccess(Delete());
  ExpectCalls({"send /delete", "send south/delete", "guest_delete " + kGuest, "log 3"});
}

// Hostile values.

TEST_F(GuestDelete, Delete_MutatedRecordsAndReplies_NeverThrowAndSetOneResult) {
  Json::Value tree(Json::objectValue);
  tree["parameters"] = Parameters();
  tree["guest"] = Platform().records[kGuestPlace];
  tree["repository"] = Platform().records[kRepositoryPlace];
  tree["north"] = Failure(507);
  tree["south"] = Success("null");
  ForEachMutation(tree, [&] {
    if (!tree.isObject()) return;
    Platform().calls.clear();
    Platform().sent.clear();
    Platform().records[kGuestPlace] = tree.get("guest", Json::Value());
    Platform().records[kRepositoryPlace] = tree.get("repository", Json::Value());
    Platform().replies["north"] = tree.get("north", Json::Value());
    Platform().replies["south"] = tree.get("south", Json::Value());
    EXPECT_TRUE(Delete(AsAdministrator(tree.get("parameters", Json::Value()))).IsSet());
    EXPECT_LE(Platform().sent.size(), 2u);
  });
}

}  // namespace
}  // namespace vexa::test
