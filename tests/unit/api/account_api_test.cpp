// VEXA.Core.Account on a real store: users, groups, passwords and grants, who may change them, and what the logs say.
#include "host/api/user/account_api.h"

#include <unistd.h>

#include "host/api/user/grant_api.h"
#include "host/cluster/cluster_log.h"
#include "host/records/guest_admin.h"
#include "tests/support/matchers.h"
#include "tests/support/racing_store.h"
#include "tests/support/require.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/api/services_fixture.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

using test::Answer;
using ::testing::AllOf;
using ::testing::HasSubstr;

constexpr const char* kFirst = "6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55";
constexpr const char* kSecond = "00000000-0000-4000-8000-00000000000a";
constexpr const char* kPassword = "correct horse";  // of the users that TestHost adds

std::vector<ApiRow> AllRows(const AccountServices& services) {
  std::vector<ApiRow> rows = AccountRows(services);
  for (ApiRow& row : GrantRows(services)) rows.push_back(std::move(row));
  return rows;
}

class AccountApi : public ::testing::Test {
 protected:
  AccountApi() {
    // The store is the test's: it outlives the rows.
    const std::shared_ptr<store::Store> store(&host_.store(), [](store::Store*) {});
    const std::shared_ptr<cluster::AccountStore> accounts(&host_.accounts(), [](cluster::AccountStore*) {});
    table_ = std::make_unique<ApiTable>(AllRows({store, accounts, &limiter_, sessions_.get()}));
    pam_ = std::make_unique<ApiTable>(AllRows({store, nullptr, &limiter_, sessions_.get()}));
    test::ClearCapturedSyslog();
  }

  Answer CallOn(const ApiTable& table, const std::string& method, const std::string& parameters,
                const accounts::User& user) {
    return CallTable(table, "VEXA.Core.Account", method, parameters, UserCaller(user));
  }
  Answer Call(const std::string& method, const std::string& parameters) {
    return CallOn(*table_, method, parameters, Administrator());
  }
  Answer CallAs(const std::string& user, const std::string& method, const std::string& parameters) {
    return CallOn(*table_, method, parameters, Require(host_.accounts().FindUser(user)));
  }
  // The rows on another view of the store.
  ApiTable TableOn(const std::shared_ptr<store::Store>& store) {
    return ApiTable(AllRows({store, std::make_shared<cluster::AccountStore>(store), &limiter_, sessions_.get()}));
  }
  bool HasPassword(const std::string& user, const std::string& password) {
    return host_.accounts().VerifyPassword(user, password).ok();
  }
  std::string RecordOf(const std::string& identifier) {
    const auto snapshot = Require(host_.store().Read());
    const auto value = Require(snapshot->Get(records::GuestAdminKey(identifier)));
    return value ? std::string(value->text) : "absent";
  }
  static std::string NewestLogEntry() {
    const auto page = cluster::ReadLog(Require(records::Reader::OpenCurrent()), "", 1);
    return page.ok() && !page->entries.empty() ? page->entries[0].user + ": " + page->entries[0].text : "";
  }

  test::TestHost host_;
  // Its clock stands still, so that slow machines do not let more guesses pass.
  static session::LoginLimiterOptions Limits() {
    session::LoginLimiterOptions limits;
    limits.now = [] { return std::int64_t{1}; };
    return limits;
  }

  session::LoginLimiter limiter_{Limits()};
  std::unique_ptr<session::SessionTable> sessions_ =
      Require(session::SessionTable::Open(host_.folder().File("sessions.json"), {}));
  std::unique_ptr<ApiTable> table_;
  std::unique_ptr<ApiTable> pam_;
};

TEST_F(AccountApi, Rows_ExceptPasswordSet_AreForAdministrators) {
  for (const ApiRow& row : table_->rows()) {
    const bool is_own = row.method == "password_set";
    EXPECT_EQ(row.access.value, is_own ? Access::kUser : Access::kAdministrator) << row.method;
    for (const int code : row.errors) EXPECT_NE(FindError(code), nullptr) << row.method << " " << code;
  }
  for (const char* method : {"user_add", "password_set", "grant", "revoke", "grants_drop"}) {
    EXPECT_EQ(table_->Find("VEXA.Core.Account", method, 1)->lane.value, LaneKind::kLong) << method;
  }
}

