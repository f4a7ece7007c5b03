#include "cli/nearest_names.h"

#include <gmock/gmock.h>

namespace cli {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(NearestNamesTest, TheNearestComesFirstAndEachOnce) {
  EXPECT_THAT(NearestNames("seek_msx", {"seek_time", "seek_m", "seek_ms", "seek_ms"}),
              ElementsAre("seek_ms", "seek_m"));
}

TEST(NearestNamesTest, ADifferenceInCaseIsNone) {
  EXPECT_EQ(NameDistance("SEEK", "seek"), 0u);
  EXPECT_THAT(NearestNames("HIGH", {"volume", "high"}), ElementsAre("high"));
}

TEST(NearestNamesTest, TheBeginningOfANameIsNearToIt) { EXPECT_EQ(NameDistance("un", "unique_id"), 1u); }

TEST(NearestNamesTest, WhatNobodyMeansIsLeftOut) {
  EXPECT_EQ(NameDistance("volume", "unique_id"), kFarName);
  EXPECT_THAT(NearestNames("volume", {"unique_id"}), IsEmpty());
}

TEST(NearestNamesTest, NoMoreThanAskedFor) {
  EXPECT_THAT(NearestNames("ab", {"aba", "abb", "abc"}, 2), ElementsAre("aba", "abb"));
}

}  // namespace
}  // namespace cli
