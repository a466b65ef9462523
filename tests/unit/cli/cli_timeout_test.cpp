// Which time-out holds when none is given.
#include <gtest/gtest.h>

#include "cli/power_command.h"

namespace vexa::cli {
namespace {

TEST(CliTimeout, OfActionsOnGuests_IsAnHourUnlessGiven) {
  GlobalOptions global;
  EXPECT_EQ(ActionTimeout(global), std::chrono::hours(1));
  EXPECT_EQ(MakeClientOptions(global, Endpoint()).timeout, std::chrono::seconds(60)) << "of everything else";
  global.timeout_s = 5;
  EXPECT_EQ(ActionTimeout(global), std::chrono::seconds(5));
  EXPECT_EQ(MakeClientOptions(global, Endpoint()).timeout, std::chrono::seconds(5));
}

}  // namespace
}  // namespace vexa::cli
