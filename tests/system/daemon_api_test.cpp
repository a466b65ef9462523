// The daemon over real sockets: access to each method, and the reply to each kind of request.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <thread>

#include "host/cluster/account_store.h"
#include "json/readers.h"
#include "tests/support/process.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_daemon.h"

namespace {

namespace json = VexaVirtualization::json;
using vexa::test::ErrorCode;
using vexa::test::HttpClient;
using vexa::test::HttpReply;
using vexa::test::JsonBody;
using vexa::test::kTestGuest;
using vexa::test::kTestPassword;
using vexa::test::TestDaemon;

const std::string kGetPath = "/webapi/VEXA.Virtualization.Guest/get";
const std::string kSetPath = "/webapi/VEXA.Virtualization.Guest/set";
const std::string kDeletePath = "/webapi/VEXA.Virtualization.Guest/delete";
const std::string kPowerPath = "/webapi/VEXA.Virtualization.Guest.Action/pwr_ctl";
const std::string kLogPath = "/webapi/VEXA.Virtualization.Log/list";
const std::string kLoginPath = "/webapi/VEXA.Core.Session/login";
const std::string kGetBody = std::string("{\"guest_id\":\"") + kTestGuest + "\"}";

std::string LoginBody(const std::string& user, const std::string& password) {
  return "{\"user\":\"" + user + "\",\"password\":\"" + password + "\"}";
}

class DaemonApi : public testing::Test {
 protected:
  static void SetUpTestSuite() { daemon_ = new TestDaemon; }
  static void TearDownTestSuite() {
    delete daemon_;
    daemon_ = nullptr;
  }
  void SetUp() override { vexa::test::ClearCapturedSyslog(); }
  static std::vector<std::thread> Stall(int calls, const std::string& token);
  static TestDaemon* daemon_;
};

TestDaemon* DaemonApi::daemon_ = nullptr;

// The permission matrix. Its rows are the table's own methods, read from the API description; its columns the roles.

struct Role {
  const char* name;
  bool administrator;
  bool may_get;
};

constexpr Role kRoles[] = {
    {"admin", true, true},  {"adam", false, false},    {"grace", false, true},
    {"carol", false, true}, {"mallory", false, false}, {"nobody", false, false},
};

// What a call without parameters must answer; -2: anything but "not logged in" and "denied".
int ExpectedRefusal(const std::string& access, const Role& role) {
  if (access == "anyone") return -2;
  if (role.name == std::string("nobody")) return 103;
  if (access == "host") return 104;
  return access == "admin" && !role.administrator ? 104 : -2;
}

std::map<std::string, std::string> AccessByPath(HttpClient client) {
  std::map<std::string, std::string> result;
  const Json::Value document = JsonBody(client.Get("/openapi.json"));
  const Json::Value& paths = json::Member(document, "paths");
  for (const std::string& path : json::MemberNames(paths)) {
    if (!path.starts_with("/webapi/")) continue;
    result[path] = json::String(json::Member(json::Member(json::Member(paths, path), "post"), "x-vexa-access"));
  }
  return result;
}

void CheckRole(HttpClient client, const Role& role, const std::map<std::string, std::string>& access_by_path) {
  for (const auto& [path, access] : access_by_path) {
    // These two would wait, or end the session that the rest needs.
    if (path.ends_with("/stall") || path.ends_with("/logout")) continue;
    const int code = ErrorCode(client.PostJson(path, "{}"));
    const int expected = ExpectedRefusal(access, role);
    if (expected == -2) {
      EXPECT_TRUE(code != 103 && code != 104) << role.name << " " << path << " " << code;
    } else {
      EXPECT_EQ(code, expected) << role.name << " " << path;
    }
  }
  const int get = ErrorCode(client.PostJson(kGetPath, kGetBody));
  EXPECT_EQ(get, role.name == std::string("nobody") ? 103 : role.may_get ? 0 : 409) << role.name;
}

TEST_F(DaemonApi, PermissionMatrix_OverHttp_IsAsDocumented) {
  const auto access_by_path = AccessByPath(daemon_->Tcp());
  ASSERT_GE(access_by_path.size(), 11u);
  for (const std::string& path : {kGetPath, kSetPath, kDeletePath, kPowerPath, kLogPath}) {
    EXPECT_TRUE(access_by_path.contains(path)) << path;
  }
  for (const Role& role : kRoles) {
    SCOPED_TRACE(role.name);
    CheckRole(role.name == std::string("nobody") ? daemon_->Tcp() : daemon_->TcpAs(role.name), role, access_by_path);
  }
}

// Methods that check rights themselves. The guest has no host and its repository is unknown, so that permitted calls
// end with 403 or 932: no host could be chosen.
TEST_F(DaemonApi, PermissionMatrix_PowerDeletionAndLog_IsAsDocumented) {
  struct Row {
    const char* role;
    int power;
    int deletion;
    int log;
  };
  constexpr Row kRows[] = {{"admin", 932, 403, 0},   {"adam", 409, 409, 0},      {"grace", 932, 409, 409},
                           {"carol", 932, 409, 409}, {"mallory", 409, 409, 409}, {"nobody", 103, 103, 103}};
  const std::string power = std::string("{\"action\":\"shutdown\",\"guest_id\":\"") + kTestGuest + "\"}";
  for (const Row& row : kRows) {
    HttpClient client = row.role == std::string("nobody") ? daemon_->Tcp() : daemon_->TcpAs(row.role);
    EXPECT_EQ(ErrorCode(client.PostJson(kPowerPath, power)), row.power) << row.role;
    EXPECT_EQ(ErrorCode(client.PostJson(kDeletePath, kGetBody)), row.deletion) << row.role;
    EXPECT_EQ(ErrorCode(client.PostJson(kLogPath, "{}")), row.log) << row.role;
  }
}

// What the host answers to those who may is not looked at here: anything but a refusal of the caller or of the form.
TEST_F(DaemonApi, PermissionMatrix_Editing_IsAsDocumented) {
  constexpr int kDone = -1;
  struct Row {
    const char* role;
    int everything;
    int firmware;
  };
  constexpr Row kRows[] = {{"admin", kDone, kDone}, {"adam", kDone, kDone}, {"grace", 409, kDone},
                           {"carol", 409, kDone},   {"mallory", 409, 409},  {"nobody", 103, 103}};
  const std::string with_id = std::string("{\"guest_id\":\"") + kTestGuest + "\",";
  const auto expect = [](int code, int expected, const std::string& what) {
    if (expected == kDone) {
      EXPECT_TRUE(code != 401 && code != 409 && code >= 0 && (code == 0 || code > 118)) << what << " " << code;
    } else {
      EXPECT_EQ(code, expected) << what;
    }
  };
  for (const Row& row : kRows) {
    HttpClient client = row.role == std::string("nobody") ? daemon_->Tcp() : daemon_->TcpAs(row.role);
    expect(ErrorCode(client.PostJson(kSetPath, with_id + "\"desc\":\"\"}")), row.everything, row.role);
    expect(ErrorCode(client.PostJson(kSetPath, with_id + "\"use_ovmf\":false}")), row.firmware, row.role);
    expect(ErrorCode(client.PostJson(kSetPath, with_id + "\"use_ovmf\":null}")), row.everything == 103 ? 103 : 401,
           row.role);
    expect(ErrorCode(client.PostJson(kSetPath, with_id + "\"guest_privilege\":[]}")), row.everything, row.role);
  }
}

TEST_F(DaemonApi, PermissionMatrix_Accounts_IsAsDocumented) {
  struct Row {
    const char* role;
    int list;
    int password_of_another;
    int grant;
  };
  constexpr Row kRows[] = {{"admin", 0, 980, 980},   {"adam", 104, 104, 104},    {"grace", 104, 104, 104},
                           {"carol", 104, 104, 104}, {"mallory", 104, 104, 104}, {"nobody", 103, 103, 103}};
  const std::string api = "/webapi/VEXA.Core.Account/";
  const std::string password = R"({"name":"nobody-here","password":"good password","old_password":"good password"})";
  const std::string grant = std::string(R"({"kind":"user","name":"nobody-here","guests":[")") + kTestGuest + "\"]}";
  for (const Row& row : kRows) {
    HttpClient client = row.role == std::string("nobody") ? daemon_->Tcp() : daemon_->TcpAs(row.role);
    EXPECT_EQ(ErrorCode(client.PostJson(api + "user_list", "{}")), row.list) << row.role;
    EXPECT_EQ(ErrorCode(client.PostJson(api + "password_set", password)), row.password_of_another) << row.role;
    EXPECT_EQ(ErrorCode(client.PostJson(api + "grant", grant)), row.grant) << row.role;
  }
  EXPECT_FALSE(vexa::test::SyslogContains("good password"));
}

TEST_F(DaemonApi, PermissionMatrix_OverUnixSocket_IsAsDocumented) {
  const auto access_by_path = AccessByPath(daemon_->Unix());
  for (const Role& role : kRoles) {
    if (role.name == std::string("nobody")) continue;  // needs another user id; see below
    SCOPED_TRACE(role.name);
    daemon_->ActAsOnUnixSocket(role.name);
    CheckRole(daemon_->Unix(), role, access_by_path);
  }
  ASSERT_TRUE(daemon_->Accounts()->DeleteUser("me").ok());
  HttpClient client = daemon_->Unix();
  const Json::Value info = JsonBody(client.PostJson("/webapi/VEXA.Core.Session/info", ""));
  EXPECT_EQ(info["data"]["user"], "root") << "the daemon's own user";
  EXPECT_EQ(info["data"]["administrator"], true);
}

TEST_F(DaemonApi, UnixSocket_UnknownUserId_IsNotLoggedIn) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  ::chmod(daemon_->folder().path().c_str(), 0711);
  const auto result = vexa::test::RunProcess(
      {.argv = {"setpriv", "--reuid=65533", "--regid=65533", "--clear-groups", "curl", "-sS", "--unix-socket",
                daemon_->config().socket, "-H", "Content-Type: application/json", "-d", kGetBody,
                "http://localhost" + kGetPath}});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_NE(result.output.find("\"code\":103"), std::string::npos) << result.output;
}