TEST_F(AccountApi, UserAdded_IsListedAndLoggedWithoutThePassword) {
  const Answer added = Call("user_add", R"({"name":"alice","password":"first password","groups":["staff"],"uid":1026,
                                            "advanced":true})");
  ASSERT_EQ(added.code, 0);
  EXPECT_TRUE(HasPassword("alice", "first password"));
  const Answer list = Call("user_list", "{}");
  ASSERT_EQ(list.data["users"].size(), 1U);
  const Json::Value& alice = list.data["users"][0];
  EXPECT_EQ(alice["name"], "alice");
  EXPECT_EQ(alice["uid"], 1026);
  EXPECT_EQ(alice["administrator"], false);
  EXPECT_EQ(alice["advanced"], true);
  EXPECT_EQ(alice["groups"][1]["name"], "staff");
  EXPECT_FALSE(alice.isMember("password"));
  EXPECT_EQ(NewestLogEntry(), "root: The user [alice] has been added, with the groups [staff], as an advanced user.");
  EXPECT_FALSE(test::SyslogContains("first password"));
}

TEST_F(AccountApi, Add_NameOrIdTaken_IsRefusedWithReason) {
  ASSERT_EQ(Call("user_add", R"({"name":"alice","password":"good password","uid":1026})").code, 0);
  const Answer name = Call("user_add", R"({"name":"ALICE","password":"good password"})");
  EXPECT_EQ(name.code, user_error::kAccountTaken);
  EXPECT_EQ(ReasonOf(name), "There is a user 'alice' already.");
  const Answer uid = Call("user_add", R"({"name":"bob","password":"good password","uid":1026})");
  EXPECT_EQ(uid.code, user_error::kAccountTaken);
  EXPECT_THAT(ReasonOf(uid), HasSubstr("'alice' has the uid 1026"));
}

TEST_F(AccountApi, Parameters_Invalid_AreRefused) {
  const std::string long_list = "[\"a\"" + [] {
    std::string rest;
    for (int i = 0; i < 1000; ++i) rest += ",\"a\"";
    return rest;
  }() + "]";
  const std::pair<const char*, std::string> rows[] = {
      {"user_add", "{}"},
      {"user_add", R"({"name":"alice"})"},
      {"user_add", R"({"name":"../x","password":"good password"})"},
      {"user_add", R"({"name":"alice","password":"short"})"},
      {"user_add", R"({"name":"alice","password":")" + std::string(513, 'x') + "\"}"},
      {"user_add", R"({"name":"alice","password":"good password","uid":-1})"},
      {"user_add", R"({"name":"alice","password":"good password","uid":4294967295})"},
      {"user_add", R"({"name":"alice","password":"good password","uid":"1"})"},
      {"user_add", R"({"name":"alice","password":"good password","uid":null})"},
      {"user_add", R"({"name":"alice","password":"good password","groups":"staff"})"},
      {"user_add", R"({"name":"alice","password":"good password","groups":[7]})"},
      {"user_add", R"({"name":"alice","password":"good password","groups":["a b"]})"},
      {"user_add", R"({"name":"alice","password":"good password","groups":)" + long_list + "}"},
      {"user_add", R"({"name":"alice","password":"good password","advanced":1})"},
      {"user_delete", "{}"},
      {"user_delete", R"({"name":"alice","id":1})"},
      {"user_delete", R"({"id":1.5})"},
      {"groups_set", R"({"name":"alice"})"},
      {"group_delete", R"({"name":""})"},
      {"password_set", R"({"name":"alice"})"},
      {"password_set", R"({"password":"","name":"alice"})"},
      {"grant", R"({"kind":"user","name":"alice"})"},
      {"grant", R"({"kind":"user","name":"alice","guests":[]})"},
      {"grant", R"({"kind":"user","name":"alice","guests":["x"]})"},
      {"grant", R"({"kind":"users","name":"alice","guests":["6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55"]})"},
      {"grant", R"({"kind":"user","name":"a\u0007b","system":true,"guests":["6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55"]})"},
      {"level_set", R"({"kind":"user","name":"alice"})"},
      {"guest_grant_list", R"({"guest_id":"x"})"},
  };
  for (const auto& [method, parameters] : rows) {
    EXPECT_EQ(Call(method, parameters).code, user_error::kBadParameter) << method << " " << parameters;
  }
  EXPECT_FALSE(host_.accounts().FindUser("alice").ok());
}

