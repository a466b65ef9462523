// The client's commands on guests, images, repositories and the log against a real daemon: client and server agree.
#include <signal.h>

#include "host/domain_xml/domain_parse.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "tests/support/require.h"
#include "tests/support/test_daemon.h"
#include "tests/support/test_host.h"
#include "tests/system/cli_program.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::test {
namespace {

using std::chrono::seconds;

class CliOnDaemon : public CliTest {
 protected:
  ProcessOptions ProgramOn(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--socket", daemon_.config().socket});
    return Program(std::move(arguments));
  }
  ProcessResult RunOn(std::vector<std::string> arguments, const std::string& input = "") {
    ProcessOptions program = ProgramOn(std::move(arguments));
    program.input = input;
    return RunProcess(program);
  }

  TestDaemon daemon_;
};

TEST_F(CliOnDaemon, Log_ShowsWrittenEntries) {
  EXPECT_EQ(RunOn({"log"}).output, "");
  for (int i = 0; i < 3; ++i) VexaCCC::ClusterLogAdd("eve", VexaCCC::CLOG_PRIORITY_SUCCESS, "Line %d.", i);
  VexaCCC::ClusterLogAdd("eve", VexaCCC::CLOG_PRIORITY_FAILURE, "Line 3.");
  const auto result = RunOn({"log", "-n", "2"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.output, MatchesRegex("[-0-9]+ [:0-9]+ success [^ ]+ eve: Line 2\\.\n"
                                          "[-0-9]+ [:0-9]+ failure [^ ]+ eve: Line 3\\.\n"));
  const std::string all = RunOn({"log", "--all"}).output;
  EXPECT_EQ(std::ranges::count(all, '\n'), 4) << all;
}

TEST_F(CliOnDaemon, Log_Follow_ShowsNewEntries) {
  VexaCCC::ClusterLogAdd("eve", VexaCCC::CLOG_PRIORITY_SUCCESS, "Before.");
  Process program(ProgramOn({"log", "-f"}));
  ASSERT_TRUE(program.WaitForText("eve: Before.\n", seconds(30))) << program.errors();
  VexaCCC::ClusterLogAdd("eve", VexaCCC::CLOG_PRIORITY_SUCCESS, "Behind.");
  ASSERT_TRUE(program.WaitForText("eve: Behind.\n", seconds(30))) << program.errors();
  program.Signal(SIGINT);
  const auto ended = program.Wait(seconds(30));
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, 0);
  EXPECT_EQ(std::ranges::count(program.output(), '\n'), 2) << program.output();
}

TEST_F(CliOnDaemon, OrdinaryUser_LogOrOtherUsersGuest_IsRefused) {
  daemon_.ActAsOnUnixSocket("mallory");
  const auto log = RunOn({"log"});
  EXPECT_EQ(log.exit_code, 1);
  EXPECT_THAT(log.errors, HasSubstr(" (409).\n"));
  const auto stop = RunOn({"guest", "stop", kTestGuest});
  EXPECT_EQ(stop.exit_code, 1);
  EXPECT_THAT(stop.errors, StartsWith(std::string("vexa: ") + kTestGuest + ": You may not act on this guest (409)."));
}

// The guest has neither a host nor a repository that is known.
TEST_F(CliOnDaemon, FailedAction_ShowsServersMessage) {
  const auto start = RunOn({"guest", "start", "web"});
  EXPECT_EQ(start.exit_code, 1);
  EXPECT_THAT(start.errors, StartsWith("vexa: web: No host could be chosen for the guest (932)."));
  EXPECT_THAT(start.output, IsEmpty());
  const auto deletion = RunOn({"guest", "delete", "web", "--yes"});
  EXPECT_EQ(deletion.exit_code, 1);
  EXPECT_THAT(deletion.errors, StartsWith("vexa: web: A record, host or repository could not be read (403)."));
}

std::string images_of_host;  // for the function that configures it

// A daemon whose store is not in its data folder: commands that opened one there by themselves would make another.
class RecordsOnDaemon : public CliTest {
 protected:
  static void Configure(daemon::Config& config) {
    config.store_directory = config.data_directory + "-store";
    config.image_roots = {images_of_host};
  }
  ProcessOptions ProgramOn(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--socket", daemon_->config().socket});
    return Program(std::move(arguments));
  }
  ProcessResult RunOn(std::vector<std::string> arguments) { return RunProcess(ProgramOn(std::move(arguments))); }
  static std::string MakeImageFile(const std::string& name) {
    std::ofstream(images_of_host + "/" + name) << "twelve bytes";
    return images_of_host + "/" + name;
  }
  void PutGuest(const std::string& id, const std::string& text) {
    store::LmdbOptions options;
    options.directory = daemon_->config().store_directory;
    const auto store = Require(store::OpenLmdbStore(options));
    (void)Require(store->Commit({{}, {{store::MakeKey({"dash", "guest", id, "object"}), text}}}));
  }
  // The programs run at the same time. How many of them succeed; the others must be refused with code 990.
  static int CountAccepted(const std::vector<ProcessOptions>& programs) {
    std::vector<std::unique_ptr<Process>> running;
    for (const ProcessOptions& program : programs) running.push_back(std::make_unique<Process>(program));
    int accepted = 0;
    for (const auto& process : running) {
      const auto ended = process->Wait(seconds(60));
      EXPECT_TRUE(ended);
      if (!ended) continue;
      accepted += ended->code == 0 ? 1 : 0;
      if (ended->code != 0) {
        EXPECT_THAT(process->errors(), HasSubstr("(990)."));
      }
    }
    return accepted;
  }

