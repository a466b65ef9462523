// Tests of the helpers in tests/support: a helper that wrongly reports success would hide errors.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/support/process.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/temp_dir.h"

namespace vexa::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(RunProcess, ProgramReadsAndWrites_AllIsCollected) {
  ProcessOptions options;
  options.argv = {"sh", "-c", "cat; echo \"$GREETING\" >&2; exit 3"};
  options.environment["GREETING"] = "hello";
  options.input = std::string(300'000, 'x');
  const ProcessResult result = RunProcess(options);
  EXPECT_EQ(result.exit_code, 3);
  EXPECT_EQ(result.output, options.input);
  EXPECT_EQ(result.errors, "hello\n");
}

TEST(RunProcess, ProgramDoesNotReadItsInput_StillEnds) {
  ProcessOptions options;
  options.argv = {"true"};
  options.input = std::string(1'000'000, 'x');
  EXPECT_EQ(RunProcess(options).exit_code, 0);
}

TEST(RunProcess, VariableRemoved_ProgramDoesNotSeeIt) {
  ASSERT_EQ(::setenv("VEXA_SEEN", "yes", 1), 0);
  ProcessOptions options;
  options.argv = {"sh", "-c", "echo \"[$VEXA_SEEN]\""};
  EXPECT_EQ(RunProcess(options).output, "[yes]\n");
  options.environment["VEXA_SEEN"] = std::nullopt;
  EXPECT_EQ(RunProcess(options).output, "[]\n");
}

TEST(RunProcess, ProgramDoesNotEnd_IsKilledAndReported) {
  const ProcessResult result = RunProcess({.argv = {"sleep", "600"}}, milliseconds(50));
  EXPECT_TRUE(result.timed_out);
  EXPECT_EQ(result.exit_code, -1);
}

TEST(Process, Signalled_StatusNamesTheSignal) {
  Process process({.argv = {"sleep", "600"}});
  EXPECT_TRUE(process.IsRunning());
  process.Signal(SIGTERM);
  const auto status = process.Wait(seconds(30));
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->signal, SIGTERM);
  EXPECT_FALSE(status->code.has_value());
}

TEST(Process, Destroyed_EndsItsChildren) {
  TempDir folder;
  pid_t child = 0;
  {
    Process process({.argv = {"sh", "-c", "sleep 600 & echo \"child $! \"; wait"}});
    ASSERT_TRUE(process.WaitForText(" \n", seconds(30)));
    child = static_cast<pid_t>(std::stol(process.output().substr(6)));
    ASSERT_EQ(::kill(child, 0), 0);
  }
  // The kernel removes it in its own time; until then it may be there as a zombie.
  for (int i = 0; i < 3000 && ::kill(child, 0) == 0; ++i) {
    if (std::ifstream stat("/proc/" + std::to_string(child) + "/stat"); stat) {
      std::string line;
      std::getline(stat, line);
      if (line.find(") Z") != std::string::npos) return;
    }
    std::this_thread::sleep_for(milliseconds(10));
  }
  EXPECT_EQ(::kill(child, 0), -1);
}

TEST(Process, WaitForText_TextNeverAppears_ReturnsFalse) {
  Process process({.argv = {"echo", "something"}});
  EXPECT_FALSE(process.WaitForText("something else", seconds(30)));
  EXPECT_TRUE(process.WaitForText("something", seconds(30)));
}

TEST(TempDir, Destroyed_FolderIsGone) {
  std::string path;
  {
    TempDir folder;
    path = folder.path();
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0700U);
    std::filesystem::create_directories(folder.File("a/b"));
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(SyslogCapture, LinesLogged_AreKeptInOrderWithPriority) {
  ClearCapturedSyslog();
  syslog(LOG_ERR, "first %d", 1);
  errno = ENOENT;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // %m is an extension of syslog
  syslog(LOG_INFO | LOG_DAEMON, "second %s %m", "x");
#pragma GCC diagnostic pop
  EXPECT_EQ(errno, ENOENT);
  const auto lines = CapturedSyslog();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].text, "first 1");
  EXPECT_EQ(lines[0].level(), LOG_ERR);
  EXPECT_EQ(lines[1].text, "second x No such file or directory");
  EXPECT_EQ(lines[1].level(), LOG_INFO);
  EXPECT_TRUE(SyslogContains("second"));
  EXPECT_FALSE(SyslogContains("third"));
}

TEST(SyslogCapture, SyslogCapture_ConcurrentThreads_LoseNoLine) {
  ClearCapturedSyslog();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 500; ++i) syslog(LOG_INFO, "line %d", i);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(CapturedSyslog().size(), 2000U);
}

}  // namespace
}  // namespace vexa::test
