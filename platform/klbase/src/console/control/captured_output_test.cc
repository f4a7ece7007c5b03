#include "console/control/captured_output.h"

#include <gtest/gtest.h>

#include <string>

namespace cli::internal {
namespace {

TEST(CapturedOutputTest, WhatIsPrintedIsTakenOnce) {
  CapturedOutput output;
  EXPECT_TRUE(output.Print("half"));
  output.FreshLine();
  output.FreshLine();
  output.Append("line\n");
  output.FreshLine();
  EXPECT_EQ(output.Take().text, "half\nline\n");
  EXPECT_EQ(output.Take().text, "");
}

TEST(CapturedOutputTest, PrintsAreRefusedWhileTheyAre) {
  CapturedOutput output;
  output.RefusePrints(true);
  EXPECT_FALSE(output.Print("late"));
  output.Append("told");
  output.RefusePrints(false);
  EXPECT_TRUE(output.Print("."));
  EXPECT_EQ(output.Take().text, "told.");
}

TEST(CapturedOutputTest, WhatIsTooMuchIsDroppedAndTheCommandGoesOn) {
  CapturedOutput output;
  EXPECT_TRUE(output.Print(std::string(CapturedOutput::kMost - 1, 'x')));
  EXPECT_TRUE(output.Print("yz"));
  EXPECT_TRUE(output.Print("more"));
  const CapturedOutput::Text text = output.Take();
  EXPECT_TRUE(text.truncated);
  EXPECT_EQ(text.text.size(), CapturedOutput::kMost);
  EXPECT_EQ(text.text.back(), 'y');
  EXPECT_FALSE(output.Take().truncated);
}

}  // namespace
}  // namespace cli::internal
