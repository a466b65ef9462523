// vexa session against a scripted server.
#include "tests/system/cli_api_host.h"
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

const std::string kSessions = R"({"sessions":[
  {"id":"4f1c2a0e5b7d9c31","user":"alice","uid":1,"from":"192.0.2.1","created":1000000000,"last_used":1000000060,
   "current":true},
  {"id":"0000000000000001","user":"b\u001b[31mob","from":7,"created":"soon","current":"yes"}, 7]})";

class SessionCommands : public CliTest {
 protected:
  static ApiHost::Answer Answers() {
    return [](const std::string& method, const Json::Value& parameters) -> std::optional<ApiHost::Reply> {
      if (method == "list") return ApiHost::Success(kSessions);
      if (parameters["id"] == "0000000000000002") return ApiHost::Failure(989, "There is no such session.");
      if (parameters["user"] == "carol") {
        return ApiHost::Failure(100, "It failed.", R"(,"reason":"The file of the sessions cannot be written.")");
      }
      return ApiHost::Success(R"({"ended":3})");
    };
  }
};

TEST_F(SessionCommands, List_TableOrJson_ShowsSessions) {
  const ApiHost host(Answers());
  const auto result = RunOn(host, {"session", "list"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, AllOf(StartsWith("SESSION "), HasSubstr("4f1c2a0e5b7d9c31"), HasSubstr("192.0.2.1"),
                                   HasSubstr("2001-09-"), HasSubstr("this login\n"), HasSubstr("b\\x1b[31mob"),
                                   Not(HasSubstr("\x1b")), Not(HasSubstr("soon"))));
  const auto json = ParseJson(RunOn(host, {"session", "list", "bob", "--json"}).output);
  ASSERT_TRUE(json.ok());
  EXPECT_EQ((*json)[0]["created"], 1000000000);
  EXPECT_EQ(RunOn(host, {"session", "list", "--all"}).exit_code, 0);
  EXPECT_EQ(RunOn(host, {"session", "list", "bob", "--all"}).exit_code, 2);
  EXPECT_THAT(host.calls(), ElementsAre("list {}", R"(list {"user":"bob"})", R"(list {"all":true})"));
}

TEST_F(SessionCommands, List_NoSessionsInReply_Fails) {
  const ApiHost host([](const auto&, const auto&) { return ApiHost::Success("{}"); });
  ExpectFailed(RunOn(host, {"session", "list"}), "no sessions");
}

TEST_F(SessionCommands, End_OneOrAllOfUser_ConfirmsIt) {
  const ApiHost host(Answers());
  EXPECT_EQ(RunOn(host, {"session", "end", "4f1c2a0e5b7d9c31"}).output, "Ended the session '4f1c2a0e5b7d9c31'.\n");
  EXPECT_EQ(RunOn(host, {"session", "end", "--user", "bob"}).output, "Ended 3 sessions of the user 'bob'.\n");
  EXPECT_EQ(RunOn(host, {"session", "end", "--user", "bob", "--quiet"}).output, "");
  ExpectFailed(RunOn(host, {"session", "end", "0000000000000002"}), "There is no such session (989).");
  ExpectFailed(RunOn(host, {"session", "end", "--user", "carol"}), "The file of the sessions cannot be written.");
  EXPECT_EQ(host.calls()[0], R"(end {"id":"4f1c2a0e5b7d9c31"})");
  EXPECT_EQ(host.calls()[1], R"(end {"user":"bob"})");
}

TEST_F(SessionCommands, End_NeitherOrBoth_IsWrongUsage) {
  const ApiHost host(Answers());
  EXPECT_EQ(RunOn(host, {"session", "end"}).exit_code, 2);
  EXPECT_EQ(RunOn(host, {"session", "end", "4f1c2a0e5b7d9c31", "--user", "bob"}).exit_code, 2);
  EXPECT_EQ(RunOn(host, {"session", "end", "\xFF"}).exit_code, 2);
  EXPECT_TRUE(host.calls().empty());
}

}  // namespace
}  // namespace vexa::test
