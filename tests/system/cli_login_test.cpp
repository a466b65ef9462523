// vexa login, logout, whoami: what is sent, what is kept, and to whom the token goes.
#include <sys/stat.h>

#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

const std::string kGoodLogin = std::string(R"({"success":true,"data":{"token":")") + kToken +
                               R"(","csrf_token":"c","user":"alice","expires_in":1800}})";

class Login : public CliTest {
 protected:
  mode_t ModeOf(const std::string& path) const {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
  }
  std::string SavedText() const {
    std::ifstream file(LoginFile());
    return {std::istreambuf_iterator<char>(file), {}};
  }
};

TEST_F(Login, ServerAccepts_SavesTokenForOwnerOnly) {
  ScriptedServer server({HttpReplyOf(200, kGoodLogin)});
  const auto result =
      Run({"login", "--server", server.url() + "/", "--password-stdin", "alice"}, "pa ss\"word\\\nsecond line\n");
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "Logged in to " + server.url() + " as alice, for 30 minutes.\n");
  ASSERT_THAT(server.requests(), SizeIs(1));
  EXPECT_THAT(server.requests()[0], AllOf(StartsWith("POST /webapi/VEXA.Core.Session/login HTTP/1.1\r\n"),
                                          HasSubstr("Content-Type: application/json\r\n"),
                                          HasSubstr("\r\n\r\n{\"password\":\"pa ss\\\"word\\\\\",\"user\":\"alice\"}"),
                                          Not(HasSubstr("Authorization"))));
  EXPECT_EQ(ModeOf(LoginFile()), 0600U);
  EXPECT_EQ(ModeOf(folder_.File("config/vexa")), 0700U);
  EXPECT_THAT(SavedText(), AllOf(HasSubstr(kToken), HasSubstr(server.url()), Not(HasSubstr("pa ss"))));
}

TEST_F(Login, Login_FolderOpenToOthers_IsMadePrivate) {
  std::filesystem::create_directories(folder_.File("config/vexa"));
  std::filesystem::permissions(folder_.File("config/vexa"), std::filesystem::perms(0755));
  ScriptedServer server({HttpReplyOf(200, kGoodLogin)});
  EXPECT_EQ(Run({"login", "--server", server.url(), "--password-stdin", "alice"}, "password").exit_code, 0);
  EXPECT_EQ(ModeOf(folder_.File("config/vexa")), 0700U);
}

TEST_F(Login, Login_WrongPassword_FailsAndKeepsEarlierLogin) {
  ScriptedServer server(
      {HttpReplyOf(401, R"({"success":false,"error":{"code":106,"message":"Wrong user or password"}})")});
  SaveLogin(server.url());
  const std::string before = SavedText();
  const auto result = Run({"login", "--password-stdin", "alice"}, "wrong-one\n");
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, AllOf(HasSubstr("Wrong user or password (106)."), Not(HasSubstr("Run 'vexa login'")),
                                   Not(HasSubstr("wrong-one"))));
  EXPECT_EQ(SavedText(), before);
}

TEST_F(Login, ReplyHasNoUsableToken_FailsAndSavesNothing) {
  for (const char* token : {"null", "17", "\"\"", "\"a\\r\\nX-Evil: 1\"", "[]", "{}"}) {
    ScriptedServer server(
        {HttpReplyOf(200, std::string(R"({"success":true,"data":{"user":"alice","token":)") + token + "}}")});
    const auto result = Run({"login", "--server", server.url(), "--password-stdin", "alice"}, "password\n");
    EXPECT_EQ(result.exit_code, 1) << token;
    EXPECT_FALSE(std::filesystem::exists(LoginFile())) << token;
  }
}

