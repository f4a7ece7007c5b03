#include "link/base/log.h"

#include <gmock/gmock.h>

#include <string>

namespace vexlink {
namespace {

using std::chrono::seconds;
using Clock = LogLimit::Clock;

const Clock::time_point kStart{std::chrono::hours(1)};

TEST(LogLimitTest, TheSameLineComesOnceAMinute) {
  LogLimit limit;
  EXPECT_EQ(limit.Pass("a", kStart), "a");
  EXPECT_EQ(limit.Pass("b", kStart + seconds(1)), "b");
  EXPECT_EQ(limit.Pass("a", kStart + seconds(59)), std::nullopt);
  EXPECT_EQ(limit.Pass("a", kStart + seconds(60)), "a");
}

TEST(LogLimitTest, WhatIsForgottenIsNewsAgain) {
  LogLimit limit;
  EXPECT_EQ(limit.Pass("a", kStart), "a");
  limit.Forget();
  EXPECT_EQ(limit.Pass("a", kStart), "a");
}

TEST(LogLimitTest, AFloodOfDifferentLinesIsCutAndCounted) {
  LogLimit limit;
  int printed = 0;
  for (int i = 0; i < 1000; ++i) printed += limit.Pass("line " + std::to_string(i), kStart).has_value() ? 1 : 0;
  EXPECT_EQ(printed, 30);
  EXPECT_EQ(limit.Pass("then", kStart + seconds(2)), "then (970 lines were left out before)");
  EXPECT_EQ(limit.Pass("more", kStart + seconds(4)), "more");
}

}  // namespace
}  // namespace vexlink
