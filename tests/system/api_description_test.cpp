// What a host says about its methods at /openapi.json and /, and that it keeps to it.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/support/process.h"
#include "tests/support/require.h"
#include "tests/support/test_daemon.h"

namespace {

namespace json = VexaVirtualization::json;
using vexa::test::ErrorCode;
using vexa::test::HttpClient;
using vexa::test::HttpReply;
using vexa::test::JsonBody;
using vexa::test::kTestGuest;
using vexa::test::RunProcess;
using vexa::test::TestDaemon;

constexpr const char* kPage = "https://ui.example";
const std::string kGuest = "/webapi/VEXA.Virtualization.Guest/";

class ApiDescription : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    daemon_ = new TestDaemon([](vexa::daemon::Config& config) { config.allowed_origins = {kPage}; });
  }
  static void TearDownTestSuite() {
    delete daemon_;
    daemon_ = nullptr;
  }

  static std::string ReasonOf(const HttpReply& reply) {
    return json::StringMember(json::Member(JsonBody(reply), "error"), "reason");
  }
  static Json::Value Paths() { return json::Member(JsonBody(daemon_->Tcp().Get("/openapi.json")), "paths"); }

  static TestDaemon* daemon_;
};

TestDaemon* ApiDescription::daemon_ = nullptr;

TEST_F(ApiDescription, EachMethodForUsers_HasTypedReplyAndExample) {
  const Json::Value paths = Paths();
  int methods = 0;
  for (const std::string& path : json::MemberNames(paths)) {
    const Json::Value& operation = paths[path]["post"];
    if (operation.isNull() || operation["x-vexa-access"] == "host" || path.starts_with("/webapi/VEXA.Test/")) continue;
    ++methods;
    const Json::Value& content = operation["responses"]["200"]["content"]["application/json"];
    EXPECT_TRUE(content["schema"]["properties"]["data"].isMember("$ref")) << path << " has no schema of its reply";
    EXPECT_TRUE(content.isMember("example")) << path;
    EXPECT_EQ(operation["requestBody"]["content"]["application/json"]["schema"]["additionalProperties"], false) << path;
  }
  EXPECT_GT(methods, 60);
}

TEST_F(ApiDescription, ListsAndObjects_OfEveryRequest_HaveTheirElements) {
  const Json::Value paths = Paths();
  for (const std::string& path : json::MemberNames(paths)) {
    const Json::Value& operation = paths[path]["post"];
    if (operation.isNull() || operation["x-vexa-access"] == "host") continue;
    const Json::Value& schema = operation["requestBody"]["content"]["application/json"]["schema"]["properties"];
    for (const std::string& name : json::MemberNames(schema)) {
      const Json::Value& parameter = schema[name];
      if (parameter["type"] == "array") {
        EXPECT_FALSE(parameter["items"].empty()) << path << " " << name;
      }
      if (parameter["type"] == "object") {
        EXPECT_TRUE(parameter.isMember("additionalProperties")) << path << " " << name;
      }
    }
  }
}

TEST_F(ApiDescription, Failures_OfEachStatus_ListTheirCodes) {
  const Json::Value paths = Paths();
  const Json::Value& schema =
      paths[kGuest + "get"]["post"]["responses"]["403"]["content"]["application/json"]["schema"]["allOf"];
  EXPECT_EQ(schema[0]["$ref"], "#/components/schemas/Failure");
  std::vector<int> codes;
  for (const Json::Value& code : schema[1]["properties"]["error"]["properties"]["code"]["enum"]) {
    codes.push_back(code.asInt());
  }
  EXPECT_EQ(codes, (std::vector<int>{104, 105, 409}));
}