TEST_F(Login, PlainHttpToAnotherHost_IsRefusedBeforeAnythingIsSent) {
  for (const char* url :
       {"http://192.0.2.1:80", "http://localhost.example:80", "http://127.0.0.1.example", "http://[::2]"}) {
    const auto result = Run({"login", "--server", url, "--password-stdin", "alice"}, "password\n");
    EXPECT_EQ(result.exit_code, 2) << url;
    EXPECT_THAT(result.errors, HasSubstr("unencrypted")) << url;
  }
}

TEST_F(Login, Login_NoServer_AsksForTheUrl) {
  const auto result = Run({"login", "--password-stdin"}, "password\n");
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_THAT(result.errors, HasSubstr("--server URL"));
}

TEST_F(Login, PasswordEmptyOrTooLong_IsUsageError) {
  for (const std::string& password : {std::string(), std::string("\n"), std::string(600, 'x')}) {
    const auto result = Run({"login", "--server", "http://127.0.0.1:1", "--password-stdin", "alice"}, password);
    EXPECT_EQ(result.exit_code, 2);
  }
}

TEST_F(Login, PasswordOnCommandLine_IsNotAnOption) {
  EXPECT_EQ(Run({"login", "--server", "http://127.0.0.1:1", "--password", "x", "alice"}).exit_code, 2);
}