TEST_F(AccountApi, Change_ByNameOrById_Works) {
  host_.AddUser("another-administrator", {"administrators"});
  const std::uint32_t alice = host_.AddUser("alice", {"staff"});
  const std::string id = std::to_string(alice);
  ASSERT_EQ(Call("groups_set", R"({"id":)" + id + R"(,"groups":["crew","administrators"]})").code, 0);
  EXPECT_TRUE(Require(host_.accounts().FindUser("alice")).is_administrator);
  EXPECT_EQ(NewestLogEntry(), "root: The groups of the user [alice] are now [crew, administrators].");
  const Answer groups = Call("group_list", "{}");
  ASSERT_EQ(groups.data["groups"].size(), 4U);
  EXPECT_EQ(groups.data["groups"][1]["name"], "crew");
  EXPECT_EQ(groups.data["groups"][1]["members"], Parsed(R"(["alice"])"));
  EXPECT_EQ(groups.data["groups"][2]["members"], Parsed("[]")) << "staff";
  const Answer full = Call("group_delete", R"({"name":"crew"})");
  EXPECT_EQ(full.code, user_error::kGroupCannotBeDeleted);
  EXPECT_THAT(ReasonOf(full), HasSubstr("'alice'"));
  EXPECT_EQ(Call("group_delete", R"({"name":"staff"})").code, 0);
  EXPECT_EQ(Call("group_delete", R"({"name":"staff"})").code, user_error::kNoAccount);
  EXPECT_EQ(Call("user_delete", R"({"id":)" + id + "}").code, 0);
  EXPECT_EQ(Call("user_delete", R"({"name":"alice"})").code, user_error::kNoAccount);
  EXPECT_EQ(Call("groups_set", R"({"name":"alice","groups":[]})").code, user_error::kNoAccount);
}

// The look-up found an account, and another account gets its name before the commit.
TEST_F(AccountApi, Change_NameReassignedMeanwhile_LeavesNewAccountUnchanged) {
  for (const auto& [method, more] : {std::pair{"user_delete", ""}, std::pair{"groups_set", R"(,"groups":["crew"])"},
                                     std::pair{"password_set", R"(,"password":"second password")"}}) {
    for (const bool is_by_name : {true, false}) {
      SCOPED_TRACE(std::string(method) + (is_by_name ? " by name" : " by id"));
      const std::uint32_t before = host_.AddUser("alice");
      std::uint32_t heir = 0;
      const auto interrupted = std::make_shared<test::RacingStore>(host_.store(), [&] {
        ASSERT_TRUE(host_.accounts().DeleteUser(before).ok());
        heir = host_.AddUser("alice");
      });
      const ApiTable table = TableOn(interrupted);
      const std::string who = is_by_name ? R"("name":"alice")" : R"("id":)" + std::to_string(before);
      EXPECT_EQ(CallOn(table, method, "{" + who + more + "}", Administrator()).code, user_error::kNoAccount);
      const accounts::User alice = Require(host_.accounts().FindUser("alice"));
      EXPECT_EQ(alice.uid, heir);
      EXPECT_EQ(alice.groups.size(), 1U) << "only the primary one";
      EXPECT_TRUE(HasPassword("alice", kPassword));
      ASSERT_TRUE(host_.accounts().DeleteUser(heir).ok());
    }
  }
}

TEST_F(AccountApi, DeleteGroup_NameReassignedMeanwhile_LeavesNewGroupUnchanged) {
  const std::uint32_t before = [&] {
    host_.AddUser("alice", {"staff"});
    return host_.GroupId("alice", "staff");
  }();
  ASSERT_TRUE(host_.accounts().SetGroups("alice", {}).ok());
  const auto interrupted = std::make_shared<test::RacingStore>(host_.store(), [&] {
    ASSERT_TRUE(host_.accounts().DeleteGroup(before).ok());
    ASSERT_TRUE(host_.accounts().SetGroups("alice", {"staff"}).ok());
    ASSERT_TRUE(host_.accounts().SetGroups("alice", {}).ok());
  });
  const ApiTable table = TableOn(interrupted);
  const std::string id = std::to_string(before);
  EXPECT_EQ(CallOn(table, "group_delete", R"({"id":)" + id + "}", Administrator()).code, user_error::kNoAccount);
  EXPECT_NE(Require(host_.accounts().FindGroup("staff")).gid, before);
}

