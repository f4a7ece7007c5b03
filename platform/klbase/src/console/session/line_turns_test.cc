#include "console/session/line_turns.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "platform/testing/sync.h"

namespace cli::internal {
namespace {

using std::chrono::hours;
using vextest::Watched;

using Turns = std::vector<std::unique_ptr<LineTurns::Turn>>;

Turns TakeAll(LineTurns& turns) {
  Turns taken;
  for (std::size_t i = 0; i < LineTurns::kAtOnce; ++i) taken.push_back(std::make_unique<LineTurns::Turn>(turns));
  return taken;
}

// Threads that ask for a turn one after the other.
class Asking {
 public:
  explicit Asking(LineTurns& turns) : turns_(turns) {}
  ~Asking() {
    for (std::thread& thread : threads_) thread.join();
  }

  // Returns when the thread waits.
  void Ask() {
    std::atomic<pid_t> id{0};
    threads_.emplace_back([this, number = static_cast<int>(threads_.size()), &id] {
      id = gettid();
      const LineTurns::Turn turn(turns_);
      order_.Update([number](std::vector<int>& list) { list.push_back(number); });
    });
    EXPECT_TRUE(vextest::WaitFor([&id] { return id != 0 && vextest::ThreadSleeps(id); }));
  }
  std::vector<int> Order() const { return order_.Get(); }
  bool AllHadTheirs() const {
    return order_.WaitFor([this](const std::vector<int>& list) { return list.size() == threads_.size(); });
  }

 private:
  LineTurns& turns_;
  std::vector<std::thread> threads_;
  Watched<std::vector<int>> order_;
};

TEST(LineTurnsTest, AFewAreGivenAtOnceAndAgainWhenTheyAreBack) {
  LineTurns turns{hours(1)};
  for (int i = 0; i < 3; ++i) EXPECT_EQ(TakeAll(turns).size(), LineTurns::kAtOnce);
}

TEST(LineTurnsTest, TheOthersHaveTheirsInTheOrderInWhichTheyAskedForThem) {
  LineTurns turns{hours(1)};
  Turns taken = TakeAll(turns);
  Asking asking(turns);
  for (int i = 0; i < 10; ++i) asking.Ask();
  EXPECT_TRUE(asking.Order().empty());
  taken.pop_back();  // from now on there is one at a time
  EXPECT_TRUE(asking.AllHadTheirs());
  EXPECT_EQ(asking.Order(), (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST(LineTurnsTest, ALineThatWaitsForADaemonHoldsNobodyUp) {
  LineTurns turns{std::chrono::milliseconds(1)};
  const Turns first = TakeAll(turns);
  const Turns beside = TakeAll(turns);
}

TEST(LineTurnsTest, ALineThatTookLongerTakesNothingFromOthersWhenItEnds) {
  constexpr auto kLength = std::chrono::milliseconds(100);
  LineTurns turns{kLength};
  const auto start = LineTurns::Clock::now();
  Turns first = TakeAll(turns);
  const Turns beside = TakeAll(turns);
  first.clear();
  const Turns third = TakeAll(turns);
  EXPECT_GE(LineTurns::Clock::now() - start, 2 * kLength);
}

}  // namespace
}  // namespace cli::internal