  std::unique_ptr<TestDaemon> daemon_ = [&] {
    images_of_host = folder_.File("images");
    std::filesystem::create_directory(images_of_host);
    return std::make_unique<TestDaemon>(Configure);
  }();
};

TEST_F(RecordsOnDaemon, ImageAdd_ConfiguredStore_IsWrittenToDaemonsStore) {
  const std::string file = MakeImageFile("a.iso");
  const auto added = RunOn({"image", "add", "Debian 12", file});
  EXPECT_EQ(added.exit_code, 0) << added.errors;
  EXPECT_THAT(added.output, MatchesRegex("[-0-9a-f]+\n"));
  EXPECT_THAT(RunOn({"image", "list"}).output, HasSubstr("\nDebian 12  12     yes      " + file + "\n"));
  EXPECT_FALSE(std::filesystem::exists(daemon_->config().data_directory + "/store"));
  EXPECT_EQ(RunOn({"image", "remove", "Debian 12"}).output, "Removed the image 'Debian 12'. Its file stays.\n");
  EXPECT_EQ(RunOn({"image", "list", "--json"}).output, "[]\n");
  EXPECT_THAT(RunOn({"log"}).output,
              MatchesRegex("[^\n]* success [^\n]*: The image \\[Debian 12\\] has been added\\.\n"
                           "[^\n]* success [^\n]*: The image \\[Debian 12\\] has been removed\\.\n"));
}

TEST_F(RecordsOnDaemon, Add_EightConcurrentWithOneName_OneIsAccepted) {
  std::vector<ProcessOptions> images;
  std::vector<ProcessOptions> repositories;
  std::vector<ProcessOptions> networks;
  for (int i = 0; i < 8; ++i) {
    images.push_back(ProgramOn({"image", "add", "debian", MakeImageFile(std::to_string(i) + ".iso")}));
    repositories.push_back(ProgramOn({"repository", "add", "pool"}));
    networks.push_back(ProgramOn({"network", "add", "lan"}));
  }
  EXPECT_EQ(CountAccepted(networks), 1);
  EXPECT_EQ(CountAccepted(images), 1);
  EXPECT_EQ(CountAccepted(repositories), 1);
  EXPECT_EQ(Parsed(RunOn({"image", "list", "--json"}).output).size(), 1u);
  EXPECT_EQ(Parsed(RunOn({"repository", "list", "--json"}).output).size(), 1u);
}

TEST_F(RecordsOnDaemon, Repository_AddListAcceptRemove_Works) {
  const std::string id = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";
  EXPECT_EQ(RunOn({"repository", "add", "pool-1", "--id", id}).output, id + "\n");
  EXPECT_THAT(RunOn({"repository", "list", "--ids"}).output,
              HasSubstr("\n" + id + "  pool-1  " + VexaCCC::DB::DBLocalhostID() + "  repo_online  -\n"));
  EXPECT_EQ(RunOn({"repository", "accept", "pool-1"}).output,
            "Accepted the current storage of the repository '" + id + "'\n");
  PutGuest("g", R"({"name":"shop","repository_id":")" + id + "\"}");
  const auto used = RunOn({"repository", "remove", "pool-1"});
  EXPECT_EQ(used.exit_code, 1);
  EXPECT_THAT(used.errors, HasSubstr("(991)."));
  EXPECT_THAT(used.errors,
              HasSubstr("\n  Reason: The repository 'pool-1' is used by the guest 'shop'. Delete the guests first.\n"));
  PutGuest("g", R"({"name":"shop"})");
  EXPECT_EQ(RunOn({"repository", "remove", "pool-1"}).output, "Removed the repository 'pool-1'. Its files stay.\n");
  EXPECT_EQ(RunOn({"repository", "list"}).output, "NAME  HOST  STATE  SPACE\n");
}

