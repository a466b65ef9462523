// vexa completion: what the shells are offered.
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

const std::string kLists = R"json({"success":true,"data":{
  "guests":[{"guest_id":"g1","guest_name":"web-1"},{"guest_id":"g2","guest_name":"web 2"},
    {"guest_id":"g3","guest_name":"$(touch evil)"
},{"guest_id":"g4","guest_name":"x\u001b"}],
  "hosts":[{"host_id":"h1","name":"nas-1"}],"networks":[{"network_id":"n1","name":"lan"}],
  "images":[{"image_id":"i1","name":"debian-12"}],"repositories":[{"repository_id":"r1","name":"pool"}]
}
})json";

class Completion : public CliTest {
 protected:
  // What can stand in place of the last of the words.
  std::string Words(std::vector<std::string> words) const {
    words.insert(words.begin(), {"__complete", "--"});
    const auto result = Run(words);
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.errors, "");
    return result.output;
  }
  // What a shell makes of the script for it and of `line`; the script is in $SCRIPT, and vexa in PATH.
  std::string InShell(const std::string& shell, const std::string& commands) const {
    WriteFile(folder_.File("script"), Run({"completion", shell}).output);
    std::filesystem::create_directories(folder_.File("bin"));
    std::filesystem::create_symlink(VEXA_PROGRAM, folder_.File("bin/vexa"));
    ProcessOptions program = Program({});
    program.argv = {shell, "-c", commands};
    program.environment["SCRIPT"] = folder_.File("script");
    program.environment["PATH"] = folder_.File("bin") + ":/usr/bin:/bin";
    program.working_directory = folder_.path();
    const auto result = RunProcess(program);
    EXPECT_EQ(result.errors, "");
    return result.output;
  }
};

TEST_F(Completion, Commands_AndOptions_AreThoseOfTheTable) {
  EXPECT_EQ(Words({"gu"}), "guest\n");
  EXPECT_EQ(Words({"guest", "sta"}), "start\nstatus\n");
  EXPECT_EQ(Words({"--json", "guest", "sta"}), "start\nstatus\n");
  EXPECT_EQ(Words({"guest", "list", "--js"}), "--json\n");
  EXPECT_EQ(Words({"guest", "start", "--wai"}), "--wait\n--wait-timeout\n");
  EXPECT_EQ(Words({"guest", "create", "x", "--os", ""}), "linux\nother\nwindows\n");
  EXPECT_EQ(Words({"guest", "create", "x", "--os", "=", "w"}), "windows\n");
  EXPECT_EQ(Words({"completion", ""}), "bash\nzsh\n");
  EXPECT_EQ(Words({"nonsense", "x"}), "");
}

TEST_F(Completion, Names_AreThoseOfTheServer) {
  const ScriptedServer server({HttpReplyOf(200, kLists)});
  SaveLogin(server.url());
  EXPECT_EQ(Words({"guest", "start", "we"}), "web 2\nweb-1\n");
  EXPECT_EQ(Words({"guest", "start", "web-1", "web-"}), "web-1\n");
  EXPECT_EQ(Words({"guest", "status", "web-1", ""}), "");
  EXPECT_EQ(Words({"host", "show", ""}), "nas-1\n");
  EXPECT_EQ(Words({"guest", "recover", "--to", ""}), "nas-1\n");
  EXPECT_EQ(Words({"network", "show", ""}), "lan\n");
  EXPECT_EQ(Words({"image", "remove", ""}), "debian-12\n");
  EXPECT_EQ(Words({"repository", "get", ""}), "pool\n");
  EXPECT_EQ(Words({"guest", "set", "web-1", "--iso", ""}), "debian-12\n");
}

// As commands choose it: $VEXA_SERVER comes before the context that is used.
TEST_F(Completion, Server_IsTheOneThatTheCommandAsks) {
  const ScriptedServer named(
      {HttpReplyOf(200, R"({"success":true,"data":{"hosts":[{"host_id":"h","name":"named"}]}})")});
  const ScriptedServer used({HttpReplyOf(200, kLists)});
  ASSERT_EQ(Run({"context", "add", "used", "--server", used.url()}).exit_code, 0);
  EXPECT_EQ(Words({"host", "show", ""}), "nas-1\n");
  ProcessOptions program = Program({"__complete", "--", "host", "show", ""});
  program.environment["VEXA_SERVER"] = named.url();
  EXPECT_EQ(RunProcess(program).output, "named\n");
}

TEST_F(Completion, Failures_AreSilent) {
  EXPECT_EQ(Words({"guest", "start", ""}), "");  // no server
  EXPECT_EQ(Words({"--server", "ftp://x", "guest", "start", ""}), "");
  EXPECT_EQ(Words({"--context", "none", "guest", "start", ""}), "");
  const ScriptedServer refusing({HttpReplyOf(401, "{}")});
  EXPECT_EQ(Words({"--server", refusing.url(), "guest", "start", ""}), "");
  EXPECT_EQ(Words({}), "");
}

TEST_F(Completion, Bash_CompletesNamesAndRunsNothingInThem) {
  const ScriptedServer server({HttpReplyOf(200, kLists)});
  SaveLogin(server.url());
  const std::string shown = InShell("bash", R"sh(
    source "$SCRIPT"
    complete -p vexa
    COMP_WORDS=(vexa guest start ''); COMP_CWORD=3; _vexa; printf '[%s]\n' "${COMPREPLY[@]}")sh");
  EXPECT_EQ(shown, "complete -F _vexa vexa\n[\\$\\(touch\\ evil\\)]\n[web\\ 2]\n[web-1]\n");
  EXPECT_FALSE(std::filesystem::exists(folder_.File("evil")));
}

TEST_F(Completion, Zsh_OffersTheSameWords) {
  if (!std::filesystem::exists("/usr/bin/zsh")) GTEST_SKIP() << "zsh is not installed";
  const ScriptedServer server({HttpReplyOf(200, kLists)});
  SaveLogin(server.url());
  const std::string shown = InShell("zsh", R"sh(
    compdef() { print -r -- "compdef $*" }
    compadd() { print -rl -- "${(@)found}" }
    source "$SCRIPT"
    words=(vexa guest start web); CURRENT=4; _vexa)sh");
  EXPECT_EQ(shown, "compdef _vexa vexa\nweb 2\nweb-1\n");
}

}  // namespace
}  // namespace vexa::test