TEST_F(AccountApi, LastAdministrator_IsNotRemoved) {
  host_.AddUser("alice", {"administrators"});
  const std::pair<const char*, const char*> changes[] = {{"user_delete", R"({"name":"alice"})"},
                                                         {"groups_set", R"({"name":"alice","groups":["staff"]})"}};
  for (const auto& [method, parameters] : changes) {
    const Answer refused = Call(method, parameters);
    EXPECT_EQ(refused.code, user_error::kLastAdministrator) << method;
    EXPECT_EQ(ReasonOf(refused),
              "The user 'alice' is the last one in the group 'administrators'. Put another user into it first.");
  }
  EXPECT_TRUE(Require(host_.accounts().FindUser("alice")).is_administrator);
  host_.AddUser("bob", {"administrators"});
  for (const auto& [method, parameters] : {changes[1], changes[0]}) EXPECT_EQ(Call(method, parameters).code, 0);
}

// On the Unix socket they would turn the machine's own administrator into an ordinary user.
TEST_F(AccountApi, Add_UidOfRootOrDaemon_IsRefusedWithReason) {
  for (const uid_t uid : {uid_t{0}, ::geteuid()}) {
    const Answer refused =
        Call("user_add", R"({"name":"alice","password":"good password","uid":)" + std::to_string(uid) + "}");
    EXPECT_EQ(refused.code, user_error::kBadParameter) << uid;
    EXPECT_THAT(ReasonOf(refused), HasSubstr("is that of root or of the daemon"));
  }
  EXPECT_FALSE(host_.accounts().FindUser("alice").ok());
}

TEST_F(AccountApi, PasswordSet_OwnPassword_NeedsOldOne) {
  host_.AddUser("grace");
  host_.AddUser("mallory");
  const char* with_old = R"({"password":"second password","old_password":"correct horse"})";
  EXPECT_EQ(CallAs("grace", "password_set", R"({"password":"second password"})").code, user_error::kWrongOldPassword);
  EXPECT_EQ(CallAs("grace", "password_set", R"({"password":"second password","old_password":"wrong"})").code,
            user_error::kWrongOldPassword);
  EXPECT_TRUE(HasPassword("grace", kPassword));
  ASSERT_EQ(CallAs("grace", "password_set", with_old).code, 0);
  EXPECT_TRUE(HasPassword("grace", "second password"));
  EXPECT_EQ(NewestLogEntry(), "grace: The password of the user [grace] has been changed.");
  EXPECT_FALSE(test::SyslogContains("second password"));
  EXPECT_EQ(CallAs("grace", "password_set", R"({"name":"GRACE","password":"x","old_password":"second password"})").code,
            user_error::kBadParameter)
      << "too short";
  for (const char* whose : {R"("name":"mallory")", R"("name":"nobody-here")", R"("id":0)"}) {
    const std::string parameters =
        std::string("{") + whose + R"(,"password":"third password","old_password":"correct horse"})";
    EXPECT_EQ(CallAs("grace", "password_set", parameters).code, user_error::kDenied) << whose;
  }
  EXPECT_TRUE(HasPassword("mallory", kPassword));
}

// A thief with the old password must not undo the change that locks them out.
TEST_F(AccountApi, PasswordSet_ChangedSinceOldOneWasChecked_KeepsIt) {
  const std::uint32_t grace = host_.AddUser("grace");
  const auto interrupted = std::make_shared<test::RacingStore>(
      host_.store(), [&] { ASSERT_TRUE(host_.accounts().SetPassword(grace, "a newer password").ok()); });
  const ApiTable table = TableOn(interrupted);
  const accounts::User caller = Require(host_.accounts().FindUser("grace"));
  const Answer answer =
      CallOn(table, "password_set", R"({"password":"second password","old_password":"correct horse"})", caller);
  EXPECT_EQ(answer.code, user_error::kWrongOldPassword);
  EXPECT_TRUE(HasPassword("grace", "a newer password"));
  EXPECT_EQ(interrupted->commits(), 1) << "the second plan refuses";
}

