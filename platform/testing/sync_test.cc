#include "platform/testing/sync.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace vextest {
namespace {

constexpr std::chrono::milliseconds kMoment{1};

TEST(WaitForTest, EndsWithTheConditionOrAtItsLimit) {
  int asked = 0;
  EXPECT_TRUE(WaitFor([&] { return ++asked == 3; }));
  EXPECT_EQ(asked, 3);
  EXPECT_FALSE(WaitFor([] { return false; }, kMoment));
}

TEST(ThreadSleepsTest, TellsAWaitingThreadFromARunningOne) {
  EXPECT_FALSE(ThreadSleeps(gettid()));
  Gate gate;
  std::atomic<pid_t> waiting = 0;
  std::thread other([&] {
    waiting = gettid();
    gate.Pass();
  });
  EXPECT_TRUE(gate.WaitUntilReached());
  EXPECT_TRUE(WaitFor([&] { return ThreadSleeps(waiting); }));
  gate.Open();
  other.join();
  EXPECT_FALSE(ThreadSleeps(waiting)) << "it is gone";
}

TEST(WatchedTest, WaitsUntilAnotherThreadHasChangedTheValue) {
  Watched<int> value;
  std::thread other([&] { value.Update([](int& number) { number = 5; }); });
  EXPECT_TRUE(value.WaitFor([](int number) { return number == 5; }));
  other.join();
  EXPECT_EQ(value.Get(), 5);
  EXPECT_FALSE(value.WaitFor([](int number) { return number == 6; }, kMoment));
}

TEST(NotificationTest, HappensOnce) {
  Notification happened;
  EXPECT_FALSE(happened.HasBeenNotified());
  EXPECT_FALSE(happened.Wait(kMoment));
  std::thread other([&] { happened.Notify(); });
  EXPECT_TRUE(happened.Wait());
  other.join();
  EXPECT_TRUE(happened.HasBeenNotified());
}

TEST(GateTest, HoldsThreadsUntilItIsOpened) {
  Gate gate;
  std::atomic<int> passed = 0;
  const auto pass = [&] {
    gate.Pass();
    ++passed;
  };
  std::thread one(pass);
  std::thread two(pass);
  EXPECT_TRUE(gate.WaitUntilReached(2));
  EXPECT_EQ(passed, 0);
  gate.Open();
  one.join();
  two.join();
  gate.Pass();  // stays open
  EXPECT_EQ(passed, 2);
}

}  // namespace
}  // namespace vextest
