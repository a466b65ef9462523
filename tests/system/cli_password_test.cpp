// Passwords typed on a terminal: no echo, and the terminal is as before afterwards, whatever happens.
#include <sys/wait.h>

#include "tests/system/cli_program.h"
#include "tests/system/cli_terminal.h"

namespace vexa::test {
namespace {

class Password : public CliTest {
 protected:
  ProcessOptions LoginProgram(const std::string& url) { return Program({"login", "--server", url, "alice"}); }
  // In a shell that keeps the terminal open, so that its settings can be looked at when the client has gone. `before`
  // is run first.
  ProcessOptions LoginInShell(const std::string& before = "") {
    ProcessOptions program = LoginProgram("http://127.0.0.1:1");
    const std::string script = before + "\"$0\" \"$@\"; echo ended $?; read -r line";
    program.argv.insert(program.argv.begin(), {"/bin/sh", "-c", script});
    return program;
  }
};

TEST_F(Password, Password_Typed_IsSentAndNeverShown) {
  ScriptedServer server({HttpReplyOf(
      200, std::string(R"({"success":true,"data":{"token":")") + kToken + R"(","user":"alice","expires_in":60}})")});
  OnTerminal terminal(LoginProgram(server.url()));
  ASSERT_TRUE(terminal.WaitFor("Password of alice at " + server.url() + ": "));
  EXPECT_FALSE(terminal.IsEchoOn());
  terminal.Type("open sesame\n");
  const int status = terminal.Finish();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << terminal.shown();
  EXPECT_THAT(terminal.shown(), AllOf(Not(HasSubstr("sesame")), HasSubstr("Logged in"), Not(HasSubstr(kToken))));
  ASSERT_EQ(server.requests().size(), 1U);
  EXPECT_THAT(server.requests()[0], HasSubstr("\"password\":\"open sesame\""));
}

TEST_F(Password, Password_Interrupted_EndsBySignalWithEchoRestored) {
  OnTerminal terminal(LoginInShell("trap : INT; "));
  ASSERT_TRUE(terminal.WaitFor(": "));
  EXPECT_FALSE(terminal.IsEchoOn());
  terminal.Type("half\x03");
  ASSERT_TRUE(terminal.WaitFor("ended 130"));  // 128 + SIGINT
  EXPECT_TRUE(terminal.IsEchoOn());
  EXPECT_THAT(terminal.shown(), Not(HasSubstr("half")));
  terminal.Type("\n");
  terminal.Finish();
}

TEST_F(Password, Password_EmptyLine_IsUsageErrorWithEchoRestored) {
  OnTerminal terminal(LoginInShell());
  ASSERT_TRUE(terminal.WaitFor(": "));
  terminal.Type("\n");
  ASSERT_TRUE(terminal.WaitFor("ended 2"));
  EXPECT_TRUE(terminal.IsEchoOn());
  terminal.Type("\n");
  terminal.Finish();
}

TEST_F(Password, Password_NoTerminal_SuggestsStandardInput) {
  ProcessOptions program = LoginProgram("http://127.0.0.1:1");
  program.argv.insert(program.argv.begin(), {"setsid", "-w"});
  const auto result = RunProcess(program);
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_THAT(result.errors, HasSubstr("--password-stdin"));
}

}  // namespace
}  // namespace vexa::test
