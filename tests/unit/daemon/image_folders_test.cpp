#include "host/daemon/image_folders.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/syslog_capture.h"
#include "tests/support/temp_dir.h"

namespace vexa::daemon {
namespace {

// As a user without rights, for whom modes count. Returns how many lines there were.
int CountWarnings(const std::vector<std::string>& folders) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::geteuid() == 0 && ::setuid(65534) != 0) ::_exit(99);
    test::ClearCapturedSyslog();
    WarnOfHiddenFolders(folders);
    ::_exit(static_cast<int>(test::CapturedSyslog().size()));
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ImageFolders, UsableOrNotMadeYet_AreNotMentioned) {
  const test::TempDir folder;
  ::chmod(folder.path().c_str(), 0777);
  EXPECT_EQ(CountWarnings({folder.path(), folder.path() + "/", folder.File("later"), "/tmp"}), 0);
}

TEST(ImageFolders, HiddenReadOnlyOrMissing_AreWarnedOf) {
  const test::TempDir folder;
  ::chmod(folder.path().c_str(), 0755);
  ASSERT_EQ(::mkdir(folder.File("closed").c_str(), 0000), 0);
  ASSERT_EQ(::mkdir(folder.File("closed/below").c_str(), 0777) == 0 || ::geteuid() != 0, true);
  ASSERT_EQ(::mkdir(folder.File("read-only").c_str(), 0555), 0);
  EXPECT_EQ(CountWarnings({folder.File("closed")}), 1);
  EXPECT_EQ(CountWarnings({folder.File("closed/below")}), 1);
  EXPECT_EQ(CountWarnings({folder.File("read-only")}), 1);
  EXPECT_EQ(CountWarnings({"/no/such/folder", "/sys/images", folder.path()}), ::geteuid() == 0 ? 3 : 2);
  ::chmod(folder.File("closed").c_str(), 0700);
}

TEST(ImageFolders, Warning_NamesFolderReasonAndSettings) {
  test::ClearCapturedSyslog();
  WarnOfHiddenFolders({"/no/such/folder"});
  ASSERT_EQ(test::CapturedSyslog().size(), 1u);
  const std::string text = test::CapturedSyslog()[0].text;
  for (const char* const part : {"'/no/such/folder'", "No such file", "ReadWritePaths=", "BindPaths="}) {
    EXPECT_NE(text.find(part), std::string::npos) << text;
  }
}

}  // namespace
}  // namespace vexa::daemon