TEST_F(DaemonApi, Get_Guest_IsReturnedWithRequestId) {
  HttpClient client = daemon_->TcpAs("grace");
  const HttpReply reply = client.PostJson(kGetPath, kGetBody);
  EXPECT_EQ(reply.status, 200);
  const Json::Value body = JsonBody(reply);
  EXPECT_EQ(body["success"], true);
  EXPECT_EQ(body["data"]["name"], "web");
  EXPECT_EQ(body["data"]["vram_size"], 1048576);
  EXPECT_EQ(body["data"]["vdisks"][0]["lun_type"], "blun");
  EXPECT_EQ(body["data"]["vnics"][0]["mac"], "02:00:00:00:00:01");
  EXPECT_TRUE(std::regex_match(json::String(body["request_id"]), std::regex("[0-9a-f]{16}")));
  ASSERT_TRUE(reply.headers.contains("x-request-id"));
  EXPECT_EQ(reply.headers.at("x-request-id"), json::String(body["request_id"]));
}

struct Refusal {
  const char* name;
  const char* path;
  const char* body;
  int status;
  int code;
};

std::ostream& operator<<(std::ostream& out, const Refusal& row) { return out << row.name; }

const Refusal kRefusals[] = {
    {"BadParameter", "/webapi/VEXA.Virtualization.Guest/get", "{}", 400, 401},
    {"EmptyBodyIsNoParameters", "/webapi/VEXA.Virtualization.Guest/get", "", 400, 401},
    {"MissingGuest", "/webapi/VEXA.Virtualization.Guest/get", R"({"guest_id":"00000000-0000-0000-0000-000000000000"})",
     404, 403},
    {"UnknownMethod", "/webapi/VEXA.Virtualization.Guest/put", "{}", 404, 507},
    {"UnknownApi", "/webapi/VEXA.Virtualization.Ghost/get", "{}", 404, 507},
    {"UnknownVersion", "/webapi/VEXA.Virtualization.Guest/get?version=2", "{}", 404, 507},
    {"BadVersion", "/webapi/VEXA.Virtualization.Guest/get?version=1x", "{}", 404, 507},
    {"HugeVersion", "/webapi/VEXA.Virtualization.Guest/get?version=99999999999", "{}", 404, 507},
    {"BadQuery", "/webapi/VEXA.Virtualization.Guest/get?x=1", "{}", 404, 507},
    {"NoMethod", "/webapi/VEXA.Virtualization.Guest", "{}", 404, 507},
    {"EncodedName", "/webapi/VEXA.Virtualization.Guest/%67et", "{}", 404, 507},
    {"DotDot", "/webapi/../webapi/VEXA.Virtualization.Guest/get", "{}", 404, 507},
    {"OtherPath", "/nowhere", "{}", 404, 109},
    {"ArrayBody", "/webapi/VEXA.Virtualization.Guest/get", "[1]", 400, 101},
    {"TextBody", "/webapi/VEXA.Virtualization.Guest/get", "\"x\"", 400, 101},
    {"NullBody", "/webapi/VEXA.Virtualization.Guest/get", "null", 400, 101},
    {"HalfBody", "/webapi/VEXA.Virtualization.Guest/get", "{\"guest_id\":", 400, 101},
    {"TrailingBody", "/webapi/VEXA.Virtualization.Guest/get", "{} {}", 400, 101},
    {"DuplicateName", "/webapi/VEXA.Virtualization.Guest/get", R"({"a":1,"a":2})", 400, 101},
    {"CommentBody", "/webapi/VEXA.Virtualization.Guest/get", "{} // x", 400, 101},
    {"InvalidUtf8", "/webapi/VEXA.Virtualization.Guest/get", "{\"guest_id\":\"\xff\"}", 400, 101},
    {"Throws", "/webapi/VEXA.Test/throws", "{}", 500, 100},
    {"Silent", "/webapi/VEXA.Test/silent", "{}", 500, 100},
};

