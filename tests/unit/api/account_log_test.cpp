// Changes of accounts and rights through VEXA.Core.Account: each is in the system log and the cluster log, with who
// made it and whom it is about, and never with a password.
#include <syslog.h>

#include "host/api/user/account_api.h"
#include "host/api/user/grant_api.h"
#include "host/cluster/cluster_log.h"
#include "tests/support/require.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/api/services_fixture.h"

namespace vexa::api {
namespace {

#define GUEST "6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55"

struct Row {
  const char* name;
  const char* method;
  const char* parameters;
  const char* sentence;
};
std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.name; }

// Users bob in the groups staff and crew, and dave; a group "empty".
constexpr Row kRows[] = {
    {"UserAdd", "user_add", R"({"name":"alice","password":"a new secret"})", "The user [alice] has been added."},
    {"UserAddWithRights", "user_add",
     R"({"name":"alice","password":"a new secret","groups":["staff","administrators"],"advanced":true})",
     "The user [alice] has been added, with the groups [staff, administrators], as an advanced user."},
    {"UserDelete", "user_delete", R"({"name":"BOB"})", "The user [bob] has been deleted."},
    {"GroupsSet", "groups_set", R"({"name":"bob","groups":["administrators","crew"]})",
     "The groups of the user [bob] are now [administrators, crew]."},
    {"GroupDelete", "group_delete", R"({"name":"empty"})", "The group [empty] has been deleted."},
    {"PasswordSet", "password_set", R"({"name":"bob","password":"a new secret"})",
     "The password of the user [bob] has been changed."},
    {"LevelSet", "level_set", R"({"kind":"user","name":"bob","advanced":true})",
     "The level of the user [bob] is now [advanced]."},
    {"LevelOfGroupSet", "level_set", R"({"kind":"group","name":"staff","advanced":true})",
     "The level of the group [staff] is now [advanced]."},
    {"Grant", "grant", R"({"kind":"user","name":"bob","guests":[")" GUEST R"("]})",
     "The user [bob] may use 1 virtual machine: [web-1]."},
    {"GrantToGroup", "grant", R"({"kind":"group","name":"staff","guests":[")" GUEST R"("]})",
     "The group [staff] may use 1 virtual machine: [web-1]."},
    {"Revoke", "revoke", R"({"kind":"user","name":"bob","guests":[")" GUEST R"("]})",
     "The user [bob] may no longer use 1 virtual machine: [web-1]."},
    {"GrantsDrop", "grants_drop", R"({"kind":"user","name":"bob"})",
     "What was granted to the user [bob] has been dropped."},
};

class AccountLog : public ::testing::TestWithParam<Row> {
 protected:
  AccountLog() {
    const std::shared_ptr<store::Store> store(&host_.store(), [](store::Store*) {});
    const std::shared_ptr<cluster::AccountStore> accounts(&host_.accounts(), [](cluster::AccountStore*) {});
    std::vector<ApiRow> rows = AccountRows({store, accounts, &limiter_, sessions_.get()});
    for (ApiRow& row : GrantRows({store, accounts, &limiter_, sessions_.get()})) rows.push_back(std::move(row));
    table_ = std::make_unique<ApiTable>(std::move(rows));
    host_.AddUser("bob", {"staff", "crew"});
    host_.AddUser("dave", {"empty"});
    EXPECT_TRUE(host_.accounts().SetGroups("dave", {"administrators"}).ok());
    host_.PutText("guest", GUEST, R"({"name":"web-1"})");
    test::ClearCapturedSyslog();
  }

  test::TestHost host_;
  session::LoginLimiter limiter_{{}};
  std::unique_ptr<session::SessionTable> sessions_ =
      Require(session::SessionTable::Open(host_.folder().File("sessions.json"), {}));
  std::unique_ptr<ApiTable> table_;
};

TEST_P(AccountLog, Change_Succeeds_IsInBothLogsWithActorAndTarget) {
  const Row& row = GetParam();
  ASSERT_EQ(CallTable(*table_, "VEXA.Core.Account", row.method, row.parameters, UserCaller(Administrator())).code, 0);
  EXPECT_EQ(ClusterLogLines(), std::vector<std::string>{std::string("root 3 ") + row.sentence});
  const auto lines = test::CapturedSyslog();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, std::string(row.sentence) + " By user[root] from [192.0.2.1].");
  EXPECT_EQ(lines[0].level(), LOG_NOTICE);
}

INSTANTIATE_TEST_SUITE_P(Methods, AccountLog, ::testing::ValuesIn(kRows),
                         [](const auto& test) { return std::string(test.param.name); });

using AccountLogTable = AccountLog;

TEST_F(AccountLogTable, EveryMethod_ThatChangesSomething_HasARow) {
  for (const ApiRow& row : table_->rows()) {
    const std::string method(row.method);
    if (method.ends_with("_list") || method.ends_with("_get")) continue;
    EXPECT_TRUE(std::ranges::any_of(kRows, [&](const Row& tested) { return tested.method == method; })) << method;
  }
}

}  // namespace
}  // namespace vexa::api
