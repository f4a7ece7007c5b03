#include "console/session/notices.h"

#include <gtest/gtest.h>

#include "platform/klbase/testing/test_output.h"

namespace cli::internal {
namespace {

class NoticesTest : public testing::Test {
 protected:
  TestOutput output_;
  Notices notices_{output_.Buffer(), true};
};

TEST_F(NoticesTest, WhileALineIsTypedANoticeIsKeptForTheHolder) {
  EXPECT_EQ(notices_.Post("one\n"), Notices::Posted::kKept);
  EXPECT_EQ(notices_.Post("two\n"), Notices::Posted::kKept);
  EXPECT_EQ(output_.Take(), "");
  EXPECT_EQ(notices_.Take(), "one\ntwo\n");
  EXPECT_EQ(notices_.Take(), "");
}

TEST_F(NoticesTest, WhileACommandHasPrintedNothingANoticeIsShownAtOnceOnAFreshLine) {
  output_.Buffer()->Print("half");
  notices_.CommandBegins();
  EXPECT_EQ(notices_.Post("news\n"), Notices::Posted::kShown);
  EXPECT_EQ(output_.Take(), "half\nnews\n");
  EXPECT_EQ(notices_.Take(), "");
}

TEST_F(NoticesTest, ANoticeDoesNotComeIntoTheMiddleOfAnAnswer) {
  notices_.CommandBegins();
  output_.Buffer()->Print("one");
  EXPECT_EQ(notices_.Post("news\n"), Notices::Posted::kHeld);
  EXPECT_EQ(notices_.Post("more\n"), Notices::Posted::kHeld);
  output_.Buffer()->Print(" answer\n");
  EXPECT_EQ(output_.Take(), "one answer\n");
  notices_.CommandEnds();
  EXPECT_EQ(output_.Take(), "news\nmore\n");
}

TEST_F(NoticesTest, ACommandThatIsQuietForATickHoldsNothingBack) {
  notices_.CommandBegins();
  output_.Buffer()->Print("progress");
  notices_.Post("news\n");
  output_.Buffer()->Print("..");
  EXPECT_FALSE(notices_.Tick());
  EXPECT_EQ(output_.Take(), "progress..");
  EXPECT_TRUE(notices_.Tick());
  EXPECT_EQ(output_.Take(), "\nnews\n");
  EXPECT_FALSE(notices_.Tick());
  EXPECT_EQ(notices_.Post("more\n"), Notices::Posted::kShown);
}

TEST_F(NoticesTest, ACommandThatPrintsAllTheTimeHoldsALimitedAmount) {
  notices_.CommandBegins();
  output_.Buffer()->Print("answer\n");
  const std::string large(16 << 10, 'x');
  EXPECT_EQ(notices_.Post(large), Notices::Posted::kHeld);
  EXPECT_EQ(notices_.Post("news\n"), Notices::Posted::kShown);
  EXPECT_EQ(output_.Take(), "answer\n" + large + "news\n");
}

TEST_F(NoticesTest, APlainReaderGetsNoLineEndOfOurs) {
  Notices plain(output_.Buffer(), false);
  plain.CommandBegins();
  output_.Buffer()->Print("half");
  plain.Post("news\n");
  plain.CommandEnds();
  EXPECT_EQ(output_.Take(), "halfnews\n");
}

TEST_F(NoticesTest, WhatWasKeptStandsAboveACommandsOutput) {
  notices_.Post("news\n");
  notices_.CommandBegins();
  EXPECT_EQ(output_.Take(), "news\n");
}

TEST_F(NoticesTest, BehindACommandNoticesAreKeptAgain) {
  notices_.CommandBegins();
  notices_.CommandEnds();
  EXPECT_EQ(notices_.Post("news\n"), Notices::Posted::kKept);
  EXPECT_EQ(output_.Take(), "");
}

TEST_F(NoticesTest, AfterTheLastLineNoticesAreShownAtOnce) {
  notices_.Post("one\n");
  EXPECT_EQ(notices_.TakeLast(), "one\n");
  notices_.CommandEnds();  // the command that ended the session
  EXPECT_EQ(notices_.Post("two\n"), Notices::Posted::kShown);
  EXPECT_EQ(output_.Take(), "two\n");
}

TEST_F(NoticesTest, AClosedSessionDropsNotices) {
  notices_.Close();
  EXPECT_EQ(notices_.Post("news\n"), Notices::Posted::kDropped);
  notices_.CommandBegins();
  EXPECT_EQ(notices_.Post("news\n"), Notices::Posted::kDropped);
  EXPECT_EQ(output_.Take(), "");
}

}  // namespace
}  // namespace cli::internal
