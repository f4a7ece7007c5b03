#include "cli/feed/conditions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace cli::internal {
namespace {

bool Holds(const std::string& condition, const std::string& actual) {
  std::size_t next = 0;
  const auto read = ReadCondition({condition}, next);
  EXPECT_TRUE(read.has_value()) << condition;
  return read && read->HoldsFor(actual);
}

TEST(ConditionTest, NumbersCompareAsNumbers) {
  EXPECT_TRUE(Holds("x>=5000", "10000"));
  EXPECT_FALSE(Holds("x>=5000", "999"));
  EXPECT_TRUE(Holds("x=5", "5.0"));
  EXPECT_FALSE(Holds("x!=5", "05"));
  EXPECT_TRUE(Holds("x<0", "-1"));
  EXPECT_TRUE(Holds("x<=2", "2"));
  EXPECT_FALSE(Holds("x>2", "2"));
}

TEST(ConditionTest, LargeIntegersAreToldApart) {
  EXPECT_TRUE(Holds("x=18446744073709551615", "18446744073709551615"));
  EXPECT_FALSE(Holds("x=18446744073709551615", "18446744073709551614"));
  EXPECT_TRUE(Holds("x>18446744073709551614", "18446744073709551615"));
}

TEST(ConditionTest, WordsThatSomeTakeForNumbersAreText) {
  EXPECT_TRUE(Holds("x=nan", "nan"));
  EXPECT_FALSE(Holds("x<inf", "1"));
  EXPECT_FALSE(Holds("x=16", "0x10"));
}

TEST(ConditionTest, TextIsEqualOrNotAndHasNoOrder) {
  EXPECT_TRUE(Holds("url=/a.mp4", "/a.mp4"));
  EXPECT_TRUE(Holds("url!=/a.mp4", "/b.mp4"));
  EXPECT_FALSE(Holds("url>a", "b"));
  EXPECT_FALSE(Holds("url<b", "a"));
  EXPECT_TRUE(Holds("text=", ""));
  EXPECT_FALSE(Holds("x=5", "5s"));
}

TEST(ConditionTest, AConditionIsOneWordOrThree) {
  std::size_t next = 0;
  const std::vector<std::string> words = {"a>=1", "b", "<", "2", "c = 3", "rest"};
  EXPECT_EQ(ReadCondition(words, next)->Text(), "a>=1");
  EXPECT_EQ(ReadCondition(words, next)->Text(), "b<2");
  EXPECT_EQ(next, 4u);
  EXPECT_EQ(ReadCondition(words, next)->field, "c ");
  EXPECT_FALSE(ReadCondition(words, next).has_value());
  EXPECT_EQ(next, 5u);
}

TEST(ConditionTest, WhatIsNoConditionIsLeftThere) {
  for (const char* word : {"", "x", "=5", ">=", "within"}) {
    std::size_t next = 0;
    EXPECT_FALSE(ReadCondition({word}, next).has_value()) << word;
    EXPECT_EQ(next, 0u);
  }
  std::size_t next = 0;
  EXPECT_FALSE(ReadCondition({}, next).has_value());
}

TEST(ConditionTest, AMissingFieldMeetsNothing) {
  std::size_t next = 0;
  const auto condition = *ReadCondition({"x!=5"}, next);
  EXPECT_FALSE(AllHold({condition}, {{"y", "1"}}));
  EXPECT_TRUE(AllHold({condition}, {{"x", "1"}}));
  EXPECT_FALSE(AllHold({condition}, {{"x", "1"}, {"x", "5"}}));  // the last one counts
  EXPECT_TRUE(AllHold({}, {}));
}

TEST(TopicTest, AStarAtTheEndStandsForAnything) {
  EXPECT_TRUE(TopicMatches("layer/*", "layer/result_repor"));
  EXPECT_TRUE(TopicMatches("*", "layer/result_repor"));
  EXPECT_TRUE(TopicMatches("layer/result_repor", "layer/result_repor"));
  EXPECT_FALSE(TopicMatches("layer", "layer/result_repor"));
  EXPECT_FALSE(TopicMatches("*/result_repor", "layer/result_repor"));
}

}  // namespace
}  // namespace cli::internal
