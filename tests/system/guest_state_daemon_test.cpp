// The states of guests, as a running daemon shows them to its users.

#include <chrono>
#include <thread>

#include "host/records/environment.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/matchers.h"
#include "tests/support/test_daemon.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::test {
namespace {

namespace states = VexaCCC::State;

constexpr const char* kList = "/webapi/VEXA.Virtualization.Guest/list";
constexpr const char* kStatus = "/webapi/VEXA.Virtualization.Guest/status";
constexpr const char* kOther = "9d2c7a41-5b68-4e0f-a3d7-1c84e6f0b9a2";  // a guest that only administrators may use
constexpr const char* kRepository = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";
constexpr const char* kGroup = "77f0c1de-04b9-4c35-8a6e-2d91b3e5f808";

void Put(const std::string& category, const std::string& id, const Json::Value& record) {
  const store::Transaction transaction{{}, {{store::MakeKey({"dash", category, id, "object"}), json::ToText(record)}}};
  ASSERT_TRUE(records::CurrentEnvironment()->store->Commit(transaction).ok());
}

void PutGuest(const std::string& id, const std::string& state, Json::Value record = Json::Value(Json::objectValue)) {
  record["name"] = "name of " + id.substr(0, 2);
  record["state"] = state;
  record["repository_id"] = kRepository;
  Put("guest", id, record);
}

void PutRepository(const std::string& state) {
  Json::Value record(Json::objectValue);
  record["state"] = state;
  Put("repository", kRepository, record);
}

std::vector<std::string> Listed(HttpClient client) {
  std::vector<std::string> ids;
  const Json::Value reply = JsonBody(client.PostJson(kList, "{}"));
  for (const Json::Value& guest : reply["data"]["guests"]) {
    ids.push_back(guest["guest_id"].asString());
  }
  return ids;
}

// What the list shows of a guest: "<state> <severity>".
std::string Shown(HttpClient& client, const std::string& id) {
  const Json::Value reply = JsonBody(client.PostJson(kList, "{}"));
  for (const Json::Value& guest : reply["data"]["guests"]) {
    if (guest["guest_id"] == id) return guest["status"].asString() + " " + guest["status_type"].asString();
  }
  return "not listed";
}

Json::Value StatusOf(HttpClient client, const std::string& id) {
  return JsonBody(client.PostJson(kStatus, "{\"guest_id\":\"" + id + "\"}"))["data"];
}

TEST(GuestStates, List_Caller_SeesOnlyPermittedGuests) {
  TestDaemon daemon;
  PutGuest(kOther, states::Guest::running);
  EXPECT_THAT(Listed(daemon.TcpAs("admin")), UnorderedElementsAre(kTestGuest, kOther));
  EXPECT_THAT(Listed(daemon.TcpAs("grace")), UnorderedElementsAre(kTestGuest));
  EXPECT_THAT(Listed(daemon.TcpAs("carol")), UnorderedElementsAre(kTestGuest));
  EXPECT_THAT(Listed(daemon.TcpAs("mallory")), testing::IsEmpty());
  EXPECT_EQ(ErrorCode(daemon.Tcp().PostJson(kList, "{}")), 103);
}

TEST(GuestStates, List_AfterChange_ShowsIt) {
  TestDaemon daemon;
  PutGuest(kOther, states::Guest::running);
  HttpClient admin = daemon.TcpAs("admin");
  for (int round = 0; round < 5; ++round) {
    PutRepository(states::Repo::crashed);
    EXPECT_EQ(Shown(admin, kOther), "crashed error") << "its repository has crashed";
    PutRepository(states::Repo::online);
    EXPECT_THAT(Shown(admin, kOther), testing::AnyOf("running warning", "running healthy"));
    PutGuest(kOther, states::Guest::shutdown);
    EXPECT_EQ(Shown(admin, kOther), "shutdown healthy");
    PutGuest(kOther, states::Guest::running);
  }
}

TEST(GuestStates, List_NewGuest_HasItsState) {
  TestDaemon daemon;
  HttpClient admin = daemon.TcpAs("admin");
  EXPECT_EQ(Shown(admin, kOther), "not listed");
  PutGuest(kOther, states::Guest::booting);
  // A warning when it has been found out in the meantime that nothing links it.
  EXPECT_THAT(Shown(admin, kOther), testing::AnyOf("booting healthy", "booting warning"));
}

TEST(GuestStates, Status_ContainsReason) {
  TestDaemon daemon;
  PutRepository(states::Repo::online);
  Json::Value record(Json::objectValue);
  record["shutdownreasonvalue"] = 12;
  PutGuest(kOther, states::Guest::shutdown, record);
  EXPECT_EQ(json::ToText(StatusOf(daemon.TcpAs("admin"), kOther)),
            R"({"age_s":0,"disks":[],"guest_id":"9d2c7a41-5b68-4e0f-a3d7-1c84e6f0b9a2","guest_name":"name of 9d",)"
            R"("host_id":"",)"
            R"("status":"shutdown","status_reason":"booting_failed_no_resource","status_type":"error"})");
}

TEST(GuestStates, Status_RunningWithoutLinks_IsWarning) {
  TestDaemon daemon;
  PutRepository(states::Repo::online);
  PutGuest(kOther, states::Guest::running);
  EXPECT_EQ(StatusOf(daemon.TcpAs("admin"), kOther)["status_type"], "healthy") << "it has no interface";
  Json::Value record(Json::objectValue);
  record["vnics"].append("nic-without-a-link");
  PutGuest(kOther, states::Guest::running, record);
  const Json::Value status = StatusOf(daemon.TcpAs("admin"), kOther);
  EXPECT_EQ(status["status"], "running");
  EXPECT_EQ(status["status_type"], "warning");
  EXPECT_EQ(status["status_reason"], "network_unconnectable");
}

void PutRun(const records::Run& run) {
  const store::Transaction transaction{{}, {{records::RunKey(kOther), records::SerializeRun(run)}}};
  ASSERT_TRUE(records::CurrentEnvironment()->store->Commit(transaction).ok());
}

TEST(GuestStates, Status_InterfaceWithoutPreferredFunction_HasNote) {
  constexpr const char* kNic = "d1b2c3d4-0000-4000-8000-000000000011";
  constexpr const char* kPlainNic = "d1b2c3d4-0000-4000-8000-000000000012";
  TestDaemon daemon;
  PutRepository(states::Repo::online);
  Json::Value nic(Json::objectValue);
  nic["network_name"] = "br0";
  Put("vnic", kPlainNic, nic);
  nic["prefer_sriov"] = true;
  Put("vnic", kNic, nic);
  Json::Value record(Json::objectValue);
  record["vnics"].append(kNic);
  record["vnics"].append(kPlainNic);
  PutGuest(kOther, states::Guest::running, record);
  const auto notes = [&] { return json::ToText(StatusOf(daemon.TcpAs("admin"), kOther)["notes"]); };
  EXPECT_EQ(notes(), "null") << "it does not run";
  records::Run run;
  run.host_id = "host";
  PutRun(run);
  EXPECT_EQ(notes(), R"(["The network interface d1b2c3d4-0000-4000-8000-000000000011 prefers a virtual function )"
                     R"(('prefer_sriov') and runs without one"])");
  run.virtual_functions[kNic] = {"0000:03:10.1", ""};
  PutRun(run);
  EXPECT_EQ(notes(), "null") << "it has one";
  run.virtual_functions.clear();
  run.starting = true;
  PutRun(run);
  EXPECT_EQ(notes(), "null") << "which functions it gets is not known yet";
  run.starting = false;
  run.saved = true;
  PutRun(run);
  EXPECT_EQ(notes(), "null") << "it does not run";
}

