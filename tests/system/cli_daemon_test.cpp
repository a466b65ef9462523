// The client's commands on guests and the log against a real daemon: both ends mean the same.
#include <signal.h>

#include "tests/support/test_daemon.h"
#include "tests/system/cli_program.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::test {
namespace {

using std::chrono::seconds;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

class CliOnDaemon : public CliTest {
 protected:
  ProcessOptions ProgramOn(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--socket", daemon_.config().socket});
    return Program(std::move(arguments));
  }
  ProcessResult RunOn(std::vector<std::string> arguments) { return RunProcess(ProgramOn(std::move(arguments))); }

  TestDaemon daemon_;
};

TEST_F(CliOnDaemon, Log_ShowsWhatWasWritten) {
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

TEST_F(CliOnDaemon, FollowedLog_ShowsWhatIsWrittenNow) {
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

TEST_F(CliOnDaemon, LogAndGuestsOfOthers_AreRefused) {
  daemon_.BeOnUnixSocket("mallory");
  const auto log = RunOn({"log"});
  EXPECT_EQ(log.exit_code, 1);
  EXPECT_THAT(log.errors, HasSubstr("error 409"));
  const auto stop = RunOn({"guest", "stop", kTestGuest});
  EXPECT_EQ(stop.exit_code, 1);
  EXPECT_THAT(stop.errors,
              StartsWith(std::string("vexa: ") + kTestGuest + ": You may not act on this guest. (error 409"));
}

// The guest has neither a host nor a repository that is known.
TEST_F(CliOnDaemon, ActionsThatFail_TellTheServersSentence) {
  const auto start = RunOn({"guest", "start", "web"});
  EXPECT_EQ(start.exit_code, 1);
  EXPECT_THAT(start.errors,
              StartsWith("vexa: web: No host could be chosen for the guest. (error 932, HTTP 409, request "));
  EXPECT_THAT(start.output, IsEmpty());
  const auto deletion = RunOn({"guest", "delete", "web", "--yes"});
  EXPECT_EQ(deletion.exit_code, 1);
  EXPECT_THAT(deletion.errors, StartsWith("vexa: web: A record, host or repository could not be read. (error 403"));
}

}  // namespace
}  // namespace vexa::test
