#include "console/transport/drain.h"

#include "platform/klbase/testing/console_test.h"
#include "platform/klbase/testing/fake_connection.h"

namespace cli::internal {
namespace {

class DrainTest : public ::testing::Test {
 protected:
  void Begin(std::chrono::milliseconds patience) {
    drain_.emplace(io_, open_, patience);
    drain_->Begin();
  }
  // Lets the readers' time pass once.
  void AwaitReaders() { EXPECT_EQ(io_.run_one_for(kLimit), 1U); }
  bool NothingIsAwaited() { return io_.run_for(kLimit), io_.stopped(); }

  asio::io_context io_;
  ServedConnections open_;
  std::optional<Drain> drain_;
};

TEST_F(DrainTest, EachConnectionIsToldThatTheConsoleEnds) {
  const auto one = FakeConnection::In(open_);
  const auto other = FakeConnection::In(open_);
  Begin(kLimit);
  EXPECT_EQ(one->farewell, "The console ends.\n");
  EXPECT_EQ(other->farewell, "The console ends.\n");
}

TEST_F(DrainTest, ReadersGetTheirTime) {
  const auto reader = FakeConnection::In(open_);
  Begin(kLimit);
  io_.poll();
  EXPECT_EQ(reader->aborted_for, "");
}

TEST_F(DrainTest, AReaderWhoseTimeIsOverIsClosed) {
  const auto reader = FakeConnection::In(open_);
  Begin(1ms);
  AwaitReaders();
  EXPECT_EQ(reader->aborted_for, "the console ends");
  EXPECT_TRUE(NothingIsAwaited());
}

TEST_F(DrainTest, AConnectionIsKeptAsLongAsItsCommandRuns) {
  const auto busy = FakeConnection::In(open_);
  busy->command_running = true;
  Begin(1ms);
  for (int i = 0; i < 3; ++i) AwaitReaders();
  EXPECT_EQ(busy->aborted_for, "");
  busy->command_running = false;
  AwaitReaders();
  EXPECT_EQ(busy->aborted_for, "the console ends");
  EXPECT_TRUE(NothingIsAwaited());
}

TEST_F(DrainTest, ACommandIsNotHeardByAReaderThatTakesNothing) {
  const auto slow = FakeConnection::In(open_);
  const auto stuck = FakeConnection::In(open_);
  slow->command_running = stuck->command_running = true;
  slow->stalled_for = 9ms;
  stuck->stalled_for = 10ms;
  Begin(10ms);
  AwaitReaders();
  EXPECT_EQ(slow->aborted_for, "");
  EXPECT_EQ(stuck->aborted_for, "the console ends");
}

TEST_F(DrainTest, ConnectionsThatCloseByThemselvesAreNotAborted) {
  const auto quick = FakeConnection::In(open_);
  quick->closes_when_finished = true;
  Begin(1ms);
  AwaitReaders();
  EXPECT_EQ(quick->aborted_for, "");
  EXPECT_TRUE(NothingIsAwaited());
}

}  // namespace
}  // namespace cli::internal