TEST_F(RecordsOnDaemon, Network_AddListShowEditRemove_Works) {
  const std::string id = domain_xml::NetworkGroupId("lan");
  EXPECT_EQ(RunOn({"network", "add", "lan", "--description", "Lab"}).output, id + "\n");
  EXPECT_THAT(RunOn({"network", "list", "--ids"}).output,
              AllOf(StartsWith("NETWORK "), HasSubstr(id + "  lan   nat   unknown  yes      192.168.100.0/24\n")));
  EXPECT_EQ(RunOn({"network", "show", "lan", "--ids"}).output,
            "Network:     " + id +
                "\nName:        lan\nDescription: Lab\nKind:        nat\nState:       unknown\nOn hosts:    lan\n"
                "Subnet:      192.168.100.0/24\n  host " +
                VexaCCC::DB::DBLocalhostID() + ": unknown (The host has not looked at it yet)\n");
  EXPECT_EQ(RunOn({"network", "edit", "lan", "--name", "lab", "--subnet", "10.7.0.0/24"}).output,
            "Edited the network 'lan'\n");
  EXPECT_THAT(RunOn({"network", "add", "other", "--subnet", "10.7.0.0/28"}).errors,
              HasSubstr("\n  Reason: The subnet 10.7.0.0/28 overlaps with 10.7.0.0/24 of the network 'lab'.\n"));
  EXPECT_EQ(RunOn({"network", "remove", "lab"}).output, "Removed the network 'lab'\n");
  EXPECT_EQ(RunOn({"network", "list", "--json"}).output, "[]\n");
}

TEST_F(RecordsOnDaemon, OrdinaryUser_Images_AreListedWithoutPathsAndReadOnly) {
  const std::string file = MakeImageFile("a.iso");
  ASSERT_EQ(RunOn({"image", "add", "a", file}).exit_code, 0);
  ASSERT_EQ(RunOn({"repository", "add", "pool-1"}).exit_code, 0);
  daemon_->ActAsOnUnixSocket("mallory");
  const auto images = RunOn({"image", "list"});
  EXPECT_THAT(images.output, HasSubstr("\na     12     yes\n"));
  EXPECT_THAT(images.output, Not(HasSubstr(images_of_host)));
  EXPECT_THAT(RunOn({"repository", "list"}).output, HasSubstr("\npool-1  "));
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"image", "add", "b", file},
        {"image", "remove", "a"},
        {"repository", "add", "pool-2"},
        {"repository", "accept", "pool-1"},
        {"repository", "remove", "pool-1"},
        {"network", "add", "lan"},
        {"network", "edit", domain_xml::NetworkGroupId("lan"), "--name", "x"}}) {
    const auto result = RunOn(words);
    EXPECT_EQ(result.exit_code, 1) << words[0] << " " << words[1];
    EXPECT_THAT(result.errors, StartsWith("vexa: You may not call this method (104)."));
  }
}

TEST_F(CliOnDaemon, Accounts_AreManagedAndLogged) {
  const auto added = RunOn({"user", "add", "eve", "--group", "crew", "--password-stdin"}, "good password\n");
  EXPECT_EQ(added.exit_code, 0) << added.errors;
  EXPECT_EQ(added.output, "Added user 'eve'.\n");
  EXPECT_TRUE(daemon_.Accounts()->VerifyPassword("eve", "good password").ok());
  EXPECT_THAT(RunOn({"user", "list"}).output, HasSubstr("users, crew"));
  const auto again = RunOn({"user", "add", "EVE", "--password-stdin"}, "good password\n");
  EXPECT_EQ(again.exit_code, 1);
  EXPECT_THAT(again.errors, HasSubstr("There is a user 'eve' already"));
  const auto reset = RunOn({"user", "passwd", "eve", "--password-stdin"}, "second password\n");
  EXPECT_EQ(reset.exit_code, 0) << reset.errors;
  EXPECT_TRUE(daemon_.Accounts()->VerifyPassword("eve", "second password").ok());
  EXPECT_EQ(RunOn({"group", "del", "crew"}).exit_code, 1) << "eve is in it";
  EXPECT_EQ(RunOn({"user", "group", "eve", "administrators"}).exit_code, 0);
  EXPECT_EQ(RunOn({"group", "del", "crew"}).exit_code, 0);
  EXPECT_EQ(RunOn({"user", "del", "eve"}).exit_code, 0);
  EXPECT_FALSE(daemon_.Accounts()->FindUser("eve").ok());
  const std::string log = RunOn({"log"}).output;
  for (const char* sentence : {"root: The user [eve] has been added, with the groups [crew].",
                               "root: The password of the user [eve] has been changed.",
                               "root: The groups of the user [eve] are now [administrators].",
                               "root: The group [crew] has been deleted.", "root: The user [eve] has been deleted."}) {
    EXPECT_THAT(log, HasSubstr(sentence));
  }
}

