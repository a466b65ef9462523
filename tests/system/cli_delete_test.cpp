// vexa guest delete: nothing is deleted without confirmation.
#include "tests/system/cli_api_host.h"
#include "tests/system/cli_program.h"
#include "tests/system/cli_terminal.h"

namespace vexa::test {
namespace {

const std::string kGuests = R"({"guests":[{"guest_id":"g1","guest_name":"web-1"},
    {"guest_id":"g2","guest_name":"b\u001b[31md"}]})";

class Delete : public CliTest {
 protected:
  static ApiHost::Answer Answers() {
    return [](const std::string& method, const Json::Value&) -> std::optional<ApiHost::Reply> {
      if (method == "list") return ApiHost::Success(kGuests);
      return ApiHost::Success(method == "get" ? R"({"vdisks":[{},{},{}]})" : "null");
    };
  }
  ProcessOptions ProgramOn(const ApiHost& host, std::vector<std::string> arguments) {
    SaveLogin(host.url());
    arguments.insert(arguments.begin(), {"guest", "delete"});
    return Program(std::move(arguments));
  }
  // What comes of `typed` on a terminal.
  int Type(const ApiHost& host, const std::string& typed, std::string& shown) {
    OnTerminal terminal(ProgramOn(host, {"web-1", "g2"}));
    EXPECT_TRUE(terminal.WaitFor("Type 'yes' to delete: ")) << terminal.shown();
    EXPECT_EQ(host.Count("delete"), 0) << "before anybody has agreed";
    terminal.Type(typed);
    const int status = terminal.Finish();
    shown = terminal.shown();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

TEST_F(Delete, Delete_YesOnTerminal_DeletesListedParts) {
  const ApiHost host(Answers());
  std::string shown;
  EXPECT_EQ(Type(host, "yes\n", shown), 0) << shown;
  EXPECT_THAT(shown, AllOf(HasSubstr("web-1       g1     3"), HasSubstr("b\\x1b[31md  g2     3"),
                           HasSubstr("web-1: deleted"), HasSubstr("b\\x1b[31md: deleted"), Not(HasSubstr("\x1b[31m"))));
  EXPECT_THAT(host.calls(), ::testing::IsSupersetOf({R"(delete {"guest_id":"g1"})", R"(delete {"guest_id":"g2"})"}));
}

TEST_F(Delete, Delete_AnyAnswerButYes_DeletesNothing) {
  for (const char* typed : {"y\n", "YES\n", "\n", "yes please\n", "no\n", "\x04"}) {
    const ApiHost host(Answers());
    std::string shown;
    EXPECT_EQ(Type(host, typed, shown), 1) << typed;
    EXPECT_THAT(shown, HasSubstr("Nothing was deleted"));
    EXPECT_EQ(host.Count("delete"), 0) << typed;
  }
}

TEST_F(Delete, Delete_QuestionInterrupted_DeletesNothing) {
  const ApiHost host(Answers());
  std::string shown;
  EXPECT_NE(Type(host, "\x03", shown), 0);
  EXPECT_EQ(host.Count("delete"), 0);
}

TEST_F(Delete, Delete_NoTerminal_IsRefusedAndNothingIsSent) {
  const ApiHost host(Answers());
  ProcessOptions program = ProgramOn(host, {"web-1"});
  program.input = "yes\n";
  const auto result = RunProcess(program);
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_THAT(result.errors, HasSubstr("--yes"));
  EXPECT_THAT(host.calls(), IsEmpty());
}

TEST_F(Delete, Delete_OptionYes_DoesNotAsk) {
  const ApiHost host(Answers());
  const auto result = RunProcess(ProgramOn(host, {"web-1", "--yes"}));
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "web-1: deleted\n");
  EXPECT_EQ(host.Count("get"), 0);
  EXPECT_EQ(host.Count("delete"), 1);
}

TEST_F(Delete, Delete_DisksUnreadable_KeepsEverything) {
  for (const char* data : {"", "{}", R"({"vdisks":7})", "null", "[]"}) {
    const std::string text = data;
    const ApiHost host([&](const std::string& method, const Json::Value&) {
      if (method == "list") return ApiHost::Success(kGuests);
      return text.empty() ? ApiHost::Failure(403, "No record.") : ApiHost::Success(text);
    });
    OnTerminal terminal(ProgramOn(host, {"web-1"}));
    const int status = terminal.Finish();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << terminal.shown();
    EXPECT_EQ(host.Count("delete"), 0);
  }
}

TEST_F(Delete, Delete_Refused_ShowsReasonAndHint) {
  const ApiHost host([](const std::string& method, const Json::Value&) {
    return method == "list"
               ? ApiHost::Success(kGuests)
               : ApiHost::Failure(901, "Not deleted.",
                                  R"(,"reason":"The host is g\u001b[31mone","hint":"Wait f\u001b[31mor it.")");
  });
  const auto result = RunProcess(ProgramOn(host, {"web-1", "--yes"}));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors,
            "vexa: web-1: Not deleted (901).\n  Reason: The host is g\\x1b[31mone.\n  Hint: Wait f\\x1b[31mor it.\n");
  EXPECT_THAT(result.output, IsEmpty());
  const auto as_json = RunProcess(ProgramOn(host, {"web-1", "--yes", "--json"}));
  const Json::Value job = Parse(as_json.output)[0];
  EXPECT_EQ(job["message"], "Not deleted (901).");
  EXPECT_EQ(job["reason"], "The host is g\x1b[31mone");
  EXPECT_EQ(job["hint"], "Wait f\x1b[31mor it.");
}

TEST_F(Delete, Help_MentionsRunningGuestsAndYes) {
  EXPECT_THAT(Run({"guest", "delete", "--help"}).output,
              AllOf(HasSubstr("--yes"), HasSubstr("A running guest is"),
                    HasSubstr("When the command succeeds, the guest has been deleted"), Not(HasSubstr("--wait"))));
}

}  // namespace
}  // namespace vexa::test
