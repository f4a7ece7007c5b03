#include "log/mutex.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace klbase_internal {
namespace {

TEST(ConditionTest, AWaitForEverSleepsUntilItIsNotified) {
  Mutex mutex;
  Condition changed;
  bool done = false;
  std::thread other([&] {
    // Long enough for a waiter that doesn't sleep to look thousands of times.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    MutexLock lock(mutex);
    done = true;
    changed.NotifyAll();
  });
  int looks = 0;
  {
    MutexLock lock(mutex);
    while (!done) {
      EXPECT_TRUE(changed.WaitUntil(mutex, Condition::Clock::time_point::max()));
      ++looks;
    }
  }
  other.join();
  EXPECT_LE(looks, 3);  // a wait may end early, but seldom does
}

TEST(ConditionTest, AWaitEndsAtItsDeadline) {
  Mutex mutex;
  Condition changed;
  MutexLock lock(mutex);
  const auto deadline = Condition::Clock::now() + std::chrono::milliseconds(5);
  while (changed.WaitUntil(mutex, deadline)) {
  }
  EXPECT_GE(Condition::Clock::now(), deadline);
}

}  // namespace
}  // namespace klbase_internal
