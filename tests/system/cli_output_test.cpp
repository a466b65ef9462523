// --output, --watch and colours.
#include <fcntl.h>
#include <signal.h>

#include "tests/system/cli_program.h"
#include "tests/system/cli_terminal.h"

namespace vexa::test {
namespace {

std::string ListOf(const std::string& state, const std::string& severity, int age) {
  return R"({"success":true,"data":{"guests":[{"guest_id":"g1","guest_name":"web","host_id":"h1","status":")" + state +
         R"(","status_type":")" + severity + R"(","age_s":)" + std::to_string(age) + "}]}}";
}

class Output : public CliTest {
 protected:
  ProcessOptions ForTerminal(const ScriptedServer& server, std::vector<std::string> arguments) const {
    SaveLogin(server.url());
    ProcessOptions program = Program(std::move(arguments));
    program.environment["TERM"] = "xterm";
    return program;
  }
};

TEST_F(Output, List_EachFormat_PrintsTheSameData) {
  const ScriptedServer server({HttpReplyOf(200, ListOf("running", "healthy", 3))});
  EXPECT_THAT(RunOn(server, {"guest", "list"}).output, HasSubstr("STATE"));
  EXPECT_THAT(RunOn(server, {"guest", "list", "--output", "table"}).output, HasSubstr("STATE"));
  const std::string json = RunOn(server, {"guest", "list", "--output", "json"}).output;
  EXPECT_THAT(json, HasSubstr("\"guest_name\" : \"web\""));
  EXPECT_EQ(RunOn(server, {"--json", "guest", "list"}).output, json);
  EXPECT_EQ(RunOn(server, {"guest", "list", "--output", "yaml"}).output,
            "guests:\n  - age_s: 3\n    guest_id: g1\n    guest_name: web\n    host_id: h1\n    status: running\n"
            "    status_type: healthy\n");
  EXPECT_EQ(RunOn(server, {"guest", "list", "--output", "name"}).output, "web\n");
  EXPECT_EQ(RunOn(server, {"call", "A", "b", "--output", "name"}).output, "web\n");
}

TEST_F(Output, Format_UnknownOrTwice_IsUsageError) {
  const auto unknown = Run({"guest", "list", "--output", "jsn"});
  EXPECT_EQ(unknown.exit_code, 2);
  EXPECT_THAT(
      unknown.errors,
      StartsWith("vexa: 'jsn' is not a value of --output; did you mean 'json'? Use table, json, yaml or name\n"));
  EXPECT_EQ(Run({"guest", "list", "--output", "yaml", "--json"}).exit_code, 2);
}

TEST_F(Output, Watch_OnPipe_PrintsABlockForEachChange) {
  const ScriptedServer server(
      {HttpReplyOf(200, ListOf("running", "healthy", 1)), HttpReplyOf(200, ListOf("running", "healthy", 2)),
       HttpReplyOf(200, ListOf("running", "healthy", 3)), HttpReplyOf(200, ListOf("shutdown", "healthy", 4))});
  SaveLogin(server.url());
  for (const char* format : {"table", "json"}) {
    Process watch(Program({"guest", "list", "--output", format, "--watch", "1"}));
    if (std::string(format) == "table") {
      ASSERT_TRUE(watch.WaitForText("shutdown", std::chrono::seconds(60)));
      // Ages alone do not count as a change.
      const std::string shown = watch.output();
      EXPECT_EQ(shown.find("running"), shown.rfind("running"));
      EXPECT_THAT(shown, AllOf(HasSubstr("\n\n"), Not(HasSubstr("\x1b"))));
    } else {
      ASSERT_TRUE(watch.WaitForText("}\n", std::chrono::seconds(60)));
    }
    watch.Signal(SIGINT);
    const auto ended = watch.Wait(std::chrono::seconds(60));
    ASSERT_TRUE(ended.has_value());
    EXPECT_EQ(ended->code, 0);
  }
}

TEST_F(Output, Watch_ReaderHasEnded_EndsToo) {
  const ScriptedServer server({HttpReplyOf(200, ListOf("running", "healthy", 1))});  // never changes
  SaveLogin(server.url());
  ProcessOptions program = Program({});
  program.argv = {"sh", "-c", "\"$VEXA\" guest list --watch=60 | head -n 1"};
  program.environment["VEXA"] = VEXA_PROGRAM;
  Process watch(program);
  ASSERT_TRUE(watch.Wait(std::chrono::seconds(50)).has_value());
  EXPECT_THAT(watch.output(), HasSubstr("STATE"));
}

TEST_F(Output, Watch_WordAfterIt_IsAnArgument) {
  EXPECT_THAT(Run({"guest", "status", "--watch", "web", "--server", "ftp://x"}).errors, HasSubstr("The server's URL"));
  EXPECT_THAT(Run({"guest", "status", "--watch", "5", "--server", "ftp://x"}).errors, HasSubstr("GUEST is required"));
  EXPECT_EQ(Run({"guest", "list", "--watch", "0"}).exit_code, 2);
}

TEST_F(Output, Watch_Refused_Ends) {
  const ScriptedServer server({HttpReplyOf(403, R"({"success":false,"error":{"code":105,"message":"No"}})")});
  const auto result = RunOn(server, {"guest", "list", "--watch"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, HasSubstr("No (105)"));
}

TEST_F(Output, Watch_ServerGone_SaysSoOnceAndGoesOn) {
  SaveLogin("http://127.0.0.1:1");
  Process watch(Program({"guest", "list", "--watch", "1"}));
  ASSERT_TRUE(watch.WaitForText("nothing listens on its port 1", std::chrono::seconds(60)));
  EXPECT_FALSE(watch.Wait(std::chrono::seconds(3)).has_value());
  const std::string errors = watch.errors();
  EXPECT_EQ(errors.find("vexa: "), errors.rfind("vexa: "));
}

TEST_F(Output, Watch_OnTerminal_RedrawsTheScreen) {
  const ScriptedServer server({HttpReplyOf(200, ListOf("running", "healthy", 1)),
                               HttpReplyOf(200, ListOf("running", "healthy", 1)),
                               HttpReplyOf(200, ListOf("shutdown", "error", 1))});
  OnTerminal watch(ForTerminal(server, {"guest", "list", "--watch", "1"}));
  EXPECT_TRUE(watch.WaitFor("\x1b[H\x1b[2J"));
  EXPECT_TRUE(watch.WaitFor("running"));
  EXPECT_TRUE(watch.WaitFor("\x1b[H\x1b[2J"));
  EXPECT_TRUE(watch.WaitFor("shutdown"));
}

TEST_F(Output, Colours_OnTerminal_ShowTheSeverity) {
  const ScriptedServer server({HttpReplyOf(200, ListOf("crashed", "error", 1))});
  OnTerminal coloured(ForTerminal(server, {"guest", "list"}));
  EXPECT_TRUE(coloured.WaitFor("\x1b[31m"));
  EXPECT_TRUE(coloured.WaitFor("\x1b[0m"));
  for (const auto& [name, value] : {std::pair("NO_COLOR", "1"), std::pair("TERM", "dumb")}) {
    ProcessOptions program = ForTerminal(server, {"guest", "list"});
    program.environment[name] = value;
    OnTerminal plain(program);
    EXPECT_TRUE(plain.WaitFor("crashed"));
    EXPECT_FALSE(plain.WaitFor("\x1b[")) << name;
  }
  EXPECT_THAT(RunOn(server, {"guest", "list"}).output, Not(HasSubstr("\x1b")));
}

}  // namespace
}  // namespace vexa::test
