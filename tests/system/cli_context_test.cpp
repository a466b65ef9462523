// vexa context, and what the other commands take from a context.
#include <sys/stat.h>

#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

const std::string kLoggedIn = std::string(R"({"success":true,"data":{"token":")") + kToken + R"(","user":"alice"}})";
const std::string kInfo = R"({"success":true,"data":{"user":"alice","uid":7,"guests":[]}})";

class ContextCommand : public CliTest {
 protected:
  std::string File(const std::string& name) const { return folder_.File("config/vexa/" + name); }
  void Add(const std::string& name, const std::string& server, std::vector<std::string> more = {}) const {
    std::vector<std::string> words{"context", "add", name, "--server", server};
    words.insert(words.end(), more.begin(), more.end());
    const auto added = Run(words);
    EXPECT_EQ(added.exit_code, 0) << added.errors;
  }
};

TEST_F(ContextCommand, Add_FirstContext_IsUsedByCommandsAndLogin) {
  const ScriptedServer server({HttpReplyOf(200, kLoggedIn), HttpReplyOf(200, kInfo)});
  const auto added = Run({"context", "add", "nas1", "--server", server.url() + "/", "--user", "alice"});
  EXPECT_EQ(added.output, "Added the context 'nas1' for " + server.url() + ". It is used from now on.\n");
  struct stat info {};
  ASSERT_EQ(::stat(File("contexts.json").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600U);
  const auto login = Run({"login", "--password-stdin"}, "secret\n");
  EXPECT_EQ(login.exit_code, 0) << login.errors;
  EXPECT_THAT(server.requests()[0], HasSubstr("\"user\":\"alice\""));
  EXPECT_TRUE(std::filesystem::exists(File("login-nas1.json")));
  EXPECT_FALSE(std::filesystem::exists(LoginFile()));
  EXPECT_EQ(Run({"whoami"}).exit_code, 0);
  EXPECT_THAT(server.requests()[1], HasSubstr(std::string("Authorization: Bearer ") + kToken));
  EXPECT_THAT(Run({"context", "show"}).output, AllOf(HasSubstr("nas1"), HasSubstr("yes, as alice")));
}

TEST_F(ContextCommand, Choice_OptionThenVariableThenUsed_AndEachHasItsLogin) {
  const ScriptedServer one({HttpReplyOf(200, kLoggedIn), HttpReplyOf(200, kInfo)});
  const ScriptedServer two({HttpReplyOf(200, kInfo)});
  Add("one", one.url());
  Add("two", two.url());
  EXPECT_EQ(Run({"login", "--password-stdin", "alice"}, "secret\n").exit_code, 0);
  EXPECT_EQ(Run({"whoami", "--context", "two"}).exit_code, 0);
  ProcessOptions program = Program({"whoami"});
  program.environment["VEXA_CONTEXT"] = "two";
  EXPECT_EQ(RunProcess(program).exit_code, 0);
  ASSERT_THAT(two.requests(), SizeIs(2));
  // The token of the first server stays with it.
  for (const auto& request : two.requests()) EXPECT_THAT(request, Not(HasSubstr("Authorization")));
  EXPECT_EQ(Run({"context", "use", "two"}).output, "The context 'two' is used from now on.\n");
  EXPECT_EQ(Run({"whoami"}).exit_code, 0);
  EXPECT_THAT(two.requests(), SizeIs(3));
  // The command line's server comes first.
  EXPECT_EQ(Run({"whoami", "--server", one.url()}).exit_code, 0);
  EXPECT_THAT(two.requests(), SizeIs(3));
  EXPECT_EQ(Run({"whoami", "--server", one.url(), "--context", "two"}).exit_code, 2);
}

TEST_F(ContextCommand, List_ShowAndRemove_KnowTheContexts) {
  Add("nas1", "https://nas1:8443", {"--user", "alice"});
  Add("nas2", "http://127.0.0.1:1");
  EXPECT_EQ(Run({"context", "list"}).output,
            "CURRENT  NAME  SERVER              USER\n*        nas1  https://nas1:8443   alice\n"
            "         nas2  http://127.0.0.1:1\n");
  EXPECT_EQ(Run({"context", "list", "--output", "name"}).output, "nas1\nnas2\n");
  EXPECT_THAT(Run({"context", "show", "nas2", "--json"}).output, HasSubstr("\"current\" : false"));
  WriteFile(File("login-nas1.json"), "{}");
  EXPECT_EQ(Run({"context", "remove", "nas1"}).exit_code, 0);
  EXPECT_FALSE(std::filesystem::exists(File("login-nas1.json")));
  EXPECT_EQ(Run({"context", "show"}).errors, "vexa: No context is used. 'vexa context add' adds one\n");
}

TEST_F(ContextCommand, Arguments_Invalid_AreRefused) {
  Add("nas1", "https://nas1:8443");
  EXPECT_EQ(Run({"context", "add", "nas1", "--server", "https://nas1:8443"}).errors,
            "vexa: There is a context 'nas1' already; 'vexa context remove nas1' removes it\n");
  EXPECT_EQ(Run({"context", "add", "../x", "--server", "https://nas1:8443"}).exit_code, 2);
  EXPECT_EQ(Run({"context", "add", "x"}).errors, "vexa: Name the server with --server URL\n");
  EXPECT_THAT(Run({"context", "add", "x", "--server", "https://x", "--ca-file", "/none"}).errors,
              HasSubstr("There is no file '/none'"));
  const auto typo = Run({"whoami", "--context", "nas"});
  EXPECT_EQ(typo.exit_code, 2);
  EXPECT_EQ(typo.errors, "vexa: There is no context 'nas'; did you mean 'nas1'? See 'vexa context list'\n");
  EXPECT_EQ(Run({"context", "use", "xyz"}).errors, "vexa: There is no context 'xyz'; see 'vexa context list'\n");
}

TEST_F(ContextCommand, File_Damaged_IsNamed) {
  std::filesystem::create_directories(folder_.File("config/vexa"));
  for (const char* content : {"", "[]", R"({"contexts":{"a":{}}})", R"({"contexts":{},"current":"x"})",
                              R"({"contexts":{"../x":{"server":"https://nas"}}})"}) {
    WriteFile(File("contexts.json"), content);
    for (const auto& words : std::vector<std::vector<std::string>>{
             {"whoami"}, {"context", "list"}, {"context", "add", "b", "--server", "https://b"}}) {
      const auto result = Run(words);
      EXPECT_EQ(result.exit_code, 1) << content;
      EXPECT_EQ(result.errors,
                "vexa: The contexts in '" + File("contexts.json") + "' are damaged. Mend or remove the file\n");
    }
    EXPECT_EQ(Run({"health", "--server", "http://127.0.0.1:1"}).exit_code, 3);
    // A command that asks no server needs no context.
    EXPECT_EQ(Run({"error", "401"}).exit_code, 0);
  }
}

}  // namespace
}  // namespace vexa::test
