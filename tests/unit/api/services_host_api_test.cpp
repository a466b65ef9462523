// VEXA.Virtualization.Host "get" and Guest "info". What they ask hosts with is scripted here, so that the test decides
// which host answers.
#include <gmock/gmock.h>

#include "host/api/user/host_api.h"
#include "tests/unit/api/services_fixture.h"
#include "webapi/guest/guest.h"
#include "webapi/utils/utils.h"

namespace {

bool host_answers = true;
std::string asked;

}  // namespace

namespace VexaVirtualization {

bool GetSysInfo(const std::string& host, Json::Value& out) {
  asked = host;
  if (host_answers) out["version"] = "system";
  return host_answers;
}
bool GetSysUtilization(const std::string&, const Json::Value& params, Json::Value& out) {
  if (host_answers) out["asked_for"] = params["resource"];
  return host_answers;
}
int GetHostResourceInfo(bool with_usage, Json::Value& out) {
  if (host_answers) out[asked]["with_usage"] = with_usage;
  return host_answers ? 0 : 403;
}
void GetAllInterfaceInfo(Json::Value& out) {
  for (const char* host : {"another", asked.c_str()}) {
    Json::Value interface;
    interface["host_id"] = host;
    interface["ifname"] = "eth0";
    if (host_answers) out.append(interface);
  }
}
bool Guest::GetInformation(const std::string&, const Json::Value& record, Json::Value& info) {
  info["ip"] = Json::Value(Json::arrayValue);
  info["uptime"] = record["name"].asString();
  info["has_agent"] = false;
  return host_answers;
}

}  // namespace VexaVirtualization

namespace vexa::api {
namespace {

using test::Answer;
constexpr const char* kHost = "11111111-2222-4333-8444-555555555555";  // the test's own
constexpr const char* kGuest = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";

class HostApi : public ::testing::Test {
 protected:
  HostApi() : table_(HostQueryRows()) { host_answers = true; }
  Answer Get(const std::string& parameters) { return CallTable(table_, "VEXA.Virtualization.Host", "get", parameters); }
  test::TestHost host_;
  ApiTable table_;
};

TEST_F(HostApi, Access_IsForAdministratorsAndForUsers) {
  EXPECT_EQ(table_.Find("VEXA.Virtualization.Host", "get", 1)->access.value, Access::kAdministrator);
  EXPECT_EQ(table_.Find("VEXA.Virtualization.Guest", "info", 1)->access.value, Access::kUser);
}

TEST_F(HostApi, HostGet_HostAnswers_ReturnsAllMembers) {
  host_.PutText("host", kHost, R"({"name":"one","state":"host_running","ram_size":7,"secret":1})");
  const Answer answer = Get("{}");
  ASSERT_EQ(answer.code, 0);
  EXPECT_EQ(answer.data, Parsed(std::string(R"({"host_id":")") + kHost +
                                R"(","name":"one","state":"running","placement":true,"age_s":0,"ram_size":7,
      "system":{"version":"system"},"utilization":{"asked_for":["cpu","disk","network"]},
      "resources":{"with_usage":true},"interfaces":[{"host_id":")" +
                                kHost + R"(","ifname":"eth0"}]})"));
}

TEST_F(HostApi, HostGet_HostSilent_ReturnsItsRecord) {
  host_answers = false;
  host_.PutText("host", kHost, R"({"name":"one","state":"host_inaccessible"})");
  const Answer answer = Get(std::string("{\"host_id\":\"") + kHost + "\"}");
  EXPECT_EQ(answer.data,
            Parsed(std::string(R"({"host_id":")") + kHost +
                   R"(","name":"one","state":"inaccessible","placement":true,"age_s":0,"interfaces":[]})"));
}

TEST_F(HostApi, Get_UnknownOrHostileId_IsRefused) {
  EXPECT_EQ(Get("{}").code, 403);
  for (const char* id : {"null", "7", "\"\"", "\"../guest\"", "[]", "{}"}) {
    EXPECT_EQ(Get(std::string("{\"host_id\":") + id + "}").code, 401) << id;
  }
  host_.PutText("host", kHost, "[]");
  EXPECT_EQ(Get("{}").code, 0) << "a record that is not an object has no members";
}

TEST_F(HostApi, GuestInfo_RequiresRightOnGuest) {
  const ApiRow& row = *table_.Find("VEXA.Virtualization.Guest", "info", 1);
  const auto info = [&](const std::string& user, const std::string& parameters) {
    VEXA::APIRequest request = test::UserRequest(Parsed(parameters), user);
    VEXA::APIResponse response;
    const Caller caller;
    row.handler({&request, &response, caller, nullptr});
    return response;
  };
  const std::string named = std::string(R"({"guest_id":")") + kGuest + "\"}";
  host_.PutGuestAdmin("users", host_.AddUser("grace"), "user", {kGuest});
  host_.AddUser("mallory");
  EXPECT_EQ(info("grace", "{}").ErrorCode(), 401);
  EXPECT_EQ(info("grace", R"({"guest_id":"x"})").ErrorCode(), 401);
  EXPECT_EQ(info("mallory", named).ErrorCode(), 409);
  EXPECT_EQ(info("grace", named).ErrorCode(), 403);
  host_.PutText("guest", kGuest, R"({"name":"77"})");
  EXPECT_EQ(info("grace", named).Data(), Parsed(std::string(R"({"guest_id":")") + kGuest +
                                                R"(","answered":true,"ip":[],"uptime":"77","has_agent":false})"));
}

}  // namespace
}  // namespace vexa::api
