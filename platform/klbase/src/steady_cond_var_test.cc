#include "klbase/steady_cond_var.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace klbase {
namespace {

TEST(SteadyCondVarTest, AWaitForEverSleepsUntilItIsNotified) {
  absl::Mutex mutex;
  SteadyCondVar changed;
  bool done = false;
  std::thread other([&] {
    // Long enough for a waiter that doesn't sleep to look thousands of times.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    absl::MutexLock lock(&mutex);
    done = true;
    changed.SignalAll();
  });
  int looks = 0;
  {
    absl::MutexLock lock(&mutex);
    while (!done) {
      EXPECT_TRUE(changed.WaitUntil(&mutex, SteadyCondVar::Clock::time_point::max()));
      ++looks;
    }
  }
  other.join();
  EXPECT_LE(looks, 3);  // a wait may end early, but seldom does
}

TEST(SteadyCondVarTest, AWaitEndsAtItsDeadline) {
  absl::Mutex mutex;
  SteadyCondVar changed;
  absl::MutexLock lock(&mutex);
  const auto deadline = SteadyCondVar::Clock::now() + std::chrono::milliseconds(5);
  while (changed.WaitUntil(&mutex, deadline)) {
  }
  EXPECT_GE(SteadyCondVar::Clock::now(), deadline);
}

}  // namespace
}  // namespace klbase
