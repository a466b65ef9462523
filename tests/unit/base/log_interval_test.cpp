#include "host/base/log_interval.h"

#include <gtest/gtest.h>

namespace vexa {
namespace {

TEST(LogInterval, LinesOfOneKey_DoNotHideThoseOfOthers) {
  LogInterval interval{std::chrono::hours(1)};
  EXPECT_TRUE(interval.IsDue("h1"));
  EXPECT_FALSE(interval.IsDue("h1"));
  EXPECT_TRUE(interval.IsDue("h2"));
  EXPECT_FALSE(interval.IsDue("h2"));
}

TEST(LogInterval, KeysBeyondTheBound_HaveNoLinesUntilOthersAreOld) {
  LogInterval interval{std::chrono::hours(1)};
  for (std::size_t i = 0; i < LogInterval::kMaxKeys; ++i) EXPECT_TRUE(interval.IsDue(std::to_string(i)));
  EXPECT_FALSE(interval.IsDue("one more"));

  LogInterval short_interval{std::chrono::seconds(0)};
  for (std::size_t i = 0; i < 2 * LogInterval::kMaxKeys; ++i) EXPECT_TRUE(short_interval.IsDue(std::to_string(i)));
  EXPECT_TRUE(short_interval.IsDue("0")) << "after the interval, a line is due again";
}

}  // namespace
}  // namespace vexa
