#include "console/transport/output_tick.h"

#include "platform/klbase/testing/console_test.h"
#include "platform/klbase/testing/fake_connection.h"

namespace cli::internal {
namespace {

class OutputTickTest : public ::testing::Test {
 protected:
  void AwaitTick() { EXPECT_EQ(io_.run_one_for(kLimit), 1U); }

  asio::io_context io_;
  ServedConnections open_;
  OutputTick tick_{io_, open_};
};

TEST_F(OutputTickTest, OutputIsWrittenAgainAndAgainWhileACommandRuns) {
  const auto busy = FakeConnection::In(open_);
  busy->command_running = true;
  tick_.Start();
  for (int i = 0; i < 3; ++i) AwaitTick();
  EXPECT_EQ(busy->flushes, 3);
}

TEST_F(OutputTickTest, ATickTakesItsTime) {
  FakeConnection::In(open_)->command_running = true;
  const auto began = std::chrono::steady_clock::now();
  tick_.Start();
  AwaitTick();
  EXPECT_GE(std::chrono::steady_clock::now() - began, OutputTick::kPeriod);
}

TEST_F(OutputTickTest, ConnectionsWithoutACommandAreLeftAlone) {
  FakeConnection::In(open_)->command_running = true;
  const auto idle = FakeConnection::In(open_);
  tick_.Start();
  AwaitTick();
  EXPECT_EQ(idle->flushes, 0);
}

TEST_F(OutputTickTest, NothingTicksWhenNoCommandRuns) {
  const auto idle = FakeConnection::In(open_);
  tick_.Start();
  EXPECT_EQ(io_.run_for(kLimit), 1U);
  EXPECT_TRUE(io_.stopped());
  EXPECT_EQ(idle->flushes, 0);
}

TEST_F(OutputTickTest, ItTicksAgainForTheNextCommand) {
  const auto connection = FakeConnection::In(open_);
  tick_.Start();
  io_.run_for(kLimit);
  io_.restart();
  connection->command_running = true;
  tick_.Start();
  AwaitTick();
  EXPECT_EQ(connection->flushes, 1);
}

TEST_F(OutputTickTest, ASecondCommandDoesNotDelayTheTick) {
  tick_.Start();
  tick_.Start();
  EXPECT_EQ(io_.run_for(kLimit), 1U);  // a second wait would have ended the first
}

}  // namespace
}  // namespace cli::internal
