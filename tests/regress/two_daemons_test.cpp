// Two daemons could use one data folder, and overwrote each other's sessions.
#include <gtest/gtest.h>

#include <filesystem>

#include "host/base/data_lock.h"
#include "host/records/environment.h"
#include "host/transport/transport.h"
#include "tests/support/test_daemon.h"

namespace {

TEST(TwoDaemons, SecondDaemon_SameDataFolder_DoesNotStart) {
  const vexa::test::TestDaemon first;
  vexa::daemon::Config config = first.config();
  config.socket = first.folder().File("other");
  const auto second = vexa::daemon::Daemon::Start(config);
  ASSERT_FALSE(second.ok());
  EXPECT_EQ(second.error().code(), vexa::ErrorCode::kBusy);
}

// The one that was refused took the first one's database, accounts and transport away, while its threads used them.
TEST(TwoDaemons, SecondDaemon_Refused_LeavesTheFirstAtWork) {
  const vexa::test::TestDaemon first;
  ASSERT_FALSE(vexa::daemon::Daemon::Start(first.config()).ok());
  EXPECT_NE(vexa::records::CurrentEnvironment(), nullptr);
  EXPECT_NE(vexa::transport::CurrentTransport(), nullptr);
  const auto list = first.TcpAs("admin").PostJson("/webapi/VEXA.Virtualization.Host/list", "{}");
  EXPECT_EQ(vexa::test::ErrorCode(list), 0) << list.body;
}

TEST(TwoDaemons, SecondLock_FirstReleased_IsTaken) {
  const vexa::test::TempDir folder;
  {
    const auto lock = vexa::DataLock::Take(folder.path());
    ASSERT_TRUE(lock.ok());
    EXPECT_FALSE(vexa::DataLock::Take(folder.path()).ok());
  }
  EXPECT_TRUE(vexa::DataLock::Take(folder.path()).ok());
}

TEST(TwoDaemons, SharedLock_WhileHeld_KeepsDaemonsFromStarting) {
  const vexa::test::TempDir folder;
  EXPECT_TRUE(vexa::DataLock::Share(folder.path()).ok()) << "there was no daemon yet, and nothing is created";
  EXPECT_FALSE(std::filesystem::exists(folder.File("vexad.lock")));
  {
    const auto daemon = vexa::DataLock::Take(folder.path());
    ASSERT_TRUE(daemon.ok());
    EXPECT_FALSE(vexa::DataLock::Share(folder.path()).ok());
  }
  {
    const auto one = vexa::DataLock::Share(folder.path());
    const auto other = vexa::DataLock::Share(folder.path());
    ASSERT_TRUE(one.ok() && other.ok());
    EXPECT_FALSE(vexa::DataLock::Take(folder.path()).ok());
  }
  EXPECT_TRUE(vexa::DataLock::Take(folder.path()).ok());
}

}  // namespace
