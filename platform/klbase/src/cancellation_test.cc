#include "klbase/cancellation.h"

#include <gtest/gtest.h>

#include <stop_token>
#include <thread>

namespace {

TEST(CancellationTest, WithoutAScopeNothingCanBeStopped) { EXPECT_FALSE(klbase::CurrentStopToken().stop_possible()); }

TEST(CancellationTest, AScopesTokenIsTheThreadsUntilItsEnd) {
  std::stop_source source;
  {
    const klbase::ScopedStopToken scope(source.get_token());
    EXPECT_EQ(klbase::CurrentStopToken(), source.get_token());
  }
  EXPECT_FALSE(klbase::CurrentStopToken().stop_possible());
}

TEST(CancellationTest, TheInnermostScopeCounts) {
  std::stop_source outer;
  std::stop_source inner;
  const klbase::ScopedStopToken outer_scope(outer.get_token());
  {
    const klbase::ScopedStopToken inner_scope(inner.get_token());
    EXPECT_EQ(klbase::CurrentStopToken(), inner.get_token());
  }
  EXPECT_EQ(klbase::CurrentStopToken(), outer.get_token());
}

TEST(CancellationTest, AnotherThreadsWorkIsItsOwn) {
  std::stop_source source;
  const klbase::ScopedStopToken scope(source.get_token());
  std::thread([] { EXPECT_FALSE(klbase::CurrentStopToken().stop_possible()); }).join();
}

}  // namespace
