// The default timeouts of commands.
#include <gtest/gtest.h>

#include "cli/power_command.h"

namespace vexa::cli {
namespace {

TEST(CliTimeout, Timeout_OfGuestActions_DefaultsToAnHour) {
  GlobalOptions global;
  EXPECT_EQ(ActionTimeout(global), std::chrono::hours(1));
  EXPECT_EQ(MakeClientOptions(global, Endpoint()).timeout, std::chrono::seconds(60)) << "of all other commands";
  global.timeout_s = 5;
  EXPECT_EQ(ActionTimeout(global), std::chrono::seconds(5));
  EXPECT_EQ(MakeClientOptions(global, Endpoint()).timeout, std::chrono::seconds(5));
}

}  // namespace
}  // namespace vexa::cli