TEST_F(AccountApi, PasswordSet_UserRecreatedMeanwhile_LeavesNewPassword) {
  host_.AddUser("grace");
  const auto interrupted = std::make_shared<test::RacingStore>(host_.store(), [&] {
    ASSERT_TRUE(host_.accounts().DeleteUser("grace").ok());
    ASSERT_TRUE(host_.accounts().AddUser({"grace", "of the next one", {}, {}}).ok());
  });
  const ApiTable table = TableOn(interrupted);
  EXPECT_EQ(CallOn(table, "password_set", R"({"name":"grace","password":"second password"})", Administrator()).code,
            user_error::kNoAccount);
  EXPECT_TRUE(HasPassword("grace", "of the next one"));
}

TEST_F(AccountApi, PasswordSet_ByAdministrator_NeedsNoOldOne) {
  host_.AddUser("grace");
  ASSERT_EQ(Call("password_set", R"({"name":"grace","password":"second password"})").code, 0);
  EXPECT_TRUE(HasPassword("grace", "second password"));
  EXPECT_EQ(Call("password_set", R"({"name":"nobody-here","password":"second password"})").code,
            user_error::kNoAccount);
  EXPECT_EQ(Call("password_set", R"({"password":"second password"})").code, user_error::kNoAccount)
      << "the machine's root has no account";
  EXPECT_EQ(Call("password_set", R"({"name":"grace","password":"third password","old_password":"wrong"})").code,
            user_error::kWrongOldPassword)
      << "one that is given is checked";
}

TEST_F(AccountApi, PasswordSet_GuessedOldPasswords_IsSlowedDown) {
  host_.AddUser("grace");
  int slowed = 0;
  for (int i = 0; i < 12; ++i) {
    const Answer answer =
        CallAs("grace", "password_set", R"({"password":"second password","old_password":"a wrong guess"})");
    if (answer.code != user_error::kTooManyLogins) continue;
    ++slowed;
    ASSERT_FALSE(answer.headers.empty());
    EXPECT_EQ(answer.headers[0].first, "Retry-After");
  }
  EXPECT_EQ(slowed, 2);
}

// Each change takes an entry of the cluster log, which keeps a limited number of them.
TEST_F(AccountApi, PasswordSet_Repeated_IsSlowedDown) {
  host_.AddUser("grace");
  std::string now = kPassword;
  std::string next = "second password";
  int slowed = 0;
  for (int i = 0; i < 12; ++i) {
    const std::string parameters = R"({"password":")" + next + R"(","old_password":")" + now + "\"}";
    const int code = CallAs("grace", "password_set", parameters).code;
    if (code == user_error::kTooManyLogins) ++slowed;
    if (code == 0) std::swap(now, next);
  }
  EXPECT_EQ(slowed, 2);
}

