#include "link/events/subject.h"

#include <gmock/gmock.h>

#include <set>
#include <string>

namespace vexlink {
namespace {

TEST(NodeNameTest, HasLettersDigitsDashesAndUnderscores) {
  for (const char* name : {"a", "Cam-07_b", "0", "ALL"}) EXPECT_TRUE(IsNodeName(name)) << name;
  for (const char* name : {"", "a.b", "a b", "*", ">", "ä", "a\n", "all"}) EXPECT_FALSE(IsNodeName(name)) << name;
  EXPECT_TRUE(IsNodeName(std::string(64, 'a')));
  EXPECT_FALSE(IsNodeName(std::string(65, 'a')));
}

TEST(NodeNameTest, TheHostsNameIsUsableOrNone) {
  EXPECT_TRUE(NodeNameOfHost().empty() || IsNodeName(NodeNameOfHost()));
}

TEST(TopicTokensTest, SlashesAreDots) {
  EXPECT_EQ(TopicTokens("layer/report"), "layer.report");
  EXPECT_EQ(TopicTokens("one"), "one");
}

TEST(TopicTokensTest, WhatMeansSomethingInASubjectIsEscaped) {
  EXPECT_EQ(TopicTokens("a.b/*/>"), "a%2Eb.%2A.%3E");
  EXPECT_EQ(TopicTokens("a b\tc\r\n\x7f%"), "a%20b%09c%0D%0A%7F%25");
  EXPECT_EQ(TopicTokens("größe/$x"), "größe.$x");
}

TEST(TopicTokensTest, NoTokenIsEmpty) {
  EXPECT_EQ(TopicTokens(""), "%");
  EXPECT_EQ(TopicTokens("/"), "%.%");
  EXPECT_EQ(TopicTokens("/a//b/"), "%.a.%.b.%");
}

TEST(TopicTokensTest, NoTwoTopicsShareASubject) {
  std::set<std::string> subjects;
  int topics = 0;
  for (const char* a : {"", "a", "%", "/", ".", "%2E", "//", "*"}) {
    for (const char* b : {"x", "/x", "./x", "%/x", " x"}) {
      subjects.insert(TopicTokens(std::string(a) + "-" + b));
      ++topics;
    }
  }
  EXPECT_EQ(subjects.size(), topics);
}

TEST(TopicTokensTest, ALongTopicIsCutAtATokensEndOrInIt) {
  EXPECT_EQ(TopicTokens(std::string(5000, 'a')).size(), kMostTopicBytes);
  for (std::size_t length = 990; length < 1010; ++length) {
    const std::string tokens = TopicTokens(std::string(length, 'a') + "/./" + std::string(20, ' '));
    EXPECT_LE(tokens.size(), kMostTopicBytes);
    EXPECT_NE(tokens.back(), '.');
    EXPECT_EQ(tokens.find(".."), std::string::npos);
  }
}

}  // namespace
}  // namespace vexlink
