#include "console/session/input/input_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

namespace cli::internal {
namespace {

using Posted = InputQueue::Posted;
using Kind = InputQueue::Work::Kind;

// A queue whose first lease was given back.
class InputQueueTest : public testing::Test {
 protected:
  InputQueueTest() {
    EXPECT_EQ(operator_.Next(false).kind, Kind::kNone);
    EXPECT_EQ(program_.Next(false).kind, Kind::kNone);
  }

  InputQueue operator_{InputQueue::Source::kOperator};
  InputQueue program_{InputQueue::Source::kProgram};
};

TEST_F(InputQueueTest, ItsOwnerHoldsTheLeaseFirst) {
  InputQueue queue(InputQueue::Source::kOperator);
  EXPECT_TRUE(queue.Leased());
  EXPECT_EQ(queue.PostBytes("typed early\n"), Posted::kWaits);
  EXPECT_EQ(queue.Next(false).bytes, "typed early\n");
}

TEST_F(InputQueueTest, TheLeaseGoesToWhoPostsFirst) {
  EXPECT_FALSE(operator_.Leased());
  EXPECT_EQ(operator_.PostBytes("a"), Posted::kLeased);
  EXPECT_TRUE(operator_.Leased());
  EXPECT_EQ(operator_.PostBytes("b"), Posted::kWaits);
  EXPECT_EQ(operator_.PostRedraw(), Posted::kWaits);
  EXPECT_EQ(operator_.PostTerminalChange({}), Posted::kWaits);
  EXPECT_EQ(operator_.PostEndOfInput(), Posted::kWaits);
}

TEST_F(InputQueueTest, TheHolderGetsAllThatWaitsAndGivesTheLeaseBackWithTheLastOfIt) {
  operator_.PostBytes("a");
  operator_.PostBytes("b");
  const auto work = operator_.Next(false);
  EXPECT_EQ(work.kind, Kind::kSome);
  EXPECT_EQ(work.bytes, "ab");
  EXPECT_FALSE(work.redraw);
  EXPECT_FALSE(work.terminal.has_value());
  EXPECT_EQ(operator_.Next(false).kind, Kind::kNone);
  EXPECT_FALSE(operator_.Leased());
}

TEST_F(InputQueueTest, BytesWaitUntilThoseBeforeThemAreRead) {
  operator_.PostBytes("one\ntwo\n");
  EXPECT_EQ(operator_.Next(false).bytes, "one\ntwo\n");
  operator_.PostBytes("three\n");
  const auto work = operator_.Next(true);
  EXPECT_EQ(work.kind, Kind::kSome);
  EXPECT_EQ(work.bytes, "");
  EXPECT_EQ(operator_.Next(false).bytes, "three\n");
}

TEST_F(InputQueueTest, UnreadBytesKeepTheLease) {
  operator_.PostBytes("one\ntwo\n");
  operator_.Next(false);
  EXPECT_EQ(operator_.Next(true).kind, Kind::kSome);
  EXPECT_TRUE(operator_.Leased());
}

TEST_F(InputQueueTest, ASenderIsStoppedAboveTheLimitAndResumedWhenItsBytesAreTaken) {
  program_.PostBytes("a");
  program_.Next(false);
  EXPECT_EQ(program_.PostBytes(std::string(InputQueue::kMaxQueued, 'x')), Posted::kWaits);
  EXPECT_EQ(program_.PostBytes("x"), Posted::kFull);
  EXPECT_FALSE(program_.Next(true).resume);
  const auto work = program_.Next(false);
  EXPECT_TRUE(work.resume);
  EXPECT_EQ(work.bytes.size(), InputQueue::kMaxQueued + 1);
  program_.PostBytes("x");
  EXPECT_FALSE(program_.Next(false).resume);
}

TEST_F(InputQueueTest, CtrlCDropsWhatWaitsBehindACommand) {
  operator_.PostBytes("one\ntwo\n");
  operator_.Next(false);
  operator_.PostBytes("three\n");
  operator_.PostBytes(
      "four\n\x03"
      "five\n");
  const auto work = operator_.Next(true);
  EXPECT_TRUE(work.drop_unread);
  EXPECT_EQ(work.bytes,
            "\x03"
            "five\n");
  EXPECT_FALSE(operator_.Next(false).drop_unread);
}

TEST_F(InputQueueTest, CtrlCIsAKeyWhileALineIsTyped) {
  operator_.PostBytes("half\x03");
  const auto work = operator_.Next(false);
  EXPECT_FALSE(work.drop_unread);
  EXPECT_EQ(work.bytes, "half\x03");
}

TEST_F(InputQueueTest, CtrlCGivesUpTheLineThatRuns) {
  operator_.PostBytes("one\n");
  operator_.Next(false);
  const std::stop_token given_up = operator_.BeginLine();
  EXPECT_FALSE(given_up.stop_requested());
  operator_.PostBytes("typed ahead");
  EXPECT_FALSE(given_up.stop_requested());
  operator_.PostBytes("\x03next\n");
  EXPECT_TRUE(given_up.stop_requested());
  operator_.EndLine();
  const auto work = operator_.Next(true);
  EXPECT_TRUE(work.drop_unread);
  EXPECT_EQ(work.bytes, "next\n");  // the key itself is used up
}

TEST_F(InputQueueTest, CtrlCAloneDropsTheLinesThatWereReadToo) {
  operator_.PostBytes("one\ntwo\n");
  operator_.Next(false);
  operator_.BeginLine();
  operator_.PostBytes("\x03");
  operator_.EndLine();
  const auto work = operator_.Next(true);
  EXPECT_EQ(work.kind, Kind::kSome);
  EXPECT_TRUE(work.drop_unread);
  EXPECT_EQ(operator_.Next(false).kind, Kind::kNone);
}

TEST_F(InputQueueTest, ALineThatWasReadBeforeTheCtrlCIsNotToBeRun) {
  operator_.PostBytes("one\n");
  operator_.Next(false);
  operator_.PostBytes("\x03");
  EXPECT_TRUE(operator_.BeginLine().stop_requested());
  operator_.EndLine();
  operator_.PostBytes("two\n");
  operator_.Next(false);
  EXPECT_FALSE(operator_.BeginLine().stop_requested());
}

TEST_F(InputQueueTest, CtrlCBetweenTwoLinesIsAKey) {
  operator_.PostBytes("one\n");
  operator_.Next(false);
  const std::stop_token given_up = operator_.BeginLine();
  operator_.EndLine();
  operator_.PostBytes("\x03");
  EXPECT_FALSE(given_up.stop_requested());
  EXPECT_EQ(operator_.Next(false).bytes, "\x03");
}

TEST_F(InputQueueTest, AProgramsCtrlCGivesNothingUp) {
  program_.PostBytes("one\n");
  program_.Next(false);
  const std::stop_token given_up = program_.BeginLine();
  program_.PostBytes("\x03");
  EXPECT_FALSE(given_up.stop_requested());
  EXPECT_TRUE(program_.GiveUpLine());  // it has other ways
  EXPECT_TRUE(given_up.stop_requested());
  program_.EndLine();
  EXPECT_FALSE(program_.GiveUpLine());
}

TEST_F(InputQueueTest, CtrlCOfAProgramDropsNothingThatWaits) {
  program_.PostBytes("one\n");
  program_.Next(false);
  program_.PostBytes("two\n\x03");
  const auto work = program_.Next(true);
  EXPECT_FALSE(work.drop_unread);
  EXPECT_EQ(program_.Next(false).bytes, "two\n\x03");
}

TEST_F(InputQueueTest, ChangesOfTheTerminalAddUp) {
  EXPECT_EQ(operator_.PostTerminalChange({.display = LineEditor::Display::kFull}), Posted::kLeased);
  operator_.PostTerminalChange({.columns = 100, .rows = 30});
  operator_.PostTerminalChange({.hidden = true});
  operator_.PostTerminalChange({.columns = 0, .rows = 0});  // a size that is not known
  const auto work = operator_.Next(false);
  ASSERT_TRUE(work.terminal.has_value());
  EXPECT_EQ(work.terminal->display, LineEditor::Display::kFull);
  EXPECT_EQ(work.terminal->columns, 100);
  EXPECT_EQ(work.terminal->rows, 30);
  EXPECT_TRUE(work.terminal->hidden);
  EXPECT_EQ(operator_.Next(false).kind, Kind::kNone);
}

TEST_F(InputQueueTest, ARedrawIsAskedForOnce) {
  EXPECT_EQ(operator_.PostRedraw(), Posted::kLeased);
  operator_.PostRedraw();
  EXPECT_TRUE(operator_.Next(false).redraw);
  EXPECT_EQ(operator_.Next(false).kind, Kind::kNone);
}

TEST_F(InputQueueTest, TheEndOfInputEndsAnOperatorsSessionWithItsLineUnrun) {
  operator_.PostBytes("half a line");
  operator_.Next(false);
  operator_.PostEndOfInput();
  EXPECT_FALSE(operator_.Ended());
  EXPECT_EQ(operator_.Next(false).kind, Kind::kEnd);
  EXPECT_TRUE(operator_.Ended());
  EXPECT_EQ(operator_.Next(false).kind, Kind::kNone);
}

TEST_F(InputQueueTest, TheEndOfInputEndsAProgramsLastLineOnceAndThenTheSession) {
  EXPECT_EQ(program_.PostEndOfInput(), Posted::kLeased);
  EXPECT_EQ(program_.Next(false).bytes, "\n");
  EXPECT_EQ(program_.Next(false).kind, Kind::kEnd);
}

TEST_F(InputQueueTest, TheEndOfInputWaitsForWhatIsUnread) {
  program_.PostBytes("one\ntwo\n");
  program_.Next(false);
  program_.PostEndOfInput();
  const auto work = program_.Next(true);
  EXPECT_EQ(work.kind, Kind::kSome);
  EXPECT_EQ(work.bytes, "");
  EXPECT_FALSE(program_.Ended());
}

TEST_F(InputQueueTest, FinishDropsWhatWaitsAndSaysItsFarewellOnce) {
  operator_.PostBytes("one\n");
  operator_.Next(false);
  operator_.PostBytes("two\n");
  EXPECT_EQ(operator_.PostFinish("Bye.\n"), Posted::kWaits);
  EXPECT_TRUE(operator_.Ended());
  const auto work = operator_.Next(true);
  EXPECT_EQ(work.kind, Kind::kEnd);
  EXPECT_EQ(work.farewell, "Bye.\n");
  EXPECT_TRUE(operator_.Leased());  // while the end is being told
  EXPECT_EQ(operator_.Next(true).kind, Kind::kNone);
  EXPECT_FALSE(operator_.Leased());
}

TEST_F(InputQueueTest, ASessionThatEndedBeforeSaysNoFarewell) {
  operator_.PostBytes("exit\n");
  operator_.Next(false);
  operator_.End();
  operator_.PostFinish("Bye.\n");
  const auto work = operator_.Next(false);
  EXPECT_EQ(work.kind, Kind::kEnd);
  EXPECT_EQ(work.farewell, "");
}

TEST_F(InputQueueTest, TheEndIsToldOnce) {
  EXPECT_EQ(operator_.PostFinish("Bye.\n"), Posted::kLeased);
  EXPECT_EQ(operator_.Next(false).kind, Kind::kEnd);
  EXPECT_EQ(operator_.Next(false).kind, Kind::kNone);
  EXPECT_EQ(operator_.PostFinish("Bye.\n"), Posted::kLeased);
  EXPECT_EQ(operator_.Next(false).kind, Kind::kNone);
}

TEST_F(InputQueueTest, AnEndedSessionTakesNoBytes) {
  operator_.End();
  EXPECT_EQ(operator_.PostBytes(std::string(InputQueue::kMaxQueued + 1, 'x')), Posted::kWaits);
  EXPECT_FALSE(operator_.Leased());
}

// Each byte is seen once and in order, and one thread at a time works.
TEST_F(InputQueueTest, ThreadsThatPostTakeTurnsWithTheLease) {
  constexpr int kThreads = 4;
  constexpr int kBytes = 2000;
  std::atomic<int> holders{0};
  std::vector<int> seen(kThreads, 0);  // the lease holder's: no lock
  const auto work = [&] {
    for (auto next = program_.Next(false); next.kind == Kind::kSome; next = program_.Next(false)) {
      EXPECT_EQ(++holders, 1);
      for (const char c : next.bytes) ++seen[static_cast<std::size_t>(c - 'a')];
      --holders;
    }
  };
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      const std::string byte(1, static_cast<char>('a' + i));
      for (int n = 0; n < kBytes; ++n) {
        if (program_.PostBytes(byte) == Posted::kLeased) work();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(program_.Leased());
  EXPECT_EQ(seen, std::vector<int>(kThreads, kBytes));
}

}  // namespace
}  // namespace cli::internal
