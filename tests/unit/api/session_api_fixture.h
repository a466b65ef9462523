// The rows of VEXA.Core.Session and VEXA.Core.Account on a real store of accounts, called with tokens.
#pragma once

#include <filesystem>

#include "host/api/identity.h"
#include "host/api/user/account_api.h"
#include "host/api/user/session_api.h"
#include "host/api/user/session_list_api.h"
#include "host/session/session_token.h"
#include "tests/support/require.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/api/services_fixture.h"
#include "webapi/error_codes.h"

namespace vexa::api {
inline constexpr const char* kPassword = "correct horse";  // of the users that TestHost adds
inline constexpr const char* kSession = "VEXA.Core.Session";
inline constexpr const char* kAccount = "VEXA.Core.Account";
inline constexpr const char* kHome = "192.0.2.1";

class SessionApi : public ::testing::Test {
 protected:
  SessionApi() {
    std::filesystem::create_directory(folder_);
    Open();
    for (const char* user : {"alice", "bob"}) host_.AddUser(user);
    host_.AddUser("admin", {"administrators"});
  }

  // Opens the sessions as a start of the host does.
  void Open() {
    sessions_ = Require(session::SessionTable::Open(folder_ + "/sessions.json", {}));
    identity_ = std::make_unique<Identity>(*sessions_, host_.accounts());
    const SessionServices services{sessions_.get(), &host_.accounts(), &limiter_, std::chrono::seconds(7)};
    const std::shared_ptr<store::Store> store(&host_.store(), [](store::Store*) {});
    const std::shared_ptr<cluster::AccountStore> accounts(&host_.accounts(), [](cluster::AccountStore*) {});
    std::vector<ApiRow> rows = SessionRows(services);
    for (ApiRow& row : SessionListRows(services)) rows.push_back(std::move(row));
    for (ApiRow& row : AccountRows({store, accounts, &limiter_, sessions_.get()})) rows.push_back(std::move(row));
    table_ = std::make_unique<ApiTable>(std::move(rows));
  }

  static Caller Stranger(const std::string& address) {
    Caller caller;
    caller.peer = address;
    return caller;
  }
  Answer LoginAs(const Caller& caller, const std::string& user, const std::string& password) {
    return CallTable(*table_, kSession, "login", R"({"user":")" + user + R"(","password":")" + password + "\"}",
                     caller);
  }
  std::string Login(const std::string& user, const std::string& password = kPassword,
                    const std::string& address = kHome) {
    const Answer answer = LoginAs(Stranger(address), user, password);
    EXPECT_EQ(answer.code, 0) << user;
    return json::String(json::Member(answer.data, "token"));
  }
  // The failed logins until one is slowed down.
  int Guesses(const Caller& caller, const std::string& user) {
    int guesses = 0;
    while (guesses < 1000 && LoginAs(caller, user, "a wrong guess").code == user_error::kWrongPassword) ++guesses;
    return guesses;
  }

  // The error code that every call with the token gets; 0: it is valid.
  int CodeOf(const std::string& token, Caller* identified = nullptr) {
    http::HttpRequest request;
    request.peer.address = kHome;
    request.authorization = "Bearer " + token;
    IdentifyResult result = identity_->Identify(request);
    if (const int* code = std::get_if<int>(&result)) return *code;
    Caller& caller = std::get<Caller>(result);
    const int code = identity_->LookUpCaller(caller);
    if (code == 0 && identified) *identified = caller;
    return code;
  }
  Answer CallWith(const std::string& token, const char* api, const std::string& method, const std::string& parameters) {
    Caller caller;
    EXPECT_EQ(CodeOf(token, &caller), 0) << method;
    return CallTable(*table_, api, method, parameters, caller);
  }
  // The ids in the reply, or {"<code>"}.
  std::vector<std::string> List(const std::string& token, const std::string& parameters) {
    const Answer answer = CallWith(token, kSession, "list", parameters);
    if (answer.code != 0) return {std::to_string(answer.code)};
    std::vector<std::string> ids;
    for (const Json::Value& entry : json::Elements(json::Member(answer.data, "sessions"))) {
      ids.push_back(json::String(json::Member(entry, "id")));
    }
    return ids;
  }
  int End(const std::string& token, const std::string& parameters) {
    return CallWith(token, kSession, "end", parameters).code;
  }
  static std::string Id(const std::string& token) { return session::SessionIdOfToken(token); }
  static std::string ById(const std::string& token) { return R"({"id":")" + Id(token) + "\"}"; }

  // Its clock stands still, so that slow machines do not let more guesses pass.
  static session::LoginLimiterOptions Limits() {
    session::LoginLimiterOptions limits;
    limits.now = [] { return std::int64_t{1}; };
    return limits;
  }

  using Ids = std::vector<std::string>;
  test::TestHost host_;
  const std::string folder_ = host_.folder().File("sessions");
  session::LoginLimiter limiter_{Limits()};
  std::unique_ptr<session::SessionTable> sessions_;
  std::unique_ptr<Identity> identity_;
  std::unique_ptr<ApiTable> table_;
};

}  // namespace vexa::api
