// vexa user, vexa group and vexa guest grants against a scripted server.
#include "tests/system/cli_api_host.h"
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

constexpr const char* kFirst = "6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55";
constexpr const char* kSecond = "00000000-0000-4000-8000-00000000000a";

const std::string kUsers = R"({"users":[
  {"name":"alice","uid":1900000002,"gid":1900000001,"administrator":true,"advanced":false,
   "groups":[{"name":"users","gid":1900000001},{"name":"administrators","gid":1900000000}]},
  {"name":"b\u001b[31mob","uid":1026,"gid":1900000001,"administrator":false,"advanced":false,"groups":[]}, 7]})";

// The name of the guest looks like an id.
constexpr const char* kOddName = "00000000-0000-4000-8000-00000000000b";
const std::string kGuestList =
    std::string(R"({"guests":[{"guest_id":")") + kSecond + R"(","guest_name":")" + kOddName + "\"}]}";

ApiHost::Reply NoAccount() { return ApiHost::Failure(980, "There is no such user or group."); }

class AccountCommands : public CliTest {
 protected:
  ProcessResult RunOn(const ApiHost& host, std::vector<std::string> arguments, const std::string& input = "") {
    SaveLogin(host.url());
    return Run(std::move(arguments), input);
  }
  // Knows alice, and does whatever it is asked.
  static ApiHost::Answer SucceedAlways() {
    return [](const std::string& method, const Json::Value& parameters) -> std::optional<ApiHost::Reply> {
      if (method == "user_list") return ApiHost::Success(kUsers);
      if (method == "list") return ApiHost::Success(kGuestList);
      if (method == "level_get" && parameters["name"] != "alice") return NoAccount();
      if (method == "level_get") {
        return ApiHost::Success(R"({"kind":"user","id":7,"name":"alice","level":"advanced"})");
      }
      return ApiHost::Success("{}");
    };
  }
};

TEST_F(AccountCommands, UserList_TableOrJson_ShowsUsers) {
  const ApiHost host(SucceedAlways());
  const auto result = RunOn(host, {"user", "list"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output,
              AllOf(StartsWith("USER "), HasSubstr("alice"), HasSubstr("  yes "), HasSubstr("users, administrators"),
                    HasSubstr("b\\x1b[31mob"), HasSubstr("  no\n"), Not(HasSubstr("\x1b"))));
  const auto json = ParseJson(RunOn(host, {"user", "list", "--json"}).output);
  ASSERT_TRUE(json.ok());
  EXPECT_TRUE(json->isArray());
  EXPECT_EQ((*json)[0]["name"], "alice");
}

TEST_F(AccountCommands, UserAdd_NameFree_SendsPassword) {
  const ApiHost host(SucceedAlways());
  const auto result = RunOn(
      host,
      {"user", "add", "bob", "--group", "staff", "--group", "crew", "--uid", "1026", "--advanced", "--password-stdin"},
      "good password\n");
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "Added user 'bob'.\n");
  EXPECT_THAT(host.calls(), ElementsAre(R"(level_get {"kind":"user","name":"bob"})",
                                        R"(user_add {"advanced":true,"groups":["staff","crew"],"name":"bob",)"
                                        R"("password":"good password","uid":1026})"));
}

TEST_F(AccountCommands, UserAdd_NameTaken_AsksForNoPassword) {
  const ApiHost host(SucceedAlways());
  const auto result = RunOn(host, {"user", "add", "alice"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, "vexa: There is a user 'alice' already\n");
  EXPECT_EQ(host.Count("user_add"), 0);
}

TEST_F(AccountCommands, WrongUsage_SendsNothing) {
  const ApiHost host(SucceedAlways());
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"user", "add", "../x", "--password-stdin"},
                                             {"user", "add", "bob", "--uid", "x", "--password-stdin"},
                                             {"user", "add", "bob", "--uid", "-1", "--password-stdin"},
                                             {"user", "add", "bob", "--uid", "4294967295", "--password-stdin"},
                                             {"user", "add", "bob", "--uid", "4294967296", "--password-stdin"},
                                             {"user", "add", "bob", "--group", "a b", "--password-stdin"},
                                             {"user", "group", "bob", "a/b"},
                                             {"user", "grant", "alice", ""},
                                             {"user", "grant", "--id", "alice", kFirst},
                                             {"group", "revoke", "--system", "", kFirst},
                                             {"user", "advanced", "alice", "--off", "--show"}}) {
    EXPECT_EQ(RunOn(host, arguments, "good password\n").exit_code, 2) << arguments[1] << " " << arguments[2];
  }
  EXPECT_THAT(host.calls(), IsEmpty());
  for (const char* password : {"short\n", "\n", "", "\xff\xff\xff\xff\xff\xff\xff\xff\n"}) {
    EXPECT_EQ(RunOn(host, {"user", "add", "bob", "--password-stdin"}, password).exit_code, 2);
  }
  EXPECT_EQ(host.Count("user_add"), 0);
}

