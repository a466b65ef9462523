// The attacker is anybody who can call the daemon: without a login, as a user without rights, as one who may use a
// guest, as an administrator, as a host of the cluster, as one that is not, and as one whose certificates were revoked;
// over the network, on the listener for hosts, and on the Unix socket. Each calls every method that the daemon
// describes, with parameters of wrong types, sizes and places. The daemon must live and answer each call with a status
// that the method documents and no internal error, nobody may succeed where the row's access does not allow it, and the
// calls of those who have no rights must have changed nothing.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <set>

#include "json/readers.h"
#include "tests/attack/attack.h"
#include "tests/attack/attacked_host.h"
#include "tests/attack/hostile_calls.h"
#include "webapi/error_codes.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::chrono::milliseconds kShortForm{0};  // one pass
constexpr std::size_t kValuesOfShortForm = 3;       // for each parameter

enum class Door { kNetwork, kUnixSocket, kHosts };

struct CallerRow {
  const char* name;
  Door door;
  std::set<std::string> may_call;  // methods with these kinds of access
  std::set<int> refusals;          // of the others
  bool may_change;                 // what its calls do to guests and accounts is its right
  const char* user = "";           // whose token is sent; "" for none
  const char* certificate = "";    // of which host
};

const std::vector<CallerRow>& Callers() {
  using Kinds = std::set<std::string>;
  static const std::vector<CallerRow> kRows = {
      {"nobody", Door::kNetwork, Kinds{"anyone"}, {user_error::kNotLoggedIn}, false},
      {"user without rights", Door::kNetwork, Kinds{"anyone", "user"}, {user_error::kDenied}, false, "mallory"},
      {"user without rights, locally",
       Door::kUnixSocket,
       Kinds{"anyone", "user"},
       {user_error::kDenied},
       false,
       "mallory"},
      {"not a member", Door::kHosts, Kinds{}, {user_error::kDenied}, false, "", kStranger},
      {"revoked member", Door::kHosts, Kinds{}, {user_error::kDenied}, false, "", kRevokedMember},
      {"member with a user's token",
       Door::kHosts,
       Kinds{},
       {user_error::kNotLoggedIn, user_error::kDenied},
       false,
       "admin",
       kMember},
      {"user with a grant", Door::kNetwork, Kinds{"anyone", "user"}, {user_error::kDenied}, true, "grace"},
      {"member", Door::kHosts, Kinds{"host"}, {user_error::kDenied}, true, "", kMember},
      {"administrator", Door::kNetwork, Kinds{"anyone", "user", "admin"}, {user_error::kDenied}, true, "admin"},
      {"root", Door::kUnixSocket, Kinds{"anyone", "user", "admin"}, {user_error::kDenied}, true},
  };
  return kRows;
}

class CallerMatrix : public testing::Test {
 protected:
  CallerMatrix() : random_(MakeRandom()) { Begin(); }

  // A new host: administrators may have deleted what there was.
  void Begin() {
    client_.reset();
    AttackedHostOptions options;
    options.doors = Doors::kUsersAndHosts;
    host_ = std::make_unique<AttackedHost>(std::move(options));
    methods_ = MethodsOf(*host_);
  }

  HttpClient Login(const CallerRow& caller) const {
    HttpClient client = caller.door == Door::kNetwork      ? host_->Network(kPatience)
                        : caller.door == Door::kUnixSocket ? host_->Root(kPatience)
                                                           : host_->Host(caller.certificate, kPatience);
    if (*caller.user != '\0') client.SetHeader("Authorization", "Bearer " + host_->Login(caller.user));
    return client;
  }

  void Attack(const CallerRow& caller, const Method& method, std::size_t values_for_each);
  void Call(const CallerRow& caller, const Method& method, const std::string& body);
  // What those without rights must not have changed.
  std::string Everything() const;

  std::unique_ptr<AttackedHost> host_;
  std::vector<Method> methods_;
  std::mt19937 random_;
  std::optional<HttpClient> client_;  // of the caller whose turn it is
  int calls_ = 0;
  int successes_ = 0;
};

