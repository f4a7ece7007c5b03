// Fails in thread sanitizer builds when Abseil's locks are not seen there, or when nothing else is seen any more.
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include "absl/base/call_once.h"
#include "absl/synchronization/mutex.h"
#include "absl/synchronization/notification.h"
#include "klbase/steady_cond_var.h"
#include "platform/testing/limits.h"

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

// The same code under a lock, which the sanitizer must not report, and with the lock left out, which it must: a planted
// race. Both run in processes of their own, whose exit code tells whether a race was reported.
enum class Lock { kHeld, kLeftOut };

[[noreturn]] void CountInThreads(Lock lock) {
  absl::Mutex mutex;
  int count = 0;
  InThreads([&](int number) {
    const bool locks = lock == Lock::kHeld || number != 0;
    for (int turn = 0; turn < kTurns; ++turn) {
      if (locks) {
        absl::MutexLock held(&mutex);
        ++count;
      } else {
        ++count;
      }
    }
  });
  std::exit(count > 0 ? 0 : 1);
}

// Threads take turns by a SteadyCondVar; the count changes within the turn or just behind it.
[[noreturn]] void TakeTurns(Lock lock) {
  absl::Mutex mutex;
  klbase::SteadyCondVar changed;
  int turn = 0;
  int count = 0;
  const auto deadline = klbase::SteadyCondVar::Clock::now() + kLimit;
  InThreads([&](int number) {
    for (int round = 0; round < kTurns; ++round) {
      {
        absl::MutexLock held(&mutex);
        while (turn % kThreads != number && changed.WaitUntil(&mutex, deadline)) {
        }
        if (lock == Lock::kHeld) ++count;
        ++turn;
        changed.SignalAll();
      }
      if (lock == Lock::kLeftOut) ++count;
    }
  });
  std::exit(count > 0 ? 0 : 1);
}

class TsanAbseilDeathTest : public testing::Test {
 protected:
  TsanAbseilDeathTest() { testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

TEST_F(TsanAbseilDeathTest, AFieldUsedUnderItsMutexIsNotReported) {
  EXPECT_EXIT(CountInThreads(Lock::kHeld), testing::ExitedWithCode(0), "");
}

TEST_F(TsanAbseilDeathTest, AFieldUsedUnderAMutexThatIsWaitedWithIsNotReported) {
  EXPECT_EXIT(TakeTurns(Lock::kHeld), testing::ExitedWithCode(0), "");
}

#if defined(__SANITIZE_THREAD__)

TEST_F(TsanAbseilDeathTest, AFieldUsedWithoutItsMutexIsReported) {
  EXPECT_EXIT(CountInThreads(Lock::kLeftOut), testing::ExitedWithCode(66), "data race");
}

TEST_F(TsanAbseilDeathTest, AFieldUsedBesideAMutexThatIsWaitedWithIsReported) {
  EXPECT_EXIT(TakeTurns(Lock::kLeftOut), testing::ExitedWithCode(66), "data race");
}

#endif

}  // namespace
}  // namespace vextest
