// Base of deletion tests on a DeletionEnvironment. It remembers the records and files to compare with.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "host/guests/deletion/deletion.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_deletion_environment.h"

namespace vexa::test {

class DeletionTest : public testing::Test {
 protected:
  DeletionTest() : store_(environment_.OpenStore()), options_(environment_.Options(store_)) {
    PutBoth(environment_, *store_);
    Remember();
    ClearCapturedSyslog();
  }
  void Remember() {
    records_ = Everything(*store_);
    files_ = environment_.Files();
  }
  Result<void, Refusal> Delete() { return Deletion(options_).Delete(kGuest, Alice()); }

  void ExpectUnchanged() {
    EXPECT_EQ(Everything(*store_), records_);
    EXPECT_EQ(environment_.Files(), files_);
  }
  // The guest, with its files; all else is as before.
  void ExpectGone() {
    EXPECT_EQ(Everything(*store_), Without(records_, kGuest));
    EXPECT_EQ(environment_.Files(), Without(files_, kGuest));
  }

  const DeletionEnvironment environment_;
  const std::shared_ptr<FaultyStore> store_;
  DeletionOptions options_;
  Texts records_;
  Texts files_;
};

}  // namespace vexa::test
