// Fails in thread sanitizer builds when Abseil's locks are not seen there, or when nothing else is seen any more.
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include "absl/base/call_once.h"
#include "absl/synchronization/mutex.h"
#include "absl/synchronization/notification.h"

namespace vextest {
namespace {

constexpr int kThreads = 4;
constexpr int kTurns = 200;

template <typename Work>
void InThreads(const Work& work) {
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int number = 0; number < kThreads; ++number) threads.emplace_back([&work, number] { work(number); });
  for (auto& thread : threads) thread.join();
}

TEST(TsanAbseilTest, AMutexOrdersWhatItGuards) {
  absl::Mutex mutex;
  int count = 0;
  InThreads([&](int) {
    for (int turn = 0; turn < kTurns; ++turn) {
      absl::MutexLock lock(&mutex);
      ++count;
    }
  });
  EXPECT_EQ(count, kThreads * kTurns);
}

TEST(TsanAbseilTest, ReadersAreOrderedWithWriters) {
  absl::Mutex mutex;
  int count = 0;
  InThreads([&](int number) {
    for (int turn = 0; turn < kTurns; ++turn) {
      if (number == 0) {
        absl::MutexLock lock(&mutex);
        ++count;
      } else {
        absl::ReaderMutexLock lock(&mutex);
        EXPECT_LE(count, kTurns);
      }
    }
  });
  EXPECT_EQ(count, kTurns);
}

// The condition is asked in whichever thread unlocks.
TEST(TsanAbseilTest, AnAwaitedConditionIsAskedUnderTheLock) {
  absl::Mutex mutex;
  int count = 0;
  InThreads([&](int number) {
    for (int turn = 0; turn < kTurns; ++turn) {
      absl::MutexLock lock(&mutex);
      const auto my_turn = [&] { return count % kThreads == number; };
      mutex.Await(absl::Condition(&my_turn));
      ++count;
    }
  });
  EXPECT_EQ(count, kThreads * kTurns);
}

TEST(TsanAbseilTest, WaitingForAChangeGivesTheLockUpAndTakesItBack) {
  absl::Mutex mutex;
  absl::CondVar changed;
  int count = 0;
  InThreads([&](int number) {
    for (int turn = 0; turn < kTurns; ++turn) {
      absl::MutexLock lock(&mutex);
      while (count % kThreads != number) changed.Wait(&mutex);
      ++count;
      changed.SignalAll();
    }
  });
  EXPECT_EQ(count, kThreads * kTurns);
}

TEST(TsanAbseilTest, ANotificationOrdersWhatCameBeforeIt) {
  absl::Notification notified;
  int value = 0;
  InThreads([&](int number) {
    if (number == 0) {
      value = 7;
      notified.Notify();
    } else if (number == 1) {
      notified.WaitForNotification();
      EXPECT_EQ(value, 7);
    } else {
      while (!notified.HasBeenNotified()) std::this_thread::yield();
      EXPECT_EQ(value, 7);
    }
  });
}

TEST(TsanAbseilTest, WhoeverWaitsForACallThatHappensOnceSeesWhatItDid) {
  absl::once_flag once;
  int value = 0;
  InThreads([&](int) {
    absl::call_once(once, [&] {
      std::this_thread::yield();
      value = 7;
    });
    EXPECT_EQ(value, 7);
  });
}

#if defined(__SANITIZE_THREAD__)

TEST(TsanAbseilDeathTest, AFieldUsedWithoutItsLockIsStillFound) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto race = [] {
    absl::Mutex mutex;
    int count = 0;
    InThreads([&](int number) {
      for (int turn = 0; turn < kTurns; ++turn) {
        if (number != 0) mutex.Lock();
        ++count;
        if (number != 0) mutex.Unlock();
      }
    });
    std::exit(count > 0 ? 0 : 1);
  };
  EXPECT_EXIT(race(), testing::ExitedWithCode(66), "data race");
}

#endif

}  // namespace
}  // namespace vextest