TEST_F(Login, NextCommand_SendsTheSavedToken) {
  ScriptedServer server({HttpReplyOf(
      200, R"({"success":true,"data":{"user":"alice","uid":1001,"administrator":true,"advanced":false}})")});
  SaveLogin(server.url());
  const auto result = Run({"whoami"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "User    alice\nId      1001\nLevel   administrator\nServer  " + server.url() + "\n");
  ASSERT_THAT(server.requests(), SizeIs(1));
  EXPECT_THAT(server.requests()[0], HasSubstr(std::string("Authorization: Bearer ") + kToken + "\r\n"));
}

TEST_F(Login, Token_OtherServerNamed_IsNotSent) {
  ScriptedServer other({HttpReplyOf(401, R"({"success":false,"error":{"code":103,"message":"Not logged in"}})")});
  ScriptedServer socket({HttpReplyOf(401, "{}")}, folder_.File("other.sock"));
  SaveLogin("http://127.0.0.1:1");
  Run({"whoami", "--server", other.url()});
  Run({"whoami", "--socket", folder_.File("other.sock")});
  ProcessOptions by_environment = Program({"whoami"});
  by_environment.environment["VEXA_SERVER"] = other.url();
  RunProcess(by_environment);
  ASSERT_THAT(other.requests(), SizeIs(2));
  ASSERT_THAT(socket.requests(), SizeIs(1));
  for (const auto& request : {other.requests()[0], other.requests()[1], socket.requests()[0]}) {
    EXPECT_THAT(request, Not(HasSubstr("Authorization")));
  }
}

TEST_F(Login, Proxy_PlainHttp_IsNotUsed) {
  ScriptedServer proxy({HttpReplyOf(200, "{}")});
  ScriptedServer server({HttpReplyOf(200, R"({"success":true,"data":{}})")});
  SaveLogin(server.url());
  ProcessOptions program = Program({"whoami"});
  program.environment["http_proxy"] = proxy.url();
  EXPECT_EQ(RunProcess(program).exit_code, 0);
  EXPECT_THAT(proxy.requests(), IsEmpty());
  EXPECT_THAT(server.requests(), SizeIs(1));
}

TEST_F(Login, LoginFile_OpenToOthers_IsRefused) {
  SaveLogin("http://127.0.0.1:1", 0644);
  const auto result = Run({"whoami"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, HasSubstr("chmod 600"));
}

TEST_F(Login, Login_DamagedFile_NamesRemedy) {
  std::filesystem::create_directories(folder_.File("config/vexa"));
  for (const char* content :
       {"", "[]", "{\"server\":[],\"token\":{}}", "{\"server\":\"ftp://x\",\"token\":\"t\"}", "\xff"}) {
    WriteFile(LoginFile(), content);
    const auto result = Run({"whoami"});
    EXPECT_EQ(result.exit_code, 1) << content;
    EXPECT_THAT(result.errors, HasSubstr("run 'vexa login'")) << content;
  }
}

TEST_F(Login, TokenFile_IsUsedAndChecked) {
  ScriptedServer server({HttpReplyOf(200, R"({"success":true,"data":{"user":"bob"}})")});
  WriteFile(folder_.File("token"), "another-token\n");
  EXPECT_EQ(Run({"whoami", "--server", server.url(), "--token-file", folder_.File("token")}).exit_code, 0);
  ASSERT_THAT(server.requests(), SizeIs(1));
  EXPECT_THAT(server.requests()[0], HasSubstr("Authorization: Bearer another-token\r\n"));

  WriteFile(folder_.File("evil"), "secret\r\nX-Evil: 1\n");
  const auto evil = Run({"whoami", "--server", server.url(), "--token-file", folder_.File("evil")});
  EXPECT_EQ(evil.exit_code, 2);
  EXPECT_THAT(evil.errors, Not(HasSubstr("secret")));
  WriteFile(folder_.File("open"), "secret\n", 0640);
  EXPECT_EQ(Run({"whoami", "--server", server.url(), "--token-file", folder_.File("open")}).exit_code, 1);
  EXPECT_EQ(Run({"whoami", "--server", server.url(), "--token-file", folder_.File("none")}).exit_code, 1);
  EXPECT_THAT(server.requests(), SizeIs(1));
}

TEST_F(Login, Token_PlainHttpToOtherHost_IsRefused) {
  SaveLogin("http://192.0.2.1:8080");
  const auto result = Run({"whoami"});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_THAT(result.errors, HasSubstr("unencrypted"));
  const auto allowed = Run({"whoami", "--insecure-http", "--timeout", "1"});
  EXPECT_EQ(allowed.exit_code, 3);  // an address for documentation: nothing answers
}

TEST_F(Login, UnixSocket_NoToken_IsAccepted) {
  ScriptedServer server({HttpReplyOf(200, R"({"success":true,"data":{"user":"root","uid":0,"administrator":true}})")},
                        folder_.File("vexad.sock"));
  const auto result = Run({"whoami"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, HasSubstr("root"));
  ASSERT_THAT(server.requests(), SizeIs(1));
  EXPECT_THAT(server.requests()[0], Not(HasSubstr("Authorization")));
}

TEST_F(Login, Logout_EndsTheSessionAndForgetsIt) {
  ScriptedServer server({HttpReplyOf(200, R"({"success":true,"data":{}})")});
  SaveLogin(server.url());
  ProcessOptions elsewhere = Program({"logout"});
  elsewhere.environment["VEXA_SERVER"] = "http://127.0.0.1:1";  // the session's server counts, not this one
  EXPECT_EQ(RunProcess(elsewhere).exit_code, 0);
  EXPECT_FALSE(std::filesystem::exists(LoginFile()));
  ASSERT_THAT(server.requests(), SizeIs(1));
  EXPECT_THAT(server.requests()[0], AllOf(StartsWith("POST /webapi/VEXA.Core.Session/logout "), HasSubstr(kToken)));
  const auto again = Run({"logout"});
  EXPECT_EQ(again.exit_code, 0);
  EXPECT_EQ(again.output, "You are not logged in.\n");
}

TEST_F(Login, Logout_SessionExpiredOrServerUnreachable_RemovesLogin) {
  {
    ScriptedServer server({HttpReplyOf(401, R"({"success":false,"error":{"code":103,"message":"no"}})")});
    SaveLogin(server.url());
    EXPECT_EQ(Run({"logout"}).exit_code, 0);
    EXPECT_FALSE(std::filesystem::exists(LoginFile()));
  }
  SaveLogin("http://127.0.0.1:1");
  EXPECT_EQ(Run({"logout"}).exit_code, 3);
  EXPECT_FALSE(std::filesystem::exists(LoginFile()));
}

}  // namespace
}  // namespace vexa::test
