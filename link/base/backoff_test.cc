#include "link/base/backoff.h"

#include <gmock/gmock.h>

#include <set>

namespace vexlink {
namespace {

using std::chrono::milliseconds;

TEST(BackoffTest, DoublesUpToItsLimitAndIsDrawnFromTheUpperHalf) {
  Backoff backoff(milliseconds(100), milliseconds(350));
  for (const int whole : {100, 200, 350, 350}) {
    const milliseconds pause = backoff.Next();
    EXPECT_GE(pause, milliseconds(whole / 2));
    EXPECT_LE(pause, milliseconds(whole));
  }
}

TEST(BackoffTest, BeginsAnewWhenItWasReached) {
  Backoff backoff(milliseconds(100), milliseconds(10000));
  for (int i = 0; i < 5; ++i) backoff.Next();
  backoff.Reset();
  EXPECT_LE(backoff.Next(), milliseconds(100));
}

TEST(BackoffTest, TwoOfThemDiffer) {
  std::set<milliseconds> pauses;
  for (int i = 0; i < 20; ++i) pauses.insert(Backoff(milliseconds(1'000'000), milliseconds(1'000'000)).Next());
  EXPECT_GT(pauses.size(), 1u);
}

}  // namespace
}  // namespace vexlink