class DaemonApiRefusal : public DaemonApi, public testing::WithParamInterface<Refusal> {};

TEST_P(DaemonApiRefusal, Request_IsAnsweredWithCodeStatusAndSentence) {
  const Refusal& row = GetParam();
  HttpClient client = daemon_->TcpAs("admin");
  const HttpReply reply = client.PostJson(row.path, row.body);
  EXPECT_EQ(reply.status, row.status);
  EXPECT_EQ(ErrorCode(reply), row.code);
  const Json::Value body = JsonBody(reply);
  EXPECT_EQ(body["success"], false);
  EXPECT_FALSE(json::String(body["error"]["message"]).empty());
  EXPECT_EQ(json::String(body["request_id"]), reply.headers.at("x-request-id"));
}

INSTANTIATE_TEST_SUITE_P(Rows, DaemonApiRefusal, testing::ValuesIn(kRefusals),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(DaemonApi, Body_TooDeep_IsRefusedBeforeHandler) {
  HttpClient client = daemon_->TcpAs("admin");
  const std::string deep = "{\"a\":" + std::string(64, '[') + std::string(64, ']') + "}";
  EXPECT_EQ(ErrorCode(client.PostJson(kGetPath, deep)), 101);
  const std::string fits = "{\"a\":" + std::string(63, '[') + std::string(63, ']') + "}";
  EXPECT_EQ(ErrorCode(client.PostJson(kGetPath, fits)), 401);
}

TEST_F(DaemonApi, Body_TooLarge_IsRefusedWithReadableReply) {
  HttpClient client = daemon_->TcpAs("admin");
  const HttpReply reply = client.PostJson(kGetPath, "{\"a\":\"" + std::string(1024 * 1024, 'x') + "\"}");
  EXPECT_EQ(reply.status, 413);
  EXPECT_EQ(ErrorCode(reply), 112);
}

TEST_F(DaemonApi, Body_OtherContentType_IsRefused) {
  HttpClient client = daemon_->TcpAs("admin");
  for (const char* type : {"Content-Type: text/plain", "Content-Type: application/jsonx",
                           "Content-Type: application/x-www-form-urlencoded", "Content-Type:"}) {
    const HttpReply reply = client.Send("POST", kGetPath, {type}, kGetBody);
    EXPECT_EQ(reply.status, 415) << type;
    EXPECT_EQ(ErrorCode(reply), 111) << type;
  }
  for (const char* type : {"Content-Type: application/json; charset=utf-8", "Content-Type: APPLICATION/JSON"}) {
    EXPECT_EQ(client.Send("POST", kGetPath, {type}, kGetBody).status, 200) << type;
  }
}

TEST_F(DaemonApi, Request_OtherHttpMethod_IsRefused) {
  HttpClient client = daemon_->TcpAs("admin");
  for (const char* method : {"GET", "PUT", "DELETE", "PATCH"}) {
    const HttpReply reply = client.Send(method, kGetPath, {"Content-Type: application/json"}, "");
    EXPECT_EQ(reply.status, 405) << method;
    EXPECT_EQ(ErrorCode(reply), 110) << method;
    EXPECT_EQ(reply.headers.at("allow"), "POST");
  }
  const HttpReply reply = client.PostJson("/healthz", "{}");
  EXPECT_EQ(reply.status, 405);
  EXPECT_EQ(reply.headers.at("allow"), "GET, HEAD");
}

TEST_F(DaemonApi, Call_HandlerThrows_LogsOneLineAndTheException) {
  HttpClient client = daemon_->TcpAs("mallory");
  vexa::test::ClearCapturedSyslog();
  EXPECT_EQ(ErrorCode(client.PostJson(kGetPath, kGetBody)), 409);
  EXPECT_TRUE(
      vexa::test::SyslogContains(std::string("Action on guest[") + kTestGuest + "] is not allowed from user[mallory]"));
  EXPECT_EQ(vexa::test::CapturedSyslog().size(), 1u);
  EXPECT_EQ(ErrorCode(client.PostJson("/webapi/VEXA.Test/throws", "{}")), 100);
  EXPECT_TRUE(vexa::test::SyslogContains("VEXA.Test throws failed: a fault"));
}

// Logging in and out.

TEST_F(DaemonApi, Login_WrongPasswordOrUnknownUser_HasSameReply) {
  HttpClient client = daemon_->Tcp();
  const HttpReply wrong = client.PostJson(kLoginPath, LoginBody("grace", "wrong"));
  const HttpReply unknown = client.PostJson(kLoginPath, LoginBody("ghost", "wrong"));
  EXPECT_EQ(wrong.status, 401);
  EXPECT_EQ(ErrorCode(wrong), 106);
  EXPECT_EQ(ErrorCode(unknown), 106);
  EXPECT_EQ(JsonBody(wrong)["error"], JsonBody(unknown)["error"]);
  EXPECT_TRUE(vexa::test::SyslogContains("Login of user[grace] from [127.0.0.1] failed"));
}

TEST_F(DaemonApi, LoginParameters_AreChecked) {
  HttpClient client = daemon_->Tcp();
  for (const std::string& body :
       {std::string("{}"), std::string(R"({"user":"grace"})"), std::string(R"({"user":5,"password":"x"})"),
        LoginBody("gr/ace", "x"), LoginBody("grace", ""), LoginBody("grace", std::string(513, 'x')),
        std::string(R"({"user":"grace","password":"x","cookie":1})")}) {
    EXPECT_EQ(ErrorCode(client.PostJson(kLoginPath, body)), 401) << body;
  }
}

TEST_F(DaemonApi, Password_IsNeverLogged) {
  HttpClient client = daemon_->Tcp();
  (void)client.PostJson(kLoginPath, LoginBody("grace", "s3cret-and-wrong"));
  (void)client.PostJson(kLoginPath, R"({"user":"gr ace","password":"s3cret-and-wrong"})");
  EXPECT_FALSE(vexa::test::SyslogContains("s3cret"));
}

TEST_F(DaemonApi, Logout_EndsTheSession) {
  HttpClient client = daemon_->TcpAs("grace");
  EXPECT_EQ(ErrorCode(client.PostJson("/webapi/VEXA.Core.Session/logout", "")), 0);
  const HttpReply reply = client.PostJson(kGetPath, kGetBody);
  EXPECT_EQ(reply.status, 401);
  EXPECT_EQ(ErrorCode(reply), 103);
  EXPECT_EQ(reply.headers.at("www-authenticate"), "Bearer");
}

TEST_F(DaemonApi, InvalidToken_IsRefusedInsteadOfIgnored) {
  for (const char* header : {"Bearer x", "Bearer ", "Bearer", "Basic Z3JhY2U6eA==", "bearer", "x"}) {
    // Also on the Unix socket, where the caller would be identified without it.
    HttpClient tcp = daemon_->Tcp();
    HttpClient local = daemon_->Unix();
    for (HttpClient* client : {&tcp, &local}) {
      client->SetHeader("Authorization", header);
      EXPECT_EQ(ErrorCode(client->PostJson(kGetPath, kGetBody)), 103) << header;
    }
  }
}

TEST_F(DaemonApi, Info_ReturnsCaller) {
  HttpClient client = daemon_->TcpAs("adam");
  const Json::Value data = JsonBody(client.PostJson("/webapi/VEXA.Core.Session/info", ""))["data"];
  EXPECT_EQ(data["user"], "adam");
  EXPECT_EQ(data["administrator"], false);
  EXPECT_EQ(data["advanced"], true);
}

TEST_F(DaemonApi, Cookie_WithoutCsrfToken_IsRefused) {
  HttpClient client = daemon_->Tcp();
  const HttpReply login = client.PostJson(
      kLoginPath, std::string(R"({"user":"grace","password":")") + kTestPassword + R"(","cookie":true})");
  const Json::Value data = JsonBody(login)["data"];
  EXPECT_FALSE(data.isMember("token"));
  const std::string set_cookie = login.headers.at("set-cookie");
  EXPECT_TRUE(std::regex_match(
      set_cookie, std::regex("vexa_session=[A-Za-z0-9_-]{43}; Path=/; HttpOnly; SameSite=Strict; Max-Age=[0-9]+")))
      << set_cookie;
  HttpClient browser = daemon_->Tcp();
  browser.SetHeader("Cookie", set_cookie.substr(0, set_cookie.find(';')));
  const HttpReply without = browser.PostJson(kGetPath, kGetBody);
  EXPECT_EQ(without.status, 403);
  EXPECT_EQ(ErrorCode(without), 105);
  browser.SetHeader("X-Vexa-CSRF", "wrong");
  EXPECT_EQ(ErrorCode(browser.PostJson(kGetPath, kGetBody)), 105);
  browser.SetHeader("X-Vexa-CSRF", json::String(data["csrf_token"]));
  EXPECT_EQ(ErrorCode(browser.PostJson(kGetPath, kGetBody)), 0);
}

TEST_F(DaemonApi, Login_StaleCookie_Succeeds) {
  HttpClient browser = daemon_->Tcp();
  browser.SetHeader("Cookie", "vexa_session=" + std::string(43, 'A'));
  EXPECT_EQ(ErrorCode(browser.PostJson(kLoginPath, LoginBody("grace", kTestPassword))), 0);
  EXPECT_EQ(ErrorCode(browser.PostJson(kGetPath, kGetBody)), 103);
}

TEST_F(DaemonApi, DeletedUser_Session_EndsImmediately) {
  const auto accounts = daemon_->Accounts();
  vexa::cluster::AccountStore::NewUser user;
  user.name = "temporary";
  user.password = kTestPassword;
  user.groups = {"administrators"};
  ASSERT_TRUE(accounts->AddUser(user).ok());
  HttpClient client = daemon_->TcpAs("temporary");
  EXPECT_EQ(ErrorCode(client.PostJson(kGetPath, kGetBody)), 0);
  ASSERT_TRUE(accounts->SetGroups("temporary", {}).ok());
  EXPECT_EQ(ErrorCode(client.PostJson(kGetPath, kGetBody)), 409) << "no administrator any more";
  ASSERT_TRUE(accounts->DeleteUser("temporary").ok());
  EXPECT_EQ(ErrorCode(client.PostJson(kGetPath, kGetBody)), 103);
}

// Pages.

TEST_F(DaemonApi, Health_IsReportedWithoutALogin) {
  HttpClient client = daemon_->Tcp();
  const HttpReply reply = client.Get("/healthz");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(JsonBody(reply)["status"], "ok");
}

TEST_F(DaemonApi, Metrics_CountCalls) {
  HttpClient client = daemon_->TcpAs("grace");
  EXPECT_EQ(ErrorCode(client.PostJson(kGetPath, kGetBody)), 0);
  const HttpReply reply = client.Get("/metrics");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.headers.at("content-type"), "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_TRUE(std::regex_search(
      reply.body, std::regex(R"(vexa_requests_total\{api="VEXA.Virtualization.Guest",method="get",code="0"\} [1-9])")))
      << reply.body;
  EXPECT_TRUE(std::regex_search(reply.body, std::regex(R"(vexa_connections [1-9])")));
}