TEST(GuestStates, Status_NoRightRecordOrId_IsRefused) {
  TestDaemon daemon;
  PutGuest(kOther, states::Guest::running);
  const std::string ask = std::string("{\"guest_id\":\"") + kOther + "\"}";
  EXPECT_EQ(ErrorCode(daemon.TcpAs("grace").PostJson(kStatus, ask)), 409);
  EXPECT_EQ(ErrorCode(daemon.TcpAs("adam").PostJson(kStatus, ask)), 409);
  EXPECT_EQ(ErrorCode(daemon.TcpAs("admin").PostJson(kStatus, ask)), 0);
  EXPECT_EQ(ErrorCode(daemon.TcpAs("admin").PostJson(kStatus, R"({"guest_id":"../host"})")), 401);
  EXPECT_EQ(ErrorCode(daemon.TcpAs("admin").PostJson(kStatus, "{}")), 401);
  EXPECT_EQ(
      ErrorCode(daemon.TcpAs("admin").PostJson(kStatus, R"({"guest_id":"00000000-0000-4000-8000-000000000000"})")),
      403);
}

TEST(GuestStates, Status_ProtectedGuest_EvaluatesHostsOfItsGroup) {
  TestDaemon daemon;
  PutRepository(states::Repo::online);
  Json::Value record(Json::objectValue);
  record["ha_group_id"] = kGroup;
  PutGuest(kOther, states::Guest::shutdown, record);
  Json::Value host(Json::objectValue);
  host["name"] = "second";
  host["state"] = states::Host::running;
  Put("host", "h2", host);
  Json::Value group(Json::objectValue);
  group["state"] = states::HAGroup::normal;
  group["fail_reason"] = 0;
  group["warn"]["ha_warn_host_short_ram"]["h2"] = true;
  Json::Value& member = group["hosts"].append(Json::Value());
  member["host_id"] = "h2";
  member["ha_host_role"].append("running_host");
  Put("ha_group", kGroup, group);
  const Json::Value ha = StatusOf(daemon.TcpAs("admin"), kOther)["ha"];
  EXPECT_EQ(json::ToText(ha),
            R"({"hosts":[{"ha_host_role":["running_host"],"ha_host_status":"host_running",)"
            R"("ha_host_status_detail":["ha_warn_host_short_ram"],"ha_host_status_type":"warning","host_id":"h2",)"
            R"("host_name":"second"}],"status":"warning","status_reason":"ha_warn_host_short_ram",)"
            R"("status_type":"warning"})");
}

}  // namespace
}  // namespace vexa::test