TEST_F(AccountApi, Grants_GrantShowRevokeAndDrop_Work) {
  const std::string identifier = "users-" + std::to_string(host_.AddUser("bob", {"staff"}));
  host_.PutText("guest", kFirst, R"({"name":"web-1"})");
  const std::string guests = R"("guests":[")" + std::string(kFirst) + "\",\"" + kSecond + "\"]";
  ASSERT_EQ(Call("grant", R"({"kind":"user","name":"BOB",)" + guests + "}").code, 0);
  EXPECT_EQ(NewestLogEntry(),
            std::string("root: The user [bob] may use 2 virtual machines: [web-1], [") + kSecond + "].");
  ASSERT_EQ(Call("level_set", R"({"kind":"user","name":"bob","advanced":true})").code, 0);
  Answer list = Call("grant_list", R"({"kind":"user","name":"bob"})");
  EXPECT_EQ(list.data["level"], "advanced");
  EXPECT_EQ(list.data["given_to"], "bob");
  EXPECT_EQ(list.data["counts"], true);
  EXPECT_EQ(list.data["guests"], Parsed("[\"" + std::string(kSecond) + "\",\"" + kFirst + "\"]"));
  ASSERT_EQ(Call("grant", R"({"kind":"group","name":"staff","guests":[")" + std::string(kFirst) + "\"]}").code, 0);
  const Answer of_guest = Call("guest_grant_list", R"({"guest_id":")" + std::string(kFirst) + "\"}");
  ASSERT_EQ(of_guest.data["principals"].size(), 2U);
  EXPECT_EQ(of_guest.data["principals"][0]["name"], "bob");
  EXPECT_EQ(of_guest.data["principals"][1]["kind"], "group");
  EXPECT_EQ(of_guest.data["damaged"], Parsed("[]"));
  EXPECT_EQ(of_guest.data["principals"][0]["console"], false);
  const std::string first = R"("guests":[")" + std::string(kFirst) + "\"]";
  ASSERT_EQ(Call("grant", R"({"kind":"user","name":"bob","console":true,)" + first + "}").code, 0);
  EXPECT_EQ(NewestLogEntry(), "root: The user [bob] may use 1 virtual machine: [web-1], with the console.");
  EXPECT_EQ(Call("grant_list", R"({"kind":"user","name":"bob"})").data["consoles"],
            Parsed("[\"" + std::string(kFirst) + "\"]"));
  EXPECT_EQ(Call("guest_grant_list", R"({"guest_id":")" + std::string(kFirst) + "\"}").data["principals"][0]["console"],
            true);
  ASSERT_EQ(Call("revoke", R"({"kind":"user","name":"bob","console":true,)" + first + "}").code, 0);
  EXPECT_EQ(NewestLogEntry(), "root: The user [bob] may no longer open the console of 1 virtual machine: [web-1].");
  list = Call("grant_list", R"({"kind":"user","name":"bob"})");
  EXPECT_EQ(list.data["consoles"], Parsed("[]"));
  EXPECT_EQ(list.data["guests"].size(), 2U);
  EXPECT_EQ(Call("grant", R"({"kind":"user","name":"bob","console":"yes",)" + first + "}").code,
            user_error::kBadParameter);
  ASSERT_EQ(Call("revoke", R"({"kind":"user","name":"bob",)" + guests + "}").code, 0);
  EXPECT_THAT(NewestLogEntry(), HasSubstr("The user [bob] may no longer use 2 virtual machines"));
  EXPECT_EQ(Call("level_get", R"({"kind":"user","name":"bob"})").data["level"], "advanced");
  ASSERT_EQ(Call("grants_drop", R"({"kind":"user","name":"bob"})").code, 0);
  EXPECT_EQ(RecordOf(identifier), "absent");
  list = Call("grant_list", R"({"kind":"user","name":"bob"})");
  EXPECT_EQ(list.code, 0);
  EXPECT_EQ(list.data["level"], "user");
  EXPECT_EQ(list.data["guests"], Parsed("[]"));
}

TEST_F(AccountApi, Grants_GuestIdInUpperCase_IsSameGuest) {
  const std::string identifier = "users-" + std::to_string(host_.AddUser("bob"));
  host_.PutText("guest", kFirst, R"({"name":"web-1"})");
  const std::string upper = "6F1C2A0E-4A57-4F0C-8B2E-0D9B1F6F3C55";
  const std::string bob_and_guest = R"({"kind":"user","name":"bob","guests":[")" + upper + "\"]}";
  ASSERT_EQ(Call("grant", bob_and_guest).code, 0);
  EXPECT_EQ(NewestLogEntry(), "root: The user [bob] may use 1 virtual machine: [web-1].");
  EXPECT_EQ(Call("guest_grant_list", R"({"guest_id":")" + upper + "\"}").data["principals"].size(), 1U);
  EXPECT_EQ(Call("guest_grant_list", R"({"guest_id":")" + std::string(kFirst) + "\"}").data["principals"].size(), 1U);
  ASSERT_EQ(Call("revoke", bob_and_guest).code, 0);
  EXPECT_EQ(RecordOf(identifier), R"({"authlevel":"user","guests":{},"name":"bob"})");
}