TEST_F(AccountCommands, Commands_InvalidNames_AreReportedAsUnknown) {
  const ApiHost host(SucceedAlways());
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"user", "del", "a b"},
                                             {"user", "passwd", "", "--password-stdin"},
                                             {"group", "del", "a b"},
                                             {"user", "grant", "a b", kFirst}}) {
    const auto result = RunOn(host, arguments, "good password\n");
    EXPECT_EQ(result.exit_code, 1) << arguments[1];
    EXPECT_THAT(result.errors, HasSubstr("name is invalid"));
  }
  EXPECT_THAT(host.calls(), IsEmpty());
}

struct Row {
  const char* name;
  std::vector<std::string> arguments;
  std::string call;
  std::string output;
};
const Row kRows[] = {
    {"Group",
     {"user", "group", "alice", "staff"},
     R"(groups_set {"groups":["staff"],"name":"alice"})",
     "Changed the groups of 'alice'.\n"},
    {"Del", {"user", "del", "alice"}, R"(user_delete {"name":"alice"})", "Deleted user 'alice'.\n"},
    {"GroupDel", {"group", "del", "staff"}, R"(group_delete {"name":"staff"})", "Deleted group 'staff'.\n"},
    {"Grant",
     {"user", "grant", "alice", kFirst, kSecond},
     std::string(R"(grant {"guests":[")") + kFirst + "\",\"" + kSecond + R"("],"kind":"user","name":"alice"})",
     "Granted to 'alice'.\n"},
    {"GrantOfAGuestWithANameLikeAnId",
     {"user", "grant", "alice", kOddName},
     std::string(R"(grant {"guests":[")") + kSecond + R"("],"kind":"user","name":"alice"})",
     "Granted to 'alice'.\n"},
    {"GrantOfASystemGroup",
     {"group", "grant", "--system", "DOM\\domain users", kFirst},
     std::string(R"(grant {"guests":[")") + kFirst + R"("],"kind":"group","name":"DOM\\domain users","system":true})",
     "Granted to 'DOM\\\\domain users'.\n"},
    {"Revoke",
     {"group", "revoke", "staff", kFirst},
     std::string(R"(revoke {"guests":[")") + kFirst + R"("],"kind":"group","name":"staff"})",
     "Revoked from 'staff'.\n"},
    {"Advanced",
     {"user", "advanced", "alice"},
     R"(level_set {"advanced":true,"kind":"user","name":"alice"})",
     "The level of 'alice' is now 'advanced'.\n"},
    {"AdvancedOff",
     {"group", "advanced", "--off", "staff"},
     R"(level_set {"advanced":false,"kind":"group","name":"staff"})",
     "The level of 'staff' is now 'user'.\n"},
    {"AdvancedShow",
     {"user", "advanced", "--show", "alice"},
     R"(level_get {"kind":"user","name":"alice"})",
     "advanced\n"},
    {"Drop",
     {"user", "drop-grants", "alice"},
     R"(grants_drop {"kind":"user","name":"alice"})",
     "Dropped all grants of 'alice'.\n"},
    {"DropById",
     {"user", "drop-grants", "--id", "1026"},
     R"(grants_drop {"id":1026,"kind":"user"})",
     "Dropped all grants of '1026'.\n"},
};

class AccountChange : public AccountCommands, public ::testing::WithParamInterface<Row> {};

TEST_P(AccountChange, Command_Succeeds_MakesOneChangeAndPrintsOneLine) {
  const ApiHost host(SucceedAlways());
  const auto result = RunOn(host, GetParam().arguments);
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, GetParam().output);
  std::vector<std::string> calls = host.calls();
  std::erase(calls, "list {}");  // the guests, to find their names
  EXPECT_THAT(calls, ElementsAre(GetParam().call));
}

INSTANTIATE_TEST_SUITE_P(Rows, AccountChange, ::testing::ValuesIn(kRows),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(AccountCommands, Passwd_OtherUser_AsksForNewPasswordOnly) {
  const ApiHost host(SucceedAlways());
  const auto result = RunOn(host, {"user", "passwd", "alice", "--password-stdin"}, "second password\n");
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "Changed the password of 'alice'.\n");
  EXPECT_THAT(host.calls(), ElementsAre(R"(level_get {"kind":"user","name":"alice"})",
                                        R"(password_set {"name":"alice","password":"second password"})"));
  const auto unknown = RunOn(host, {"user", "passwd", "bob"});
  EXPECT_EQ(unknown.exit_code, 1);
  EXPECT_THAT(unknown.errors, HasSubstr("(980)"));
}

// The password has nothing to do with the damaged record of grants.
TEST_F(AccountCommands, Passwd_LevelUnreadable_StillSetsPassword) {
  for (const int code : {985, 988}) {
    const ApiHost host([code](const std::string& method, const Json::Value&) {
      return method == "level_get" ? ApiHost::Failure(code, "A record cannot be understood.") : ApiHost::Success();
    });
    const auto result = RunOn(host, {"user", "passwd", "alice", "--password-stdin"}, "second password\n");
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    EXPECT_EQ(host.Count("password_set"), 1) << code;
    EXPECT_EQ(RunOn(host, {"user", "add", "bob", "--password-stdin"}, "good password\n").exit_code, 0);
    EXPECT_EQ(host.Count("user_add"), 1) << code;
  }
}

TEST_F(AccountCommands, Passwd_NoName_ChangesOwnPasswordWithOldOne) {
  const ApiHost host(SucceedAlways());
  const auto result = RunOn(host, {"user", "passwd", "--password-stdin"}, "old password\nsecond password\n");
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "Changed your password.\n");
  EXPECT_THAT(host.calls(),
              ElementsAre(R"(password_set {"old_password":"old password","password":"second password"})"));
}