TEST_F(CliOnDaemon, Grants_AreGivenAndShown) {
  EXPECT_EQ(RunOn({"user", "grant", "mallory", kTestGuest}).output, "Granted to 'mallory'.\n");
  EXPECT_EQ(RunOn({"user", "grants", "mallory", "--ids"}).output, std::string("Level: user\n") + kTestGuest + "\n");
  EXPECT_THAT(RunOn({"guest", "grants", "web"}).output, HasSubstr("mallory"));
  EXPECT_EQ(RunOn({"user", "advanced", "mallory"}).exit_code, 0);
  EXPECT_EQ(RunOn({"user", "advanced", "--show", "mallory"}).output, "advanced\n");
  EXPECT_EQ(RunOn({"user", "revoke", "mallory", kTestGuest}).exit_code, 0);
  EXPECT_EQ(RunOn({"user", "drop-grants", "mallory"}).exit_code, 0);
  EXPECT_EQ(RunOn({"user", "advanced", "--show", "mallory"}).output, "user\n");
  EXPECT_EQ(RunOn({"group", "grant", "nobody-here", kTestGuest}).exit_code, 1);
}

TEST_F(CliOnDaemon, OrdinaryUser_Passwd_ChangesOwnPasswordOnly) {
  daemon_.ActAsOnUnixSocket("mallory");
  const std::string lines = std::string(kTestPassword) + "\nsecond password\n";
  const auto own = RunOn({"user", "passwd", "--password-stdin"}, lines);
  EXPECT_EQ(own.exit_code, 0) << own.errors;
  EXPECT_TRUE(daemon_.Accounts()->VerifyPassword("me", "second password").ok());
  const auto wrong = RunOn({"user", "passwd", "--password-stdin"}, lines);
  EXPECT_EQ(wrong.exit_code, 1);
  EXPECT_THAT(wrong.errors, HasSubstr(" (982).\n"));
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {"user", "passwd", "grace", "--password-stdin"}, {"user", "list"}, {"user", "grant", "me", kTestGuest}}) {
    const auto refused = RunOn(arguments, "second password\n");
    EXPECT_EQ(refused.exit_code, 1) << arguments[1];
    EXPECT_THAT(refused.errors, HasSubstr(" (104).\n")) << arguments[1];
  }
}

// The command opened a second store in the data folder, beside that of the daemon.
TEST(CliOnDaemonElsewhere, Commands_ConfiguredStore_ChangeThatStore) {
  TestDaemon daemon([](daemon::Config& config) { config.store_directory = config.data_directory + "-store"; });
  ProcessOptions program;
  program.argv = {VEXA_PROGRAM, "--socket", daemon.config().socket, "user", "add", "eve", "--password-stdin"};
  program.input = "good password\n";
  const auto added = RunProcess(program);
  EXPECT_EQ(added.exit_code, 0) << added.errors;
  EXPECT_TRUE(daemon.Accounts()->FindUser("eve").ok());
  EXPECT_FALSE(std::filesystem::exists(daemon.config().data_directory + "/store"));
  program.argv = {VEXA_PROGRAM,
                  "user",
                  "list",
                  "--data",
                  daemon.config().data_directory,
                  "--store",
                  daemon.config().store_directory};
  const auto beside = RunProcess(program);
  EXPECT_EQ(beside.exit_code, 1);
  EXPECT_THAT(beside.errors, HasSubstr("A vexad uses the data folder"));
}

}  // namespace
}  // namespace vexa::test