TEST_F(AccountApi, Grants_UnknownPrincipal_IsRefused) {
  const std::string guests = R"("guests":[")" + std::string(kFirst) + "\"]";
  for (const std::string& who :
       {std::string(R"("kind":"user","name":"nobody-here")"), std::string(R"("kind":"group","name":"nobody-here")"),
        std::string(R"("kind":"user","id":4242)")}) {
    const Answer answer = Call("grant", "{" + who + "," + guests + "}");
    EXPECT_EQ(answer.code, user_error::kNoAccount) << who;
    EXPECT_NE(ReasonOf(answer), "") << who;
  }
}

// Rights count by id: root's would be those of an account with the id 0.
TEST_F(AccountApi, Grants_SystemUserWithStoreAccounts_IsRefused) {
  const std::string guests = R"(,"guests":[")" + std::string(kFirst) + "\"]";
  for (const std::string method : {"grant", "revoke", "level_set", "level_get", "grant_list", "grants_drop"}) {
    for (const char* who : {R"("name":"root")", R"("id":0)"}) {
      const Answer answer =
          Call(method, R"({"kind":"user","system":true,"advanced":true,)" + std::string(who) + guests + "}");
      EXPECT_EQ(answer.code, user_error::kBadParameter) << method << who;
      EXPECT_THAT(ReasonOf(answer), AllOf(HasSubstr("'accounts' is \"store\""), HasSubstr("--system"))) << method;
    }
  }
  EXPECT_EQ(RecordOf("users-0"), "absent");
  const std::string unknown = R"({"kind":"user","name":"nobody-here","system":true)" + guests + "}";
  EXPECT_EQ(CallOn(*pam_, "grant", unknown, Administrator()).code, user_error::kNoAccount);
}

TEST_F(AccountApi, Grants_RecordOfOtherName_CannotBeChangedButDroppedById) {
  const std::string id = std::to_string(host_.AddUser("alice"));
  host_.PutText("guest_admin", "users-" + id, R"({"authlevel":"advanced","guests":{"g":true},"name":"bob"})");
  const Answer refused = Call("grant", R"({"kind":"user","name":"alice","guests":[")" + std::string(kFirst) + "\"]}");
  EXPECT_EQ(refused.code, user_error::kGrantsOfOtherAccount);
  EXPECT_THAT(ReasonOf(refused), AllOf(HasSubstr("'bob'"), HasSubstr("drop-grants")));
  EXPECT_EQ(Call("level_get", R"({"kind":"user","name":"alice"})").data["level"], "user");
  EXPECT_EQ(Call("user_list", "{}").data["users"][0]["advanced"], false);
  const Answer list = Call("grant_list", R"({"kind":"user","name":"alice"})");
  EXPECT_EQ(list.data["given_to"], "bob");
  EXPECT_EQ(list.data["counts"], false);
  ASSERT_EQ(Call("grants_drop", R"({"kind":"user","id":)" + id + "}").code, 0);
  EXPECT_EQ(RecordOf("users-" + id), "absent");
}

TEST_F(AccountApi, Grants_DamagedRecord_IsReported) {
  const std::string id = std::to_string(host_.AddUser("alice"));
  host_.PutText("guest_admin", "users-" + id, "[]");
  EXPECT_EQ(Call("grant", R"({"kind":"user","name":"alice","guests":[")" + std::string(kFirst) + "\"]}").code,
            user_error::kAccountDamaged);
  EXPECT_EQ(Call("grant_list", R"({"kind":"user","name":"alice"})").code, user_error::kAccountDamaged);
  EXPECT_EQ(Call("guest_grant_list", R"({"guest_id":")" + std::string(kFirst) + "\"}").data["damaged"],
            Parsed("[\"users-" + id + "\"]"));
  EXPECT_EQ(Call("user_list", "{}").code, 0);
}

