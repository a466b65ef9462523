// Two daemons could share a data folder; each wrote its own sessions over the other's.
#include <gtest/gtest.h>

#include "host/base/data_lock.h"
#include "tests/support/test_daemon.h"

namespace {

TEST(TwoDaemons, OnOneDataFolder_TheSecondDoesNotStart) {
  const vexa::test::TestDaemon first;
  vexa::daemon::Config config = first.config();
  config.socket = first.folder().File("other");
  const auto second = vexa::daemon::Daemon::Start(config);
  ASSERT_FALSE(second.ok());
  EXPECT_EQ(second.error().code(), vexa::ErrorCode::kBusy);
}

TEST(TwoDaemons, AfterTheFirstHasGone_TheFolderIsFree) {
  const vexa::test::TempDir folder;
  {
    const auto lock = vexa::DataLock::Take(folder.path());
    ASSERT_TRUE(lock.ok());
    EXPECT_FALSE(vexa::DataLock::Take(folder.path()).ok());
  }
  EXPECT_TRUE(vexa::DataLock::Take(folder.path()).ok());
}

}  // namespace