TEST_F(AccountCommands, Command_Refused_ShowsCodeAndReason) {
  const ApiHost host([](const std::string&, const Json::Value&) {
    return ApiHost::Failure(984, "The grants of this id were given to somebody of another name.",
                            R"(,"reason":"They were given to 'b\u001bob'.")");
  });
  const auto result = RunOn(host, {"user", "grant", "alice", kFirst});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, AllOf(HasSubstr(" (984).\n  Reason: "), HasSubstr("They were given to 'b\\x1bob'."),
                                   Not(HasSubstr("\x1b"))));
  EXPECT_THAT(result.output, IsEmpty());
}

TEST_F(AccountCommands, UserList_NoDaemon_SuggestsLocal) {
  const auto result = Run({"user", "list"});
  EXPECT_EQ(result.exit_code, 3);
  EXPECT_THAT(result.errors, HasSubstr("vexa user add --local"));
}

TEST_F(AccountCommands, GroupList_TableOrJson_ShowsGroups) {
  const ApiHost host([](const std::string&, const Json::Value&) {
    return ApiHost::Success(R"({"groups":[{"name":"staff","gid":7,"advanced":true,"members":["alice","bob"]}, null]})");
  });
  const auto result = RunOn(host, {"group", "list"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, AllOf(StartsWith("GROUP "), HasSubstr("staff  7   yes       alice, bob\n")));
  EXPECT_THAT(RunOn(host, {"group", "list", "--json"}).output, StartsWith("["));
}

TEST_F(AccountCommands, UserGrants_RecordOfOtherName_IsShownWithWarning) {
  const ApiHost host([](const std::string&, const Json::Value& parameters) {
    const std::string counts = parameters["name"] == "alice" ? "true" : "false";
    return ApiHost::Success(R"({"level":"user","given_to":"carol","counts":)" + counts + R"(,"guests":[")" + kFirst +
                            R"(",7],"consoles":[")" + kFirst + "\"]}");
  });
  const auto result = RunOn(host, {"user", "grants", "alice"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, std::string("Level: user\n") + kFirst + " with its console\n7\n");
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_THAT(RunOn(host, {"user", "grants", "bob"}).errors, HasSubstr("'carol'"));
}

TEST_F(AccountCommands, GuestGrants_GuestName_IsResolved) {
  const ApiHost host([](const std::string& method, const Json::Value&) {
    if (method == "list") {
      return ApiHost::Success(std::string(R"({"guests":[{"guest_id":")") + kFirst + R"(","guest_name":"web-1"}]})");
    }
    return ApiHost::Success(R"({"principals":[{"kind":"group","name":"staff","id":7,"level":"user","console":true}],
                                "damaged":["users-8"]})");
  });
  EXPECT_EQ(RunOn(host, {"guest", "grants", "6F1C2A0E-4a57-4F0C-8B2E-0D9B1F6F3C55"}).exit_code, 0);
  const auto result = RunOn(host, {"guest", "grants", "web-1"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, AllOf(StartsWith("KIND "), HasSubstr("group  staff  7   user   true\n")));
  EXPECT_THAT(result.errors, HasSubstr("'users-8'"));
  const std::string call = std::string(R"(guest_grant_list {"guest_id":")") + kFirst + "\"}";
  EXPECT_THAT(host.calls(), ElementsAre("list {}", call, "list {}", call));
}

TEST_F(AccountCommands, Reply_UnexpectedTypes_IsAnErrorNotACrash) {
  for (const char* data : {"null", "7", "[]", R"({"users":7,"groups":{},"guests":"x","principals":null})"}) {
    const ApiHost host([data](const std::string&, const Json::Value&) { return ApiHost::Success(data); });
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"user", "list"}, {"group", "list"}, {"user", "grants", "alice"}, {"guest", "grants", kFirst}}) {
      const auto result = RunOn(host, arguments);
      EXPECT_EQ(result.exit_code, 1) << data << arguments[0] << arguments[1];
      EXPECT_THAT(result.errors, HasSubstr("contains no "));
    }
  }
}

}  // namespace
}  // namespace vexa::test