std::string CallerMatrix::Everything() const {
  HttpClient root = host_->Root(kPatience);
  std::string all;
  for (const auto& [path, body] : std::map<std::string, std::string>{
           {kGetPath, "{\"guest_id\":\"" + AttackedHost::GuestId(0) + "\"}"},
           {"/webapi/VEXA.Core.Account/user_list", "{}"},
           {"/webapi/VEXA.Core.Account/group_list", "{}"},
           {"/webapi/VEXA.Core.Account/guest_grant_list", "{\"guest_id\":\"" + AttackedHost::GuestId(0) + "\"}"},
           {"/webapi/VEXA.Virtualization.Image/list", "{}"}}) {
    const HttpReply reply = root.PostJson(path, body);
    EXPECT_EQ(reply.status, 200) << path << reply.body;
    all += json::ToText(DataOf(reply)) + "\n";
  }
  return all;
}

void CallerMatrix::Call(const CallerRow& caller, const Method& method, const std::string& body) {
  SCOPED_TRACE(fmt::format("{} calls {} with {}", caller.name, method.path, body.substr(0, 300)));
  if (!client_) client_.emplace(Login(caller));
  const HttpReply reply = client_->PostJson(method.path, body);
  ++calls_;
  ASSERT_TRUE(reply.arrived()) << reply.transport_error;
  const int code = CodeOf(reply);
  if (!caller.may_call.contains(method.access)) {
    const bool is_long_of_stranger = body.size() > 16 * 1024 && code == user_error::kBodyTooLarge;
    EXPECT_TRUE(caller.refusals.contains(code) || is_long_of_stranger) << reply.body.substr(0, 1000);
    return;
  }
  EXPECT_TRUE(method.statuses.contains(reply.status)) << reply.status << " " << reply.body.substr(0, 1000);
  EXPECT_NE(code, user_error::kInternal);
  EXPECT_EQ(reply.status == 200, code == 0) << reply.body.substr(0, 1000);
  if (reply.status != 200) return;
  ++successes_;
  // The call may have ended the session of its caller.
  if (method.path.find("Session/") != std::string::npos || method.path.ends_with("password_set")) client_.reset();
}

void CallerMatrix::Attack(const CallerRow& caller, const Method& method, std::size_t values_for_each) {
  std::vector<std::string> bodies{"", "{}", HostileText(random_)};
  for (const std::string& name : json::MemberNames(method.parameters)) {
    // Those who are refused for their access need not try everything.
    if (!caller.may_call.contains(method.access) && random_() % 10 != 0) continue;
    for (std::size_t i = 0; i < values_for_each; ++i) bodies.push_back(HostileBody(method, name, random_));
  }
  for (const std::string& body : bodies) {
    Call(caller, method, body);
    if (HasFatalFailure()) return;
  }
}

TEST_F(CallerMatrix, AnyCaller_AnyMethod_HostileParameters_AreAnsweredAsDocumented) {
  ASSERT_GT(methods_.size(), 40U);
  std::size_t values_for_each = kValuesOfShortForm;
  int passes = 0;
  for (const AttackTime time(kShortForm); !time.IsOver() || passes == 0; ++passes) {
    if (passes > 0) Begin();
    for (const CallerRow& caller : Callers()) {
      // Those who may, come last: an administrator may have deleted the guest.
      const std::string before = caller.may_change ? "" : Everything();
      client_.reset();
      for (const Method& method : methods_) {
        Attack(caller, method, values_for_each);
        ASSERT_TRUE(host_->IsRunning()) << caller.name << " " << method.path << "\n" << host_->LastLog();
        if (HasFatalFailure() || (passes > 0 && time.IsOver())) break;
      }
      if (!caller.may_change) {
        EXPECT_EQ(Everything(), before) << caller.name;
      }
      if (HasFailure()) return;
    }
    values_for_each = 10;
  }
  HttpClient root = host_->Root(kPatience);
  EXPECT_EQ(root.Get("/healthz").status, 200);
  Report(
      fmt::format("{} callers x {} methods, {} calls, {} of them successful: every answer was documented and allowed",
                  Callers().size(), methods_.size(), calls_, successes_));
}

TEST_F(CallerMatrix, HostsListener_WithoutACertificate_AnswersNothing) {
  std::set<std::string> tried;  // one method of each kind of access: the handshake fails for all of them
  for (const Method& method : methods_) {
    if (!tried.insert(method.access).second) continue;
    HttpClient client = host_->Host("", kPatience);
    EXPECT_FALSE(client.PostJson(method.path, "{}").arrived()) << method.path;
  }
  ASSERT_TRUE(host_->IsRunning());
  Report(fmt::format("methods of {} kinds of access are not to be had", tried.size()));
}

}  // namespace
}  // namespace vexa::test