TEST_F(DaemonApi, PowerAction_BodyWithoutAMember_IsBadParameterBeforeRightsAreChecked) {
  HttpClient client = daemon_->TcpAs("mallory");
  const std::string id = std::string(R"("guest_id":")") + kTestGuest + '"';
  const std::string complete = R"({"action":"poweron",)" + id + '}';
  for (const std::string& body : {std::string("{}"), std::string(R"({"action":"poweron"})"), '{' + id + '}'}) {
    vexa::test::ClearCapturedSyslog();
    EXPECT_EQ(ErrorCode(client.PostJson(kPowerPath, body)), 401) << body;
    EXPECT_TRUE(vexa::test::SyslogContains("Bad parameters, request: " + body)) << body;
  }
  EXPECT_EQ(ErrorCode(client.PostJson(kPowerPath, complete)), 409);
  EXPECT_TRUE(
      vexa::test::SyslogContains(std::string("Action on guest[") + kTestGuest + "] is not allowed from user[mallory]"));
}

// A granted user could make the host do work for 340,000 hosts in one call.
TEST_F(DaemonApi, PowerOffByHa_MoreHostsThanAllowed_IsBadParameter) {
  const auto power_off = [](HttpClient client, int hosts) {
    std::string body = std::string(R"({"action":"poweroff_by_ha","guest_id":")") + kTestGuest + R"(","host_ids":["h")";
    for (int i = 1; i < hosts; ++i) body += R"(,"h")";
    return client.PostJson(kPowerPath, body + "]}");
  };
  const HttpReply accepted = power_off(daemon_->TcpAs("grace"), 1000);
  EXPECT_EQ(ErrorCode(accepted), 0);
  EXPECT_EQ(json::Member(JsonBody(accepted), "data").size(), 1000u);
  const std::string line =
      "VEXA.Virtualization.Guest.Action pwr_ctl was refused: 'host_ids' has 1001 elements, and may have 1000";
  EXPECT_FALSE(vexa::test::SyslogContains("was refused"));
  const HttpReply refused = power_off(daemon_->TcpAs("grace"), 1001);
  EXPECT_EQ(ErrorCode(refused), 401);
  EXPECT_EQ(refused.status, 400);
  EXPECT_TRUE(vexa::test::SyslogContains(line));
  vexa::test::ClearCapturedSyslog();
  EXPECT_EQ(ErrorCode(power_off(daemon_->TcpAs("mallory"), 1000)), 409);
  EXPECT_EQ(ErrorCode(power_off(daemon_->TcpAs("mallory"), 1001)), 401) << "before rights are checked";
  EXPECT_TRUE(vexa::test::SyslogContains(line));
}

// Lanes.

// Calls that last until they are released, each in a thread. Returns when all of them are in their handlers.
std::vector<std::thread> DaemonApi::Stall(int calls, const std::string& token) {
  std::vector<std::thread> stuck;
  for (int i = 0; i < calls; ++i) {
    stuck.emplace_back([token] {
      HttpClient client = daemon_->Tcp();
      client.SetHeader("Authorization", "Bearer " + token);
      client.SetTimeout(std::chrono::seconds(120));
      EXPECT_EQ(ErrorCode(client.PostJson("/webapi/VEXA.Test/stall", "{}")), 0);
    });
  }
  while (daemon_->stalled() < calls) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return stuck;
}

TEST_F(DaemonApi, StuckCalls_DoNotDelayOthers) {
  constexpr int kStuck = 40;
  const std::string token = daemon_->Login("mallory");
  std::vector<std::thread> stuck = Stall(kStuck, token);
  HttpClient client = daemon_->TcpAs("grace");
  for (int i = 0; i < 50; ++i) EXPECT_EQ(ErrorCode(client.PostJson(kGetPath, kGetBody)), 0);
  daemon_->ReleaseStalled();
  for (std::thread& thread : stuck) thread.join();
}

TEST_F(DaemonApi, Quota_UserExceedsIt_IsBusyAndOthersAreServed) {
  const int quota = daemon_->config().calls_per_user;
  const std::string token = daemon_->Login("mallory");
  std::vector<std::thread> stuck = Stall(quota, token);
  HttpClient client = daemon_->Tcp();
  client.SetHeader("Authorization", "Bearer " + token);
  const HttpReply refused = client.PostJson("/webapi/VEXA.Test/stall", "{}");
  EXPECT_EQ(refused.status, 503);
  EXPECT_EQ(ErrorCode(refused), 108);
  EXPECT_EQ(refused.headers.at("retry-after"), "1");
  EXPECT_EQ(ErrorCode(client.PostJson("/webapi/VEXA.Test/user", "{}")), 0) << "quick calls count separately";
  (void)daemon_->Login("grace");
  daemon_->ReleaseStalled();
  for (std::thread& thread : stuck) thread.join();
}

TEST(DaemonLogin, Login_TooManyFailures_IsSlowedDown) {
  TestDaemon daemon;
  HttpClient client = daemon.Tcp();
  HttpReply reply;
  int tries = 0;
  do {
    reply = client.PostJson(kLoginPath, LoginBody("grace", "wrong-" + std::to_string(tries)));
    ++tries;
  } while (ErrorCode(reply) == 106 && tries < 50);
  EXPECT_EQ(ErrorCode(reply), 107);
  EXPECT_EQ(reply.status, 429);
  EXPECT_GE(std::stoi(reply.headers.at("retry-after")), 1);
  EXPECT_GE(tries, 10);
}

TEST(DaemonStop, Stop_RequestInFlight_IsAnsweredAndSessionsAreKept) {
  auto daemon = std::make_unique<TestDaemon>();
  const std::string token = daemon->Login("grace");
  std::thread caller([&] {
    HttpClient client = daemon->Tcp();
    client.SetHeader("Authorization", "Bearer " + token);
    client.SetTimeout(std::chrono::seconds(60));
    const HttpReply reply = client.PostJson("/webapi/VEXA.Test/stall", "{}");
    EXPECT_EQ(ErrorCode(reply), 0);
  });
  while (daemon->stalled() < 1) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    daemon->ReleaseStalled();
  });
  EXPECT_TRUE(daemon->daemon().Stop(std::chrono::seconds(30)));
  caller.join();
  releaser.join();
}

TEST(DaemonStop, Stop_DeadlinePasses_ReturnsFalse) {
  TestDaemon daemon;
  const std::string token = daemon.Login("grace");
  std::thread caller([&] {
    HttpClient client = daemon.Tcp();
    client.SetHeader("Authorization", "Bearer " + token);
    client.SetTimeout(std::chrono::seconds(60));
    (void)client.PostJson("/webapi/VEXA.Test/stall", "{}");
  });
  while (daemon.stalled() < 1) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_FALSE(daemon.daemon().Stop(std::chrono::milliseconds(200)));
  daemon.ReleaseStalled();
  caller.join();
  EXPECT_TRUE(daemon.daemon().Stop(std::chrono::seconds(30)));
}

}  // namespace
