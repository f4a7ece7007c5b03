#include "platform/klbase/testing/test_screen.h"

#include <gtest/gtest.h>

namespace cli::internal {
namespace {

TEST(TestScreenTest, AFilledRowKeepsTheCursorUntilTheNextCharacter) {
  TestScreen screen(4, 3);
  screen.Write("abcd");
  EXPECT_TRUE(screen.HasPendingWrap());
  EXPECT_EQ(screen.Row(), 0);
  screen.Write("e");
  EXPECT_EQ(screen.Text(), "abcd\ne");
  EXPECT_EQ(screen.Row(), 1);
  EXPECT_EQ(screen.Column(), 1);
}

TEST(TestScreenTest, RowsThatScrollAwayAreKept) {
  TestScreen screen(4, 2);
  screen.Write("a\r\nb\r\nc");
  EXPECT_EQ(screen.Text(), "b\nc");
  EXPECT_EQ(screen.Scrollback(), std::vector<std::string>{"a"});
}

TEST(TestScreenTest, WhatItDoesNotKnowIsToldNotDropped) {
  TestScreen screen(4, 2);
  screen.Write("a\x1b[99zb");
  EXPECT_NE(screen.Unknown(), "");
}

}  // namespace
}  // namespace cli::internal
