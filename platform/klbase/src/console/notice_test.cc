#include "cli/notice.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "platform/klbase/testing/console_test.h"

namespace cli::internal {
namespace {

constexpr char kClientAgrees[] = "\xff\xfd\x01\xff\xfd\x03";  // DO ECHO, DO SGA

class NoticeTest : public ::testing::Test {
 protected:
  NoticeTest() {
    options_.sniff = 300ms;  // on a loaded machine some time passes before a program that has connected sends
    auto root = std::make_unique<Menu>("main");
    root->Insert(MakeCommand(
        "wait", [gate = gate_](std::ostream&) { gate->Pass(); }, ""));
    console_ = MakeConsole(std::move(root), options_);
  }
  ~NoticeTest() override { gate_->Open(); }

  // At the first prompt.
  TestClient Operator(int receive_buffer = 0) {
    TestClient client(console_->Port(), receive_buffer);
    client.ReceiveUntil("main> ");
    client.Send(kClientAgrees);
    client.ReceiveUntil("main> ");
    return client;
  }

  ConsoleOptions options_;
  const std::shared_ptr<Gate> gate_ = std::make_shared<Gate>();
  std::unique_ptr<Console> console_;
};

TEST_F(NoticeTest, EveryOperatorSeesItAboveTheTypedLine) {
  TestClient first = Operator();
  TestClient second = Operator();
  first.Send("wai");
  first.ReceiveUntil("wai");
  PostNotice("3 events were missed");
  EXPECT_NE(first.ReceiveUntil("wai").find("3 events were missed\r\n"), std::string::npos);
  second.ReceiveUntil("3 events were missed\r\n");
  second.ReceiveUntil("main> ");
}

TEST_F(NoticeTest, ItIsOneCleanLine) {
  TestClient client = Operator();
  PostNotice("one\ntwo\x1b[2J");
  EXPECT_EQ(client.ReceiveUntil("[2J\r\n").find('\x1b', 10), std::string::npos);
  PostNotice("three\nfour");
  client.ReceiveUntil("three four\r\n");
}

TEST_F(NoticeTest, AProgramGetsNone) {
  TestClient program(console_->Port());
  program.Send("wait\n");
  ASSERT_TRUE(gate_->WaitUntilReached());
  PostNotice("3 events were missed");
  gate_->Open();
  program.EndSending();
  EXPECT_EQ(program.ReceiveAll(), "");
}

TEST_F(NoticeTest, AnOperatorWhoReadsNothingHoldsNobodyUpAndGetsNoEndlessRest) {
  TestClient silent = Operator(4096);
  TestClient other = Operator();
  const std::string filler(1000, 'x');
  constexpr int kNotices = 20'000;
  for (int i = 0; i < kNotices; ++i) {
    PostNotice(std::to_string(i) + " " + filler);
    if (i % 100 == 99) other.ReceiveUntil(std::to_string(i) + " xx");
  }
  silent.Send("exit\n");
  const std::size_t got = silent.ReceiveAll().size();
  EXPECT_GT(got, 0u);
  EXPECT_LT(got, kNotices * filler.size() / 2);
}

TEST(NoticeWithoutAConsoleTest, NothingHappens) { PostNotice("nobody"); }

}  // namespace
}  // namespace cli::internal
