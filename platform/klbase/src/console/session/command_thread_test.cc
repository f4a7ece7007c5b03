#include "console/session/command_thread.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "absl/synchronization/mutex.h"
#include "platform/klbase/testing/console_test.h"

namespace cli::internal {
namespace {

class RecordingHost : public CommandThread::Host {
 public:
  void RunLines(std::string line) override {
    if (on_line) on_line();
    absl::MutexLock lock(&mutex_);
    lines_.push_back(std::move(line));
  }
  void ThreadEnded() override { ++endings; }

  std::vector<std::string> Lines() const {
    absl::MutexLock lock(&mutex_);
    return lines_;
  }
  bool WaitForLines(std::size_t count) const {
    return WaitFor([this, count] { return Lines().size() == count; });
  }

  std::function<void()> on_line;  // on the thread
  std::atomic<int> endings{0};

 private:
  mutable absl::Mutex mutex_;
  std::vector<std::string> lines_ ABSL_GUARDED_BY(mutex_);
};

class CommandThreadTest : public testing::Test {
 protected:
  // Ends the thread, where there is one.
  void End() {
    thread_.Close();
    EXPECT_TRUE(WaitFor([this] { return thread_.Done(); }));
    thread_.Join();
  }

  const std::shared_ptr<RecordingHost> host_ = std::make_shared<RecordingHost>();
  CommandThread thread_{7};
};

TEST_F(CommandThreadTest, ThereIsNoThreadBeforeTheFirstLine) {
  EXPECT_FALSE(thread_.Running());
  EXPECT_FALSE(thread_.Done());
  thread_.Close();
  EXPECT_TRUE(thread_.Done());
  EXPECT_EQ(host_->endings, 0);
}

TEST_F(CommandThreadTest, LinesRunOnOneThread) {
  std::vector<std::thread::id> ids;
  host_->on_line = [&ids] { ids.push_back(std::this_thread::get_id()); };
  ASSERT_TRUE(thread_.Post("one", host_));
  ASSERT_TRUE(host_->WaitForLines(1));
  ASSERT_TRUE(thread_.Post("two", host_));
  ASSERT_TRUE(host_->WaitForLines(2));
  EXPECT_TRUE(thread_.Running());
  End();
  EXPECT_EQ(host_->Lines(), (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(ids.at(0), ids.at(1));
  EXPECT_NE(ids.at(0), std::this_thread::get_id());
}

TEST_F(CommandThreadTest, TheEndIsToldOnceAndAfterTheLineUnderWay) {
  Gate gate;
  host_->on_line = [&gate] { gate.Pass(); };
  ASSERT_TRUE(thread_.Post("slow", host_));
  ASSERT_TRUE(gate.WaitUntilReached());
  thread_.Close();
  EXPECT_FALSE(thread_.Done());
  EXPECT_EQ(host_->endings, 0);
  gate.Open();
  End();
  EXPECT_EQ(host_->Lines(), std::vector<std::string>{"slow"});
  EXPECT_EQ(host_->endings, 1);
  EXPECT_FALSE(thread_.Running());
}

TEST_F(CommandThreadTest, ALineThatWasNotBegunIsDroppedByTheClose) {
  Gate gate;
  host_->on_line = [&gate] { gate.Pass(); };
  ASSERT_TRUE(thread_.Post("one", host_));
  ASSERT_TRUE(gate.WaitUntilReached());
  ASSERT_TRUE(thread_.Post("two", host_));
  thread_.Close();
  gate.Open();
  End();
  EXPECT_EQ(host_->Lines(), std::vector<std::string>{"one"});
}

TEST_F(CommandThreadTest, TheThreadKnowsItself) {
  std::atomic<bool> current{false};
  host_->on_line = [this, &current] { current = thread_.IsCurrent(); };
  ASSERT_TRUE(thread_.Post("one", host_));
  ASSERT_TRUE(host_->WaitForLines(1));
  EXPECT_TRUE(current);
  EXPECT_FALSE(thread_.IsCurrent());
  End();
}

TEST_F(CommandThreadTest, TheThreadBlocksTheInterruptSignalAndItsStarterDoesNot) {
  std::atomic<bool> blocked{false};
  const auto blocks_sigint = [] {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, SIGINT) == 1;
  };
  host_->on_line = [&] { blocked = blocks_sigint(); };
  ASSERT_TRUE(thread_.Post("one", host_));
  ASSERT_TRUE(host_->WaitForLines(1));
  EXPECT_TRUE(blocked);
  EXPECT_FALSE(blocks_sigint());
  End();
}

TEST_F(CommandThreadTest, TheThreadKeepsItsHost) {
  auto host = std::make_shared<RecordingHost>();
  const std::weak_ptr<RecordingHost> weak = host;
  ASSERT_TRUE(thread_.Post("one", host));
  ASSERT_TRUE(host->WaitForLines(1));
  host.reset();
  EXPECT_FALSE(weak.expired());
  End();
  EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace cli::internal
