#include "playd/player/worker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/testing/limits.h"

namespace playd {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

using vextest::kLimit;

TEST(WorkerTest, ReturnsTheOutcomeOfTheTask) {
  Worker worker([] {}, [] {});
  const Outcome outcome = worker.Run([] { return Outcome::Error(ErrorCode::kNoMedia, "none"); }, kLimit);
  EXPECT_EQ(outcome.code, ErrorCode::kNoMedia);
  EXPECT_EQ(outcome.text, "none");
}

TEST(WorkerTest, GivesUpOnATaskThatTakesTooLongAndSkipsWhatWaitsBehindIt) {
  std::atomic<bool> release{false};
  std::atomic<bool> ran{false};
  Worker worker([] {}, [] {});
  const auto hang = [&] {
    while (!release) std::this_thread::yield();
    return Outcome::Ok();
  };
  EXPECT_EQ(worker.Run(hang, milliseconds(50)).code, ErrorCode::kTimeout);
  const auto note = [&] {
    ran = true;
    return Outcome::Ok();
  };
  EXPECT_EQ(worker.Run(note, milliseconds(50)).code, ErrorCode::kBusy);
  release = true;
  EXPECT_TRUE(worker.Run([] { return Outcome::Ok(); }, kLimit).ok());
  EXPECT_FALSE(ran);
}

TEST(WorkerTest, RunsTheWakeAndTheStopFunction) {
  std::atomic<int> woken{0};
  std::atomic<int> stopped{0};
  {
    Worker worker([&] { ++woken; }, [&] { ++stopped; });
    worker.Wake();
    while (woken == 0) std::this_thread::yield();
  }
  EXPECT_EQ(stopped, 1);
}

TEST(WorkerTest, WakesAtTheTimeThatWasSetLast) {
  std::atomic<int> woken{0};
  Worker worker([&] { ++woken; }, [] {});
  const auto begin = std::chrono::steady_clock::now();
  worker.WakeAt(begin + std::chrono::hours(1));
  worker.WakeAt(begin + milliseconds(50));
  while (woken == 0) std::this_thread::yield();
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(50));
  EXPECT_TRUE(worker.Run([] { return Outcome::Ok(); }, kLimit).ok());
  EXPECT_EQ(woken, 1) << "once";
}

TEST(WorkerTest, RefusesTasksAfterStop) {
  Worker worker([] {}, [] {});
  worker.Stop();
  EXPECT_TRUE(worker.WaitStopped(kLimit));
  EXPECT_EQ(worker.Run([] { return Outcome::Ok(); }, kLimit).code, ErrorCode::kBusy);
}

TEST(WorkerTest, SaysWhetherItStoppedWithinTheLimit) {
  std::atomic<bool> release{false};
  Worker worker([] {}, [] {});
  const auto hang = [&] {
    while (!release) std::this_thread::yield();
    return Outcome::Ok();
  };
  EXPECT_EQ(worker.Run(hang, milliseconds(50)).code, ErrorCode::kTimeout);
  worker.Stop();
  EXPECT_FALSE(worker.WaitStopped(milliseconds(50)));
  release = true;
  EXPECT_TRUE(worker.WaitStopped(kLimit));
}

}  // namespace
}  // namespace playd
