#include "host/daemon/watchdog.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "tests/support/syslog_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/waiting.h"

namespace vexa::daemon {
namespace {

using std::chrono::milliseconds;

class WatchdogVariables : public testing::Test {
 protected:
  void TearDown() override {
    ::unsetenv("WATCHDOG_USEC");
    ::unsetenv("WATCHDOG_PID");
  }
};

TEST_F(WatchdogVariables, Timeout_OfThisProcess_IsRead) {
  EXPECT_FALSE(WatchdogTimeout().has_value());
  ::setenv("WATCHDOG_USEC", "60000000", 1);
  EXPECT_EQ(WatchdogTimeout(), milliseconds(60'000));
  ::setenv("WATCHDOG_PID", std::to_string(::getpid()).c_str(), 1);
  EXPECT_EQ(WatchdogTimeout(), milliseconds(60'000));
  ::setenv("WATCHDOG_USEC", "1", 1);
  EXPECT_EQ(WatchdogTimeout(), milliseconds(1));
}

TEST_F(WatchdogVariables, Timeout_MalformedOrForOtherProcess_IsIgnored) {
  ::setenv("WATCHDOG_USEC", "60000000", 1);
  for (const std::string& pid : {std::to_string(::getpid() + 1), std::string(), std::string("x")}) {
    ::setenv("WATCHDOG_PID", pid.c_str(), 1);
    EXPECT_FALSE(WatchdogTimeout().has_value()) << pid;
  }
  ::unsetenv("WATCHDOG_PID");
  for (const char* const time : {"", "0", "-1", "1s", "99999999999999999999"}) {
    ::setenv("WATCHDOG_USEC", time, 1);
    EXPECT_FALSE(WatchdogTimeout().has_value()) << time;
  }
}

// The service manager's end of the socket.
class WatchdogReports : public testing::Test {
 protected:
  void SetUp() override {
    const std::string path = folder_.File("notify");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    test::ClearCapturedSyslog();
  }
  void TearDown() override {
    ::unsetenv("NOTIFY_SOCKET");
    ::close(fd_);
  }
  // The next report; "" when no report is waiting.
  std::string Report() const {
    char buffer[32];
    const ssize_t size = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
    return size > 0 ? std::string(buffer, static_cast<std::size_t>(size)) : "";
  }

  test::TempDir folder_;
  int fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

TEST_F(WatchdogReports, RequestsAreServed_IsReportedAgainAndAgain) {
  const Watchdog watchdog(milliseconds(40), [](milliseconds time) { return time == milliseconds(10); });
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(test::Eventually([&] { return Report() == "WATCHDOG=1"; })) << i;
}

TEST_F(WatchdogReports, RequestsAreNotServed_IsLoggedAndNotReported) {
  std::atomic<int> checks = 0;
  std::atomic<bool> is_serving = false;
  const Watchdog watchdog(milliseconds(4), [&](milliseconds) {
    ++checks;
    return is_serving.load();
  });
  EXPECT_TRUE(test::Eventually([&] { return checks >= 3; }));
  EXPECT_EQ(Report(), "");

  EXPECT_TRUE(test::SyslogContains("No request is being served"));
  is_serving = true;
  EXPECT_TRUE(test::Eventually([&] { return Report() == "WATCHDOG=1"; }));
}

}  // namespace
}  // namespace vexa::daemon