TEST_F(ApiDescription, UnknownMember_OfUser_IsRefusedByName) {
  HttpClient client = daemon_->TcpAs("admin");
  const std::string guest = std::string(R"({"guest_id":")") + kTestGuest + R"(",)";
  const std::pair<std::string, std::string> rows[] = {
      {R"("vcpus":8})", "There is no parameter 'vcpus'; did you mean 'vcpu_num'?"},
      {R"("vdisks_add":[{"vdisk_size":1},{"vdisk_sizee":1}]})",
       "There is no parameter 'vdisks_add[1].vdisk_sizee'; did you mean 'vdisks_add[1].vdisk_size'?"}};
  for (const auto& [rest, reason] : rows) {
    const HttpReply reply = client.PostJson(kGuest + "set", guest + rest);
    EXPECT_EQ(ErrorCode(reply), 401) << rest;
    EXPECT_EQ(ReasonOf(reply), reason);
  }
  EXPECT_EQ(ReasonOf(client.PostJson(kGuest + "list", R"({"all":true})")),
            "There is no parameter 'all'. The method has no parameters");
}

// Programs send back what they have got, with changes.
TEST_F(ApiDescription, ElementsOfGet_InListsOfSet_AreAccepted) {
  HttpClient client = daemon_->TcpAs("admin");
  const std::string guest = std::string(R"({"guest_id":")") + kTestGuest + R"(",)";
  const char* const disk =
      R"({"vdisk_id":"8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01","size":"20480","lun_type":"blun","vdisk_mode":1,)"
      R"("is_dummy":false,"unmap":false,"is_meta_disk":false})";
  const HttpReply reply = client.PostJson(kGuest + "set", guest + R"("vdisks_order":[)" + disk + "]}");
  EXPECT_NE(ErrorCode(reply), 401) << reply.body;
}

TEST_F(ApiDescription, ValueOutOfRange_Refused_NamesParameterValueAndRange) {
  HttpClient client = daemon_->TcpAs("admin");
  EXPECT_EQ(ReasonOf(client.PostJson("/webapi/VEXA.Virtualization.Log/list", R"({"limit":1001})")),
            "The parameter 'limit' is not an integer from 1 to 1000: it is 1001");
  EXPECT_EQ(ReasonOf(client.PostJson("/webapi/VEXA.Virtualization.Guest.Action/pwr_ctl",
                                     R"({"guest_id":"8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01","action":"start"})")),
            "The parameter 'action' is not 'poweron', 'shutdown', 'poweroff', 'reboot' or 'poweroff_by_ha': it is "
            "'start'");
}

TEST_F(ApiDescription, EmptyBody_WithAndWithoutContentType_CountsAsNoParameters) {
  HttpClient client = daemon_->TcpAs("admin");
  for (const char* type : {"Content-Type: application/json", "Content-Type:", "Content-Type: text/plain"}) {
    EXPECT_EQ(client.Send("POST", kGuest + "list", {type}, "").status, 200) << type;
  }
  EXPECT_EQ(client.Send("POST", kGuest + "list", {"Content-Type: text/plain"}, "{}").status, 415);
  EXPECT_EQ(client.Send("POST", kGuest + "list", {"Content-Type:", "Transfer-Encoding: chunked"}, "{}").status, 415);
}

TEST_F(ApiDescription, StartPage_PointsToDescription) {
  HttpClient client = daemon_->Tcp();
  const Json::Value body = JsonBody(client.Get("/"));
  EXPECT_EQ(body["description"], "/openapi.json");
  EXPECT_EQ(client.Get(body["description"].asString()).status, 200);
  EXPECT_EQ(client.Get(body["health"].asString()).headers.at("content-type"), "application/json");
  const HttpReply page = client.Send("GET", "/", {"Accept: text/html,application/xhtml+xml;q=0.9"}, "");
  EXPECT_EQ(page.headers.at("content-type"), "text/html; charset=utf-8");
  EXPECT_NE(page.body.find("href=\"/openapi.json\""), std::string::npos);
  EXPECT_EQ(page.body.find("<script"), std::string::npos);
  EXPECT_EQ(page.headers.at("content-security-policy"), "default-src 'none'; frame-ancestors 'none'");
  EXPECT_EQ(client.PostJson("/", "{}").status, 405);
}

TEST_F(ApiDescription, AllowedOrigin_PreflightAndCall_AreShownToThePage) {
  HttpClient client = daemon_->TcpAs("admin");
  const std::string origin = std::string("Origin: ") + kPage;
  const HttpReply preflight =
      client.Send("OPTIONS", kGuest + "list",
                  {origin, "Access-Control-Request-Method: POST", "Access-Control-Request-Headers: authorization"}, "");
  EXPECT_EQ(preflight.status, 204);
  EXPECT_EQ(preflight.headers.at("access-control-allow-origin"), kPage);
  EXPECT_EQ(preflight.headers.at("access-control-allow-methods"), "GET, POST, PUT");
  EXPECT_EQ(preflight.headers.at("access-control-allow-headers"), "Authorization, Content-Range, Content-Type");
  for (const char* body : {"{}", R"({"x":1})", "{"}) {
    const HttpReply reply = client.Send("POST", kGuest + "list", {origin, "Content-Type: application/json"}, body);
    EXPECT_EQ(reply.headers.at("access-control-allow-origin"), kPage) << body;
    EXPECT_EQ(reply.headers.at("vary"), "Origin") << body;
  }
  const HttpReply unknown = client.Send("POST", "/nowhere", {origin, "Content-Type: application/json"}, "{}");
  EXPECT_EQ(unknown.headers.at("access-control-allow-origin"), kPage);
}

// A page can neither read what it may not, nor use the cookie of a user who is logged in.
TEST_F(ApiDescription, OtherOrigins_GetNothing) {
  HttpClient client = daemon_->TcpAs("admin");
  for (const char* origin : {"https://evil.example", "https://ui.example.evil.example", "https://ui.example:8443",
                             "http://ui.example", "https://UI.example", "null", "*", "https://ui.example/"}) {
    const std::string field = std::string("Origin: ") + origin;
    const HttpReply preflight =
        client.Send("OPTIONS", kGuest + "list", {field, "Access-Control-Request-Method: POST"}, "");
    EXPECT_EQ(preflight.status, 405) << origin;
    EXPECT_FALSE(preflight.headers.contains("access-control-allow-origin")) << origin;
    const HttpReply reply = client.Send("POST", kGuest + "list", {field, "Content-Type: application/json"}, "{}");
    EXPECT_FALSE(reply.headers.contains("access-control-allow-origin")) << origin;
  }
}

TEST_F(ApiDescription, AllowedOrigin_CookieWithoutCsrfToken_IsRefused) {
  HttpClient client = daemon_->Tcp();
  const std::string origin = std::string("Origin: ") + kPage;
  const HttpReply login =
      client.Send("POST", "/webapi/VEXA.Core.Session/login", {origin, "Content-Type: application/json"},
                  R"({"user":"admin","password":"correct horse","cookie":true})");
  ASSERT_EQ(login.status, 200);
  EXPECT_FALSE(login.headers.contains("access-control-allow-credentials"));
  const std::string cookie = login.headers.at("set-cookie");
  const HttpReply reply =
      client.Send("POST", kGuest + "list",
                  {origin, "Content-Type: application/json", "Cookie: " + cookie.substr(0, cookie.find(';'))}, "{}");
  EXPECT_EQ(ErrorCode(reply), 105);
  EXPECT_FALSE(reply.headers.contains("access-control-allow-credentials"));
}

TEST(ApiWithoutOrigins, Preflight_IsRefusedAsEver) {
  TestDaemon daemon;
  HttpClient client = daemon.Tcp();
  const HttpReply preflight = client.Send("OPTIONS", kGuest + "list", {std::string("Origin: ") + kPage}, "");
  EXPECT_EQ(preflight.status, 405);
  EXPECT_FALSE(preflight.headers.contains("access-control-allow-origin"));
  EXPECT_FALSE(preflight.headers.contains("vary"));
}

// The reference pages are made by a tool, and compared here so that they cannot become outdated.
TEST_F(ApiDescription, ReferencePages_AreAsTheDescriptionHasIt) {
  const std::string file = daemon_->folder().File("openapi.json");
  std::ofstream(file) << daemon_->Tcp().Get("/openapi.json").body;
  const auto checked =
      RunProcess({.argv = {VEXA_SOURCE_DIR "/tools/make-api-docs", "--check", file, VEXA_SOURCE_DIR "/docs/api"}});
  EXPECT_EQ(checked.exit_code, 0) << checked.output << checked.errors;
}

}  // namespace
