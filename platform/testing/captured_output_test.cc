#include "platform/testing/captured_output.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace vextest {
namespace {

void Write(int descriptor, const std::string& text) {
  ASSERT_EQ(write(descriptor, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

TEST(CapturedOutputTest, KeepsEachWriteApart) {
  CapturedOutput output;
  Write(STDOUT_FILENO, "one");
  Write(STDOUT_FILENO, "two");
  EXPECT_TRUE(output.WaitForWrites(2));
  EXPECT_THAT(output.Writes(), testing::ElementsAre("one", "two"));
  EXPECT_EQ(output.Text(), "onetwo");
  output.Clear();
  EXPECT_EQ(output.Text(), "");
}

TEST(CapturedOutputTest, SeesWhatTheStandardStreamStillHolds) {
  CapturedOutput output;
  std::printf("one");
  EXPECT_EQ(output.Text(), "one");
}

TEST(CapturedOutputTest, TakesStandardErrorAlone) {
  CapturedOutput output;
  {
    CapturedOutput errors(STDERR_FILENO);
    Write(STDERR_FILENO, "error");
    EXPECT_TRUE(errors.WaitFor("error"));
    EXPECT_FALSE(errors.WaitFor("more", std::chrono::milliseconds(1)));
  }
  EXPECT_EQ(output.Text(), "");
}

TEST(CapturedOutputTest, GivesTheStreamBack) {
  CapturedOutput outer;
  { const CapturedOutput inner; }
  Write(STDOUT_FILENO, "outer");
  EXPECT_EQ(outer.Text(), "outer");
}

}  // namespace
}  // namespace vextest
