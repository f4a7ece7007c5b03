#include "playd/canvas/pace.h"

#include <gtest/gtest.h>

#include <vector>

namespace playd {
namespace {

using std::chrono::microseconds;
using std::chrono::seconds;

// Pictures that come at a rate of their own choice, on a clock of their own.
class PaceTest : public testing::Test {
 protected:
  // The findings of so many seconds.
  std::vector<Pace::Finding> Compose(int hertz, int for_seconds) {
    std::vector<Pace::Finding> findings;
    for (int i = 0; i < hertz * for_seconds; ++i) {
      now_ += microseconds(1'000'000 / hertz);
      if (const auto finding = pace_.OnPicture(now_)) findings.push_back(*finding);
    }
    return findings;
  }

  Pace pace_{6000};
  Pace::Time now_{seconds(1000)};
};

TEST_F(PaceTest, StaysAtTheRateThatIsKept) {
  const auto findings = Compose(60, 10);
  ASSERT_GE(findings.size(), 4u);
  for (const auto& finding : findings) {
    EXPECT_NEAR(finding.measured, 6000, 30);
    EXPECT_FALSE(finding.changed);
  }
  EXPECT_FALSE(pace_.IsReduced());
}

TEST_F(PaceTest, HalvesTheRateThatIsNotKept) {
  const auto findings = Compose(40, 3);
  ASSERT_EQ(findings.size(), 1u);
  EXPECT_NEAR(findings[0].measured, 4000, 30);
  EXPECT_TRUE(findings[0].changed);
  EXPECT_EQ(findings[0].frequency, 3000);
  EXPECT_TRUE(pace_.IsReduced());
}

TEST_F(PaceTest, HalvesItAgainUntilItIsKept) {
  Compose(13, 8);
  EXPECT_EQ(pace_.Frequency(), 1500);
  Compose(13, 8);
  EXPECT_EQ(pace_.Frequency(), 1500) << "less is not worth looking at";
}

TEST_F(PaceTest, TriesTheFullRateAgainAndEachTimeLater) {
  Compose(30, 3);
  ASSERT_EQ(pace_.Frequency(), 3000);
  Compose(30, 9);
  EXPECT_EQ(pace_.Frequency(), 3000);
  Compose(30, 1);
  EXPECT_EQ(pace_.Frequency(), 6000);
  Compose(30, 3);
  ASSERT_EQ(pace_.Frequency(), 3000) << "not kept again";
  Compose(30, 14);
  EXPECT_EQ(pace_.Frequency(), 3000);
  Compose(30, 7);
  EXPECT_EQ(pace_.Frequency(), 6000);
  Compose(60, 10);
  EXPECT_FALSE(pace_.IsReduced());
}

TEST_F(PaceTest, JudgesSlowRatesByEnoughPictures) {
  pace_.Ask(100);
  EXPECT_TRUE(Compose(1, 39).empty());
  const auto findings = Compose(1, 5);
  ASSERT_EQ(findings.size(), 1u);
  EXPECT_EQ(findings[0].measured, 100);
}

TEST_F(PaceTest, BeginsAnewWhenAnotherRateIsAskedFor) {
  Compose(30, 3);
  ASSERT_TRUE(pace_.IsReduced());
  pace_.Ask(2400);
  EXPECT_EQ(pace_.Frequency(), 2400);
  EXPECT_FALSE(pace_.IsReduced());
}

}  // namespace
}  // namespace playd