TEST_F(AccountApi, PamAccounts_Calls_OnlyGrantsOfSystemUsersWork) {
  for (const auto& [method, parameters] : std::vector<std::pair<std::string, std::string>>{
           {"user_list", "{}"},
           {"group_list", "{}"},
           {"user_add", R"({"name":"x","password":"good password"})"},
           {"user_delete", R"({"name":"x"})"},
           {"groups_set", R"({"name":"x","groups":[]})"},
           {"group_delete", R"({"name":"x"})"},
           {"password_set", R"({"name":"x","password":"good password"})"},
           {"level_set", R"({"kind":"group","name":"root","advanced":true})"},
           {"grant", R"({"kind":"user","name":"root","guests":["6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55"]})"}}) {
    EXPECT_EQ(CallOn(*pam_, method, parameters, Administrator()).code, user_error::kAccountsFromPam) << method;
  }
  EXPECT_THAT(std::string(FindError(user_error::kAccountsFromPam)->sentence),
              AllOf(HasSubstr("PAM"), HasSubstr("--system")));
  const std::string grant = R"({"kind":"user","name":"root","system":true,"guests":[")" + std::string(kFirst) + "\"]}";
  EXPECT_EQ(CallOn(*pam_, "grant", grant, Administrator()).code, 0);
  EXPECT_THAT(RecordOf("users-0"), HasSubstr(R"("name":"root")"));
  EXPECT_EQ(CallOn(*pam_, "grants_drop", R"({"kind":"user","id":0})", Administrator()).code, 0);
  EXPECT_EQ(RecordOf("users-0"), "absent");
}

// No code of the store is one of the refusals "taken", "of another name" or "has members", which have rows of their
// own.
TEST_F(AccountApi, StoreFails_EachCall_IsUnavailableAndLogged) {
  host_.AddUser("alice", {"staff"});
  ASSERT_EQ(Call("groups_set", R"({"name":"alice","groups":[]})").code, 0);
  const std::string alice_and_guest = R"({"kind":"user","name":"alice","guests":[")" + std::string(kFirst) + "\"]}";
  const std::pair<const char*, std::string> changes[] = {
      {"user_add", R"({"name":"bob","password":"good password"})"},
      {"user_delete", R"({"name":"alice"})"},
      {"groups_set", R"({"name":"alice","groups":["crew"]})"},
      {"group_delete", R"({"name":"staff"})"},
      {"password_set", R"({"name":"alice","password":"good password"})"},
      {"grant", alice_and_guest},
      {"revoke", alice_and_guest},
      {"level_set", R"({"kind":"user","name":"alice","advanced":true})"},
      {"grants_drop", R"({"kind":"user","name":"alice"})"},
  };
  // The fixture's accounts are on the store without the faults.
  const ApiTable table = TableOn(std::shared_ptr<store::Store>(&host_.store(), [](store::Store*) {}));
  const auto call = [&](const char* method, const std::string& parameters) {
    return CallOn(table, method, parameters, Administrator());
  };
  for (const ErrorCode code : {ErrorCode::kDenied, ErrorCode::kConflict, ErrorCode::kInvalid, ErrorCode::kCorrupt,
                               ErrorCode::kNotFound, ErrorCode::kNoSpace}) {
    host_.store().FailCommits(code);
    for (const auto& [method, parameters] : changes) {
      test::ClearCapturedSyslog();
      const Answer answer = call(method, parameters);
      EXPECT_EQ(answer.code, user_error::kAccountsUnavailable) << method << " " << ErrorCodeName(code);
      EXPECT_THAT(ReasonOf(answer), HasSubstr("The commit was made to")) << method;
      EXPECT_TRUE(test::SyslogContains("The commit was made to")) << method;
    }
    host_.store().Heal();
    host_.store().FailSnapshots(code);
    for (const char* method : {"user_list", "group_list"}) {
      EXPECT_EQ(call(method, "{}").code, user_error::kAccountsUnavailable) << method;
    }
    EXPECT_EQ(Call("guest_grant_list", R"({"guest_id":")" + std::string(kFirst) + "\"}").code,
              user_error::kAccountsUnavailable);
    EXPECT_EQ(Call("grant_list", R"({"kind":"user","id":7})").code, user_error::kAccountsUnavailable);
    host_.store().Heal();
  }
}

TEST_F(AccountApi, StoreUnusable_EachCall_IsAnError) {
  host_.AddUser("alice");
  host_.store().FailCommits();
  EXPECT_NE(Call("grant", R"({"kind":"user","name":"alice","guests":[")" + std::string(kFirst) + "\"]}").code, 0);
  host_.store().FailSnapshots();
  EXPECT_NE(Call("user_list", "{}").code, 0);
  EXPECT_NE(Call("guest_grant_list", R"({"guest_id":")" + std::string(kFirst) + "\"}").code, 0);
}

}  // namespace
}  // namespace vexa::api
